// The device found by a real control point: GSSDP, GNOME's SSDP library, in a
// second network namespace, over IPv4 and over IPv6 link-local.
#include "interfaceaddress.h"
#include "logginginterface.h"
#include "netns.h"
#include "upnpcoordinator.h"

#include <QProcess>
#include <QtTest>

#include <unistd.h>

namespace {

const char* const Device = "d";
const char* const ControlPoint = "c";
const QByteArray Udn = "33221100-5511-4433-0011-443311332211";
const QByteArray DeviceType = "urn:tessaline:device:Quarn:1";

} // namespace

class tst_SsdpControlPoint : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void controlPointFindsTheDevice_data();
    void controlPointFindsTheDevice();

private:
    QString browser;
};

void tst_SsdpControlPoint::initTestCase()
{
    if (::geteuid() != 0)
        QSKIP("needs root for network namespaces");
    QProcess probe;
    probe.start("/usr/bin/python3", {"-c", "import gi; gi.require_version('GSSDP', '1.6')"});
    if (!probe.waitForFinished(10000) || probe.exitCode() != 0)
        QSKIP("needs python3-gi and gir1.2-gssdp-1.6");
    browser = SOURCE_DIR "/tools/ssdp-browse";
    initLogging(false, false, false, true);
}

void tst_SsdpControlPoint::controlPointFindsTheDevice_data()
{
    QTest::addColumn<bool>("ipv6");
    QTest::addColumn<QByteArray>("target");
    QTest::newRow("IPv4, root device") << false << QByteArray("upnp:rootdevice");
    QTest::newRow("IPv4, device type") << false << DeviceType;
    QTest::newRow("IPv6 link-local, root device") << true << QByteArray("upnp:rootdevice");
    QTest::newRow("IPv6 link-local, UUID") << true << QByteArray("uuid:" + Udn);
}

void tst_SsdpControlPoint::controlPointFindsTheDevice()
{
    QFETCH(bool, ipv6);
    QFETCH(QByteArray, target);

    NetworkNamespaces namespaces;
    QVERIFY2(namespaces.add(Device) && namespaces.add(ControlPoint)
                 && namespaces.addVethPair(Device, "d0", ControlPoint, "c0")
                 && namespaces.addAddress(Device, "d0", "10.78.0.2/24")
                 && namespaces.addAddress(ControlPoint, "c0", "10.78.0.3/24"),
             qPrintable(namespaces.errorString()));

    QVERIFY(namespaces.enter(Device));
    UpnpTimings timings;
    timings.rescanInterval = 200;
    UpnpCoordinator coordinator(Udn, "http://%1:80/quarn.upnp", false, nullptr, timings);
    coordinator.addDeviceType(DeviceType);
    coordinator.addInterface("d0");
    const QString linkLocal = linkLocalAddress("d0");
    QVERIFY(!linkLocal.isEmpty());
    // Endpoints for the IPv4 and the link-local address after the second rescan.
    auto endpoints = [&coordinator] {
        int count = 0;
        coordinator.onAllAdvertisers([&count](UpnpInterfaceHandler*) { ++count; });
        return count;
    };
    QTRY_COMPARE_WITH_TIMEOUT(endpoints(), 2, 3000);

    QProcess browse;
    QStringList arguments{"netns", "exec", namespaces.fullName(ControlPoint), "/usr/bin/python3", browser,
                          "--interface", "c0", "--target", target, "--seconds", "3"};
    if (ipv6)
        arguments << "--ipv6";
    browse.start("ip", arguments);
    QVERIFY(browse.waitForStarted());
    QTRY_COMPARE_WITH_TIMEOUT(browse.state(), QProcess::NotRunning, 15000);
    const QByteArray found = browse.readAllStandardOutput();
    const QByteArray errors = browse.readAllStandardError();

    const QByteArray usn = target.startsWith("uuid:") ? target : "uuid:" + Udn + "::" + target;
    const QByteArray location = ipv6 ? "http://[" + linkLocal.toLatin1() + "]:80/quarn.upnp"
                                     : QByteArray("http://10.78.0.2:80/quarn.upnp");
    QVERIFY2(found.contains("available " + usn + " " + location + "\n"), found + errors);
    QVERIFY2(!found.contains("unavailable"), found);
    QVERIFY(namespaces.leave());
}

QTEST_GUILESS_MAIN(tst_SsdpControlPoint)
#include "tst_ssdpcontrolpoint.moc"
