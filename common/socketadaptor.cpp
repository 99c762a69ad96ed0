#include "socketadaptor.h"

#include "defaults.h"
#include "logginginterface.h"
#include "profiler.h"
#include "socketinterface.h"
#include "socketpromise.h"
#include "socketserver.h"

#include <QFile>
#include <QMetaMethod>
#include <QSaveFile>
#include <QVarLengthArray>

#include <deque>

namespace {

// Connections accepted in one go; more wait for the next turn of the event loop.
constexpr int MaxAcceptsPerTurn = 64;
// The answer buffer is kept between calls unless a large answer grew it.
constexpr int KeptAnswerCapacity = 64 * 1024;

} // namespace

// What the server keeps for one client.
struct SocketAdaptor::Client
{
    // Null once the client has gone; its calls may still be waiting.
    SocketConnection* connection = nullptr;
    QSet<QByteArray> subscriptions;
    std::deque<SocketCall> calls;
    bool inTurns = false;
    // Against the limits: calls waiting (in calls and in the priority queue),
    // and what they and the subscriptions hold.
    int queuedCalls = 0;
    qint64 heldBytes = 0;
};

SocketAdaptor::SocketAdaptor(QObject* parent) : QObject(parent)
{
    pendingCallTimer.setSingleShot(true);
    connect(&pendingCallTimer, &QTimer::timeout, this, &SocketAdaptor::onPendingCallTimer);
    relistenTimer.setSingleShot(true);
    connect(&relistenTimer, &QTimer::timeout, this, &SocketAdaptor::onRelistenTimer);
    outgoing.reserve(256);
}

SocketAdaptor::~SocketAdaptor()
{
    CLOG(Notice) << "SocketAdaptor destruct";
    delete server;
    for (Client* client : qAsConst(clients)) {
        turns.removeOne(client);
        delete client->connection;
        delete client;
    }
    qDeleteAll(turns);
}

void SocketAdaptor::listenOn(SocketServer* listener)
{
    delete server;
    server = listener;
    connect(server, &SocketServer::newConnection, this, &SocketAdaptor::onNewConnection);
    connect(server, &SocketServer::error, this, &SocketAdaptor::onServerError);
}

bool SocketAdaptor::startLocalServer(const QString& socketDir)
{
    listenDir = socketDir;
    listenPort = -1;
    const QString path = socketDir + QLatin1Char('/') + getModuleName();
    QFile::remove(path);
    auto* local = new LocalServer(this);
    listenOn(local);
    socketType = SocketConnection::LocalSocketType;
    if (!local->listen(path)) {
        CLOG(Error) << "cannot listen on" << path << local->errorString();
        return false;
    }
    return true;
}

bool SocketAdaptor::startTcpServer(const QString& socketDir, quint16 port)
{
    listenDir = socketDir;
    listenPort = port;
    auto* tcp = new TcpServer(this);
    listenOn(tcp);
    socketType = SocketConnection::TcpSocketType;
    if (!tcp->listen(QHostAddress::LocalHost, port)) {
        CLOG(Error) << "cannot listen on port" << QString::number(port) << tcp->errorString();
        return false;
    }
    // Replaced in one step: a client never reads a half-written port. Readable
    // by the owner's group, as the local sockets are.
    QSaveFile portFile(socketDir + QLatin1Char('/') + getModuleName() + QStringLiteral(".port"));
    if (!portFile.open(QIODevice::WriteOnly)
        || !portFile.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadGroup)
        || portFile.write(QByteArray::number(tcp->getPort())) < 0 || !portFile.commit()) {
        CLOG(Error) << "cannot write port file" << portFile.fileName() << portFile.errorString();
        return false;
    }
    return true;
}

bool SocketAdaptor::startSocketActivatedServer(int socketDescriptor)
{
    listenDir.clear();
    auto* tcp = new TcpServer(this);
    listenOn(tcp);
    socketType = SocketConnection::TcpSocketType;
    return tcp->listen(socketDescriptor);
}

void SocketAdaptor::onServerError(const QString& text)
{
    // Not from here: the failed listener is still on the stack.
    CLOG(Error) << "the listener failed:" << text;
    if (!listenDir.isEmpty())
        relistenTimer.start(0);
}

void SocketAdaptor::onRelistenTimer()
{
    const bool listening = listenPort < 0 ? startLocalServer(listenDir) : startTcpServer(listenDir, quint16(listenPort));
    if (listening)
        CLOG(Notice) << "listening again in" << listenDir;
    else
        relistenTimer.start(RelistenMs);
}

void SocketAdaptor::onNewConnection()
{
    for (int i = 0; server && i < MaxAcceptsPerTurn; ++i) {
        Socket* socket = server->nextPendingConnection();
        if (!socket)
            return;
        if (clients.size() < MaxConnections) {
            accept(socket);
            continue;
        }
        // Closed at once rather than left waiting in the backlog: the client
        // learns at once, and the others are not held up.
        if (!refusing)
            CLOG(Error) << "limit of" << MaxConnections << "clients reached: new ones are closed at once";
        refusing = true;
        delete socket;
    }
}

void SocketAdaptor::accept(Socket* socket)
{
    auto* connection = new SocketConnection(socket);
    connection->setInvokeTimeoutInterval(invokeTimeoutInterval);
    auto* client = new Client;
    client->connection = connection;
    clients.insert(socket, client);
    connect(connection, &SocketConnection::invokeTimeout, this, &SocketAdaptor::onInvokeTimeout);
    connect(socket, &Socket::readyRead, this, &SocketAdaptor::onReadyRead);
    connect(socket, &Socket::disconnected, this, &SocketAdaptor::onDisconnected);
    emit clientConnected(QString::fromUtf8(connection->getClientName()));
    // Bytes that came with the connection do not announce themselves again.
    if (socket->bytesAvailable() > 0)
        read(connection);
}

void SocketAdaptor::onReadyRead()
{
    const Client* client = clients.value(qobject_cast<Socket*>(sender()));
    if (!client) {
        CLOG(Warning) << "onReadyRead for unknown connection";
        return;
    }
    read(client->connection);
}

void SocketAdaptor::read(SocketConnection* connection)
{
    connection->readReceivedData();
    connection->parseReceivedData(SocketConnection::ServerSide, this);
}

SocketAdaptor::Client* SocketAdaptor::clientOf(const SocketConnection* connection) const
{
    return connection ? clients.value(connection->getSocket()) : nullptr;
}

void SocketAdaptor::subscriptionReceived(SocketConnection* connection, const QByteArray& signature)
{
    Client* client = clientOf(connection);
    if (!client)
        return;
    const QByteArray normalized = QMetaObject::normalizedSignature(signature.constData());
    if (!client->subscriptions.contains(normalized)) {
        client->heldBytes += normalized.size() + ElementChargeBytes;
        if (client->heldBytes > MaxBufferedBytes) {
            drop(connection, QStringLiteral("more than %1 bytes held").arg(MaxBufferedBytes));
            return;
        }
        client->subscriptions.insert(normalized);
    }
    emit signalSubscribed(normalized);
}

void SocketAdaptor::callReceived(SocketConnection* connection, bool urgent)
{
    invokeLater(connection, urgent);
}

void SocketAdaptor::callDropped(SocketConnection* connection, quint16 queryId)
{
    SocketCall call;
    call.connection = connection;
    call.queryId = queryId;
    call.wantsReturn = true;
    call.dropped = true;
    enqueue(std::move(call), false);
}

void SocketAdaptor::invokeLater(SocketConnection* connection, bool urgent)
{
    SocketCall call;
    call.connection = connection;
    call.methodName = connection->getMethodName();
    call.signature = connection->getSignature();
    call.queryId = connection->getQueryId();
    call.wantsReturn = connection->getMessageType() == SocketConnection::CallWithReturnMessage;
    for (int i = 0; i < connection->getParsedValueCount() && i < SocketCall::MaxArguments; ++i)
        call.arguments[i] = connection->getParsedValue(i);
    call.charge = connection->getMessageSize() + qint64(ElementChargeBytes) * connection->getMessageElements();
    enqueue(std::move(call), urgent);
}

void SocketAdaptor::enqueue(SocketCall&& call, bool urgent)
{
    SocketConnection* connection = call.connection;
    Client* client = clientOf(connection);
    if (!client)
        return;
    if (client->queuedCalls >= MaxQueuedCalls) {
        drop(connection, QStringLiteral("more than %1 calls waiting").arg(MaxQueuedCalls));
        return;
    }
    if (client->heldBytes + call.charge + connection->unparsedSize() > MaxBufferedBytes) {
        drop(connection, QStringLiteral("more than %1 bytes held").arg(MaxBufferedBytes));
        return;
    }
    ++client->queuedCalls;
    client->heldBytes += call.charge;
    if (urgent) {
        priorityQueue.append(std::move(call));
    } else {
        client->calls.push_back(std::move(call));
        if (!client->inTurns) {
            client->inTurns = true;
            turns.append(client);
        }
    }
    if (!pendingCallTimer.isActive())
        pendingCallTimer.start(0);
}

void SocketAdaptor::release(const SocketCall& call)
{
    if (Client* client = clientOf(call.connection)) {
        --client->queuedCalls;
        client->heldBytes -= call.charge;
    }
}

void SocketAdaptor::onPendingCallTimer()
{
    if (!priorityQueue.isEmpty()) {
        while (!priorityQueue.isEmpty()) {
            const SocketCall call = priorityQueue.takeFirst();
            release(call);
            invoke(call);
        }
    } else if (!turns.isEmpty()) {
        // One call of the client whose turn it is; then it waits behind the
        // others that have calls waiting.
        Client* client = turns.takeFirst();
        const SocketCall call = std::move(client->calls.front());
        client->calls.pop_front();
        client->inTurns = !client->calls.empty();
        if (client->inTurns)
            turns.append(client);
        else if (!client->connection)
            delete client; // it has left, and this was its last call
        release(call);
        invoke(call);
    }
    if (!priorityQueue.isEmpty() || !turns.isEmpty())
        pendingCallTimer.start(0);
}

void SocketAdaptor::invoke(const SocketCall& call)
{
    // A client that has gone is not answered; its call is carried out all the
    // same, as a client that sends and leaves (a "quit" without return) expects.
    const bool answer = call.wantsReturn && call.connection;
    if (call.dropped) {
        if (answer)
            sendFailedReturnValue(call.connection, call.queryId);
        return;
    }
    const QMetaObject* meta = metaObject();
    int index = methodIndexes.value(call.signature, -1);
    if (index < 0) {
        index = meta->indexOfMethod(call.signature.constData());
        // Only methods that exist: the table stays as small as the class.
        if (index >= 0)
            methodIndexes.insert(call.signature, index);
    }
    // Only what the service's own class declares: what it inherits
    // (deleteLater(), startLocalServer() and the like) is not for other processes.
    if (index < meta->methodOffset()) {
        CLOG(Error) << "invalid signature" << call.signature;
        if (answer)
            sendFailedReturnValue(call.connection, call.queryId);
        return;
    }
    // Only methods that exist are timed: the table stays as small as the class.
    ProfileScope profile(call.signature.constData());
    const QMetaMethod method = meta->method(index);

    QGenericArgument arguments[SocketCall::MaxArguments];
    for (int i = 0; i < SocketCall::MaxArguments; ++i)
        arguments[i] = call.arguments[i].toQGenericArgument();
    SocketArgument result;
    result.setTypeFromString(method.typeName());
    const QGenericReturnArgument returnArgument =
        result.isValid() ? QGenericReturnArgument(method.typeName(), result.getDataPointer()) : QGenericReturnArgument();

    const QPointer<SocketConnection> connection = call.connection;
    if (!method.invoke(this, Qt::AutoConnection, returnArgument, arguments[0], arguments[1], arguments[2],
                       arguments[3], arguments[4], arguments[5], arguments[6], arguments[7], arguments[8],
                       arguments[9])) {
        CLOG(Error) << "failed to call slot:" << call.signature;
        if (answer)
            sendFailedReturnValue(connection, call.queryId);
        return;
    }
    if (!answer)
        return;
    if (result.getType() == SocketArgument::TypePromise)
        result.toPromise().setCallData(this, call);
    else if (!sendResult(call, result))
        CLOG(Error) << QStringLiteral("invoke of %1 failed").arg(QString::fromUtf8(call.signature));
}

bool SocketAdaptor::send(SocketConnection* connection, const QByteArray& message)
{
    // A client that does not read is not waited for: past its limit it goes.
    if (connection->pendingOutput() > MaxOutputBytes) {
        drop(connection, QStringLiteral("more than %1 bytes unread").arg(MaxOutputBytes));
        return false;
    }
    return connection->queueMessage(message);
}

bool SocketAdaptor::sendResult(const SocketCall& call, const SocketArgument& value)
{
    SocketConnection* connection = call.connection;
    if (!connection || !clientOf(connection))
        return false;
    outgoing.resize(0);
    SocketConnection::appendReturnValue(outgoing, call.queryId, true, &value);
    const bool sent = send(connection, outgoing);
    if (outgoing.capacity() > KeptAnswerCapacity) {
        outgoing = QByteArray();
        outgoing.reserve(256);
    }
    if (!sent) {
        CLOG(Error) << "failed to write pending bytes";
        return false;
    }
    return true;
}

bool SocketAdaptor::sendFailedReturnValue(SocketConnection* connection, quint16 queryId)
{
    outgoing.resize(0);
    if (connection)
        SocketConnection::appendReturnValue(outgoing, queryId, false, nullptr);
    if (!connection || !clientOf(connection) || !send(connection, outgoing)) {
        CLOG(Error) << "failed to send return value of" << QString::number(queryId);
        return false;
    }
    return true;
}

void SocketAdaptor::onInvokeTimeout()
{
    auto* connection = qobject_cast<SocketConnection*>(sender());
    if (!connection)
        return;
    // The timer runs only while this call is being parsed: the query id is its own.
    const QByteArray signature = connection->getSignature();
    const quint16 queryId = connection->getQueryId();
    connection->resetParser();
    callDropped(connection, queryId);
    CLOG(Error) << "Failed to invoke" << signature << "probably due to an invalid signature";
}

void SocketAdaptor::emitSignal(const char* signature, const SocketArgument& a1, const SocketArgument& a2,
                               const SocketArgument& a3, const SocketArgument& a4, const SocketArgument& a5,
                               const SocketArgument& a6, const SocketArgument& a7, const SocketArgument& a8,
                               const SocketArgument& a9, const SocketArgument& a10)
{
    emitSignalWithArgumentList(signature,
                               QList<const SocketArgument*>{&a1, &a2, &a3, &a4, &a5, &a6, &a7, &a8, &a9, &a10});
}

bool SocketAdaptor::isSignalSubscribed(const char* signature) const
{
    const QByteArray normalized = QMetaObject::normalizedSignature(signature);
    for (const Client* client : clients)
        if (client->subscriptions.contains(normalized))
            return true;
    return false;
}

void SocketAdaptor::emitSignalWithArgumentList(const char* signature, const QList<const SocketArgument*>& arguments)
{
    const QByteArray normalized = signalSignatures.get(signature);
    // Writing can drop a subscriber (over its limit) or find it gone, and that
    // removes it from the clients while this runs: go over a snapshot, and
    // look each one up again before writing to it.
    QVarLengthArray<Socket*, 32> subscribers;
    for (auto it = clients.cbegin(); it != clients.cend(); ++it)
        if (it.value()->subscriptions.contains(normalized))
            subscribers.append(it.key());
    if (subscribers.isEmpty()) {
        CLOG(Warning) << "emitted signal with no subscribers" << normalized;
        return;
    }
    // One message for all subscribers, written with one write each.
    QByteArray message;
    SocketConnection::appendSignal(message, normalized.left(normalized.indexOf('(')), arguments);
    for (Socket* socket : subscribers) {
        const Client* client = clients.value(socket);
        if (client && !send(client->connection, message))
            CLOG(Error) << "failed to send signal" << normalized;
    }
}

void SocketAdaptor::drop(SocketConnection* connection, const QString& reason)
{
    Socket* socket = connection->getSocket();
    connection->dropForLimit(reason);
    // The abort has usually reported the disconnection already.
    if (clients.contains(socket))
        removeClient(socket);
}

void SocketAdaptor::onDisconnected()
{
    auto* socket = qobject_cast<Socket*>(sender());
    if (!clients.contains(socket)) {
        CLOG(Warning) << "unknown client disconnected";
        return;
    }
    removeClient(socket);
}

void SocketAdaptor::removeClient(Socket* socket)
{
    Client* client = clients.take(socket);
    SocketConnection* connection = client->connection;
    socket->disconnect(this);
    connection->disconnect(this);
    // The calls of a client dropped for its limits are discarded; those of a
    // client that left are carried out, but never answered on a released
    // connection.
    const bool discard = connection->isDropped();
    for (int i = priorityQueue.size() - 1; i >= 0; --i) {
        if (priorityQueue.at(i).connection != connection)
            continue;
        if (discard)
            priorityQueue.removeAt(i);
        else
            priorityQueue[i].connection = nullptr;
    }
    if (discard)
        client->calls.clear();
    for (SocketCall& call : client->calls)
        call.connection = nullptr;
    client->connection = nullptr;
    if (client->calls.empty()) {
        turns.removeOne(client);
        delete client;
    }
    if (clients.size() < MaxConnections)
        refusing = false;
    emit clientDisconnected(QString::fromUtf8(connection->getClientName()));
    // Both may be inside their own signal handlers right now.
    socket->deleteLater();
    connection->deleteLater();
}

SocketAdaptorWithPing::SocketAdaptorWithPing(QObject* parent, int heartbeatInterval) : SocketAdaptor(parent)
{
    connect(&heartbeatTimer, &QTimer::timeout, this, &SocketAdaptorWithPing::onHeartbeatTimeout);
    heartbeatTimer.start(heartbeatInterval);
}

SocketAdaptorWithPing::~SocketAdaptorWithPing() = default;

void SocketAdaptorWithPing::connectToDiagnosis(SocketConnection::SocketType type, const QString& socketDir)
{
    diagnosis.reset(new SocketInterface(type, QStringLiteral("com.zan.ravo.diagnosis"), socketDir));
    if (!diagnosis->isValid()) {
        CLOG(Warning) << "Failed to connect to diagnosis, retrying with heartbeat";
        diagnosis.reset();
    }
}

void SocketAdaptorWithPing::sendHeartbeat()
{
    // The module sends one after every run stage, long before the first timed
    // heartbeat: the diagnosis service is looked for here, so that each stage
    // reaches it at once. One that went (restarted by the supervisor) is
    // found again.
    if (!diagnosis || !diagnosis->isValid()) {
        const DatabaseSettings settings = readDatabaseSettings();
        connectToDiagnosis(settings.useTcp() ? SocketConnection::TcpSocketType : SocketConnection::LocalSocketType,
                           settings.socketDir);
    }
    if (diagnosis)
        diagnosis->call("ping", getModuleName(), runStage);
}

void SocketAdaptorWithPing::onHeartbeatTimeout()
{
    sendHeartbeat();
}
