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

namespace {

constexpr int ResultFlushMs = 120000;
constexpr int SignalFlushMs = 1000;

} // namespace

SocketAdaptor::SocketAdaptor(QObject* parent) : QObject(parent)
{
    pendingCallTimer.setSingleShot(true);
    connect(&pendingCallTimer, &QTimer::timeout, this, &SocketAdaptor::onPendingCallTimer);
}

SocketAdaptor::~SocketAdaptor()
{
    CLOG(Notice) << "SocketAdaptor destruct";
    delete server;
    qDeleteAll(connections);
}

void SocketAdaptor::listenOn(SocketServer* listener)
{
    delete server;
    server = listener;
    connect(server, &SocketServer::newConnection, this, &SocketAdaptor::onNewConnection);
}

bool SocketAdaptor::startLocalServer(const QString& socketDir)
{
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
    auto* tcp = new TcpServer(this);
    listenOn(tcp);
    socketType = SocketConnection::TcpSocketType;
    if (!tcp->listen(QHostAddress::LocalHost, port)) {
        CLOG(Error) << "cannot listen on port" << QString::number(port) << tcp->errorString();
        return false;
    }
    // Replaced in one step: a client never reads a half-written port.
    QSaveFile portFile(socketDir + QLatin1Char('/') + getModuleName() + QStringLiteral(".port"));
    if (!portFile.open(QIODevice::WriteOnly) || portFile.write(QByteArray::number(tcp->getPort())) < 0
        || !portFile.commit()) {
        CLOG(Error) << "cannot write port file" << portFile.fileName() << portFile.errorString();
        return false;
    }
    return true;
}

bool SocketAdaptor::startSocketActivatedServer(int socketDescriptor)
{
    auto* tcp = new TcpServer(this);
    listenOn(tcp);
    socketType = SocketConnection::TcpSocketType;
    return tcp->listen(socketDescriptor);
}

void SocketAdaptor::onNewConnection()
{
    Socket* socket = server ? server->nextPendingConnection() : nullptr;
    if (!socket)
        return;
    auto* connection = new SocketConnection(socket);
    connection->setInvokeTimeoutInterval(invokeTimeoutInterval);
    connections.insert(socket, connection);
    connect(connection, &SocketConnection::invokeTimeout, this, &SocketAdaptor::onInvokeTimeout);
    connect(socket, &Socket::readyRead, this, &SocketAdaptor::onReadyRead);
    connect(socket, &Socket::disconnected, this, &SocketAdaptor::onDisconnected);
    emit clientConnected(QString::fromUtf8(connection->getClientName()));
    onPendingCallTimer();
    // Bytes that came with the connection do not announce themselves again.
    if (socket->bytesAvailable() > 0)
        read(connection);
}

void SocketAdaptor::onReadyRead()
{
    SocketConnection* connection = connections.value(qobject_cast<Socket*>(sender()));
    if (!connection) {
        CLOG(Warning) << "onReadyRead for unknown connection";
        return;
    }
    read(connection);
}

void SocketAdaptor::read(SocketConnection* connection)
{
    connection->appendReceivedData(connection->getSocket()->readAll());
    connection->parseReceivedData(SocketConnection::ServerSide, this);
}

void SocketAdaptor::subscriptionReceived(SocketConnection* connection, const QByteArray& signature)
{
    const QByteArray normalized = QMetaObject::normalizedSignature(signature.constData());
    subscriptions[connection].insert(normalized);
    emit signalSubscribed(normalized);
}

void SocketAdaptor::callReceived(SocketConnection* connection, bool urgent)
{
    invokeLater(connection, urgent);
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
    (urgent ? priorityQueue : normalQueue).append(call);
    pendingCallTimer.start(0);
}

void SocketAdaptor::onPendingCallTimer()
{
    if (!priorityQueue.isEmpty()) {
        while (!priorityQueue.isEmpty())
            invoke(priorityQueue.takeFirst());
    } else if (!normalQueue.isEmpty()) {
        // One call per event-loop turn: a busy client cannot hold up the others.
        invoke(normalQueue.takeFirst());
    }
    if (!normalQueue.isEmpty() || !priorityQueue.isEmpty())
        pendingCallTimer.start(0);
}

void SocketAdaptor::invoke(const SocketCall& call)
{
    ProfileScope profile(call.signature.constData());
    // A client that has gone is not answered; its call is carried out all the
    // same, as a client that sends and leaves (a "quit" without return) expects.
    const bool answer = call.wantsReturn && call.connection;
    const QMetaObject* meta = metaObject();
    const int index = meta->indexOfMethod(call.signature.constData());
    if (index < 0) {
        CLOG(Error) << "invalid signature" << call.signature;
        if (answer)
            sendFailedReturnValue(call.connection, call.queryId);
        return;
    }
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

bool SocketAdaptor::sendResult(const SocketCall& call, const SocketArgument& value)
{
    SocketConnection* connection = call.connection;
    if (!connection)
        return false;
    if (!connection->writeReturnValue(call.queryId, true, &value) || !connection->flush(ResultFlushMs)) {
        CLOG(Error) << "failed to write pending bytes";
        return false;
    }
    return true;
}

bool SocketAdaptor::sendFailedReturnValue(SocketConnection* connection, quint16 queryId)
{
    if (!connection || !connection->writeReturnValue(queryId, false, nullptr) || !connection->flush(ResultFlushMs)) {
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
    const QByteArray signature = connection->getSignature();
    connection->resetParser();
    sendFailedReturnValue(connection, connection->getQueryId());
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
    for (const QSet<QByteArray>& subscribed : subscriptions)
        if (subscribed.contains(normalized))
            return true;
    return false;
}

void SocketAdaptor::emitSignalWithArgumentList(const char* signature, const QList<const SocketArgument*>& arguments)
{
    const QByteArray normalized = QMetaObject::normalizedSignature(signature);
    // One message for all subscribers, written with one write each.
    QByteArray message;
    SocketConnection::appendValue(message, SocketConnection::MagicNumber);
    SocketConnection::appendValue(message, quint8(SocketConnection::SignalMessage));
    message += normalized.left(normalized.indexOf('('));
    message += '\0';
    for (const SocketArgument* argument : arguments) {
        if (!argument || !argument->isValid())
            break;
        SocketConnection::appendParameter(message, *argument);
    }
    message += '\0';

    bool subscribed = false;
    for (auto it = subscriptions.cbegin(); it != subscriptions.cend(); ++it) {
        if (!it.value().contains(normalized))
            continue;
        subscribed = true;
        SocketConnection* connection = it.key();
        if (!connection->writeData(message.constData(), message.size())) {
            CLOG(Error) << "failed to send signal" << normalized;
        } else if (!connection->flush(SignalFlushMs)) {
            const qint64 remaining = connection->getSocket() ? connection->getSocket()->bytesToWrite() : 0;
            CLOG(Error) << "failed to write pending bytes, remaining" << QString::number(remaining);
        }
    }
    if (!subscribed)
        CLOG(Warning) << "emitted signal with no subscribers" << normalized;
}

void SocketAdaptor::onDisconnected()
{
    auto* socket = qobject_cast<Socket*>(sender());
    SocketConnection* connection = connections.take(socket);
    if (!connection) {
        CLOG(Warning) << "unknown client disconnected";
        return;
    }
    subscriptions.remove(connection);
    // Its queued calls are still carried out, but never answered on a released connection.
    for (QList<SocketCall>* queue : {&normalQueue, &priorityQueue})
        for (SocketCall& call : *queue)
            if (call.connection == connection)
                call.connection = nullptr;
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
