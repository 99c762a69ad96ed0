#include "logginginterface.h"
#include "spinlock.h"
#include "stdoutcapture.h"
#include "igmpquerier.h"
#include "upnpadaptor.h"
#include "upnpinterfacehandler.h"
#include "utils.h"

#include <QtTest>

class tst_Utils : public QObject
{
    Q_OBJECT

private slots:
    void deviceUuidComesFromTheWlanMac()
    {
        // As the kernel writes it, in upper case, with an invalid pair (read as 0), too short.
        const char* const rows[][2] = {{"00:11:22:33:44:55\n", "33221100-5511-4433-0011-443311332211"},
                                       {"AA:BB:CC:DD:EE:FF", "ddccbbaa-ffbb-eedd-aabb-eeddbbddccbb"},
                                       {"zz:11:22:33:44:55", "33221100-5511-4433-0011-443311332211"},
                                       {"01:02", "00000201-0002-0000-0102-000002000002"}};
        for (const auto& row : rows)
            QCOMPARE(CUpnpAdaptor::makeDeviceUuid(row[0]).toString(QUuid::WithoutBraces), QString(row[1]));

        initLogging(false, false, false, true);
        StdoutCapture capture;
        const QUuid first = CUpnpAdaptor::makeDeviceUuid(QString());
        const QUuid second = CUpnpAdaptor::makeDeviceUuid(QString());
        const QByteArray out = capture.take();
        QVERIFY(first != second);
        QCOMPARE(out.count("WW upnpadaptor.cpp         48 Failed to get wlan mac address, generating random UDN"), 2);

        qputenv("RAVO_MACHINE", "imx8mp-quarn");
        QCOMPARE(Utils::wlanInterfaceName(), QString("mlan0"));
        qputenv("RAVO_MACHINE", "quarn-a");
        QCOMPARE(Utils::wlanInterfaceName(), QString("wlan0"));
    }

    void escapeXmlKeepsTheDoubleEscaping()
    {
        const char* const rows[][2] = {{"A&B", "A&amp;B"},
                                       {"<x>", "&amp;lt;x&amp;gt;"}, // angle brackets escaped twice
                                       {"it's \"on\"", "it&apos;s &quot;on&quot;"},
                                       {"&amp;", "&amp;amp;"}};
        for (const auto& row : rows)
            QCOMPARE(Utils::escapeXml(row[0]), QString(row[1]));
    }

    void defaultsAreTheProtocols()
    {
        // What the daemon uses unless a test shrinks it: SSDP's (UPnP Device
        // Architecture), IGMPv2's (RFC 2236) and the backend's, in milliseconds.
        const UpnpTimings ssdp;
        const IGMPTimings igmp;
        const auto row = [](const char* name, qint64 value, qint64 expected) {
            QVERIFY2(value == expected, qPrintable(QString("%1: %2, not %3").arg(name).arg(value).arg(expected)));
        };
        row("rescan", ssdp.rescanInterval, 10000);
        row("first alive", ssdp.firstAnnouncement, 100);
        row("alive repeat, least", ssdp.aliveRepeatMinimum, 870000);
        row("alive repeat, steps", ssdp.aliveRepeatSteps, 900);
        row("alive repeat, step", ssdp.aliveRepeatStep, 1000);
        row("second burst, least", ssdp.secondBurstMinimum, 50);
        row("second burst, spread", ssdp.secondBurstSpread, 100);
        row("join retry", ssdp.joinRetryInterval, 30000);
        row("join error line", ssdp.joinErrorLogInterval, 300000);
        row("pending answers", SsdpAnswerSchedule::DefaultBudget, 65536);
        row("largest datagram", Ssdp::MaxDatagramSize, 8192);
        row("startup query interval", igmp.startupQueryInterval, 31250);
        row("startup query count", igmp.startupQueryCount, 2);
        row("query interval", igmp.queryInterval, 125000);
        row("other querier present", igmp.otherQuerierPresentInterval, 255000);
        row("group membership", igmp.groupMembershipInterval, 260000);
        row("version 1 host present", igmp.version1HostPresentInterval, 260000);
        row("last member query", igmp.lastMemberQueryInterval, 1000);
        row("membership after a leave", igmp.leaveMembershipTimeout, 2000);
        row("invoke timeout", SocketConnection::DefaultInvokeTimeoutMs, 5000);
        row("heartbeat", SocketAdaptorWithPing::DefaultHeartbeatInterval, 120000);
    }

    void spinLockTakenTwiceOnOneThreadIsReportedNotDeadlocked()
    {
        initLogging(false, false, false, true);
        SpinLock lock("call lock");
        bool heldAfterInner = false;
        const QByteArray out = captureStdout([&] {
            SpinLocker outer(lock, "call: getConfigValue(QString)");
            { SpinLocker inner(lock, "call: setConfigValue(QString,QString,bool)"); }
            heldAfterInner = lock.isLocked(); // the outer holder's work is still guarded
        });
        QVERIFY(heldAfterInner && !lock.isLocked());
        QVERIFY2(out.contains("spin lock call lock taken again by call: setConfigValue(QString,QString,bool) "
                              "while held by call: getConfigValue(QString)"),
                 out);
    }
};

QTEST_GUILESS_MAIN(tst_Utils)
#include "tst_utils.moc"
