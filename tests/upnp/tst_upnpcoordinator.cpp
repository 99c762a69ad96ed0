// The coordinator keeping endpoints in step with real interfaces of a private
// network namespace ("d", the device), watched from a control point's ("c").
// Rescans are driven by hand; the thread stays in the device's namespace.
#include "interfaceaddress.h"
#include "logginginterface.h"
#include "netns.h"
#include "ssdppeer.h"
#include "stdoutcapture.h"
#include "upnpcoordinator.h"

#include <QtTest>

#include <unistd.h>

namespace {

const char* const Device = "d";
const char* const ControlPoint = "c";
const QByteArray Udn = "33221100-5511-4433-0011-443311332211";

} // namespace

class tst_UpnpCoordinator : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void loopbackAndUnknownInterfacesGetNothing();
    void usableAddressesOfBothFamiliesAreServed();
    void onlyStableAddressChangesAreAdvertised();
    void sharedValuesReachEveryEndpoint();
    void interfacesChangeAloneAndSayByeByeWhenRemoved();

private:
    QList<UpnpInterfaceHandler*> advertisers(const QString& name = QString()) const;
    QStringList advertisedAddresses(const QString& name) const;
    std::unique_ptr<SsdpPeer> peer(const QString& interfaceName);
    void rescan(int times = 1);
    bool ipv4Only(const QString& interfaceName);

    std::unique_ptr<NetworkNamespaces> namespaces;
    std::unique_ptr<UpnpCoordinator> coordinator;
};

void tst_UpnpCoordinator::initTestCase()
{
    if (::geteuid() != 0)
        QSKIP("needs root for network namespaces");
    initLogging(false, false, false, true);
    logging::__LoggingActive = true; // the coordinator's Info lines are part of what is checked
}

void tst_UpnpCoordinator::init()
{
    namespaces.reset(new NetworkNamespaces);
    QVERIFY2(namespaces->add(Device) && namespaces->add(ControlPoint)
                 && namespaces->addVethPair(Device, "d0", ControlPoint, "c0")
                 && namespaces->addVethPair(Device, "d1", ControlPoint, "c1")
                 && namespaces->addAddress(Device, "d0", "10.78.0.2/24")
                 && namespaces->addAddress(ControlPoint, "c0", "10.78.0.3/24")
                 && namespaces->addAddress(Device, "d1", "10.79.0.2/24")
                 && namespaces->addAddress(ControlPoint, "c1", "10.79.0.3/24"),
             qPrintable(namespaces->errorString()));
    QVERIFY(namespaces->enter(Device));
    UpnpTimings timings;
    timings.rescanInterval = 3600000; // rescans come from the test
    coordinator.reset(new UpnpCoordinator(Udn, "http://%1:80/quarn.upnp", false, nullptr, timings));
}

void tst_UpnpCoordinator::cleanup()
{
    coordinator.reset();
    namespaces.reset();
}

QList<UpnpInterfaceHandler*> tst_UpnpCoordinator::advertisers(const QString& name) const
{
    QList<UpnpInterfaceHandler*> list;
    auto collect = [&list](UpnpInterfaceHandler* advertiser) { list.append(advertiser); };
    if (name.isEmpty())
        coordinator->onAllAdvertisers(collect);
    else
        coordinator->onAllAdvertisers(name, collect);
    return list;
}

QStringList tst_UpnpCoordinator::advertisedAddresses(const QString& name) const
{
    QStringList addresses;
    for (UpnpInterfaceHandler* advertiser : advertisers(name))
        addresses << advertiser->addressEntry().ip().toString().section('%', 0, 0);
    addresses.sort();
    return addresses;
}

std::unique_ptr<SsdpPeer> tst_UpnpCoordinator::peer(const QString& interfaceName)
{
    if (!namespaces->enter(ControlPoint))
        return nullptr;
    std::unique_ptr<SsdpPeer> result(new SsdpPeer(interfaceName, QHostAddress("239.255.255.250")));
    namespaces->enter(Device);
    return result->isValid() ? std::move(result) : nullptr;
}

void tst_UpnpCoordinator::rescan(int times)
{
    for (int i = 0; i < times; ++i)
        coordinator->rescanInterfaces();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

bool tst_UpnpCoordinator::ipv4Only(const QString& interfaceName)
{
    return namespaces->run(Device, {"sysctl", "-qw", QString("net.ipv6.conf.%1.disable_ipv6=1").arg(interfaceName)});
}

void tst_UpnpCoordinator::loopbackAndUnknownInterfacesGetNothing()
{
    StdoutCapture capture;
    coordinator->addInterface("lo");
    coordinator->addInterface("d9");
    rescan(3);
    const bool added = namespaces->run(Device, {"ip", "link", "add", "d9", "type", "veth", "peer", "name", "d9p"});
    coordinator->addInterface("d9");
    coordinator->addInterface("d9"); // known now: nothing more is logged
    const QByteArray out = capture.take();
    QVERIFY(added);
    QVERIFY(advertisers().isEmpty());
    QCOMPARE(out.count("cannot find interface named d9"), 1);
    QCOMPARE(out.count("addInterface d9"), 2);
    QVERIFY(out.contains("EE upnpcoordinator.cpp "));
}

void tst_UpnpCoordinator::usableAddressesOfBothFamiliesAreServed()
{
    QVERIFY(namespaces->addAddress(Device, "d0", "fd00:78::2/64"));
    // A temporary address whose preferred lifetime has run out is on its way out.
    QVERIFY(namespaces->run(Device, {"ip", "address", "add", "fd00:78::99/64", "dev", "d0", "nodad",
                                     "valid_lft", "600", "preferred_lft", "0"}));
    coordinator->addInterface("d0");
    rescan(2);
    QStringList expected{"10.78.0.2", "fd00:78::2", linkLocalAddress("d0")};
    expected.sort();
    QCOMPARE(advertisedAddresses("d0"), expected);

    for (UpnpInterfaceHandler* advertiser : advertisers("d0")) {
        const QHostAddress ip = advertiser->addressEntry().ip();
        if (ip.protocol() == QAbstractSocket::IPv4Protocol) {
            QCOMPARE(advertiser->groupAddress(), QHostAddress("239.255.255.250"));
            QCOMPARE(advertiser->location(), QByteArray("http://10.78.0.2:80/quarn.upnp"));
        } else if (ip.isLinkLocal()) {
            QCOMPARE(advertiser->groupAddress().toString(), QString("ff02::c%d0"));
            QCOMPARE(advertiser->location(),
                     "http://[" + ip.toString().section('%', 0, 0).toLatin1() + "]:80/quarn.upnp");
        } else {
            QCOMPARE(advertiser->groupAddress(), QHostAddress("ff05::c"));
            QCOMPARE(advertiser->location(), QByteArray("http://[fd00:78::2]:80/quarn.upnp"));
        }
    }
}

void tst_UpnpCoordinator::onlyStableAddressChangesAreAdvertised()
{
    std::unique_ptr<SsdpPeer> controlPoint = peer("c0");
    QVERIFY(controlPoint);
    QVERIFY(ipv4Only("d0"));
    const quint32 firstBootId = coordinator->bootId();
    // Seconds since 2020-01-01.
    QVERIFY(qAbs(qint64(firstBootId) - (QDateTime::currentSecsSinceEpoch() - 1577836800)) < 5);
    coordinator->addInterface("d0");

    // A new address is advertised on the second rescan that still finds it.
    StdoutCapture capture;
    rescan();
    const QByteArray out = capture.take();
    QVERIFY(advertisers().isEmpty());
    QVERIFY(out.contains("address changes not yet stable"));
    rescan();
    QCOMPARE(advertisedAddresses("d0"), QStringList{"10.78.0.2"});
    QCOMPARE(coordinator->bootId(), firstBootId); // the first change ever does not count
    QTRY_COMPARE_WITH_TIMEOUT(controlPoint->notifiesWith("ssdp:alive").size(), 4, 2000);
    QCOMPARE(ssdpHeader(controlPoint->notifiesWith().first().datagram.data(), "LOCATION"),
             QByteArray("http://10.78.0.2:80/quarn.upnp"));
    rescan(3); // a stable interface costs nothing more
    QCOMPARE(advertisers().size(), 1);

    // An address that comes and goes between two rescans never is.
    QVERIFY(namespaces->addAddress(Device, "d0", "10.78.0.20/24"));
    rescan();
    QVERIFY(namespaces->run(Device, {"ip", "address", "del", "10.78.0.20/24", "dev", "d0"}));
    rescan(3);
    QCOMPARE(advertisedAddresses("d0"), QStringList{"10.78.0.2"});
    QCOMPARE(coordinator->bootId(), firstBootId);

    // A later change raises the boot id: the untouched endpoint tells of it
    // with ssdp:update, the new one with ssdp:alive.
    QVERIFY(namespaces->addAddress(Device, "d0", "10.78.0.20/24"));
    rescan(2);
    QCOMPARE(coordinator->bootId(), firstBootId + 1);
    QCOMPARE(advertisedAddresses("d0"), QStringList({"10.78.0.2", "10.78.0.20"}));
    QTRY_COMPARE_WITH_TIMEOUT(controlPoint->notifiesWith("ssdp:update").size(), 4, 2000);
    const QByteArray update = controlPoint->notifiesWith("ssdp:update").first().datagram.data();
    QCOMPARE(ssdpHeader(update, "LOCATION"), QByteArray("http://10.78.0.2:80/quarn.upnp"));
    QCOMPARE(ssdpHeader(update, "BOOTID.UPNP.ORG"), QByteArray::number(firstBootId + 1));
    QTRY_COMPARE_WITH_TIMEOUT(controlPoint->notifiesWith("ssdp:alive").size(), 8, 2000);
    QCOMPARE(ssdpHeader(controlPoint->notifiesWith("ssdp:alive").last().datagram.data(), "LOCATION"),
             QByteArray("http://10.78.0.20:80/quarn.upnp"));

    // A removed address says byebye, and the boot id rises again.
    QVERIFY(namespaces->run(Device, {"ip", "address", "del", "10.78.0.20/24", "dev", "d0"}));
    rescan(2);
    QCOMPARE(coordinator->bootId(), firstBootId + 2);
    QCOMPARE(advertisedAddresses("d0"), QStringList{"10.78.0.2"});
    QTRY_COMPARE_WITH_TIMEOUT(controlPoint->notifiesWith("ssdp:byebye").size(), 4, 2000);
    for (const SsdpPeer::Received& byebye : controlPoint->notifiesWith("ssdp:byebye"))
        QCOMPARE(ssdpHeader(byebye.datagram.data(), "LOCATION"), QByteArray("http://10.78.0.20:80/quarn.upnp"));
}

void tst_UpnpCoordinator::sharedValuesReachEveryEndpoint()
{
    std::unique_ptr<SsdpPeer> controlPoint = peer("c0");
    QVERIFY(controlPoint);
    QVERIFY(ipv4Only("d0"));
    coordinator->addInterface("d0");
    rescan(2);
    QTRY_COMPARE_WITH_TIMEOUT(controlPoint->notifiesWith("ssdp:alive").size(), 4, 2000);
    const QByteArray alive = controlPoint->notifiesWith().first().datagram.data();
    QCOMPARE(ssdpHeader(alive, "CONFIGID.UPNP.ORG"), QByteArray("4294967295"));
    const QByteArray server = ssdpHeader(alive, "SERVER");
    QVERIFY2(server.startsWith("Linux/") && server.endsWith(", UPnP/2.0, Pellinor/3.5.3"), server);

    auto updates = [&controlPoint] { return controlPoint->notifiesWith("ssdp:update").size(); };
    // Each change: one update burst, sent twice; no change: nothing.
    coordinator->addDeviceType("urn:tessaline:device:Quarn:1");
    QTRY_COMPARE_WITH_TIMEOUT(updates(), 6, 2000);
    coordinator->addDeviceType("urn:tessaline:device:Quarn:1");
    coordinator->removeDeviceType("urn:tessaline:device:Other:1");
    coordinator->setConfigId(0xFFFFFFFF);
    QTest::qWait(300);
    QCOMPARE(updates(), 6);

    coordinator->setConfigId(123456);
    QTRY_COMPARE_WITH_TIMEOUT(updates(), 12, 2000);
    const QByteArray update = controlPoint->notifiesWith("ssdp:update").last().datagram.data();
    QCOMPARE(ssdpHeader(update, "CONFIGID.UPNP.ORG"), QByteArray("123456"));
    QCOMPARE(ssdpHeader(update, "NT"), QByteArray("urn:tessaline:device:Quarn:1"));

    coordinator->clearDeviceTypes();
    QTRY_COMPARE_WITH_TIMEOUT(updates(), 16, 2000);
    coordinator->clearDeviceTypes();
    QTest::qWait(300);
    QCOMPARE(updates(), 16);

    // The querier switch reaches existing endpoints and those made later.
    coordinator->setEnableIGMPQuerier(true);
    QVERIFY(advertisers().first()->igmpQuerier());
    QVERIFY(namespaces->addAddress(Device, "d0", "10.78.0.20/24"));
    rescan(2);
    QCOMPARE(advertisers().size(), 2);
    QVERIFY(advertisers().last()->igmpQuerier());
    coordinator->setEnableIGMPQuerier(false);
    QVERIFY(!advertisers().first()->igmpQuerier() && !advertisers().last()->igmpQuerier());
}

void tst_UpnpCoordinator::interfacesChangeAloneAndSayByeByeWhenRemoved()
{
    std::unique_ptr<SsdpPeer> onD0 = peer("c0");
    std::unique_ptr<SsdpPeer> onD1 = peer("c1");
    QVERIFY(onD0 && onD1);
    QVERIFY(ipv4Only("d0") && ipv4Only("d1"));
    coordinator->addInterface("d0");
    coordinator->addInterface("d1");
    // Each interface's scan replaces the other's pending change: neither is applied...
    rescan(4);
    QVERIFY(advertisers().isEmpty());
    // ...until only one of them keeps changing.
    coordinator->removeInterface("d1");
    rescan(2);
    QCOMPARE(advertisedAddresses("d0"), QStringList{"10.78.0.2"});
    coordinator->addInterface("d1");
    rescan(2);
    QCOMPARE(advertisers().size(), 2);

    coordinator->removeInterface("d1");
    QTRY_COMPARE_WITH_TIMEOUT(onD1->notifiesWith("ssdp:byebye").size(), 4, 2000);
    QCOMPARE(advertisers().size(), 1);
    coordinator->removeInterface("d1"); // unknown now: logged, nothing else

    coordinator.reset();
    QTRY_COMPARE_WITH_TIMEOUT(onD0->notifiesWith("ssdp:byebye").size(), 4, 2000);
}

QTEST_GUILESS_MAIN(tst_UpnpCoordinator)
#include "tst_upnpcoordinator.moc"
