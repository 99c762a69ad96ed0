// simbackend as the daemon meets it: its services and its supervisor reached
// through the RPC library, over local sockets and over loopback TCP.
#include "logginginterface.h"
#include "networkconfig.h"
#include "socketadaptor.h"
#include "socketinterface.h"

#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

namespace {

// Takes the signals a daemon subscribes to.
class Receiver : public QObject
{
    Q_OBJECT

public:
    QList<QStringList> batches;
    QStringList changes;
    struct Event
    {
        int code;
        NetworkConfig config;
        bool readable;
        int link;
    };
    QList<Event> events;

public slots:
    void onBatch(QStringList values) { batches << values; }
    void onChanged(QString key, QString value, bool moreToCome)
    {
        changes << key + QLatin1Char('=') + value + (moreToCome ? "/more" : "");
    }
    void onNetworkEvent(int code, QByteArray config, int link)
    {
        Event event{code, {}, false, link};
        event.config = NetworkConfig::fromByteArray(config, &event.readable);
        events << event;
    }
};

// Stands in for the daemon: records the stages and the quit it is sent.
class FakeDaemon : public SocketAdaptor
{
    Q_OBJECT

public:
    QStringList calls;

public slots:
    QString getModuleName() override { return QStringLiteral("com.zan.ravo.upnp"); }
    void run(int stage) { calls << QStringLiteral("run %1").arg(stage); }
    void quit() { calls << QStringLiteral("quit"); }
};

} // namespace

class tst_SimBackend : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase_data();
    void initTestCase();
    void init();
    void cleanup();
    void servicesAnswerAsTheBackendDoes();
    void supervisorRunsTheStagesOnceTheDaemonListens();

private:
    bool tcp() const;
    std::unique_ptr<SocketInterface> client(const char* service);

    std::unique_ptr<QTemporaryDir> dir;
    QProcess backend;
    QByteArray output;
};

void tst_SimBackend::initTestCase_data()
{
    QTest::addColumn<bool>("tcp");
    QTest::newRow("local") << false;
    QTest::newRow("tcp") << true;
}

void tst_SimBackend::initTestCase()
{
    initLogging(false, false, false, true);
}

bool tst_SimBackend::tcp() const
{
    QFETCH_GLOBAL(bool, tcp);
    return tcp;
}

void tst_SimBackend::init()
{
    dir.reset(new QTemporaryDir);
    QVERIFY(dir->isValid());
    QFile config(dir->filePath("backend.conf"));
    QVERIFY(config.open(QIODevice::WriteOnly));
    config.write("network/igmpquerier=false\n# the device\n\ngeneric/name=Living room\ngeneric/serialNumber=QX42\n");
    config.close();

    QStringList arguments{"--socket-dir", dir->path(), "--config", config.fileName(), "--interface", "eth7",
                          "--feature", "wlan=true", "--stages"};
    if (tcp())
        arguments << "--tcp";
    output.clear();
    backend.setProcessChannelMode(QProcess::MergedChannels);
    backend.start(BINARY_DIR "/tools/simbackend", arguments);
    QVERIFY(backend.waitForStarted());
    while (!output.contains("ready\n") && backend.waitForReadyRead(5000))
        output += backend.readAll();
    QVERIFY2(output.contains("ready\n"), output);
    connect(&backend, &QProcess::readyRead, this, [this] { output += backend.readAll(); });
}

void tst_SimBackend::cleanup()
{
    backend.disconnect(this);
    backend.terminate();
    QVERIFY(backend.waitForFinished(5000));
    QCOMPARE(backend.exitStatus(), QProcess::NormalExit);
    QCOMPARE(backend.exitCode(), 0);
    if (tcp())
        QVERIFY(!QFile::exists(dir->filePath("com.zan.ravo.database.port")));
}

std::unique_ptr<SocketInterface> tst_SimBackend::client(const char* service)
{
    return std::make_unique<SocketInterface>(tcp() ? SocketConnection::TcpSocketType
                                                   : SocketConnection::LocalSocketType,
                                             service, dir->path());
}

void tst_SimBackend::servicesAnswerAsTheBackendDoes()
{
    Receiver receiver;
    std::unique_ptr<SocketInterface> database = client("com.zan.ravo.database");
    QVERIFY(database->isValid());
    QVERIFY(database->connectDynamicSignal("configValueChanged(QString, QString, bool)", &receiver,
                                           "onChanged(QString,QString,bool)"));
    QVERIFY(database->connectDynamicSignal("configValueBatchUpdate(QStringList)", &receiver,
                                           "onBatch(QStringList)"));
    // The subscription alone brings the whole file, in key order.
    const QStringList fileContent{"generic/name", "Living room", "generic/serialNumber", "QX42",
                                  "network/igmpquerier", "false"};
    QTRY_COMPARE(receiver.batches, QList<QStringList>{fileContent});

    QCOMPARE(database->call(SocketInterface::CallWithReturn, "getConfigValue", QString("generic/name")).toQString(),
             QString("Living room"));
    const SocketArgument unknown = database->call(SocketInterface::CallWithReturn, "getConfigValue", QString("x/y"));
    QCOMPARE(unknown.getType(), SocketArgument::TypeString16);
    QVERIFY(unknown.toQString().isEmpty());
    QVERIFY(database->call(SocketInterface::CallWithReturn, "setConfigValue", QString("generic/name"),
                           QString("Kitchen"), true).toBool());
    QTRY_COMPARE(receiver.changes, QStringList{"generic/name=Kitchen"});
    QCOMPARE(database->call(SocketInterface::CallWithReturn, "getFeatureValue", QString("wlan")).toBool(), true);

    // The control service writes like the database's own clients do.
    std::unique_ptr<SocketInterface> control = client("com.zan.ravo.simbackend");
    QVERIFY(control->isValid());
    control->call(SocketInterface::CallWithReturn, "setConfigValue", QString("debug/enableLogging"), QString("true"));
    QTRY_COMPARE(receiver.changes.size(), 2);
    QCOMPARE(receiver.changes.last(), QString("debug/enableLogging=true"));
    QCOMPARE(control->call(SocketInterface::CallWithReturn, "config").toQStringList(),
             (QStringList{"debug/enableLogging", "true", "generic/name", "Kitchen", "generic/serialNumber", "QX42",
                          "network/igmpquerier", "false"}));

    // A new subscriber to the network events is told which interfaces are up.
    std::unique_ptr<SocketInterface> system = client("com.zan.ravo.system");
    QVERIFY(system->connectDynamicSignal("networkEventWithLink(int, QByteArray, int)", &receiver,
                                         "onNetworkEvent(int,QByteArray,int)"));
    QTRY_COMPARE(receiver.events.size(), 1);
    QCOMPARE(receiver.events[0].code, 3);
    QVERIFY(receiver.events[0].readable);
    QCOMPARE(receiver.events[0].link, 1);
    QCOMPARE(receiver.events[0].config.version, NetworkConfig::CurrentVersion);
    QCOMPARE(receiver.events[0].config.state, 1);
    QCOMPARE(receiver.events[0].config.interfaceName, QString("eth7"));
    control->call(SocketInterface::CallWithReturn, "interfaceDown", QString("eth7"));
    QTRY_COMPARE(receiver.events.size(), 2);
    QCOMPARE(receiver.events[1].code, 5);
    QCOMPARE(receiver.events[1].config.interfaceName, QString("eth7"));

    std::unique_ptr<SocketInterface> diagnosis = client("com.zan.ravo.diagnosis");
    diagnosis->call(SocketInterface::CallWithReturn, "ping", QString("com.zan.ravo.upnp"), 2);
    diagnosis->call(SocketInterface::CallWithReturn, "ping", QString("com.zan.ravo.upnp"), 3);
    QCOMPARE(control->call(SocketInterface::CallWithReturn, "pings").toQStringList(),
             (QStringList{"com.zan.ravo.upnp 2", "com.zan.ravo.upnp 3"}));
    QTRY_VERIFY2(output.contains("diagnosis: ping com.zan.ravo.upnp 3\n"), output);
}

void tst_SimBackend::supervisorRunsTheStagesOnceTheDaemonListens()
{
    // Not there yet: the supervisor keeps trying.
    QTest::qWait(500);
    QVERIFY2(!output.contains("supervisor:"), output);
    FakeDaemon daemon;
    QVERIFY(tcp() ? daemon.startTcpServer(dir->path(), 0) : daemon.startLocalServer(dir->path()));
    QTRY_VERIFY2_WITH_TIMEOUT(output.contains("supervisor: stage 3 done\n"), output, 5000);
    QCOMPARE(daemon.calls, (QStringList{"run 0", "run 1", "run 2", "run 3"}));

    std::unique_ptr<SocketInterface> control = client("com.zan.ravo.simbackend");
    control->call(SocketInterface::CallWithReturn, "runStage", 7);
    control->call(SocketInterface::CallWithReturn, "quitModule");
    QTRY_COMPARE(daemon.calls.mid(4), (QStringList{"run 7", "quit"}));
    QTRY_VERIFY2(output.contains("supervisor: stage 7 done\n"), output);
}

QTEST_GUILESS_MAIN(tst_SimBackend)

#include "tst_simbackend.moc"
