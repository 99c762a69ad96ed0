// The daemon's start-up as the supervisor sees it: the real binary, run in a
// private mount namespace whose /dev/log is a socket of this test.
#include "syslogreceiver.h"

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
    void crashCounterIsReportedAsTextAndAsNumber();
    void startLineWithoutCrashCounter_data();
    void startLineWithoutCrashCounter();
    void sigintEndsTheDaemonWithStatusZero();

private:
    // Starts "upnp args..." with its system log going to receiver.
    bool startDaemon(QProcess* daemon, const QStringList& args);
    QList<SyslogReceiver::Line> readLines(int count);
    QByteArray prefix(const char* kind, int line) const;

    QTemporaryDir dir;
    std::unique_ptr<SyslogReceiver> receiver;
    qint64 daemonPid = 0;
};

void tst_Startup::initTestCase()
{
    if (::geteuid() != 0)
        QSKIP("needs root for a private mount namespace");
    QVERIFY(dir.isValid());
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
                  QStringList{dir.filePath("log.sock"), BINARY_DIR "/upnp/upnp"}
                      + args);
    if (!daemon->waitForStarted())
        return false;
    // The script execs through unshare and sh into the daemon: one process id.
    daemonPid = daemon->processId();
    return true;
}

QList<SyslogReceiver::Line> tst_Startup::readLines(int count)
{
    QList<SyslogReceiver::Line> lines;
    SyslogReceiver::Line line;
    while (lines.size() < count && receiver->receive(&line, 10000))
        lines.append(line);
    return lines;
}

// Built by hand for "upnp[pid]: ", so a change of the logging code cannot hide here.
QByteArray tst_Startup::prefix(const char* kind, int line) const
{
    const int digits = daemonPid <= 9 ? 1 : daemonPid <= 99 ? 2 : daemonPid <= 999 ? 3 : daemonPid <= 9999 ? 4 : 5;
    return QByteArray(26 - (digits + 3 + 4), ' ') + kind + " main.cpp" + QByteArray(13, ' ')
           + QByteArray::number(line).rightJustified(5) + ' ';
}

void tst_Startup::crashCounterIsReportedAsTextAndAsNumber()
{
    QProcess daemon;
    QVERIFY(startDaemon(&daemon, {"12"}));
    const QList<SyslogReceiver::Line> lines = readLines(3);
    ::kill(pid_t(daemonPid), SIGINT);
    QVERIFY(daemon.waitForFinished(10000));
    QCOMPARE(lines.size(), 3);

    const QByteArray pid = QByteArray::number(daemonPid);
    QCOMPARE(lines.at(0).tag, QByteArray("upnp"));
    QCOMPARE(lines.at(0).priority, 8 + 4); // user.warning
    QCOMPARE(lines.at(0).text, prefix("WW", 41) + "restarted after crash. crash counter: 12 ");
    QCOMPARE(lines.at(1).priority, 8 + 4);
    QCOMPARE(lines.at(1).text, prefix("WW", 53) + "restarted after crash. crash counter: 0xc ");
    QCOMPARE(lines.at(2).priority, 8 + 5); // user.notice
    QCOMPARE(lines.at(2).text, prefix("--", 56) + "start 0xc " + pid + ' ');
}

void tst_Startup::startLineWithoutCrashCounter_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::newRow("no argument") << QStringList();
    QTest::newRow("not a number") << QStringList{"abc"};
    QTest::newRow("zero") << QStringList{"0"};
    QTest::newRow("only the first argument counts") << QStringList{"x", "7"};
}

void tst_Startup::startLineWithoutCrashCounter()
{
    QFETCH(QStringList, args);
    QProcess daemon;
    QVERIFY(startDaemon(&daemon, args));
    const QList<SyslogReceiver::Line> lines = readLines(1);
    ::kill(pid_t(daemonPid), SIGINT);
    QVERIFY(daemon.waitForFinished(10000));
    QCOMPARE(lines.size(), 1);
    QCOMPARE(lines.at(0).text, prefix("--", 56) + "start 0x0 " + QByteArray::number(daemonPid) + ' ');
}

void tst_Startup::sigintEndsTheDaemonWithStatusZero()
{
    QProcess daemon;
    QVERIFY(startDaemon(&daemon, {"3"}));
    QCOMPARE(readLines(3).size(), 3); // running: the start line is out
    ::kill(pid_t(daemonPid), SIGINT);
    QVERIFY(daemon.waitForFinished(10000));
    QCOMPARE(daemon.exitStatus(), QProcess::NormalExit);
    QCOMPARE(daemon.exitCode(), 0);
}

QTEST_GUILESS_MAIN(tst_Startup)
#include "tst_startup.moc"
