// The RPC client and server end to end: SocketInterface in this process
// against rpctestserver in another (a blocking call needs its server to run
// elsewhere), over local sockets and over loopback TCP.
#include "logginginterface.h"
#include "socketadaptor.h"
#include "socketinterface.h"
#include "socketpair.h"
#include "stdoutcapture.h"

#include <QLocalSocket>
#include <QProcess>
#include <QtTest>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

const char* const Service = "com.zan.ravo.testserver";
constexpr SocketInterface::CallMode WithReturn = SocketInterface::CallWithReturn;

// A service in this process that records the pings and signals it gets.
class Module : public SocketAdaptorWithPing
{
    Q_OBJECT

public:
    explicit Module(const char* name) : SocketAdaptorWithPing(nullptr), name(name) {}
    QStringList pings, texts;

public slots:
    QString getModuleName() override { return name; }
    void ping(QString module, int stage) { pings << module + QLatin1Char(' ') + QString::number(stage); }
    void onChanged(QString text, int number) { texts << text + QLatin1Char('/') + QString::number(number); }

private:
    QString name;
};

} // namespace

class tst_SocketRpc : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase_data()
    {
        QTest::addColumn<bool>("isTcp");
        QTest::newRow("local") << false;
        QTest::newRow("tcp") << true;
    }

    void initTestCase()
    {
        QVERIFY(dir.isValid() && config.isValid());
        qputenv("XDG_CONFIG_HOME", config.path().toUtf8());
        initLogging(false, false, false, true);
    }

    void init()
    {
        QFETCH_GLOBAL(bool, isTcp);
        tcp = isTcp;
        serverLog.clear();
        server.setProcessChannelMode(QProcess::MergedChannels);
        server.start(BINARY_DIR "/tests/rpctestserver", {dir.path(), tcp ? "tcp" : "local", "1000"});
        QVERIFY(server.waitForStarted());
        while (!serverLog.contains("ready\n") && server.waitForReadyRead(5000))
            serverLog += server.readAll();
        QVERIFY2(serverLog.contains("ready\n"), serverLog);
        connect(&server, &QProcess::readyRead, this, [this] { serverLog += server.readAll(); });
        // Only the owner and its group may connect, or read where to.
        const QFileInfo file(dir.filePath(Service + QString(tcp ? ".port" : "")));
        QCOMPARE(file.permissions() & 0x7077, QFile::Permissions(tcp ? 0x6040 : 0x6060));
    }

    void cleanup()
    {
        server.disconnect(this);
        server.kill();
        server.waitForFinished();
        SocketInterface::SignalWhiteList.clear();
    }

    void callsAreAnsweredWithValuesCallbacksAndPromises()
    {
        std::unique_ptr<SocketInterface> rpc = client();
        const InternalId id{InternalId::OutputDataPoint, 0x1234, 4000000000u, 3, 9};
        // A slot of each parameter and return type, by its signature.
        for (const SocketArgument& value : QList<SocketArgument>{
                 QString::fromUtf8("Wohnzimmer Süd"), QByteArray("\x00\xff", 2), static_cast<signed char>(-100),
                 static_cast<unsigned char>(200), static_cast<unsigned short>(65000), -2, 4000000000u, -(1LL << 40), 1ULL << 63,
                 true, -2.5, QStringList{"a", "", "c"}, QList<int>{1, -1}, QVariantMap{{"n", 5}, {"on", true}}}) {
            const SocketArgument result = rpc->call(WithReturn, "echo", value);
            QVERIFY2(!rpc->hasError() && !rpc->lastCallFailed(), value.getTypeString());
            QCOMPARE(result.getType(), value.getType());
            QCOMPARE(result.toQVariant(), value.toQVariant());
        }
        QCOMPARE(rpc->call(WithReturn, "echo", id).toInternalId(), id);
        QCOMPARE(rpc->call(WithReturn, "add", 1, 2, 3, 4, 5, 6, 7, 8, 9, 10).toInt32(), 55);
        // A slot without result: no value, and no failure either.
        QVERIFY(!rpc->call(WithReturn, "block", 0).isValid());
        QVERIFY(!rpc->lastCallFailed() && !rpc->hasError());
        // Without return: back at once; an invalid argument ends the list.
        QVERIFY(!rpc->call("record", QString("one"), SocketArgument(), QString("ignored")).isValid());
        QCOMPARE(rpc->call(WithReturn, "recorded").toQStringList(), QStringList{"one"});
        // Query ids wrap; callbacks get the value, or an invalid one for a failure.
        SocketInterface::NextQueryId = 65535;
        QCOMPARE(rpc->call(WithReturn, "echo", 1).toInt32() + rpc->call(WithReturn, "echo", 2).toInt32(), 3);
        QCOMPARE(SocketInterface::NextQueryId, quint16(1));
        QStringList answers;
        for (const char* method : {"echo", "noSuchSlot"})
            QVERIFY(rpc->callWithArgumentListAndCallback(method, QList<SocketArgument>{QString("cb")},
                                                         [&answers](SocketArgument value) { answers << value.toQString(); }));
        QTRY_COMPARE(answers.size(), 2);
        QCOMPARE(QSet<QString>(answers.begin(), answers.end()), QSet<QString>({"", "cb"}));
        // A promise answers once, also when its slot gives up; not at all to a
        // client that has gone.
        QCOMPARE(rpc->call(WithReturn, "resultBeforeCallData", 21).toInt32(), 42);
        QCOMPARE(rpc->call(WithReturn, "resultAfter", 50).toQString(), QString("50"));
        QCOMPARE(rpc->call(WithReturn, "resultTwice").toInt32(), 1);
        QTRY_VERIFY(serverLog.contains("got multiple setResult calls for resultTwice()"));
        QVERIFY(!rpc->call(WithReturn, "neverAnswered").isValid() && rpc->lastCallFailed());
        QTRY_VERIFY(serverLog.contains("SocketPromise being deleted before result is submitted!"));

        // The caller goes before the result: the result is dropped with a log line.
        std::unique_ptr<SocketInterface> leaving = client();
        QVERIFY(leaving->callWithArgumentListAndCallback("resultAfter", QList<SocketArgument>{300}, [](SocketArgument) {}));
        QTest::qWait(100);
        leaving.reset();
        QTRY_VERIFY(serverLog.contains("SocketPromise cannot send result, adaptor or connection deleted true false"));
        QCOMPARE(rpc->call(WithReturn, "echo", 3).toInt32(), 3);
    }

    void brokenIncompleteAndUnreachableCallsFail()
    {
        std::unique_ptr<SocketInterface> rpc = client();
        QVERIFY(!rpc->call(WithReturn, "echo", QString("x"), 1).isValid() && rpc->lastCallFailed());
        QTRY_VERIFY(serverLog.contains("invalid signature echo(QString,int)"));
        // Eleven values, or a value of kind 4, break the call: answered failed at
        // once, long before the invoke timer (a second here) could.
        QElapsedTimer timer;
        timer.start();
        QVERIFY(!rpc->callWithArgumentList(WithReturn, "add", QList<SocketArgument>{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}).isValid());
        QVERIFY(!rpc->call(WithReturn, "echo", short(4)).isValid() && rpc->lastCallFailed());
        QVERIFY2(timer.elapsed() < 500, qPrintable(QString::number(timer.elapsed())));
        // The timer belongs to the call it guards: once the broken call is over,
        // it does not fire into the next one, however long that takes.
        const QByteArray record = message(SocketConnection::CallWithoutReturnMessage, "record", {QString("whole")});
        QVERIFY(rpc->writeData(record.constData(), 9) && rpc->flush(1000));
        client()->call(WithReturn, "block", 1200);
        QVERIFY(rpc->writeData(record.constData() + 9, record.size() - 9) && rpc->flush(1000));
        QCOMPARE(rpc->call(WithReturn, "recorded").toQStringList(), QStringList{"whole"});
        // A call with return that does not complete is answered failed by its timer.
        QVERIFY(rpc->writeData(message(0, "echo", {1}).constData(), 12) && rpc->flush(1000));
        QTRY_VERIFY(serverLog.contains("Failed to invoke echo() probably due to an invalid signature"));
        // A service nobody offers: an invalid interface, whose calls fail.
        std::unique_ptr<SocketInterface> missing = client({}, "com.zan.ravo.nobody");
        QVERIFY(!missing->isValid() && !missing->call(WithReturn, "anything").isValid() && missing->hasError());
    }

    void clientsAreServedInTurn()
    {
        std::unique_ptr<SocketInterface> busy = client(), other = client(), supervisor = client("rpc");
        // A client with a thousand slow calls waiting holds the others up by one.
        for (int i = 0; i < 1000; ++i)
            busy->call("block", 1);
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(other->call(WithReturn, "echo", 5).toInt32(), 5);
        QVERIFY2(timer.elapsed() < 50, qPrintable(QString::number(timer.elapsed())));
        // Calls of the "rpc" client go ahead of all that wait for their turn,
        // also of those that came first.
        QCOMPARE(busy->call(WithReturn, "echo", 6).toInt32(), 6); // its queue is empty now
        busy->call("block", 300);
        other->call("record", QString("other"));
        supervisor->call("record", QString("rpc"));
        QTRY_COMPARE(other->call(WithReturn, "recorded").toQStringList(), QStringList({"rpc", "other"}));
    }

    void signalsReachSubscribersOutsideBlockingWaits()
    {
        std::unique_ptr<SocketInterface> subscriber = client(), twice = client(), bystander = client();
        Module once("a"), doubled("b");
        QVERIFY(subscriber->connectDynamicSignal("changed(QString, int)", &once, "onChanged(QString,int)"));
        QVERIFY(twice->connectDynamicSignal("changed(QString,int)", &doubled, "onChanged(QString, int)"));
        QVERIFY(twice->connectDynamicSignal("changed(QString,int)", &doubled, "onChanged(QString,int)"));
        QVERIFY(!subscriber->connectDynamicSignal("changed(QString,int)", &once, "noSuchSlot(QString,int)"));
        QVERIFY(!subscriber->connectDynamicSignal("changed(QString,int)", &once, "onChanged(int)"));
        // Not answered: a round trip on the same connection shows they are taken.
        QCOMPARE(twice->call(WithReturn, "echo", 0).toInt32(), 0);
        // The signal arrives during the blocking call and waits for the event loop.
        QCOMPARE(subscriber->call(WithReturn, "notifyThenAnswer", QString("x")).toInt32(), 7);
        QVERIFY(once.texts.isEmpty());
        QTRY_COMPARE(once.texts, QStringList{"x/42"});
        QTRY_COMPARE(doubled.texts, QStringList({"x/42", "x/42"}));
        // Unsubscribed locally: no delivery, though the service goes on sending.
        QVERIFY(subscriber->disconnectDynamicSignal("changed(QString,int)", &once, "onChanged(QString,int)"));
        QVERIFY(!subscriber->disconnectDynamicSignal("changed(QString,int)", &once, "onChanged(QString,int)"));
        bystander->call("notify", QString("w"));
        QTRY_COMPARE(doubled.texts.size(), 4);
        QCOMPARE(once.texts.size(), 1);
        subscriber.reset();
        twice.reset();
        bystander->call("notify", QString("v"));
        QTRY_VERIFY(serverLog.contains("emitted signal with no subscribers changed(QString,int)"));
    }

    void subscribersThatLeaveOrStopReadingAreDropped()
    {
        Module service("com.zan.ravo.diagnosis");
        QVERIFY(service.startLocalServer(dir.path())); // the server's part is the same for both transports
        QSignalSpy subscribed(&service, &SocketAdaptor::signalSubscribed);
        std::vector<std::unique_ptr<QLocalSocket>> subscribers;
        for (int i = 0; i < 8; ++i) {
            subscribers.emplace_back(new QLocalSocket);
            subscribers.back()->connectToServer(dir.filePath("com.zan.ravo.diagnosis"));
            subscribers.back()->setReadBufferSize(1); // never reads
            subscribers.back()->write(header(SocketConnection::SubscriptionMessage) + encodedValues({"big(QByteArray)"}));
        }
        QTRY_COMPARE(subscribed.count(), 8);
        const QByteArray big(4 << 20, 'x');
        StdoutCapture capture;
        service.emitSignal("big(QByteArray)", big);
        // Half of them leave; the server learns of it while it writes to them.
        for (int i = 0; i < 4; ++i)
            subscribers[i]->abort();
        // The others are dropped once they have 8 MiB unread.
        for (int i = 0; i < 4 && service.isSignalSubscribed("big(QByteArray)"); ++i)
            service.emitSignal("big(QByteArray)", big);
        const QByteArray out = capture.take();
        QVERIFY(!service.isSignalSubscribed("big(QByteArray)"));
        QCOMPARE(out.count("for more than 8388608 bytes unread"), 4);
    }

    void theListenerCapsClientsAndComesBackAfterAFailure()
    {
        Module service("com.zan.ravo.diagnosis");
        QVERIFY(listen(service));
        // One client past the limit is accepted and closed at once.
        std::vector<std::unique_ptr<SocketInterface>> clients;
        while (clients.size() <= size_t(SocketAdaptor::MaxConnections))
            clients.push_back(client({}, "com.zan.ravo.diagnosis"));
        QTRY_COMPARE(std::count_if(clients.begin(), clients.end(), [](const auto& c) { return !c->isValid(); }), 1L);
        clients.clear();
        // Its descriptor turned into something that is no socket: accepting fails.
        int listener = 0, accepting = 0;
        for (socklen_t size = sizeof(int); listener < 1024 && !accepting; ++listener)
            ::getsockopt(listener, SOL_SOCKET, SO_ACCEPTCONN, &accepting, &size);
        --listener;
        const int null = ::open("/dev/null", O_RDONLY);
        QVERIFY(listener >= 0 && ::dup2(null, listener) == listener && ::close(null) == 0);
        StdoutCapture capture;
        QTRY_VERIFY((client({}, "com.zan.ravo.diagnosis")->call("ping", QString("m"), 1), !service.pings.isEmpty()));
        QVERIFY(capture.take().contains("the listener failed: Socket operation on non-socket"));
    }

    void twoHundredClientsMakeAThousandCallsEach()
    {
        const int clients = 200, calls = 1000;
        const auto heapKiB = [](SocketInterface& rpc) { return qint64(rpc.call(WithReturn, "heapBytes").toUInt64() >> 10); };
        const qint64 before = heapKiB(*client());
        std::vector<std::unique_ptr<SocketInterface>> rpc;
        std::vector<int> answered(clients);
        int total = 0, outOfOrder = 0;
        for (int c = 0; c < clients; ++c)
            rpc.emplace_back(client());
        for (int n = 0; n < calls; ++n) {
            for (int c = 0; c < clients; ++c) {
                rpc[c]->callWithArgumentListAndCallback("echo", QList<SocketArgument>{n}, [&, c](SocketArgument value) {
                    outOfOrder += value.toInt32() != answered[c]++;
                    ++total;
                });
            }
        }
        QTRY_VERIFY_WITH_TIMEOUT(total == clients * calls, 120000);
        QCOMPARE(outOfOrder, 0);
        QCOMPARE(std::count(answered.begin(), answered.end(), calls), long(clients));
        rpc.clear();
        QTRY_VERIFY(heapKiB(*client()) < before + 1024);
        QVERIFY(!serverLog.contains("dropping"));
    }

    void rpccallCallsAndListens()
    {
        const QStringList where{"--socket-dir", dir.path(), tcp ? "--tcp" : "--local"};
        const auto rpccall = [&where](const QStringList& arguments) {
            QProcess tool;
            tool.setProcessChannelMode(QProcess::MergedChannels);
            tool.start(BINARY_DIR "/tools/rpccall", where + arguments);
            tool.waitForFinished(10000);
            return QByteArray::number(tool.exitCode()) + ' ' + tool.readAll();
        };
        QCOMPARE(rpccall({Service, "echo", "id:6.4660.4000000000.3.9"}), QByteArray("0 InternalId 6:4660-4000000000:3.9\n"));
        // Sent and gone at once: the call is carried out all the same.
        QCOMPARE(rpccall({"--no-return", Service, "record", "string:tool"}), QByteArray("0 "));
        std::unique_ptr<SocketInterface> check = client();
        QTRY_VERIFY(check->call(WithReturn, "recorded").toQStringList().contains("tool"));
        const QByteArray refused = rpccall({Service, "noSuchSlot"});
        QVERIFY2(refused.startsWith("3 ") && refused.contains("refused the call noSuchSlot"), refused);
        QProcess listener;
        listener.start(BINARY_DIR "/tools/rpccall",
                       where + QStringList{"--listen", "--seconds", "5", Service, "changed(QString,int)"});
        QVERIFY(listener.waitForStarted());
        // Sent until the listener has subscribed and prints.
        QTRY_VERIFY((check->call("notify", QString("hello there")), listener.waitForReadyRead(100)));
        QVERIFY(listener.waitForFinished(10000));
        QCOMPARE(listener.exitCode(), 0);
        QVERIFY(listener.readAllStandardOutput().startsWith("changed(QString,int) hello there 42\n"));
    }

private:
    std::unique_ptr<SocketInterface> client(const QByteArray& name = QByteArray(), const char* service = Service)
    {
        const auto type = tcp ? SocketConnection::TcpSocketType : SocketConnection::LocalSocketType;
        return std::unique_ptr<SocketInterface>(new SocketInterface(type, service, dir.path(), nullptr, name));
    }
    bool listen(SocketAdaptor& adaptor)
    {
        return tcp ? adaptor.startTcpServer(dir.path(), 0) : adaptor.startLocalServer(dir.path());
    }

    bool tcp = false;
    QTemporaryDir dir;
    QTemporaryDir config;
    QProcess server;
    QByteArray serverLog;
};

QTEST_GUILESS_MAIN(tst_SocketRpc)
#include "tst_socketrpc.moc"
