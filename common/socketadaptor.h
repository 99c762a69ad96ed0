#ifndef SOCKETADAPTOR_H
#define SOCKETADAPTOR_H

#include "socketconnection.h"

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QMap>
#include <QObject>
#include <QPointer>
#include <QSet>
#include <QString>
#include <QTimer>

#include <memory>

class SocketInterface;
class SocketServer;

// One call received by the RPC server, queued until it is invoked.
struct SocketCall
{
    static constexpr int MaxArguments = 10;

    // Weak: the client may go while its call waits.
    QPointer<SocketConnection> connection;
    QByteArray methodName;
    QByteArray signature; // e.g. run(int)
    quint16 queryId = 0;
    bool wantsReturn = false;
    // Dropped as it arrived (broken, too many values, not complete in time):
    // answered failed in its turn, never invoked.
    bool dropped = false;
    // What it holds of its client's buffered bytes.
    qint64 charge = 0;
    SocketArgument arguments[MaxArguments];
};

// The server end of the backend's RPC: makes this object's slots callable by
// other processes, by their signature text, and sends its signals to the
// clients that subscribed to them. Listens on a local socket
// (socketDir/getModuleName(), mode 0660) or on a loopback TCP port written to
// socketDir/getModuleName().port (mode 0640).
//
// Only the methods that the service's own class declares are callable, not
// those it inherits (QObject's deleteLater(), the listener's start functions).
// Calls are queued per client and invoked one per event-loop turn, the clients
// taking turns, so that one busy client delays another by one call at most;
// calls of a client announced as "rpc" go ahead of all others and are served at
// once. A slot answers by returning a value, or a SocketPromise to answer later.
// Every call with return gets an answer: its value, or a failure (also for a
// call that arrives broken); a client that has left in the meantime gets none,
// but its calls are carried out.
//
// Nothing here waits for a client: answers and signals are handed to the
// socket and leave from the event loop. A client over one of the limits below
// is dropped: one error line names it, its connection is aborted and the calls
// it has waiting are discarded; the process and the other clients go on.
class SocketAdaptor : public QObject, private SocketMessageReceiver
{
    Q_OBJECT

public:
    // Clients at once; further ones are accepted and closed at once.
    static constexpr int MaxConnections = 256;
    // Calls one client has waiting.
    static constexpr int MaxQueuedCalls = 1024;
    // What one client has the server hold for it: bytes received and not yet
    // parsed, its waiting calls and its subscriptions, each at its wire size
    // plus ElementChargeBytes per decoded element (about what one takes in
    // memory).
    static constexpr qint64 MaxBufferedBytes = 32 * 1024 * 1024;
    static constexpr int ElementChargeBytes = 48;
    // Answers and signals written to one client and not yet read by it, when
    // the next one is due.
    static constexpr qint64 MaxOutputBytes = 8 * 1024 * 1024;
    // The pause before listening again after the listener failed, and between
    // further attempts.
    static constexpr int RelistenMs = 1000;

    explicit SocketAdaptor(QObject* parent = nullptr);
    ~SocketAdaptor() override;

    // Takes over a listening socket handed in by the service manager.
    bool startSocketActivatedServer(int socketDescriptor);

    // Sends a signal, e.g. "configValueChanged(QString,QString,bool)", with
    // up to ten values to every client that subscribed to it.
    void emitSignal(const char* signature, const SocketArgument& a1 = SocketArgument(),
                    const SocketArgument& a2 = SocketArgument(), const SocketArgument& a3 = SocketArgument(),
                    const SocketArgument& a4 = SocketArgument(), const SocketArgument& a5 = SocketArgument(),
                    const SocketArgument& a6 = SocketArgument(), const SocketArgument& a7 = SocketArgument(),
                    const SocketArgument& a8 = SocketArgument(), const SocketArgument& a9 = SocketArgument(),
                    const SocketArgument& a10 = SocketArgument());
    void emitSignalWithArgumentList(const char* signature, const QList<const SocketArgument*>& arguments);
    bool isSignalSubscribed(const char* signature) const;

    // The answer to call: its value, or a failure. False when it could not be
    // written (or the client has gone).
    bool sendResult(const SocketCall& call, const SocketArgument& value);
    bool sendFailedReturnValue(SocketConnection* connection, quint16 queryId);

    // How long a call with return may take to arrive completely; 5000 ms.
    void setInvokeTimeoutInterval(int ms) { invokeTimeoutInterval = ms; }

public slots:
    // The socket's path is socketDir + "/" + getModuleName(); a file there is
    // replaced.
    virtual bool startLocalServer(const QString& socketDir);
    // port 0 lets the system choose; the port bound is written to the port file.
    virtual bool startTcpServer(const QString& socketDir, quint16 port);
    // The service name under which clients find this object.
    virtual QString getModuleName() = 0;

signals:
    void clientConnected(QString clientName);
    void clientDisconnected(QString clientName);
    // A client asked for a signal: a service can answer with its current state.
    void signalSubscribed(QByteArray signature);

private slots:
    void onNewConnection();
    void onReadyRead();
    void onDisconnected();
    void onInvokeTimeout();
    void onPendingCallTimer();
    void onServerError(const QString& text);
    void onRelistenTimer();

private:
    struct Client;

    void accept(Socket* socket);
    void read(SocketConnection* connection);
    void invokeLater(SocketConnection* connection, bool urgent);
    void enqueue(SocketCall&& call, bool urgent);
    void invoke(const SocketCall& call);
    void listenOn(SocketServer* listener);
    Client* clientOf(const SocketConnection* connection) const;
    // Gives back what a call held of its client's limits.
    void release(const SocketCall& call);
    bool send(SocketConnection* connection, const QByteArray& message);
    void drop(SocketConnection* connection, const QString& reason);
    void removeClient(Socket* socket);

    void callReceived(SocketConnection* connection, bool urgent) override;
    void callDropped(SocketConnection* connection, quint16 queryId) override;
    void subscriptionReceived(SocketConnection* connection, const QByteArray& signature) override;

    SocketServer* server = nullptr;
    SocketConnection::SocketType socketType = SocketConnection::LocalSocketType;
    // Connected clients, owned.
    QHash<Socket*, Client*> clients;
    // Clients with calls waiting, in the order they are served next. A client
    // that has left stays here until its calls are done.
    QList<Client*> turns;
    QList<SocketCall> priorityQueue;
    QTimer pendingCallTimer;
    int invokeTimeoutInterval = SocketConnection::DefaultInvokeTimeoutMs;
    // At the connection limit: logged once until a client goes.
    bool refusing = false;
    // Where to listen again after the listener failed.
    QString listenDir;
    int listenPort = -1; // -1: a local socket
    QTimer relistenTimer;
    // Reused for every answer: no allocation per call.
    QByteArray outgoing;
    // The method index of each signature called, found once.
    QHash<QByteArray, int> methodIndexes;
    NormalizedSignatures signalSignatures;
};

// A SocketAdaptor that tells the diagnosis service every two minutes, and
// after every run stage, that it is alive and which stage it is in.
class SocketAdaptorWithPing : public SocketAdaptor
{
    Q_OBJECT

public:
    static constexpr int DefaultHeartbeatInterval = 120000;

    explicit SocketAdaptorWithPing(QObject* parent = nullptr, int heartbeatInterval = DefaultHeartbeatInterval);
    ~SocketAdaptorWithPing() override;

    // Connects to "com.zan.ravo.diagnosis"; on failure tries again with the next heartbeat.
    void connectToDiagnosis(SocketConnection::SocketType type, const QString& socketDir);
    // "ping" with the module name and the run stage, connecting first when
    // there is no connection; nothing when the service cannot be reached.
    void sendHeartbeat();

    int getRunStage() const { return runStage; }

protected:
    // The stage last received from the supervisor; 255 before the first.
    int runStage = 255;

private slots:
    void onHeartbeatTimeout();

private:
    std::unique_ptr<SocketInterface> diagnosis;
    QTimer heartbeatTimer;
};

#endif // SOCKETADAPTOR_H
