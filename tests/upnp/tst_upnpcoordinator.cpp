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
const QByteArray Type = "urn:tessaline:device:Quarn:1";

} // namespace

class tst_UpnpCoordinator : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup()
    {
        coordinator.reset();
        onD0.reset();
        onD1.reset();
        namespaces.reset();
    }
    void usableAddressesOfKnownInterfacesAreServed();
    void stableChangesAndSharedValuesReachTheLinks();

private:
    QList<UpnpInterfaceHandler*> advertisers(const QString& name = QString()) const;
    QStringList advertisedAddresses() const;
    void rescan(int times = 1);

    std::unique_ptr<NetworkNamespaces> namespaces;
    std::unique_ptr<UpnpCoordinator> coordinator;
    std::unique_ptr<SsdpPeer> onD0, onD1; // control points on the links
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
                 && namespaces->addLink(Device, "d0", "192.0.2.2/24", ControlPoint, "c0", "192.0.2.3/24")
                 && namespaces->addLink(Device, "d1", "198.51.100.2/24", ControlPoint, "c1", "198.51.100.3/24"),
             qPrintable(namespaces->errorString()));
    QVERIFY(namespaces->enter(ControlPoint));
    onD0.reset(new SsdpPeer("c0", QHostAddress("239.255.255.250")));
    onD1.reset(new SsdpPeer("c1", QHostAddress("239.255.255.250")));
    QVERIFY(namespaces->enter(Device) && onD0->isValid() && onD1->isValid());
    UpnpTimings timings;
    timings.rescanInterval = 3600000; // rescans come from the test
    coordinator.reset(new UpnpCoordinator(Udn, "http://%1:80/quarn.upnp", false, nullptr, timings));
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

QStringList tst_UpnpCoordinator::advertisedAddresses() const
{
    QStringList addresses;
    for (UpnpInterfaceHandler* advertiser : advertisers())
        addresses << advertiser->addressEntry().ip().toString().section('%', 0, 0);
    addresses.sort();
    return addresses;
}

void tst_UpnpCoordinator::rescan(int times)
{
    for (int i = 0; i < times; ++i)
        coordinator->rescanInterfaces();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

void tst_UpnpCoordinator::usableAddressesOfKnownInterfacesAreServed()
{
    QVERIFY(namespaces->addAddress(Device, "d0", "2001:db8:78::2/64"));
    // A temporary address whose preferred lifetime has run out is on its way out.
    QVERIFY(namespaces->run(Device, {"ip", "address", "add", "2001:db8:78::99/64", "dev", "d0", "nodad",
                                     "valid_lft", "600", "preferred_lft", "0"}));
    StdoutCapture capture;
    coordinator->addInterface("lo"); // 127.0.0.1 and ::1 only
    coordinator->addInterface("d9");
    coordinator->addInterface("d0");
    rescan(3);
    const bool added = namespaces->run(Device, {"ip", "link", "add", "d9", "type", "veth", "peer", "name", "d9p"});
    coordinator->addInterface("d9");
    coordinator->addInterface("d9"); // known now: nothing more is logged
    const QByteArray out = capture.take();
    QVERIFY(added);
    QCOMPARE(out.count("cannot find interface named d9"), 1);
    QCOMPARE(out.count("addInterface d9"), 2);
    QVERIFY(out.contains("EE upnpcoordinator.cpp "));

    const QString linkLocal = linkLocalAddress("d0");
    const QMap<QString, QStringList> expected{
        {"192.0.2.2", {"239.255.255.250", "http://192.0.2.2:80/quarn.upnp"}},
        {"2001:db8:78::2", {"ff05::c", "http://[2001:db8:78::2]:80/quarn.upnp"}},
        {linkLocal, {"ff02::c%d0", "http://[" + linkLocal + "]:80/quarn.upnp"}}};
    QCOMPARE(advertisedAddresses(), expected.keys());
    for (UpnpInterfaceHandler* advertiser : advertisers("d0"))
        QCOMPARE((QStringList{advertiser->groupAddress().toString(), advertiser->location()}),
                 expected.value(advertiser->addressEntry().ip().toString().section('%', 0, 0)));
}

void tst_UpnpCoordinator::stableChangesAndSharedValuesReachTheLinks()
{
    for (const char* name : {"d0", "d1"})
        QVERIFY(namespaces->run(Device, {"sysctl", "-qw", QString("net.ipv6.conf.%1.disable_ipv6=1").arg(name)}));
    const quint32 firstBootId = coordinator->bootId();
    // Seconds since 2020-01-01.
    QVERIFY(qAbs(qint64(firstBootId) - (QDateTime::currentSecsSinceEpoch() - 1577836800)) < 5);
    const QByteArray server = coordinator->serverString();
    QVERIFY2(server.startsWith("Linux/") && server.endsWith(", UPnP/2.0, Pellinor/3.5.3"), server);

    // Interfaces are judged each on its own: one whose addresses change on
    // every scan holds up no other, and is served once it holds still.
    coordinator->addInterface("d0");
    coordinator->addInterface("d1");
    StdoutCapture capture;
    rescan();
    QVERIFY(capture.take().contains("address changes not yet stable"));
    QVERIFY(advertisers().isEmpty());
    QVERIFY(namespaces->addAddress(Device, "d1", "198.51.100.20/24"));
    rescan();
    QCOMPARE(advertisedAddresses(), QStringList{"192.0.2.2"});
    QCOMPARE(coordinator->bootId(), firstBootId); // the first change ever does not count
    rescan();
    QCOMPARE(advertisedAddresses(), QStringList({"192.0.2.2", "198.51.100.2", "198.51.100.20"}));
    QCOMPARE(coordinator->bootId(), firstBootId + 1);
    // The endpoint that was there already tells of the new boot id.
    auto updates = [this] { return onD0->notifiesWith("ssdp:update"); };
    QTRY_COMPARE_WITH_TIMEOUT(updates().size(), 4, 2000);
    rescan(3); // stable interfaces cost nothing more
    QCOMPARE(advertisers().size(), 3);
    coordinator->removeInterface("d1");
    QTRY_COMPARE_WITH_TIMEOUT(onD1->notifiesWith("ssdp:byebye").size(), 8, 2000); // two endpoints, twice
    QVERIFY(namespaces->run(Device, {"ip", "address", "del", "198.51.100.20/24", "dev", "d1"}));
    rescan();
    QCOMPARE(advertisedAddresses(), QStringList{"192.0.2.2"});
    const quint32 bootId = coordinator->bootId();

    // Device types and the config id: one update burst, sent twice, per real change.
    coordinator->addDeviceType(Type);
    coordinator->addDeviceType(Type);
    coordinator->setConfigId(0xFFFFFFFF);
    QTRY_COMPARE_WITH_TIMEOUT(updates().size(), 10, 2000);
    coordinator->setConfigId(123456);
    QTRY_COMPARE_WITH_TIMEOUT(updates().size(), 16, 2000);
    coordinator->clearDeviceTypes();
    coordinator->clearDeviceTypes();
    coordinator->removeDeviceType(Type);
    coordinator->setConfigId(123456);
    QTest::qWait(300);
    QCOMPARE(updates().size(), 20);

    // An address that comes and goes between two rescans never is advertised.
    coordinator->setEnableIGMPQuerier(true);
    QVERIFY(advertisers().first()->igmpQuerier());
    QVERIFY(namespaces->addAddress(Device, "d0", "192.0.2.20/24"));
    rescan();
    QVERIFY(namespaces->run(Device, {"ip", "address", "del", "192.0.2.20/24", "dev", "d0"}));
    rescan(3);
    QCOMPARE(advertisedAddresses(), QStringList{"192.0.2.2"});
    QCOMPARE(coordinator->bootId(), bootId);

    // A later change raises the boot id: the untouched endpoint tells of it with
    // ssdp:update; the new one gets the querier switch too.
    QVERIFY(namespaces->addAddress(Device, "d0", "192.0.2.20/24"));
    rescan(2);
    QCOMPARE(coordinator->bootId(), bootId + 1);
    QCOMPARE(advertisedAddresses(), QStringList({"192.0.2.2", "192.0.2.20"}));
    QVERIFY(advertisers().last()->igmpQuerier());
    coordinator->setEnableIGMPQuerier(false);
    QVERIFY(!advertisers().first()->igmpQuerier() && !advertisers().last()->igmpQuerier());
    QTRY_COMPARE_WITH_TIMEOUT(updates().size(), 24, 2000);
    QCOMPARE(ssdpHeader(updates().last().datagram.data(), "LOCATION"), QByteArray("http://192.0.2.2:80/quarn.upnp"));
    QCOMPARE(ssdpHeader(updates().last().datagram.data(), "BOOTID.UPNP.ORG"), QByteArray::number(bootId + 1));

    // A removed address says byebye, and the boot id rises again.
    QVERIFY(namespaces->run(Device, {"ip", "address", "del", "192.0.2.20/24", "dev", "d0"}));
    rescan(2);
    QCOMPARE(coordinator->bootId(), bootId + 2);
    QCOMPARE(advertisedAddresses(), QStringList{"192.0.2.2"});
    QTRY_COMPARE_WITH_TIMEOUT(onD0->notifiesWith("ssdp:byebye").size(), 4, 2000);
    for (const SsdpPeer::Received& byebye : onD0->notifiesWith("ssdp:byebye"))
        QCOMPARE(ssdpHeader(byebye.datagram.data(), "LOCATION"), QByteArray("http://192.0.2.20:80/quarn.upnp"));

    // So do removeInterface and the coordinator's end.
    coordinator->addInterface("d1");
    rescan(2);
    QVERIFY(advertisers("d1").size() == 1 && advertisers().size() == 2);
    coordinator->removeInterface("d1");
    coordinator->removeInterface("d1"); // unknown now: logged, nothing else
    QTRY_COMPARE_WITH_TIMEOUT(onD1->notifiesWith("ssdp:byebye").size(), 12, 2000);
    QCOMPARE(advertisers().size(), 1);
    coordinator.reset();
    QTRY_COMPARE_WITH_TIMEOUT(onD0->notifiesWith("ssdp:byebye").size(), 8, 2000);
}

QTEST_GUILESS_MAIN(tst_UpnpCoordinator)
#include "tst_upnpcoordinator.moc"
