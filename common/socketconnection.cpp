#include "socketconnection.h"

#include "logginginterface.h"
#include "socket.h"

#include <QVarLengthArray>
#include <QtEndian>

#include <atomic>
#include <cstring>
#include <sys/socket.h>

namespace {

std::atomic<qint32> connectionCounter{0};

// The writers put every field through a sink: straight to the connection's
// socket, or onto the end of an array. One encoder serves both.
struct SocketSink
{
    SocketConnection& connection;
    bool put(const void* bytes, qint64 length)
    {
        return connection.writeData(static_cast<const char*>(bytes), length);
    }
};

struct ArraySink
{
    QByteArray& array;
    bool put(const void* bytes, qint64 length)
    {
        array.append(static_cast<const char*>(bytes), int(length));
        return true;
    }
};

// A message being built on the stack: most fit, and none is written field by field.
struct MessageSink
{
    QVarLengthArray<char, 256>& message;
    bool put(const void* bytes, qint64 length)
    {
        message.append(static_cast<const char*>(bytes), int(length));
        return true;
    }
};

template <typename Sink, typename T>
bool putNumber(Sink& sink, T value)
{
    uchar bytes[sizeof(T)];
    qToLittleEndian(value, bytes);
    return sink.put(bytes, sizeof(T));
}

template <typename Sink>
bool putTag(Sink& sink, int tag)
{
    return putNumber(sink, quint8(tag));
}

template <typename Sink>
bool putDouble(Sink& sink, double value)
{
    uchar bytes[8];
    SocketArgument::encodeDouble(value, bytes);
    return sink.put(bytes, 8);
}

template <typename Sink>
bool putInternalId(Sink& sink, const InternalId& id)
{
    // Ten bytes: kind, serial prefix, serial number, channel, index.
    uchar bytes[10];
    bytes[0] = id.kind;
    qToLittleEndian(id.serialPrefix, bytes + 1);
    qToLittleEndian(id.serialNumber, bytes + 3);
    qToLittleEndian(id.channel, bytes + 7);
    bytes[9] = id.index;
    return sink.put(bytes, 10);
}

// A length (u32) and the bytes, without terminator.
template <typename Sink>
bool putBytes(Sink& sink, const QByteArray& bytes)
{
    return putNumber(sink, quint32(bytes.size())) && sink.put(bytes.constData(), bytes.size());
}

template <typename Sink>
bool putStringList(Sink& sink, const QStringList& list)
{
    bool ok = putNumber(sink, quint32(list.size()));
    for (int i = 0; ok && i < list.size(); ++i)
        ok = putBytes(sink, list.at(i).toUtf8());
    return ok;
}

template <typename Sink>
bool putVariantMapEntries(Sink& sink, bool success, const QVariantMap& map);
template <typename Sink>
bool putVariantListValues(Sink& sink, bool success, const QVariantList& list);

// Whether a QVariant of this type has a nested wire form.
bool isWritableNested(const QVariant& value)
{
    switch (value.userType()) {
    case QMetaType::Bool:
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Double:
    case QMetaType::QVariantMap:
    case QMetaType::QVariantList:
    case QMetaType::QString:
    case QMetaType::QStringList:
    case QMetaType::QByteArray: return true;
    default: return false;
    }
}

// The element is left out, although the count already written includes it.
void reportUnwritableNested(const QVariant& value)
{
    const char* typeName = value.typeName();
    CLOG(Error) << "WRITE invalid QVariantMap value from type" << (typeName ? typeName : "")
                << value.userType();
}

// A value inside a variant map or list, tagged by its QVariant type (one for
// which isWritableNested is true).
template <typename Sink>
bool putNested(Sink& sink, const QVariant& value)
{
    switch (value.userType()) {
    case QMetaType::Bool:
        return putTag(sink, SocketArgument::TypeBool) && putNumber(sink, quint8(value.toBool() ? 1 : 0));
    case QMetaType::Int:
        return putTag(sink, SocketArgument::TypeInt32) && putNumber(sink, qint32(value.toInt()));
    case QMetaType::UInt:
        return putTag(sink, SocketArgument::TypeUInt32) && putNumber(sink, quint32(value.toUInt()));
    case QMetaType::LongLong:
        return putTag(sink, SocketArgument::TypeInt64) && putNumber(sink, qint64(value.toLongLong()));
    case QMetaType::ULongLong:
        return putTag(sink, SocketArgument::TypeUInt64)
               && putNumber(sink, quint64(value.toULongLong()));
    case QMetaType::Double:
        return putTag(sink, SocketArgument::TypeDouble) && putDouble(sink, value.toDouble());
    case QMetaType::QVariantMap: {
        const QVariantMap map = value.toMap();
        return putVariantMapEntries(sink,
                                    putTag(sink, SocketArgument::TypeVariantMap)
                                        && putNumber(sink, quint32(map.size())),
                                    map);
    }
    case QMetaType::QVariantList: {
        const QVariantList list = value.toList();
        return putVariantListValues(sink,
                                    putTag(sink, SocketArgument::TypeVariantList)
                                        && putNumber(sink, quint32(list.size())),
                                    list);
    }
    // Peers read a nested text as a byte string; there is no nested QString.
    case QMetaType::QString:
        return putTag(sink, SocketArgument::TypeString8) && putBytes(sink, value.toString().toUtf8());
    case QMetaType::QStringList:
        return putTag(sink, SocketArgument::TypeStringList) && putStringList(sink, value.toStringList());
    default:
        return putTag(sink, SocketArgument::TypeString8) && putBytes(sink, value.toByteArray());
    }
}

template <typename Sink>
bool putVariantMapEntries(Sink& sink, bool success, const QVariantMap& map)
{
    for (auto it = map.cbegin(); success && it != map.cend(); ++it) {
        if (!isWritableNested(it.value()))
            reportUnwritableNested(it.value());
        else
            success = putBytes(sink, it.key().toUtf8()) && putNested(sink, it.value());
    }
    return success;
}

template <typename Sink>
bool putVariantListValues(Sink& sink, bool success, const QVariantList& list)
{
    for (int i = 0; success && i < list.size(); ++i) {
        if (!isWritableNested(list.at(i)))
            reportUnwritableNested(list.at(i));
        else
            success = putNested(sink, list.at(i));
    }
    return success;
}

template <typename Sink>
bool putParameter(Sink& sink, const SocketArgument& argument)
{
    const SocketArgument::eType type = argument.getType();
    if (type < SocketArgument::TypeInvalid || type > SocketArgument::TypePromise)
        return false;
    if (!putTag(sink, type))
        return false;
    switch (type) {
    case SocketArgument::TypeInvalid: // the end tag
    case SocketArgument::TypePromise: // the bare tag; peers refuse it
        return true;
    case SocketArgument::TypeString16: return putBytes(sink, argument.toQString().toUtf8());
    case SocketArgument::TypeString8: {
        const QByteArray bytes = argument.toString8();
        return putNumber(sink, quint32(argument.size())) && sink.put(bytes.constData(), bytes.size());
    }
    case SocketArgument::TypeInt8: return putNumber(sink, argument.toInt8());
    case SocketArgument::TypeInt16: return putNumber(sink, argument.toInt16());
    case SocketArgument::TypeInt32: return putNumber(sink, argument.toInt32());
    case SocketArgument::TypeInt64: return putNumber(sink, argument.toInt64());
    case SocketArgument::TypeUInt8: return putNumber(sink, argument.toUInt8());
    case SocketArgument::TypeUInt16: return putNumber(sink, argument.toUInt16());
    case SocketArgument::TypeUInt32: return putNumber(sink, argument.toUInt32());
    case SocketArgument::TypeUInt64: return putNumber(sink, argument.toUInt64());
    case SocketArgument::TypeBool: return putNumber(sink, quint8(argument.toBool() ? 1 : 0));
    case SocketArgument::TypeInt32List: {
        const QList<int>& list = argument.toInt32List();
        bool ok = putNumber(sink, quint32(list.size()));
        for (int i = 0; ok && i < list.size(); ++i)
            ok = putNumber(sink, qint32(list.at(i)));
        return ok;
    }
    case SocketArgument::TypeStringList: return putStringList(sink, argument.toQStringList());
    case SocketArgument::TypeInternalId: return putInternalId(sink, argument.toInternalId());
    case SocketArgument::TypeDouble: return putDouble(sink, argument.toDouble());
    case SocketArgument::TypeStringMap: {
        const QMap<QString, QString>& map = argument.toQStringMap();
        bool ok = putNumber(sink, quint32(map.size()));
        for (auto it = map.cbegin(); ok && it != map.cend(); ++it)
            ok = putBytes(sink, it.key().toUtf8()) && putBytes(sink, it.value().toUtf8());
        return ok;
    }
    case SocketArgument::TypeVariantMap: {
        const QVariantMap& map = argument.toQVariantMap();
        return putVariantMapEntries(sink, putNumber(sink, quint32(map.size())), map);
    }
    case SocketArgument::TypeVariantList: {
        const QVariantList& list = argument.toQVariantList();
        return putVariantListValues(sink, putNumber(sink, quint32(list.size())), list);
    }
    }
    return false;
}

template <typename Sink>
bool putHeader(Sink& sink, SocketConnection::MessageType type)
{
    return putNumber(sink, SocketConnection::MagicNumber) && putNumber(sink, quint8(type));
}

template <typename Sink>
bool putName(Sink& sink, const char* name)
{
    const char nul = 0;
    return sink.put(name, qint64(std::strlen(name))) && sink.put(&nul, 1);
}

// Values up to the first null or invalid one, then the end tag.
template <typename Sink>
bool putValueList(Sink& sink, const QList<const SocketArgument*>& arguments)
{
    for (const SocketArgument* argument : arguments) {
        if (!argument || !argument->isValid())
            break;
        if (!putParameter(sink, *argument))
            return false;
    }
    return putTag(sink, SocketArgument::TypeInvalid);
}

template <typename Sink>
bool putReturnValue(Sink& sink, quint16 queryId, bool success, const SocketArgument* value)
{
    if (!putHeader(sink, SocketConnection::ReturnValueMessage) || !putNumber(sink, queryId)
        || !putNumber(sink, quint8(success ? 1 : 0)))
        return false;
    if (!success)
        return true;
    return value ? putParameter(sink, *value) : putTag(sink, SocketArgument::TypeInvalid);
}

// A text (tags 1 and 2) whose length and bytes have all come, within what the
// message may still take: the scanner would find it complete at once.
bool isWholeText(quint8 tag, const char* body, int available, qint64 maxBytes)
{
    if ((tag != SocketArgument::TypeString16 && tag != SocketArgument::TypeString8) || available < 4)
        return false;
    const qint64 size = 4 + qint64(qFromLittleEndian<quint32>(body));
    return size <= available && size <= maxBytes;
}

// Why a peer is dropped, for its log line.
QString oversizeText()
{
    return QStringLiteral("a message over %1 bytes").arg(SocketConnection::MaxMessageBytes);
}

QString limitText()
{
    return oversizeText() + QStringLiteral(" or %1 elements").arg(SocketArgument::MaxDecodedElements);
}

} // namespace

QByteArray NormalizedSignatures::get(const char* signature)
{
    const auto found = normalized.constFind(QByteArray::fromRawData(signature, int(std::strlen(signature))));
    if (found != normalized.constEnd())
        return found.value();
    if (normalized.size() >= MaxEntries)
        normalized.clear();
    const QByteArray result = QMetaObject::normalizedSignature(signature);
    normalized.insert(QByteArray(signature), result);
    return result;
}

SocketMessageReceiver::~SocketMessageReceiver() = default;

void SocketMessageReceiver::callReceived(SocketConnection*, bool)
{
}

void SocketMessageReceiver::callDropped(SocketConnection*, quint16)
{
}

void SocketMessageReceiver::subscriptionReceived(SocketConnection*, const QByteArray&)
{
}

void SocketMessageReceiver::returnValueReceived(SocketConnection*, quint16, bool,
                                                const SocketArgument*)
{
}

void SocketMessageReceiver::signalReceived(SocketConnection*)
{
}

SocketConnection::SocketConnection(SocketType type, QObject* parent) : QObject(parent)
{
    switch (type) {
    case LocalSocketType: socket = new LocalSocket; break;
    case TcpSocketType: socket = new TcpSocket; break;
    default: CLOG(Error) << "invalid socket type"; break;
    }
    init();
}

SocketConnection::SocketConnection(Socket* existing, QObject* parent) : QObject(parent), socket(existing)
{
    init();
}

void SocketConnection::init()
{
    connectionNumber = connectionCounter.fetch_add(1);
    invokeTimer = new QTimer(this);
    invokeTimer->setSingleShot(true);
    connect(invokeTimer, &QTimer::timeout, this, &SocketConnection::invokeTimeout);
}

SocketConnection::~SocketConnection()
{
    invokeTimer->stop();
    delete invokeTimer;
    delete socket;
}

void SocketConnection::appendReceivedData(const QByteArray& bytes)
{
    if (!dropped)
        receiveBuffer.append(bytes);
}

void SocketConnection::readReceivedData()
{
    // QIODevice::readAll() would read a sequential device in 16 KiB chunks,
    // growing and shrinking its result around the few bytes of a message.
    qint64 available = 0;
    while (!dropped && socket && (available = socket->bytesAvailable()) > 0) {
        const int size = receiveBuffer.size();
        const int length = int(qMin<qint64>(available, MaxMessageBytes));
        receiveBuffer.resize(size + length);
        const qint64 read = socket->read(receiveBuffer.data() + size, length);
        receiveBuffer.resize(size + int(qMax<qint64>(read, 0)));
        if (read <= 0)
            break;
    }
}

QByteArray SocketConnection::unparsedData() const
{
    return receiveBuffer.mid(readOffset);
}

void SocketConnection::parseReceivedData(ParserSide side, SocketMessageReceiver* receiver)
{
    if (dropped)
        return;
    // A receiver may parse again on this connection from inside its callback
    // (a blocking call waiting for its answer). The nested pass goes on from
    // where this one stands; all state is in members, re-read after every step.
    const int outerPassStart = passStart;
    passStart = readOffset;
    ++parseDepth;
    for (;;) {
        const StepOutcome outcome = side == ServerSide ? serverStep(receiver) : clientStep(receiver);
        // Destroyed, or dropped (also from a nested pass): nothing more to do.
        if (outcome == StepDestroyed || dropped)
            return;
        if (outcome == StepNeedMore)
            break;
    }
    // A message that keeps growing without end is not waited for.
    if (state != StateSyncWord && receiveBuffer.size() - messageStart > MaxMessageBytes) {
        dropOverLimit(oversizeText());
        return;
    }
    // A call with return that came whole is not timed: the timer starts for
    // one whose name has come and whose end tag has not, once no more bytes
    // are there.
    if (side == ServerSide && messageType == CallWithReturnMessage
        && (state == StateValueTag || state == StateValueBody) && !invokeTimer->isActive())
        startInvokeTimeout(invokeTimeoutInterval);
    passStart = outerPassStart;
    if (--parseDepth == 0)
        compactReceiveBuffer();
}

void SocketConnection::compactReceiveBuffer()
{
    // The current message's bytes stay for the dump of a broken message.
    const int consumed = state == StateSyncWord ? readOffset : qMin(messageStart, readOffset);
    if (consumed >= receiveBuffer.size()) {
        receiveBuffer.clear();
        readOffset = 0;
        messageStart = 0;
    } else if (consumed > receiveBuffer.size() / 2) {
        // Moving the rest costs less than the bytes dropped: linear overall.
        receiveBuffer.remove(0, consumed);
        readOffset -= consumed;
        messageStart = qMax(0, messageStart - consumed);
    }
}

template <typename Callback>
SocketConnection::StepOutcome SocketConnection::deliver(Callback callback)
{
    state = StateSyncWord;
    const quint64 begun = messagesBegun;
    const QPointer<SocketConnection> alive(this);
    callback();
    if (!alive)
        return StepDestroyed;
    // A callback that parsed on has begun another message; that one's values
    // are not this message's to reset.
    if (begun == messagesBegun)
        resetParser();
    return StepContinue;
}

void SocketConnection::beginMessage()
{
    ++messagesBegun;
    messageStart = readOffset - 4;
    methodName.clear();
    resetParser();
    elementBudget = SocketArgument::MaxDecodedElements;
}

void SocketConnection::dropBrokenMessage()
{
    dumpParsingState();
    resetParser();
}

void SocketConnection::dropBrokenCall(SocketMessageReceiver* receiver)
{
    dropBrokenMessage();
    if (messageType == CallWithReturnMessage && receiver)
        receiver->callDropped(this, queryId);
}

SocketConnection::StepOutcome SocketConnection::dropBrokenReturn(SocketMessageReceiver* receiver)
{
    dropBrokenMessage();
    if (messageType != ReturnValueMessage)
        return StepContinue;
    // Somebody may wait for this query id: a failure releases it at once.
    return deliver([&] {
        if (receiver)
            receiver->returnValueReceived(this, queryId, false, nullptr);
    });
}

SocketConnection::StepOutcome SocketConnection::dropOverLimit(const QString& reason)
{
    dropForLimit(reason);
    return StepDestroyed;
}

qint64 SocketConnection::bodyLimit(int pos) const
{
    return qint64(MaxMessageBytes) - (passStart + pos - messageStart);
}

QString SocketConnection::describe() const
{
    QString peer = socket ? socket->getPeerName() : QString();
    const qintptr descriptor = socket ? socket->descriptor() : -1;
    ucred credentials = {};
    socklen_t length = sizeof(credentials);
    if (descriptor >= 0
        && ::getsockopt(int(descriptor), SOL_SOCKET, SO_PEERCRED, &credentials, &length) == 0)
        peer += QStringLiteral(", pid %1").arg(credentials.pid);
    return QStringLiteral("connection %1 (%2)").arg(connectionNumber).arg(peer);
}

void SocketConnection::dropForLimit(const QString& reason)
{
    if (dropped)
        return;
    CLOG(Error) << "dropping" << describe() << "for" << reason;
    dropped = true;
    resetParser();
    receiveBuffer.clear();
    readOffset = messageStart = passStart = 0;
    if (socket)
        socket->abort();
}

SocketConnection::StepOutcome SocketConnection::serverStep(SocketMessageReceiver* receiver)
{
    const char* data = receiveBuffer.constData() + passStart;
    const int end = receiveBuffer.size() - passStart;
    int pos = readOffset - passStart;
    auto commit = [&] { readOffset = passStart + pos; };

    switch (state) {
    case StateSyncWord: {
        const bool found = parseSyncWord(data, pos, end);
        commit(); // skipped garbage is consumed either way
        if (!found)
            return StepNeedMore;
        beginMessage();
        state = StateMessageType;
        return StepContinue;
    }
    case StateMessageType:
        if (!parseMessageType(data, pos, end))
            return StepNeedMore;
        commit();
        if (messageType == CallWithReturnMessage)
            state = StateQueryId;
        else if (messageType == SubscriptionMessage || messageType == ClientNameMessage)
            state = StateValueTag;
        else
            state = StateMethodName; // calls without return, and anything else alike
        return StepContinue;
    case StateQueryId:
        if (!parseQueryId(data, pos, end))
            return StepNeedMore;
        commit();
        state = StateMethodName;
        return StepContinue;
    case StateMethodName:
        if (!parseMethodName(data, pos, end))
            return StepNeedMore;
        commit();
        if (getMessageSize() > MaxMessageBytes)
            return dropOverLimit(oversizeText());
        state = StateValueTag;
        return StepContinue;
    case StateValueTag: {
        const int result = parseValueType(data, pos, end);
        if (result == SocketArgument::ParseNeedMore)
            return StepNeedMore;
        commit();
        if (result == SocketArgument::ParseBroken) {
            dropBrokenCall(receiver);
            return StepContinue;
        }
        // The one value of these two follows whatever its tag.
        if (messageType == SubscriptionMessage) {
            state = StateSubscriptionValue;
            return StepContinue;
        }
        if (messageType == ClientNameMessage) {
            state = StateClientNameValue;
            return StepContinue;
        }
        if (valueTag != SocketArgument::TypeInvalid) {
            if (parsedValueCount == MaxParsedValues) {
                CLOG(Error) << "broken rpc command:" << methodName;
                dropBrokenCall(receiver);
                return StepContinue;
            }
            state = StateValueBody;
            return StepContinue;
        }
        if (parsedValueCount > MaxCallValues) {
            CLOG(Error) << "more than 10 arguments!!!";
            resetParser();
            if (messageType == CallWithReturnMessage && receiver)
                receiver->callDropped(this, queryId);
            return StepContinue;
        }
        if (messageType == CallWithReturnMessage)
            stopInvokeTimeout();
        const bool urgent = clientName == "rpc";
        return deliver([&] {
            if (receiver)
                receiver->callReceived(this, urgent);
        });
    }
    case StateValueBody: {
        const int result = parseNextValue(data, pos, end);
        if (result == SocketArgument::ParseNeedMore)
            return StepNeedMore;
        if (result == SocketArgument::ParseOverLimit)
            return dropOverLimit(limitText());
        commit();
        if (result == SocketArgument::ParseBroken) {
            CLOG(Error) << "broken rpc command:" << methodName;
            dropBrokenCall(receiver);
            return StepContinue;
        }
        state = StateValueTag;
        return StepContinue;
    }
    case StateSubscriptionValue: {
        const int result = parseNextValue(data, pos, end);
        if (result == SocketArgument::ParseNeedMore)
            return StepNeedMore;
        if (result == SocketArgument::ParseOverLimit)
            return dropOverLimit(limitText());
        commit();
        if (result == SocketArgument::ParseBroken) {
            CLOG(Error) << "broken subscription";
            dropBrokenMessage();
            return StepContinue;
        }
        const QByteArray signature = parsedValues[0].toString8();
        return deliver([&] {
            if (receiver)
                receiver->subscriptionReceived(this, signature);
        });
    }
    case StateClientNameValue: {
        const int result = parseNextValue(data, pos, end);
        if (result == SocketArgument::ParseNeedMore)
            return StepNeedMore;
        if (result == SocketArgument::ParseOverLimit)
            return dropOverLimit(limitText());
        commit();
        if (result == SocketArgument::ParseBroken) {
            CLOG(Error) << "broken client name";
            dropBrokenMessage();
            return StepContinue;
        }
        clientName = parsedValues[0].toString8();
        resetParser();
        return StepContinue;
    }
    default:
        CLOG(Error) << "default: should never happen, state" << state;
        resetParser();
        return StepContinue;
    }
}

SocketConnection::StepOutcome SocketConnection::clientStep(SocketMessageReceiver* receiver)
{
    const char* data = receiveBuffer.constData() + passStart;
    const int end = receiveBuffer.size() - passStart;
    int pos = readOffset - passStart;
    auto commit = [&] { readOffset = passStart + pos; };
    auto logBrokenValue = [&] {
        if (messageType == ReturnValueMessage)
            CLOG(Error) << "broken return value";
        else
            CLOG(Error) << "broken signal at position" << pos << ":" << methodName;
    };

    switch (state) {
    case StateSyncWord: {
        const bool found = parseSyncWord(data, pos, end);
        commit();
        if (!found)
            return StepNeedMore;
        beginMessage();
        state = StateMessageType;
        return StepContinue;
    }
    case StateMessageType:
        if (!parseMessageType(data, pos, end))
            return StepNeedMore;
        commit();
        // A client expects return values and signals; whatever else comes is
        // read as a signal.
        state = messageType == ReturnValueMessage ? StateQueryId : StateMethodName;
        return StepContinue;
    case StateQueryId:
        if (!parseQueryId(data, pos, end))
            return StepNeedMore;
        commit();
        state = messageType == ReturnValueMessage ? StateRpcSuccess : StateValueTag;
        return StepContinue;
    case StateMethodName:
        if (!parseMethodName(data, pos, end))
            return StepNeedMore;
        commit();
        if (getMessageSize() > MaxMessageBytes)
            return dropOverLimit(oversizeText());
        state = StateValueTag;
        return StepContinue;
    case StateRpcSuccess:
        if (!parseRpcSuccess(data, pos, end))
            return StepNeedMore;
        commit();
        if (success) {
            state = StateValueTag;
            return StepContinue;
        }
        return deliver([&] {
            if (receiver)
                receiver->returnValueReceived(this, queryId, false, nullptr);
        });
    case StateValueTag: {
        const int result = parseValueType(data, pos, end);
        if (result == SocketArgument::ParseNeedMore)
            return StepNeedMore;
        commit();
        if (result == SocketArgument::ParseBroken)
            return dropBrokenReturn(receiver);
        if (valueTag == SocketArgument::TypeInvalid) {
            if (messageType == ReturnValueMessage) {
                return deliver([&] {
                    if (receiver)
                        receiver->returnValueReceived(this, queryId, true, nullptr);
                });
            }
            return deliver([&] {
                if (receiver)
                    receiver->signalReceived(this);
            });
        }
        if (parsedValueCount == MaxParsedValues) {
            logBrokenValue();
            dropBrokenMessage();
            return StepContinue;
        }
        state = StateValueBody;
        return StepContinue;
    }
    case StateValueBody: {
        const int result = parseNextValue(data, pos, end);
        if (result == SocketArgument::ParseNeedMore)
            return StepNeedMore;
        if (result == SocketArgument::ParseOverLimit)
            return dropOverLimit(limitText());
        commit();
        if (result == SocketArgument::ParseBroken) {
            logBrokenValue();
            return dropBrokenReturn(receiver);
        }
        if (messageType != ReturnValueMessage) {
            state = StateValueTag;
            return StepContinue;
        }
        // A return value carries exactly one value and no end tag.
        return deliver([&] {
            if (receiver)
                receiver->returnValueReceived(this, queryId, true, &parsedValues[0]);
        });
    }
    default:
        CLOG(Error) << "invalid state" << state;
        resetParser();
        return StepContinue;
    }
}

bool SocketConnection::parseSyncWord(const char* data, int& pos, int end)
{
    while (end - pos >= 4) {
        if (qFromLittleEndian<quint32>(data + pos) == MagicNumber) {
            pos += 4;
            return true;
        }
        ++pos;
    }
    return false;
}

bool SocketConnection::parseMessageType(const char* data, int& pos, int end)
{
    if (pos >= end)
        return false;
    messageType = quint8(data[pos]);
    ++pos;
    return true;
}

bool SocketConnection::parseRpcSuccess(const char* data, int& pos, int end)
{
    if (pos >= end)
        return false;
    success = data[pos] != 0;
    ++pos;
    return true;
}

bool SocketConnection::parseQueryId(const char* data, int& pos, int end)
{
    if (end - pos < 2)
        return false;
    queryId = qFromLittleEndian<quint16>(data + pos);
    pos += 2;
    return true;
}

bool SocketConnection::parseMethodName(const char* data, int& pos, int end)
{
    // Resume the search where the last attempt stopped: a long name arriving in
    // small pieces is searched once.
    const int from = pos + nameScanned;
    const void* nul = from < end ? std::memchr(data + from, 0, size_t(end - from)) : nullptr;
    if (!nul) {
        nameScanned = end - pos;
        return false;
    }
    const int length = int(static_cast<const char*>(nul) - (data + pos));
    // Calls come under a few names, mostly the one before: that one is shared
    // rather than copied again.
    if (length != previousMethodName.size()
        || std::memcmp(previousMethodName.constData(), data + pos, size_t(length)) != 0)
        previousMethodName = QByteArray(data + pos, length);
    methodName = previousMethodName;
    pos += length + 1;
    nameScanned = 0;
    return true;
}

int SocketConnection::parseValueType(const char* data, int& pos, int end)
{
    return SocketArgument::parseValueType(data, pos, end, valueTag);
}

int SocketConnection::parseNextValue(const char* data, int& pos, int end)
{
    if (SocketValueScanner::isNeededFor(valueTag) && !isWholeText(valueTag, data + pos, end - pos, bodyLimit(pos))) {
        // Strings and containers are decoded once they are complete; until
        // then the scanner walks each new byte once, and stops a declared
        // length or count over the limits as soon as it arrives.
        if (!scanner.isActive())
            scanner.start(valueTag, bodyLimit(pos), elementBudget);
        switch (scanner.scan(data + pos, end - pos)) {
        case SocketValueScanner::NeedMore: return SocketArgument::ParseNeedMore;
        case SocketValueScanner::OverLimit: return SocketArgument::ParseOverLimit;
        default: break; // complete, or stuck on a nested value: the decoder says why, once
        }
    }
    const SocketArgument::ParseResult result =
        parsedValues[parsedValueCount].parseNextValue(data, pos, end, valueTag, elementBudget);
    if (result == SocketArgument::ParseDone) {
        scanner.reset();
        ++parsedValueCount;
    }
    return result;
}

void SocketConnection::resetParser()
{
    // A short text stays, for the next message's text to be decoded into.
    for (int i = 0; i < parsedValueCount; ++i)
        if (!parsedValues[i].isShortText())
            parsedValues[i].clear();
    parsedValueCount = 0;
    state = StateSyncWord;
    invokeTimer->stop();
    nameScanned = 0;
    scanner.reset();
}

QByteArray SocketConnection::getSignature() const
{
    QByteArray signature = methodName;
    signature += '(';
    for (int i = 0; i < parsedValueCount; ++i) {
        if (i > 0)
            signature += ',';
        signature += parsedValues[i].getTypeString();
    }
    signature += ')';
    return signature;
}

void SocketConnection::dumpParsingState() const
{
    // The message's own bytes, not the whole buffer: a burst of broken messages
    // must not cost a dump of everything behind each of them.
    const int from = qBound(0, messageStart, readOffset);
    CLOG(Error) << "method name:" << methodName << "so far parsed parameters:" << parsedValueCount
                << "buffer content:" << receiveBuffer.mid(from, readOffset - from).toHex();
}

void SocketConnection::startInvokeTimeout(int ms)
{
    invokeTimer->start(ms);
}

void SocketConnection::stopInvokeTimeout()
{
    invokeTimer->stop();
}

bool SocketConnection::writeData(const char* data, qint64 length)
{
    if (length == 0)
        return true;
    for (;;) {
        // Checked on every round: a slot run during the wait may destroy the socket.
        if (!socket)
            return false;
        // A stream that never connected, or has gone, takes nothing.
        const qint64 written = socket->isValid() ? socket->write(data, length) : -1;
        if (written < 0) {
            CLOG(Error) << "socket write error:" << socket->getLastErrorText();
            return false;
        }
        if (written > length) {
            CLOG(Error) << "this is just messed up";
            return false;
        }
        data += written;
        length -= written;
        if (length == 0)
            return true;
        // A socket that neither takes bytes nor lets any leave has failed.
        if (!socket->waitForBytesWritten(WriteWaitMs) && written == 0) {
            CLOG(Error) << "socket write error:" << socket->getLastErrorText();
            return false;
        }
    }
}

bool SocketConnection::writeData(const char* text)
{
    return writeData(text, qint64(std::strlen(text)));
}

template <typename T>
bool SocketConnection::writeNumber(T value)
{
    SocketSink sink{*this};
    return putNumber(sink, value);
}

bool SocketConnection::writeValue(qint8 value)
{
    return writeNumber(value);
}

bool SocketConnection::writeValue(quint8 value)
{
    return writeNumber(value);
}

bool SocketConnection::writeValue(qint16 value)
{
    return writeNumber(value);
}

bool SocketConnection::writeValue(quint16 value)
{
    return writeNumber(value);
}

bool SocketConnection::writeValue(qint32 value)
{
    return writeNumber(value);
}

bool SocketConnection::writeValue(quint32 value)
{
    return writeNumber(value);
}

bool SocketConnection::writeValue(qint64 value)
{
    return writeNumber(value);
}

bool SocketConnection::writeValue(quint64 value)
{
    return writeNumber(value);
}

bool SocketConnection::writeValue(double value)
{
    SocketSink sink{*this};
    return putDouble(sink, value);
}

bool SocketConnection::writeValue(const InternalId& value)
{
    SocketSink sink{*this};
    return putInternalId(sink, value);
}

bool SocketConnection::writeParameter(const SocketArgument& argument)
{
    SocketSink sink{*this};
    return putParameter(sink, argument);
}

bool SocketConnection::writeNestedVariantMapValues(bool success, const QVariantMap& map)
{
    SocketSink sink{*this};
    return putVariantMapEntries(sink, success, map);
}

bool SocketConnection::writeNestedVariantListValues(bool success, const QVariantList& list)
{
    SocketSink sink{*this};
    return putVariantListValues(sink, success, list);
}

template <typename Build>
bool SocketConnection::writeMessage(Build build)
{
    QVarLengthArray<char, 256> message;
    MessageSink sink{message};
    return build(sink) && writeData(message.constData(), message.size());
}

bool SocketConnection::writeCall(MessageType type, quint16 callQueryId, const char* method,
                                 const QList<const SocketArgument*>& arguments)
{
    return writeMessage([&](MessageSink& sink) {
        return putHeader(sink, type) && (type != CallWithReturnMessage || putNumber(sink, callQueryId))
               && putName(sink, method) && putValueList(sink, arguments);
    });
}

bool SocketConnection::writeSignal(const char* name, const QList<const SocketArgument*>& arguments)
{
    return writeMessage([&](MessageSink& sink) {
        return putHeader(sink, SignalMessage) && putName(sink, name) && putValueList(sink, arguments);
    });
}

bool SocketConnection::writeReturnValue(quint16 returnQueryId, bool succeeded,
                                        const SocketArgument* value)
{
    return writeMessage(
        [&](MessageSink& sink) { return putReturnValue(sink, returnQueryId, succeeded, value); });
}

bool SocketConnection::writeSubscription(const QByteArray& signature)
{
    return writeMessage([&](MessageSink& sink) {
        return putHeader(sink, SubscriptionMessage) && putParameter(sink, SocketArgument(signature));
    });
}

bool SocketConnection::writeClientName(const QByteArray& name)
{
    return writeMessage([&](MessageSink& sink) {
        return putHeader(sink, ClientNameMessage) && putParameter(sink, SocketArgument(name));
    });
}

bool SocketConnection::queueMessage(const QByteArray& message)
{
    if (!socket || dropped || !socket->isValid())
        return false;
    if (socket->write(message.constData(), message.size()) != message.size()) {
        CLOG(Error) << "socket write error:" << socket->getLastErrorText();
        return false;
    }
    // One write now; on failure the socket aborts and reports it.
    return socket->writeBuffered();
}

bool SocketConnection::flush(int ms)
{
    if (!socket)
        return false;
    // What the kernel takes at once (a whole message, as a rule) leaves
    // without a wait; only the rest is waited for.
    if (socket->bytesToWrite() > 0)
        socket->writeBuffered();
    if (!socket)
        return false;
    qint64 pending = socket->bytesToWrite();
    while (pending > 0) {
        socket->waitForBytesWritten(ms);
        if (!socket)
            return false;
        const qint64 left = socket->bytesToWrite();
        if (left == pending)
            return false;
        pending = left;
    }
    return true;
}

void SocketConnection::appendValue(QByteArray& array, qint8 value)
{
    ArraySink sink{array};
    putNumber(sink, value);
}

void SocketConnection::appendValue(QByteArray& array, quint8 value)
{
    ArraySink sink{array};
    putNumber(sink, value);
}

void SocketConnection::appendValue(QByteArray& array, qint16 value)
{
    ArraySink sink{array};
    putNumber(sink, value);
}

void SocketConnection::appendValue(QByteArray& array, quint16 value)
{
    ArraySink sink{array};
    putNumber(sink, value);
}

void SocketConnection::appendValue(QByteArray& array, qint32 value)
{
    ArraySink sink{array};
    putNumber(sink, value);
}

void SocketConnection::appendValue(QByteArray& array, quint32 value)
{
    ArraySink sink{array};
    putNumber(sink, value);
}

void SocketConnection::appendValue(QByteArray& array, qint64 value)
{
    ArraySink sink{array};
    putNumber(sink, value);
}

void SocketConnection::appendValue(QByteArray& array, quint64 value)
{
    ArraySink sink{array};
    putNumber(sink, value);
}

void SocketConnection::appendValue(QByteArray& array, double value)
{
    ArraySink sink{array};
    putDouble(sink, value);
}

void SocketConnection::appendValue(QByteArray& array, const InternalId& value)
{
    ArraySink sink{array};
    putInternalId(sink, value);
}

void SocketConnection::appendParameter(QByteArray& array, const SocketArgument& argument)
{
    ArraySink sink{array};
    putParameter(sink, argument);
}

void SocketConnection::appendReturnValue(QByteArray& array, quint16 returnQueryId, bool succeeded,
                                         const SocketArgument* value)
{
    ArraySink sink{array};
    putReturnValue(sink, returnQueryId, succeeded, value);
}

void SocketConnection::appendSignal(QByteArray& array, const QByteArray& name,
                                    const QList<const SocketArgument*>& arguments)
{
    ArraySink sink{array};
    putHeader(sink, SignalMessage);
    sink.put(name.constData(), name.size());
    putTag(sink, 0); // the name's NUL
    putValueList(sink, arguments);
}
