#ifndef SOCKETCONNECTION_H
#define SOCKETCONNECTION_H

#include "socket.h"
#include "socketargument.h"

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QTimer>

class SocketConnection;

// Signatures in the framework's normal form (QMetaObject::normalizedSignature),
// each text normalised once: a service's signals go out, and come in, under a
// few texts again and again.
class NormalizedSignatures
{
public:
    QByteArray get(const char* signature);

private:
    // A peer that sends ever new names only makes the cache start again.
    static constexpr int MaxEntries = 64;
    QHash<QByteArray, QByteArray> normalized;
};

// What the parser hands out. The RPC server and the RPC client each implement
// the part they expect; the defaults drop the message.
//
// During a callback the message's data stay readable on the connection
// (getMethodName(), getQueryId(), getMessageType(), getParsedValueCount(),
// getParsedValue(), getSignature()); the parser resets them when the callback
// returns. A callback that parses again on the same connection (a blocking
// call that waits on it) must copy what it keeps first.
class SocketMessageReceiver
{
public:
    virtual ~SocketMessageReceiver();

    // Server side: a complete call with at most 10 values. Message types 0
    // (with return) and 1, and any other type that is not a subscription or a
    // client name, arrive here. urgent: the client announced itself as "rpc".
    virtual void callReceived(SocketConnection* connection, bool urgent);
    // Server side: a call with return that was dropped (broken, or with too
    // many values) or did not arrive completely in time; it is to be answered
    // failed.
    virtual void callDropped(SocketConnection* connection, quint16 queryId);
    // Server side: a signal subscription; the signature is the value read with
    // toString8().
    virtual void subscriptionReceived(SocketConnection* connection, const QByteArray& signature);
    // Client side: a return value. value is null when the call failed or when
    // the end tag came in place of a value; otherwise it points to the parsed
    // value, valid during the callback.
    virtual void returnValueReceived(SocketConnection* connection, quint16 queryId, bool success,
                                     const SocketArgument* value);
    // Client side: a complete signal (every type other than a return value).
    virtual void signalReceived(SocketConnection* connection);
};

// One end of an RPC stream between two backend processes: the owned transport,
// the receive buffer and the incremental parser, and the writers with which
// the RPC server and client put messages on the stream.
//
// A message is the sync word 45 BF D7 A3, a type byte and the fields of its
// type. The parser resumes field by field however the bytes are split; bytes
// before a sync word are skipped, and after a broken message it searches for
// the next sync word. Consumed bytes are dropped from the receive buffer in
// bulk, so parsing costs time linear in the bytes received.
//
// A peer that sends a message over MaxMessageBytes, or one that decodes to more
// than SocketArgument::MaxDecodedElements elements, is dropped: one error line
// names it, the socket is aborted and nothing more is parsed.
class SocketConnection : public QObject
{
    Q_OBJECT

public:
    enum SocketType { LocalSocketType = 0, TcpSocketType = 1 };
    enum MessageType : quint8 {
        CallWithReturnMessage = 0,
        CallWithoutReturnMessage = 1,
        SignalMessage = 2,
        ReturnValueMessage = 3,
        SubscriptionMessage = 4,
        ClientNameMessage = 5,
    };
    enum ParserSide { ServerSide, ClientSide };

    static constexpr quint32 MagicNumber = 0xA3D7BF45;
    // Values one message may carry to the parser; a further value breaks it.
    static constexpr int MaxParsedValues = 32;
    // Values a call may carry to a slot; a call with more is dropped.
    static constexpr int MaxCallValues = 10;
    static constexpr int DefaultInvokeTimeoutMs = 5000;
    // Bytes of one message, from its sync word to its end. Far above what any
    // backend message needs, far below what would hurt the device.
    static constexpr int MaxMessageBytes = 16 * 1024 * 1024;
    // Longest wait for written bytes to leave, per wait.
    static constexpr int WriteWaitMs = 120000;

    // Creates and owns a LocalSocket (0) or TcpSocket (1), not yet connected.
    // Any other type logs "invalid socket type" and leaves no socket.
    explicit SocketConnection(SocketType type, QObject* parent = nullptr);
    // Takes over a socket, as a server's nextPendingConnection() delivers it.
    explicit SocketConnection(Socket* socket, QObject* parent = nullptr);
    ~SocketConnection() override;

    Socket* getSocket() const { return socket; }
    // Unique in the process, counted from 0.
    qint32 getConnectionNumber() const { return connectionNumber; }
    // The name the client announced on this connection.
    QByteArray getClientName() const { return clientName; }
    // "connection N (peer name, pid P)" for log lines; the process id where
    // the kernel tells it (local sockets).
    QString describe() const;

    // Logs one error line naming the peer and the reason, stops parsing and
    // aborts the socket (disconnected() follows, usually from inside the
    // call). Later bytes are ignored.
    void dropForLimit(const QString& reason);
    bool isDropped() const { return dropped; }

    // --- Receiving

    // Appends bytes read from the socket to the receive buffer.
    void appendReceivedData(const QByteArray& bytes);
    // Reads everything the socket has received straight onto the end of the
    // receive buffer.
    void readReceivedData();
    // Parses the receive buffer as far as it goes, as the server or the client
    // reads the stream, and hands every completed message to receiver (may be
    // null). Client-name announcements are taken here. On the server side the
    // invoke timer runs for a call with return that has come as far as its name
    // but not to its end tag, from the end of the pass that read its name.
    // Broken messages are logged and skipped. receiver may destroy this
    // connection only by deleteLater().
    void parseReceivedData(ParserSide side, SocketMessageReceiver* receiver);
    // The bytes received and not yet consumed.
    QByteArray unparsedData() const;
    int unparsedSize() const { return receiveBuffer.size() - readOffset; }

    // Drops the values of the current message and searches for the next sync
    // word. The method name and the query id stay.
    void resetParser();
    // method name "(" type strings joined by "," ")", e.g. setValue(QString,int).
    QByteArray getSignature() const;
    // One error line: the method name, the number of values parsed so far and
    // the message's bytes consumed so far in hexadecimal.
    void dumpParsingState() const;

    QByteArray getMethodName() const { return methodName; }
    quint16 getQueryId() const { return queryId; }
    quint8 getMessageType() const { return messageType; }
    int getParsedValueCount() const { return parsedValueCount; }
    // During a callback: the message's bytes on the wire and the elements its
    // values decoded to.
    int getMessageSize() const { return readOffset - messageStart; }
    int getMessageElements() const { return SocketArgument::MaxDecodedElements - elementBudget; }
    // index must be below getParsedValueCount().
    const SocketArgument& getParsedValue(int index) const { return parsedValues[index]; }

    // --- Invoke timer: invokeTimeout() when a call with return does not
    // complete in time. It runs only while that call is being parsed: every
    // end of the message (complete, broken, dropped) stops it, so it never
    // fires for another message.

    void startInvokeTimeout(int ms);
    void stopInvokeTimeout();
    // The time the parser gives a call with return; DefaultInvokeTimeoutMs.
    void setInvokeTimeoutInterval(int ms) { invokeTimeoutInterval = ms; }
    int getInvokeTimeoutInterval() const { return invokeTimeoutInterval; }

    // --- Writing. The field writers write straight to the socket and return
    // false at the first field that fails; the message writers build the whole
    // message and write it at once. The caller then flushes.

    // All bytes, waiting for the socket to take them when it takes only a part.
    // False with "socket write error:" when the socket fails.
    bool writeData(const char* data, qint64 length);
    // The text's characters without its NUL.
    bool writeData(const char* text);
    bool writeValue(qint8 value);
    bool writeValue(quint8 value);
    bool writeValue(qint16 value);
    bool writeValue(quint16 value);
    bool writeValue(qint32 value);
    bool writeValue(quint32 value);
    bool writeValue(qint64 value);
    bool writeValue(quint64 value);
    bool writeValue(double value);
    bool writeValue(const InternalId& value);
    // A value: its tag and body. An invalid argument is the bare tag 0.
    bool writeParameter(const SocketArgument& argument);
    // The entries (key and nested value) of a variant map, and the values of a
    // variant list, each nested value written from its QVariant type: a QString
    // travels as a QByteArray; a type without a wire form is logged with
    // "WRITE invalid QVariantMap value from type" and left out. success is what
    // was written before; the result is the combined success.
    bool writeNestedVariantMapValues(bool success, const QVariantMap& map);
    bool writeNestedVariantListValues(bool success, const QVariantList& list);

    // Whole messages. Argument lists end at their first null or invalid entry.
    // type is CallWithReturnMessage (with the query id) or
    // CallWithoutReturnMessage (without).
    bool writeCall(MessageType type, quint16 queryId, const char* method,
                   const QList<const SocketArgument*>& arguments);
    bool writeSignal(const char* name, const QList<const SocketArgument*>& arguments);
    // value is written on success only; null or invalid: the bare tag 0.
    bool writeReturnValue(quint16 queryId, bool success, const SocketArgument* value);
    bool writeSubscription(const QByteArray& signature);
    bool writeClientName(const QByteArray& name);

    // Hands the socket's outgoing bytes to the kernel and waits for those it
    // does not take at once; false when a wait of up to ms passes without
    // any of them leaving.
    bool flush(int ms);

    // A whole message, without waiting (the server's way of writing): what
    // the kernel does not take at once stays in the socket's output buffer
    // and leaves from the event loop. False when the socket has failed or gone.
    bool queueMessage(const QByteArray& message);
    // Bytes written and not yet taken by the kernel.
    qint64 pendingOutput() const { return socket ? socket->bytesToWrite() : 0; }

    // The same bytes as the writers, appended to an array.
    static void appendValue(QByteArray& array, qint8 value);
    static void appendValue(QByteArray& array, quint8 value);
    static void appendValue(QByteArray& array, qint16 value);
    static void appendValue(QByteArray& array, quint16 value);
    static void appendValue(QByteArray& array, qint32 value);
    static void appendValue(QByteArray& array, quint32 value);
    static void appendValue(QByteArray& array, qint64 value);
    static void appendValue(QByteArray& array, quint64 value);
    static void appendValue(QByteArray& array, double value);
    static void appendValue(QByteArray& array, const InternalId& value);
    static void appendParameter(QByteArray& array, const SocketArgument& argument);
    // Whole messages, the same bytes as writeReturnValue and writeSignal.
    static void appendReturnValue(QByteArray& array, quint16 queryId, bool success, const SocketArgument* value);
    static void appendSignal(QByteArray& array, const QByteArray& name, const QList<const SocketArgument*>& arguments);

signals:
    void invokeTimeout();

private:
    enum ParserState : qint32 {
        StateSyncWord = 0,
        StateMessageType = 1,
        StateQueryId = 2,
        StateMethodName = 3,
        StateSubscriptionValue = 4,
        StateClientNameValue = 5,
        StateRpcSuccess = 6,
        StateValueTag = 7,
        StateValueBody = 8,
    };
    // What one step of the parse loop left behind.
    enum StepOutcome { StepContinue, StepNeedMore, StepDestroyed };

    void init();
    StepOutcome serverStep(SocketMessageReceiver* receiver);
    StepOutcome clientStep(SocketMessageReceiver* receiver);
    // Field steps: true when the field was complete and consumed.
    bool parseSyncWord(const char* data, int& pos, int end);
    bool parseMessageType(const char* data, int& pos, int end);
    bool parseRpcSuccess(const char* data, int& pos, int end);
    bool parseQueryId(const char* data, int& pos, int end);
    bool parseMethodName(const char* data, int& pos, int end);
    // Value steps: SocketArgument::ParseResult.
    int parseValueType(const char* data, int& pos, int end);
    int parseNextValue(const char* data, int& pos, int end);
    void beginMessage();
    void dropBrokenMessage();
    // A broken call with return is answered failed at once.
    void dropBrokenCall(SocketMessageReceiver* receiver);
    // A broken return value is delivered as failed.
    StepOutcome dropBrokenReturn(SocketMessageReceiver* receiver);
    StepOutcome dropOverLimit(const QString& reason);
    // What the value being parsed may still take of the message's bytes.
    qint64 bodyLimit(int pos) const;
    template <typename Callback>
    StepOutcome deliver(Callback callback);
    void compactReceiveBuffer();
    template <typename T>
    bool writeNumber(T value);
    // Writes what build(sink) puts into a sink, in one write; nothing when
    // build fails.
    template <typename Build>
    bool writeMessage(Build build);

    QByteArray methodName;
    QByteArray previousMethodName;
    QByteArray receiveBuffer;
    QByteArray clientName;
    qint32 state = StateSyncWord;
    quint8 valueTag = 0;
    quint16 queryId = 0;
    qint32 parsedValueCount = 0;
    quint8 messageType = 0;
    bool success = false;
    SocketArgument parsedValues[MaxParsedValues];
    QTimer* invokeTimer = nullptr;
    qint32 connectionNumber = 0;
    QPointer<Socket> socket;

    // Where the parser stands in receiveBuffer: bytes before readOffset are
    // consumed; messageStart is the current message's sync word, kept for the
    // dump. Both are offsets into the buffer, which is compacted only after the
    // outermost parse pass.
    int readOffset = 0;
    int messageStart = 0;
    // Offset of the current pass's first byte; positions in log lines count
    // from it.
    int passStart = 0;
    int parseDepth = 0;
    // How far the search for the method name's NUL has got.
    int nameScanned = 0;
    // Counts messages begun, so that a callback that parsed a further message
    // is not undone by the reset behind it.
    quint64 messagesBegun = 0;
    SocketValueScanner scanner;
    int invokeTimeoutInterval = DefaultInvokeTimeoutMs;
    // Elements the current message may still decode to.
    int elementBudget = SocketArgument::MaxDecodedElements;
    bool dropped = false;
};

#endif // SOCKETCONNECTION_H
