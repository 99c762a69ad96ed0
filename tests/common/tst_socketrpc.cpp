// The RPC client and server end to end: SocketInterface in this process
// against rpctestserver in another (a blocking call needs its server to run
// elsewhere), over local sockets and over loopback TCP.
#include "logginginterface.h"
#include "socketadaptor.h"
#include "socketinterface.h"
#include "stdoutcapture.h"

#include <QProcess>
#include <QSettings>
#include <QTemporaryDir>
#include <QtTest>

namespace {

const char* const Service = "com.zan.ravo.testserver";

// Takes the service's signal and notes whether a blocking call was under way.
class Receiver : public QObject
{
    Q_OBJECT

public:
    QStringList texts;
    bool duringCall = false;
    bool *callInProgress = nullptr;

public slots:
    void onChanged(QString text, int number)
    {
        texts << text + QLatin1Char('/') + QString::number(number);
        duringCall = duringCall || (callInProgress && *callInProgress);
    }
};

// A diagnosis service that records the pings it gets.
class Diagnosis : public SocketAdaptor
{
    Q_OBJECT

public:
    QStringList pings;

public slots:
    QString getModuleName() override { return QStringLiteral("com.zan.ravo.diagnosis"); }
    void ping(QString module, int stage) { pings << module + QLatin1Char(' ') + QString::number(stage); }
};

class Pinger : public SocketAdaptorWithPing
{
    Q_OBJECT

public:
    explicit Pinger(int interval) : SocketAdaptorWithPing(nullptr, interval) {}
    void setStage(int stage) { runStage = stage; }

public slots:
    QString getModuleName() override { return QStringLiteral("com.zan.ravo.pinger"); }
};

} // namespace

class tst_SocketRpc : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase_data();
    void initTestCase();
    void init();
    void cleanup();
    void callsReturnTypedResults();
    void refusedAndIncompleteCallsFail();
    void callbacksAndQueryIds();
    void rpcClientOvertakesQueuedCalls();
    void signalsReachSubscribersOutsideBlockingWaits();
    void promisesAnswerExactlyOnce();
    void missingServiceLeavesAnInvalidInterface();
    void heartbeatReportsTheRunStage();
    void rpccallCallsAndListens();

private:
    SocketConnection::SocketType type() const;
    std::unique_ptr<SocketInterface> client(const QByteArray& name = QByteArray());

    QTemporaryDir dir;
    QTemporaryDir config;
    QProcess server;
    QByteArray serverLog;
};

void tst_SocketRpc::initTestCase_data()
{
    QTest::addColumn<bool>("tcp");
    QTest::newRow("local") << false;
    QTest::newRow("tcp") << true;
}

void tst_SocketRpc::initTestCase()
{
    QVERIFY(dir.isValid() && config.isValid());
    qputenv("XDG_CONFIG_HOME", config.path().toUtf8());
    initLogging(false, false, false, true);
}

SocketConnection::SocketType tst_SocketRpc::type() const
{
    QFETCH_GLOBAL(bool, tcp);
    return tcp ? SocketConnection::TcpSocketType : SocketConnection::LocalSocketType;
}

void tst_SocketRpc::init()
{
    serverLog.clear();
    server.setProcessChannelMode(QProcess::MergedChannels);
    server.start(BINARY_DIR "/tests/rpctestserver",
                 {dir.path(), type() == SocketConnection::TcpSocketType ? "tcp" : "local", "300"});
    QVERIFY(server.waitForStarted());
    while (!serverLog.contains("ready\n") && server.waitForReadyRead(5000))
        serverLog += server.readAll();
    QVERIFY2(serverLog.contains("ready\n"), serverLog);
    connect(&server, &QProcess::readyRead, this, [this] { serverLog += server.readAll(); });
}

void tst_SocketRpc::cleanup()
{
    server.disconnect(this);
    server.kill();
    server.waitForFinished();
    SocketInterface::SignalWhiteList.clear();
}

std::unique_ptr<SocketInterface> tst_SocketRpc::client(const QByteArray& name)
{
    return std::unique_ptr<SocketInterface>(new SocketInterface(type(), Service, dir.path(), nullptr, name));
}

void tst_SocketRpc::callsReturnTypedResults()
{
    std::unique_ptr<SocketInterface> rpc = client();
    QVERIFY(rpc->isValid());
    InternalId id;
    id.kind = InternalId::OutputDataPoint;
    id.serialPrefix = 0x1234;
    id.serialNumber = 4000000000u;
    id.channel = 3;
    id.index = 9;
    const QList<QPair<const char*, SocketArgument>> echoes{
        {"echoString", QString::fromUtf8("Wohnzimmer Süd")},
        {"echoBytes", QByteArray("\x00\xff", 2)},
        {"echoInt8", static_cast<signed char>(-100)},
        {"echoUInt8", static_cast<unsigned char>(200)},
        {"echoUInt16", static_cast<unsigned short>(65000)},
        {"echoInt32", -2},
        {"echoUInt32", 4000000000u},
        {"echoInt64", -(1LL << 40)},
        {"echoUInt64", 1ULL << 63},
        {"echoBool", true},
        {"echoDouble", -2.5},
        {"echoStrings", QStringList{"a", "", "c"}},
        {"echoInts", QList<int>{1, -1}},
        {"echoId", id},
        {"echoMap", QVariantMap{{"n", 5}, {"on", true}}},
    };
    for (const auto& echo : echoes) {
        const SocketArgument result = rpc->call(SocketInterface::CallWithReturn, echo.first, echo.second);
        QVERIFY2(!rpc->hasError() && !rpc->lastCallFailed(), echo.first);
        QCOMPARE(result.getType(), echo.second.getType());
        QCOMPARE(result.toQVariant(), echo.second.toQVariant());
    }
    QCOMPARE(rpc->call(SocketInterface::CallWithReturn, "echoId", id).toInternalId(), id);
    QCOMPARE(rpc->call(SocketInterface::CallWithReturn, "add", 1, 2, 3, 4, 5, 6, 7, 8, 9, 10).toInt32(), 55);

    // A slot without result: no value, and no failure either.
    QVERIFY(!rpc->call(SocketInterface::CallWithReturn, "nothing").isValid());
    QVERIFY(!rpc->lastCallFailed() && !rpc->hasError());
    // Without return: back at once; an invalid argument ends the list.
    QVERIFY(!rpc->call("record", QString("one"), SocketArgument(), QString("ignored")).isValid());
    QCOMPARE(rpc->call(SocketInterface::CallWithReturn, "recorded").toQStringList(), QStringList{"one"});
}

void tst_SocketRpc::refusedAndIncompleteCallsFail()
{
    std::unique_ptr<SocketInterface> rpc = client();
    QVERIFY(!rpc->call(SocketInterface::CallWithReturn, "noSuchSlot", 1).isValid());
    QVERIFY(rpc->lastCallFailed());
    QVERIFY(!rpc->call(SocketInterface::CallWithReturn, "echoInt32", QString("not an int")).isValid());
    QVERIFY(rpc->lastCallFailed());
    QTRY_VERIFY(serverLog.contains("invalid signature echoInt32(QString)"));

    // Eleven values: dropped at the end tag, answered failed by the invoke
    // timeout. The failure waits in the table for the next call of its id.
    QList<SocketArgument> eleven;
    for (int i = 0; i < 11; ++i)
        eleven << i;
    QList<const SocketArgument*> pointers;
    for (const SocketArgument& value : eleven)
        pointers << &value;
    QVERIFY(rpc->writeCall(SocketConnection::CallWithReturnMessage, 999, "add", pointers) && rpc->flush(1000));
    QTRY_VERIFY(serverLog.contains("more than 10 arguments!!!"));
    QTRY_VERIFY(serverLog.contains("Failed to invoke"));
    QTest::qWait(100);
    SocketInterface::NextQueryId = 999;
    QVERIFY(!rpc->call(SocketInterface::CallWithReturn, "echoInt32", 5).isValid());
    QVERIFY(rpc->lastCallFailed());
    // Its own answer came late and is collected the same way.
    QTest::qWait(100);
    SocketInterface::NextQueryId = 999;
    QCOMPARE(rpc->call(SocketInterface::CallWithReturn, "echoInt32", 6).toInt32(), 5);
}

void tst_SocketRpc::callbacksAndQueryIds()
{
    std::unique_ptr<SocketInterface> rpc = client();
    SocketInterface::NextQueryId = 65535;
    QCOMPARE(rpc->call(SocketInterface::CallWithReturn, "echoInt32", 1).toInt32(), 1);
    QCOMPARE(rpc->call(SocketInterface::CallWithReturn, "echoInt32", 2).toInt32(), 2);
    QCOMPARE(SocketInterface::NextQueryId, quint16(1));

    QList<SocketArgument> answers;
    QVERIFY(rpc->callWithArgumentListAndCallback("echoString", QList<SocketArgument>{QString("cb")},
                                                 [&answers](SocketArgument value) { answers << value; }));
    QVERIFY(rpc->callWithArgumentListAndCallback("noSuchSlot", QList<SocketArgument>{},
                                                 [&answers](SocketArgument value) { answers << value; }));
    QTRY_COMPARE(answers.size(), 2);
    const bool failureFirst = !answers.at(0).isValid();
    QCOMPARE(answers.at(failureFirst ? 1 : 0).toQString(), QString("cb"));
    QVERIFY(!answers.at(failureFirst ? 0 : 1).isValid());
}

void tst_SocketRpc::rpcClientOvertakesQueuedCalls()
{
    std::unique_ptr<SocketInterface> busy = client();
    std::unique_ptr<SocketInterface> supervisor = client("rpc");
    busy->call("block", 300);
    for (int i = 1; i <= 10; ++i)
        busy->call("record", QString("a%1").arg(i));
    QTest::qWait(100);
    supervisor->call("record", QString("rpc"));
    QTest::qWait(500);
    const QStringList order = busy->call(SocketInterface::CallWithReturn, "recorded").toQStringList();
    QCOMPARE(order.size(), 11);
    QVERIFY2(order.indexOf("rpc") < 3, qPrintable(order.join(' ')));
}

void tst_SocketRpc::signalsReachSubscribersOutsideBlockingWaits()
{
    std::unique_ptr<SocketInterface> subscriber = client();
    std::unique_ptr<SocketInterface> twice = client();
    std::unique_ptr<SocketInterface> bystander = client();
    Receiver once, doubled, nobody;
    QVERIFY(subscriber->connectDynamicSignal("changed(QString, int)", &once, "onChanged(QString,int)"));
    QVERIFY(twice->connectDynamicSignal("changed(QString,int)", &doubled, "onChanged(QString, int)"));
    QVERIFY(twice->connectDynamicSignal("changed(QString,int)", &doubled, "onChanged(QString,int)"));
    QVERIFY(!subscriber->connectDynamicSignal("changed(QString,int)", &once, "noSuchSlot(QString,int)"));
    QVERIFY(!subscriber->connectDynamicSignal("changed(QString,int)", &once, "onChanged(int)"));
    // Subscriptions are not answered; a round trip on the same connection
    // shows the service has taken them.
    QCOMPARE(twice->call(SocketInterface::CallWithReturn, "echoInt32", 0).toInt32(), 0);

    bool inCall = false;
    once.callInProgress = &inCall;
    inCall = true;
    QCOMPARE(subscriber->call(SocketInterface::CallWithReturn, "notifyThenAnswer", QString("x")).toInt32(), 7);
    inCall = false;
    QTRY_COMPARE(once.texts, QStringList{"x/42"});
    QVERIFY(!once.duringCall);
    QTRY_COMPARE(doubled.texts, QStringList({"x/42", "x/42"}));
    QTest::qWait(100);
    QVERIFY(nobody.texts.isEmpty());

    // A white list without the signal's name keeps it away.
    SocketInterface::SignalWhiteList = {"configValueBatchUpdate"};
    bystander->call("notify", QString("y"));
    QTest::qWait(300);
    QCOMPARE(once.texts.size(), 1);
    SocketInterface::SignalWhiteList = {"changed"};
    bystander->call("notify", QString("z"));
    QTRY_COMPARE(once.texts.size(), 2);

    // Unsubscribed locally: no delivery, though the service goes on sending.
    QVERIFY(subscriber->disconnectDynamicSignal("changed(QString,int)", &once, "onChanged(QString,int)"));
    QVERIFY(!subscriber->disconnectDynamicSignal("changed(QString,int)", &once, "onChanged(QString,int)"));
    bystander->call("notify", QString("w"));
    QTRY_COMPARE(doubled.texts.size(), 6);
    QCOMPARE(once.texts.size(), 2);

    // Without subscribers a signal costs a warning line only.
    subscriber.reset();
    twice.reset();
    bystander->call("notify", QString("v"));
    QTRY_VERIFY(serverLog.contains("emitted signal with no subscribers changed(QString,int)"));
}

void tst_SocketRpc::promisesAnswerExactlyOnce()
{
    std::unique_ptr<SocketInterface> rpc = client();
    QCOMPARE(rpc->call(SocketInterface::CallWithReturn, "resultBeforeCallData", 21).toInt32(), 42);
    QCOMPARE(rpc->call(SocketInterface::CallWithReturn, "resultLater", 5).toQString(), QString("5"));
    QCOMPARE(rpc->call(SocketInterface::CallWithReturn, "resultTwice").toInt32(), 1);
    QTRY_VERIFY(serverLog.contains("got multiple setResult calls for resultTwice()"));
    QVERIFY(!rpc->call(SocketInterface::CallWithReturn, "neverAnswered").isValid());
    QVERIFY(rpc->lastCallFailed());
    QTRY_VERIFY(serverLog.contains("SocketPromise being deleted before result is submitted!"));

    // The caller goes before the result: the result is dropped with a log line.
    std::unique_ptr<SocketInterface> leaving = client();
    QVERIFY(leaving->callWithArgumentListAndCallback("resultAfter", QList<SocketArgument>{300}, [](SocketArgument) {}));
    QTest::qWait(100);
    leaving.reset();
    QTRY_VERIFY(serverLog.contains("SocketPromise cannot send result, adaptor or connection deleted true false"));
    QCOMPARE(rpc->call(SocketInterface::CallWithReturn, "echoInt32", 3).toInt32(), 3);
}

void tst_SocketRpc::missingServiceLeavesAnInvalidInterface()
{
    StdoutCapture capture;
    SocketInterface missing(type(), "com.zan.ravo.nobody", dir.path());
    const QByteArray out = capture.take();
    QVERIFY(!missing.isValid());
    QVERIFY(!missing.call(SocketInterface::CallWithReturn, "anything").isValid());
    QVERIFY(missing.hasError());
    if (type() == SocketConnection::TcpSocketType)
        QVERIFY2(out.contains("cannot open socket file: " + dir.filePath("com.zan.ravo.nobody.port").toUtf8()), out);
    else
        QCOMPARE(missing.getSocket()->getLastErrorText(), QString("ServerNotFoundError"));
}

void tst_SocketRpc::heartbeatReportsTheRunStage()
{
    // The heartbeat finds the diagnosis service through the database settings.
    {
        QSettings settings("quarn", "database");
        settings.setValue("socketDir", dir.path());
        settings.setValue("socketType", type() == SocketConnection::TcpSocketType ? "tcp" : "local");
    }
    StdoutCapture capture;
    Pinger pinger(200);
    QTest::qWait(300); // nobody to ping yet
    Diagnosis diagnosis;
    const bool listening = type() == SocketConnection::TcpSocketType ? diagnosis.startTcpServer(dir.path(), 0)
                                                                     : diagnosis.startLocalServer(dir.path());
    QTest::qWait(400);
    pinger.setStage(2);
    pinger.sendHeartbeat();
    QTest::qWait(100);
    const QByteArray out = capture.take();
    QVERIFY(listening);
    QVERIFY(out.contains("Failed to connect to diagnosis, retrying with heartbeat"));
    QVERIFY2(diagnosis.pings.size() >= 2, qPrintable(diagnosis.pings.join(',')));
    QCOMPARE(diagnosis.pings.first(), QString("com.zan.ravo.pinger 255"));
    QCOMPARE(diagnosis.pings.last(), QString("com.zan.ravo.pinger 2"));
}

void tst_SocketRpc::rpccallCallsAndListens()
{
    const QStringList where{"--socket-dir", dir.path(), type() == SocketConnection::TcpSocketType ? "--tcp" : "--local"};
    auto rpccall = [&where](const QStringList& arguments, QByteArray* out, QByteArray* err = nullptr) {
        QProcess tool;
        tool.start(BINARY_DIR "/tools/rpccall", where + arguments);
        tool.waitForFinished(10000);
        *out = tool.readAllStandardOutput();
        if (err)
            *err = tool.readAllStandardError();
        return tool.exitCode();
    };
    QByteArray out, err;
    QCOMPARE(rpccall({Service, "echoInt32", "int:-41"}, &out), 0);
    QCOMPARE(out, QByteArray("int -41\n"));
    QCOMPARE(rpccall({Service, "echoStrings", "strings:a,b"}, &out), 0);
    QCOMPARE(out, QByteArray("QStringList [\"a\",\"b\"]\n"));
    QCOMPARE(rpccall({Service, "echoId", "id:6.4660.4000000000.3.9"}, &out), 0);
    QCOMPARE(out, QByteArray("InternalId 6:4660-4000000000:3.9\n"));
    QCOMPARE(rpccall({Service, "add", "int:1", "int:2", "int:3", "int:4", "int:5", "int:6", "int:7", "int:8",
                      "int:9", "int:10"}, &out), 0);
    QCOMPARE(out, QByteArray("int 55\n"));
    // Sent and gone at once: the call is carried out all the same.
    QCOMPARE(rpccall({"--no-return", Service, "record", "string:tool"}, &out), 0);
    std::unique_ptr<SocketInterface> check = client();
    QTRY_VERIFY(check->call(SocketInterface::CallWithReturn, "recorded").toQStringList().contains("tool"));
    QCOMPARE(rpccall({Service, "nothing"}, &out), 0);
    QCOMPARE(out, QByteArray("(no value)\n"));

    QCOMPARE(rpccall({Service, "noSuchSlot"}, &out, &err), 3);
    QVERIFY2(err.contains("refused the call noSuchSlot"), err);
    QCOMPARE(rpccall({Service, "echoInt32", "int:x"}, &out, &err), 2);
    QVERIFY2(err.contains("malformed argument 'int:x'"), err);
    QCOMPARE(rpccall({"com.zan.ravo.nobody", "anything"}, &out, &err), 1);
    QVERIFY2(err.contains("cannot connect to service com.zan.ravo.nobody"), err);

    QProcess listener;
    listener.start(BINARY_DIR "/tools/rpccall", where + QStringList{"--listen", "--seconds", "2", Service,
                                                                     "changed(QString,int)"});
    QVERIFY(listener.waitForStarted());
    QTest::qWait(500);
    std::unique_ptr<SocketInterface> rpc = client();
    rpc->call("notify", QString("hello there"));
    QVERIFY(listener.waitForFinished(5000));
    QCOMPARE(listener.exitCode(), 0);
    QCOMPARE(listener.readAllStandardOutput(), QByteArray("changed(QString,int) hello there 42\n"));
}

QTEST_GUILESS_MAIN(tst_SocketRpc)
#include "tst_socketrpc.moc"
