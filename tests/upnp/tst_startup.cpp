// The daemon's start-up as the supervisor sees it: the real binary, run in a
// private mount namespace whose /dev/log is a socket of this test.
#include "syslogreceiver.h"

#include <QLocalSocket>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>
#include <unistd.h>

class tst_Startup : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void startLinesAndSigint_data();
    void startLinesAndSigint();
    void sigintWhileLoggingHeavilyEndsTheDaemon();

private:
    // Starts "upnp args..." with its system log going to receiver.
    bool startDaemon(QProcess* daemon, const QStringList& args);
    QList<SyslogReceiver::Line> readLines(int count);
    QByteArray prefix(const char* kind, int line) const;

    QTemporaryDir dir;
    std::unique_ptr<SyslogReceiver> receiver;
    qint64 daemonPid = 0;
    QByteArray moduleLines; // what the module object logged while it was made
};

void tst_Startup::initTestCase()
{
    if (::geteuid() != 0)
        QSKIP("needs root for a private mount namespace");
    QVERIFY(dir.isValid());
    // The daemon's RPC socket goes into the test's directory.
    QDir().mkpath(dir.filePath("config/quarn"));
    QFile settings(dir.filePath("config/quarn/database.conf"));
    QVERIFY(settings.open(QIODevice::WriteOnly));
    settings.write("[General]\nsocketDir=" + dir.path().toUtf8() + "\n");
}

bool tst_Startup::startDaemon(QProcess* daemon, const QStringList& args)
{
    receiver.reset(); // its destructor removes the socket file
    receiver.reset(new SyslogReceiver(dir.filePath("log.sock")));
    if (!receiver->isValid()) {
        qWarning("%s", qPrintable(receiver->errorString()));
        return false;
    }
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("XDG_CONFIG_HOME", dir.filePath("config"));
    daemon->setProcessEnvironment(env);
    daemon->setProcessChannelMode(QProcess::ForwardedChannels);
    daemon->start(SOURCE_DIR "/scripts/with-private-devlog.sh",
                  QStringList{dir.filePath("log.sock"), BINARY_DIR "/upnp/upnp"} + args);
    if (!daemon->waitForStarted())
        return false;
    // The script execs through unshare and sh into the daemon: one process id.
    daemonPid = daemon->processId();
    return true;
}

// The entry point's lines; the module object logs its own as it is made.
QList<SyslogReceiver::Line> tst_Startup::readLines(int count)
{
    QList<SyslogReceiver::Line> lines;
    SyslogReceiver::Line line;
    while (lines.size() < count && receiver->receive(&line, 10000)) {
        if (line.text.contains(" main.cpp "))
            lines.append(line);
        else
            moduleLines += line.text + '\n';
    }
    return lines;
}

// Built by hand for "upnp[pid]: ", so a change of the logging code cannot hide here.
QByteArray tst_Startup::prefix(const char* kind, int line) const
{
    const int digits = daemonPid <= 9 ? 1 : daemonPid <= 99 ? 2 : daemonPid <= 999 ? 3 : daemonPid <= 9999 ? 4 : 5;
    return QByteArray(26 - (digits + 3 + 4), ' ') + kind + " main.cpp" + QByteArray(13, ' ')
           + QByteArray::number(line).rightJustified(5) + ' ';
}

void tst_Startup::startLinesAndSigint_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<int>("counter");
    QTest::newRow("crash counter 12") << QStringList{"12"} << 12;
    QTest::newRow("no argument") << QStringList() << 0;
    QTest::newRow("not a number") << QStringList{"abc"} << 0;
    QTest::newRow("zero") << QStringList{"0"} << 0;
    QTest::newRow("only the first argument counts") << QStringList{"x", "7"} << 0;
}

void tst_Startup::startLinesAndSigint()
{
    QFETCH(QStringList, args);
    QFETCH(int, counter);
    QProcess daemon;
    QVERIFY(startDaemon(&daemon, args));
    const QList<SyslogReceiver::Line> lines = readLines(counter ? 3 : 1);
    // Settings without templates: the daemon says where it looked, and goes on.
    QVERIFY2(moduleLines.contains("templates missing in " + QDir("data").absolutePath().toUtf8()), moduleLines);
    // Running: the start line is out, the handler installed. SIGINT ends it with status 0.
    ::kill(pid_t(daemonPid), SIGINT);
    QVERIFY(daemon.waitForFinished(10000));
    QCOMPARE(daemon.exitStatus(), QProcess::NormalExit);
    QCOMPARE(daemon.exitCode(), 0);

    // user.warning and user.notice; the counter as text and as a number.
    QList<QPair<int, QByteArray>> expected;
    if (counter)
        expected << qMakePair(8 + 4, prefix("WW", 41) + "restarted after crash. crash counter: 12 ")
                 << qMakePair(8 + 4, prefix("WW", 53) + "restarted after crash. crash counter: 0xc ");
    expected << qMakePair(8 + 5, prefix("--", 56) + "start 0x" + QByteArray::number(counter, 16) + ' '
                                     + QByteArray::number(daemonPid) + ' ');
    QCOMPARE(lines.size(), expected.size());
    for (int i = 0; i < lines.size(); ++i) {
        QCOMPARE(lines.at(i).tag, QByteArray("upnp"));
        QCOMPARE(lines.at(i).priority, expected.at(i).first);
        QCOMPARE(lines.at(i).text, expected.at(i).second);
    }
}

void tst_Startup::sigintWhileLoggingHeavilyEndsTheDaemon()
{
    // Stage calls without return: the daemon logs each twice, the second time
    // as a stage received twice. Four clients keep it logging while SIGINT
    // lands at a random moment; the handler must never wait on syslog's lock.
    const QByteArray call = QByteArray::fromHex("45bfd7a301") + "run" + QByteArray::fromHex("00050700000000");
    for (int round = 0; round < 30; ++round) {
        QProcess daemon;
        QVERIFY(startDaemon(&daemon, {}));
        QVERIFY(!readLines(1).isEmpty());
        QTRY_VERIFY(QFile::exists(dir.filePath("com.zan.ravo.upnp")));
        std::vector<std::unique_ptr<QLocalSocket>> clients;
        for (int i = 0; i < 4; ++i) {
            clients.emplace_back(new QLocalSocket);
            // The file can still be the last round's daemon's until this one listens.
            QLocalSocket* client = clients.back().get();
            QTRY_VERIFY((client->abort(), client->connectToServer(dir.filePath("com.zan.ravo.upnp")),
                         client->waitForConnected(100)));
            clients.back()->write(call.repeated(500));
            // Every other round the clients leave with their calls queued.
            if (round % 2 == 1 && clients.back()->waitForBytesWritten(1000))
                clients.back()->abort();
        }
        QElapsedTimer clock;
        clock.start();
        const qint64 interruptAt = 5 + std::rand() % 40;
        qint64 interrupted = -1;
        SyslogReceiver::Line line;
        while (daemon.state() != QProcess::NotRunning && clock.elapsed() < 5000) {
            for (auto& client : clients)
                client->waitForBytesWritten(0);
            while (receiver->receive(&line, 0))
                QVERIFY2(!line.text.contains("write"), line.text); // nothing for the clients that left
            if (interrupted < 0 && clock.elapsed() >= interruptAt) {
                ::kill(pid_t(daemonPid), SIGINT);
                interrupted = clock.elapsed();
            }
            daemon.waitForFinished(1);
        }
        QVERIFY2(daemon.state() == QProcess::NotRunning && clock.elapsed() - interrupted < 3000,
                 qPrintable(QString("round %1: still running %2 ms after SIGINT").arg(round).arg(clock.elapsed() - interrupted)));
        QCOMPARE(daemon.exitStatus(), QProcess::NormalExit);
        QCOMPARE(daemon.exitCode(), 0);
    }
}

QTEST_GUILESS_MAIN(tst_Startup)
#include "tst_startup.moc"
