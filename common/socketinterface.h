#ifndef SOCKETINTERFACE_H
#define SOCKETINTERFACE_H

#include "socketconnection.h"
#include "spinlock.h"

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QPair>
#include <QPointer>
#include <QSet>
#include <QString>
#include <QTimer>
#include <QVector>

#include <functional>

class QThread;

// The client end of the backend's RPC: connects to one named service, calls
// its methods by signature with or without waiting for the result, and
// delivers the service's signals to local slots.
//
// Everything happens on the thread that made the object. A blocking call
// waits on this connection's socket only (up to 20 s per wait, 20 minutes in
// all) and parses what arrives meanwhile; signals that arrive during a wait
// are delivered later from the event loop, never from inside the wait.
// Failures are log lines, an invalid SocketArgument and the error flag.
class SocketInterface : public SocketConnection, private SocketMessageReceiver
{
    Q_OBJECT

public:
    // Written as the call message's type.
    enum CallMode { CallWithReturn = 0, CallWithoutReturn = 1 };

    // Connects at once to the service's socket in socketDir: a local socket
    // at socketDir/serviceName, or TCP on the loopback port written in
    // socketDir/serviceName.port. Waits up to 120 s for the connection and
    // announces clientName when it is not empty. isValid() tells the outcome.
    SocketInterface(SocketConnection::SocketType type, const QString& serviceName, const QString& socketDir,
                    QObject* parent = nullptr, QByteArray clientName = QByteArray());
    ~SocketInterface() override;

    // A new interface to serviceName where the database settings say the
    // services are (socket directory and type). The caller owns it.
    static SocketInterface* connectToService(const QString& serviceName, QObject* parent = nullptr);

    // Connected; false for good once the connection failed or went.
    bool isValid() const;
    QString serviceName() const { return service; }
    bool hasError() const { return errorFlag; }
    QString errorText() const { return errorMessage; }
    // Whether the service answered the last blocking call with a failure (as
    // for a signature it does not know), rather than with a value or none.
    bool lastCallFailed() const { return lastFailed; }

    // A call without return. Arguments end at the first invalid one.
    SocketArgument call(const char* method, const SocketArgument& a1 = SocketArgument(),
                        const SocketArgument& a2 = SocketArgument(), const SocketArgument& a3 = SocketArgument(),
                        const SocketArgument& a4 = SocketArgument(), const SocketArgument& a5 = SocketArgument(),
                        const SocketArgument& a6 = SocketArgument(), const SocketArgument& a7 = SocketArgument(),
                        const SocketArgument& a8 = SocketArgument(), const SocketArgument& a9 = SocketArgument(),
                        const SocketArgument& a10 = SocketArgument());
    SocketArgument call(CallMode mode, const char* method, const SocketArgument& a1 = SocketArgument(),
                        const SocketArgument& a2 = SocketArgument(), const SocketArgument& a3 = SocketArgument(),
                        const SocketArgument& a4 = SocketArgument(), const SocketArgument& a5 = SocketArgument(),
                        const SocketArgument& a6 = SocketArgument(), const SocketArgument& a7 = SocketArgument(),
                        const SocketArgument& a8 = SocketArgument(), const SocketArgument& a9 = SocketArgument(),
                        const SocketArgument& a10 = SocketArgument());
    // With return: blocks until the result arrives (or the limits pass) and
    // returns it. Without return: returns an invalid argument at once.
    SocketArgument callWithArgumentList(CallMode mode, const char* method, const QList<const SocketArgument*>& arguments);
    SocketArgument callWithArgumentList(CallMode mode, const char* method, const QList<SocketArgument>& arguments);
    // Sends a call with return and comes back at once; callback gets the
    // result when it arrives (an invalid argument for a failed call).
    bool callWithArgumentListAndCallback(const char* method, const QList<const SocketArgument*>& arguments,
                                         std::function<void(SocketArgument)> callback);
    bool callWithArgumentListAndCallback(const char* method, const QList<SocketArgument>& arguments,
                                         std::function<void(SocketArgument)> callback);

    // Subscribes receiver's slot to the service's signal, e.g.
    // "configValueChanged(QString, QString, bool)". Every successful call
    // subscribes again; the slot then runs once per subscription.
    bool connectDynamicSignal(const char* signal, QObject* receiver, const char* slot);
    // Forgets one subscription locally; the service goes on sending.
    bool disconnectDynamicSignal(const char* signal, QObject* receiver, const char* slot);

    // Asks the service for a signal without a local slot: for an observer
    // that takes every signal, whatever its signature (a monitoring tool).
    bool subscribeSignal(const char* signal);
    using SignalObserver = std::function<void(const QByteArray& signature, const QVector<SocketArgument>& values)>;
    // Called with every signal that passes the white list, before its slots.
    void setSignalObserver(SignalObserver observer) { signalObserver = std::move(observer); }
    // Delivers now, through the gate, the signals that have arrived and wait
    // for the event loop, those the transport holds unread among them. For an
    // owner about to drop this interface: what came before the drop counts.
    void deliverArrivedSignals();

    // Process-wide, shared by all interfaces, wraps from 65535 to 0.
    static quint16 NextQueryId;
    // Process-wide gate for the signals of every interface. While the white
    // list is not empty, signals named on it are delivered, signals named on
    // the drop list are dropped, and all others are held: copied, in order of
    // arrival, for the receivers subscribed at that moment. An empty white
    // list delivers every signal.
    static QSet<QByteArray> SignalWhiteList;
    static QSet<QByteArray> SignalDropList;
    // Opens the gate: empties both lists, then delivers the held signals in
    // the order they came to those of their receivers that still exist, even
    // when the interface that received them is gone.
    static void releaseHeldSignals();

signals:
    void disconnected();

private slots:
    void onReadyRead();
    void onReceiverDestroyed(QObject* receiver);
    void onError(const QString& text);
    void onPostponedTimeout();
    void onSocketDisconnected();

private:
    struct Result
    {
        bool success = false;
        SocketArgument value;
    };

    bool sendCall(quint16 queryId, CallMode mode, const char* method, const QList<const SocketArgument*>& arguments);
    SocketArgument waitForReturnValue(quint16 queryId, const char* method);
    bool announceClientName(const QByteArray& name);
    void checkThread(const char* function, const QByteArray& detail) const;
    static bool checkSignalWhiteList(const QByteArray& signature);
    void holdSignal(const QByteArray& signature, const QVector<SocketArgument>& values) const;
    void emitDynamicSignal(const char* signature, void** argv);
    void emitDynamicSignalLater();
    void setError(const QString& text);
    QString peer() const;

    void returnValueReceived(SocketConnection* connection, quint16 queryId, bool success,
                             const SocketArgument* value) override;
    void signalReceived(SocketConnection* connection) override;

    // Signature -> slot index -> receivers. Receivers are guarded: one that is
    // gone is skipped rather than called.
    QMap<QByteArray, QMap<int, QList<QPointer<QObject>>>> subscriptions;
    bool errorFlag = false;
    QString errorMessage;
    QByteArray currentMethod;
    SpinLock callLock{"call lock"};
    SpinLock resultLock{"result lock"};
    QMap<quint16, Result> returnValues;
    QMap<quint16, std::function<void(SocketArgument)>> callbacks;
    QList<QPair<QByteArray, QVector<SocketArgument>>> postponedSignals;
    QTimer postponedTimer;
    QString service;
    QThread* ownerThread;
    bool lastFailed = false;
    SignalObserver signalObserver;
    NormalizedSignatures signalSignatures;
};

#endif // SOCKETINTERFACE_H
