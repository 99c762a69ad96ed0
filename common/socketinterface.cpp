#include "socketinterface.h"

#include "defaults.h"
#include "logginginterface.h"

#include <QElapsedTimer>
#include <QFile>
#include <QMetaMethod>
#include <QThread>

namespace {

constexpr int ConnectWaitMs = 120000;
constexpr int FlushWaitMs = 120000;
constexpr int NonBlockingFlushMs = 2000;
constexpr int ReadWaitMs = 20000;
constexpr qint64 ReturnValueLimitMs = 1200000;

QList<const SocketArgument*> pointers(const QList<SocketArgument>& arguments)
{
    QList<const SocketArgument*> list;
    list.reserve(arguments.size());
    for (const SocketArgument& argument : arguments)
        list.append(&argument);
    return list;
}

} // namespace

quint16 SocketInterface::NextQueryId = 0;
QSet<QByteArray> SocketInterface::SignalWhiteList;
QSet<QByteArray> SocketInterface::SignalDropList;

namespace {

// A signal kept back by the gate for one receiver's slot.
struct HeldSignal
{
    QPointer<QObject> receiver;
    int slotIndex;
    QVector<SocketArgument> values;
};

QList<HeldSignal> heldSignals;

QByteArray signalName(const QByteArray& signature)
{
    return signature.left(signature.indexOf('('));
}

} // namespace

SocketInterface::SocketInterface(SocketConnection::SocketType type, const QString& serviceName,
                                 const QString& socketDir, QObject* parent, QByteArray clientName)
    : SocketConnection(type, parent), service(serviceName), ownerThread(QThread::currentThread())
{
    postponedTimer.setSingleShot(true);
    connect(&postponedTimer, &QTimer::timeout, this, &SocketInterface::onPostponedTimeout);
    Socket* transport = getSocket();
    if (transport) {
        connect(transport, &Socket::error, this, &SocketInterface::onError);
        connect(transport, &Socket::readyRead, this, &SocketInterface::onReadyRead);
        connect(transport, &Socket::disconnected, this, &SocketInterface::onSocketDisconnected);
    }

    const QString path = socketDir + QLatin1Char('/') + serviceName;
    if (auto* local = qobject_cast<LocalSocket*>(transport)) {
        local->connectToServer(path, QIODevice::ReadWrite);
    } else if (auto* tcp = qobject_cast<TcpSocket*>(transport)) {
        QFile portFile(path + QStringLiteral(".port"));
        if (!portFile.open(QIODevice::ReadOnly)) {
            CLOG(Error) << "cannot open socket file:" << portFile.fileName();
            return;
        }
        tcp->connectToHost(QHostAddress::LocalHost, quint16(portFile.readAll().trimmed().toUInt()),
                           QIODevice::ReadWrite);
    } else {
        CLOG(Error) << "undefined or unsupported socket type";
        return;
    }
    transport->waitForConnected(ConnectWaitMs);

    if (isValid() && !clientName.isEmpty() && !announceClientName(clientName))
        CLOG(Error) << "failed to send client name" << clientName;
}

SocketInterface::~SocketInterface() = default;

SocketInterface* SocketInterface::connectToService(const QString& serviceName, QObject* parent)
{
    const DatabaseSettings settings = readDatabaseSettings();
    return new SocketInterface(settings.useTcp() ? TcpSocketType : LocalSocketType, serviceName,
                               settings.socketDir, parent);
}

bool SocketInterface::isValid() const
{
    const Socket* transport = getSocket();
    return transport && transport->isValid();
}

QString SocketInterface::peer() const
{
    return getSocket() ? getSocket()->getPeerName() : service;
}

void SocketInterface::setError(const QString& text)
{
    errorFlag = true;
    errorMessage = text;
}

void SocketInterface::checkThread(const char* function, const QByteArray& detail) const
{
    QThread* current = QThread::currentThread();
    if (current == ownerThread)
        return;
    // Only reported: the operation goes on regardless.
    QByteArray text = QByteArray(function) + " called in wrong thread (detail=" + detail;
    if (current)
        text += "); must be " + ownerThread->objectName().toUtf8() + ", is " + current->objectName().toUtf8();
    else
        text += ')';
    CLOG(Error) << text;
}

bool SocketInterface::announceClientName(const QByteArray& name)
{
    checkThread("announceClientName", name);
    SpinLocker locker(callLock, "client name: " + name);
    if (!writeClientName(name))
        return false;
    if (!flush(FlushWaitMs)) {
        CLOG(Error) << "failed to write pending bytes";
        return false;
    }
    return true;
}

bool SocketInterface::sendCall(quint16 queryId, CallMode mode, const char* method,
                               const QList<const SocketArgument*>& arguments)
{
    errorFlag = false;
    errorMessage.clear();
    currentMethod = method;
    const MessageType type = mode == CallWithReturn ? CallWithReturnMessage : CallWithoutReturnMessage;
    if (!writeCall(type, queryId, method, arguments)) {
        setError(QStringLiteral("failed to write data"));
        CLOG(Error) << "failed to call method" << method << peer();
        return false;
    }
    return true;
}

SocketArgument SocketInterface::call(const char* method, const SocketArgument& a1, const SocketArgument& a2,
                                     const SocketArgument& a3, const SocketArgument& a4, const SocketArgument& a5,
                                     const SocketArgument& a6, const SocketArgument& a7, const SocketArgument& a8,
                                     const SocketArgument& a9, const SocketArgument& a10)
{
    return callWithArgumentList(CallWithoutReturn, method,
                                QList<const SocketArgument*>{&a1, &a2, &a3, &a4, &a5, &a6, &a7, &a8, &a9, &a10});
}

SocketArgument SocketInterface::call(CallMode mode, const char* method, const SocketArgument& a1,
                                     const SocketArgument& a2, const SocketArgument& a3, const SocketArgument& a4,
                                     const SocketArgument& a5, const SocketArgument& a6, const SocketArgument& a7,
                                     const SocketArgument& a8, const SocketArgument& a9, const SocketArgument& a10)
{
    return callWithArgumentList(mode, method,
                                QList<const SocketArgument*>{&a1, &a2, &a3, &a4, &a5, &a6, &a7, &a8, &a9, &a10});
}

SocketArgument SocketInterface::callWithArgumentList(CallMode mode, const char* method,
                                                     const QList<SocketArgument>& arguments)
{
    return callWithArgumentList(mode, method, pointers(arguments));
}

SocketArgument SocketInterface::callWithArgumentList(CallMode mode, const char* method,
                                                     const QList<const SocketArgument*>& arguments)
{
    checkThread("callWithArgumentList", method);
    currentMethod = method;
    // Held across the whole wait: calls on one interface wait for each other.
    SpinLocker locker(callLock, QByteArray("call: ") + method);
    const quint16 queryId = NextQueryId++;
    if (!sendCall(queryId, mode, method, arguments))
        return SocketArgument();

    if (mode == CallWithoutReturn) {
        // The bytes stay queued in the transport if the service is slow to read.
        if (!flush(NonBlockingFlushMs))
            CLOG(Warning) << "non-blocking call to" << method << "in" << peer() << "delayed, continuing";
        return SocketArgument();
    }
    if (!flush(FlushWaitMs)) {
        CLOG(Error) << "failed to write pending bytes" << method << peer();
        setError(QStringLiteral("failed to flush data"));
        CLOG(Error) << "failed to call method" << method << peer();
        return SocketArgument();
    }
    return waitForReturnValue(queryId, method);
}

SocketArgument SocketInterface::waitForReturnValue(quint16 queryId, const char* method)
{
    QElapsedTimer waiting;
    waiting.start();
    for (;;) {
        resultLock.lock("waitForReturnValue 1");
        const bool arrived = returnValues.contains(queryId);
        resultLock.unlock();
        if (arrived) {
            resultLock.lock("waitForReturnValue 2");
            const Result result = returnValues.take(queryId);
            resultLock.unlock();
            errorFlag = false;
            errorMessage.clear();
            currentMethod.clear();
            lastFailed = !result.success;
            return result.value;
        }

        // What arrives meanwhile is parsed by onReadyRead, from inside the wait.
        Socket* transport = getSocket();
        if (!transport || !transport->waitForReadyRead(ReadWaitMs)) {
            const QAbstractSocket::SocketState state = transport ? transport->state() : QAbstractSocket::UnconnectedState;
            if (!transport || transport->getLastError() != QAbstractSocket::SocketTimeoutError
                || (state != QAbstractSocket::ConnectingState && state != QAbstractSocket::ConnectedState)) {
                CLOG(Error) << "error in call" << method << peer()
                            << (transport ? transport->getLastErrorText() : QString()) << int(state);
                return SocketArgument();
            }
            CLOG(Warning) << "still waiting for return value of" << method;
        }
        if (waiting.elapsed() > ReturnValueLimitMs) {
            CLOG(Error) << "missing return value" << method << peer();
            return SocketArgument();
        }
    }
}

bool SocketInterface::callWithArgumentListAndCallback(const char* method, const QList<SocketArgument>& arguments,
                                                      std::function<void(SocketArgument)> callback)
{
    return callWithArgumentListAndCallback(method, pointers(arguments), std::move(callback));
}

bool SocketInterface::callWithArgumentListAndCallback(const char* method,
                                                      const QList<const SocketArgument*>& arguments,
                                                      std::function<void(SocketArgument)> callback)
{
    checkThread("callWithArgumentListAndCallback", method);
    SpinLocker locker(callLock, QByteArray("call: ") + method);
    const quint16 queryId = NextQueryId++;
    const bool sent = sendCall(queryId, CallWithReturn, method, arguments);
    if (sent) {
        flush(1);
        SpinLocker results(resultLock, "callWithCallback");
        callbacks.insert(queryId, std::move(callback));
    }
    return sent;
}

void SocketInterface::onReadyRead()
{
    if (!getSocket())
        return;
    const QPointer<SocketInterface> alive(this);
    readReceivedData();
    parseReceivedData(ClientSide, this);
    if (alive && !postponedSignals.isEmpty())
        postponedTimer.start(0);
}

void SocketInterface::returnValueReceived(SocketConnection*, quint16 queryId, bool success,
                                          const SocketArgument* value)
{
    // Locks are released before a callback runs: it may call again.
    std::function<void(SocketArgument)> callback;
    resultLock.lock(!success ? "onReadyRead cb1" : !value ? "onReadyRead cb3" : "onReadyRead cb5");
    const bool hasCallback = callbacks.contains(queryId);
    resultLock.unlock();
    if (hasCallback) {
        resultLock.lock(!success ? "onReadyRead cb2" : !value ? "onReadyRead cb4" : "onReadyRead cb6");
        callback = callbacks.take(queryId);
        resultLock.unlock();
        if (!success || !value) {
            callback(SocketArgument());
        } else {
            // A value is handed over from the event loop, after this parse.
            const SocketArgument copy = *value;
            QTimer::singleShot(0, this, [callback, copy] { callback(copy); });
        }
        return;
    }
    // Kept until a waiter collects it; a late result stays until a later call
    // with the same query id takes it.
    SpinLocker locker(resultLock, !success ? "onReadyRead 1" : !value ? "onReadyRead 2" : "onReadyRead 3");
    returnValues.insert(queryId, {success, value ? *value : SocketArgument()});
}

void SocketInterface::signalReceived(SocketConnection*)
{
    emitDynamicSignalLater();
}

void SocketInterface::emitDynamicSignalLater()
{
    QVector<SocketArgument> values;
    values.reserve(getParsedValueCount());
    for (int i = 0; i < getParsedValueCount(); ++i)
        values.append(getParsedValue(i));
    postponedSignals.append({getSignature(), values});
}

void SocketInterface::deliverArrivedSignals()
{
    checkThread("deliverArrivedSignals", "");
    // A zero wait reads what the kernel holds, through onReadyRead; a peer
    // that goes on sending is not followed for long.
    const QPointer<SocketInterface> alive(this);
    for (int reads = 0; alive && getSocket() && reads < 16 && getSocket()->waitForReadyRead(0); ++reads) {
    }
    if (!alive)
        return;
    postponedTimer.stop();
    onPostponedTimeout();
}

void SocketInterface::onPostponedTimeout()
{
    const QPointer<SocketInterface> alive(this);
    while (alive && !postponedSignals.isEmpty()) {
        QPair<QByteArray, QVector<SocketArgument>> entry = postponedSignals.takeFirst();
        if (!checkSignalWhiteList(entry.first)) {
            if (!SignalDropList.contains(signalName(entry.first)))
                holdSignal(entry.first, entry.second);
            continue;
        }
        if (signalObserver) {
            signalObserver(entry.first, entry.second);
            if (!alive)
                return;
        }
        QVector<void*> argv;
        argv.append(nullptr); // no return value
        for (SocketArgument& value : entry.second)
            argv.append(value.getDataPointer());
        emitDynamicSignal(entry.first.constData(), argv.data());
    }
}

bool SocketInterface::checkSignalWhiteList(const QByteArray& signature)
{
    if (SignalWhiteList.isEmpty())
        return true;
    return SignalWhiteList.contains(signalName(signature));
}

void SocketInterface::holdSignal(const QByteArray& signature, const QVector<SocketArgument>& values) const
{
    // The receivers are taken now: the interface may be gone by the release.
    const auto entry = subscriptions.constFind(QMetaObject::normalizedSignature(signature.constData()));
    if (entry == subscriptions.constEnd())
        return;
    for (auto it = entry->cbegin(); it != entry->cend(); ++it)
        for (const QPointer<QObject>& receiver : it.value())
            if (receiver)
                heldSignals.append({receiver, it.key(), values});
}

void SocketInterface::releaseHeldSignals()
{
    SignalWhiteList.clear();
    SignalDropList.clear();
    while (!heldSignals.isEmpty()) {
        HeldSignal held = heldSignals.takeFirst();
        if (!held.receiver)
            continue;
        QVector<void*> argv;
        argv.append(nullptr); // no return value
        for (SocketArgument& value : held.values)
            argv.append(value.getDataPointer());
        QMetaObject::metacall(held.receiver, QMetaObject::InvokeMetaMethod, held.slotIndex, argv.data());
    }
}

void SocketInterface::emitDynamicSignal(const char* signature, void** argv)
{
    const QByteArray normalized = signalSignatures.get(signature);
    if (!checkSignalWhiteList(normalized))
        return;
    const auto entry = subscriptions.constFind(normalized);
    if (entry == subscriptions.constEnd())
        return;
    // On a copy: a slot may subscribe or unsubscribe while it runs.
    const QMap<int, QList<QPointer<QObject>>> bySlot = *entry;
    for (auto it = bySlot.cbegin(); it != bySlot.cend(); ++it)
        for (const QPointer<QObject>& receiver : it.value())
            if (receiver)
                QMetaObject::metacall(receiver, QMetaObject::InvokeMetaMethod, it.key(), argv);
}

bool SocketInterface::connectDynamicSignal(const char* signal, QObject* receiver, const char* slot)
{
    checkThread("connectDynamicSignal", signal);
    const QByteArray normalizedSignal = QMetaObject::normalizedSignature(signal);
    const QByteArray normalizedSlot = QMetaObject::normalizedSignature(slot);
    if (!receiver || !QMetaObject::checkConnectArgs(normalizedSignal, normalizedSlot))
        return false;
    const int index = receiver->metaObject()->indexOfMethod(normalizedSlot);
    if (index < 0) {
        CLOG(Error) << "no such slot" << slot;
        return false;
    }
    if (!subscribeSignal(signal))
        return false;
    subscriptions[normalizedSignal][index].append(receiver);
    connect(receiver, &QObject::destroyed, this, &SocketInterface::onReceiverDestroyed, Qt::UniqueConnection);
    return true;
}

bool SocketInterface::subscribeSignal(const char* signal)
{
    SpinLocker locker(callLock, "connect signal: " + QByteArray(signal));
    if (!writeSubscription(QMetaObject::normalizedSignature(signal))) {
        CLOG(Error) << "failed to connect dynamic signal" << signal;
        return false;
    }
    if (!flush(FlushWaitMs)) {
        CLOG(Error) << "failed to write pending bytes";
        CLOG(Error) << "failed to connect dynamic signal" << signal;
        return false;
    }
    return true;
}

bool SocketInterface::disconnectDynamicSignal(const char* signal, QObject* receiver, const char* slot)
{
    checkThread("disconnectDynamicSignal", signal);
    const QByteArray normalizedSignal = QMetaObject::normalizedSignature(signal);
    const QByteArray normalizedSlot = QMetaObject::normalizedSignature(slot);
    if (!receiver || !QMetaObject::checkConnectArgs(normalizedSignal, normalizedSlot))
        return false;
    auto entry = subscriptions.find(normalizedSignal);
    const int index = receiver->metaObject()->indexOfMethod(normalizedSlot);
    if (entry == subscriptions.end() || index < 0 || !entry->contains(index))
        return false;
    QList<QPointer<QObject>>& receivers = (*entry)[index];
    const int position = receivers.indexOf(receiver);
    if (position < 0)
        return false;
    receivers.removeAt(position);
    disconnect(receiver, &QObject::destroyed, this, &SocketInterface::onReceiverDestroyed);
    return true;
}

void SocketInterface::onReceiverDestroyed(QObject*)
{
    // Gone receivers are skipped at delivery; here they are also dropped, so a
    // new object at the same address never inherits their subscriptions.
    for (auto& bySlot : subscriptions)
        for (auto& receivers : bySlot)
            receivers.removeAll(QPointer<QObject>());
}

void SocketInterface::onError(const QString& text)
{
    setError(text);
}

void SocketInterface::onSocketDisconnected()
{
    emit disconnected();
}
