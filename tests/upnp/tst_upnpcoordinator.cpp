// SSDP endpoints, their IGMP queriers and the coordinator that keeps them in
// step with the real interfaces of a private network namespace ("d", the
// device), watched from a control point's ("c"), linked d0-c0 and d1-c1.
// Rescans are driven by hand. (The daemon's own test checks a leave with real
// kernels as member hosts.)
#include "igmpquerier.h"
#include "interfaceaddress.h"
#include "logginginterface.h"
#include "netns.h"
#include "ssdppeer.h"
#include "stdoutcapture.h"
#include "upnpcoordinator.h"
#include "upnpinterfacehandler.h"

#include <QtTest>

#include <unistd.h>

namespace {

const char* const Device = "d";
const char* const ControlPoint = "c";
const QByteArray Udn = "33221100-5511-4433-0011-443311332211";
const QByteArray Type = "urn:tessaline:device:Quarn:1";
const QByteArray TypeB = "urn:tessaline:device:Helper:1";
const QHostAddress Ipv4Group("239.255.255.250");

} // namespace

class tst_UpnpCoordinator : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        if (::geteuid() != 0)
            QSKIP("needs root for network namespaces");
        initLogging(false, false, false, true);
    }

    void init()
    {
        logging::__LoggingActive = true; // the coordinator's Info lines are part of what is checked
        namespaces.reset(new NetworkNamespaces);
        QVERIFY2(namespaces->add(Device) && namespaces->add(ControlPoint)
                     && namespaces->addLink(Device, "d0", "192.0.2.2/24", ControlPoint, "c0", "192.0.2.3/24")
                     && namespaces->addLink(Device, "d1", "198.51.100.2/24", ControlPoint, "c1", "198.51.100.3/24"),
                 qPrintable(namespaces->errorString()));
        QVERIFY(namespaces->enter(ControlPoint));
        onD0.reset(new SsdpPeer("c0", Ipv4Group));
        onD1.reset(new SsdpPeer("c1", Ipv4Group));
        QVERIFY(namespaces->enter(Device) && onD0->isValid() && onD1->isValid());
        UpnpTimings timings;
        timings.rescanInterval = 3600000; // rescans come from the test
        timings.aliveRepeatMinimum = 400;
        timings.aliveRepeatSteps = 3;
        timings.aliveRepeatStep = 100;
        timings.joinRetryInterval = 40;
        timings.joinErrorLogInterval = 500;
        coordinator.reset(new UpnpCoordinator(Udn, "http://%1:80/quarn.upnp", false, nullptr, timings));
    }

    void cleanup()
    {
        coordinator.reset();
        onD0.reset();
        onD1.reset();
        namespaces.reset();
    }

    void aliveAndByeByeBursts()
    {
        coordinator->addDeviceType(Type);
        coordinator->addDeviceType(TypeB);
        onD0->clock.restart(); // the bursts are timed from the endpoints' start
        UpnpInterfaceHandler* handler = endpoint("d0", "192.0.2.2", Ipv4Group);
        UpnpInterfaceHandler* shortLived = endpoint("d1", "198.51.100.2", Ipv4Group);
        QVERIFY(handler && shortLived);

        // Gone within 100 ms: only the byebye burst, and none of the answers it had scheduled.
        QTest::qWait(50);
        QNetworkDatagram search("", Ipv4Group, 1900);
        search.setSender(QHostAddress("198.51.100.3"), onD1->searchPort());
        search.setInterfaceIndex(uint(shortLived->networkInterface().index()));
        shortLived->handleMSearch(search, {{"man", "\"ssdp:discover\""}, {"mx", "1"}, {"st", "ssdp:all"}});
        shortLived->sendByeBye();
        delete shortLived;

        QTRY_COMPARE_WITH_TIMEOUT(onD0->notifiesWith("ssdp:alive").size(), 8, 2000);
        const QList<SsdpPeer::Received> alive = onD0->notifiesWith("ssdp:alive");
        // The first burst 100 ms after creation, the second 50 to 149 ms later.
        QVERIFY2(alive.at(0).at >= 90 && alive.at(0).at < 300, qPrintable(QString::number(alive.at(0).at)));
        const qint64 pause = alive.at(4).at - alive.at(0).at;
        QVERIFY2(pause >= 45 && pause < 250, qPrintable(QString::number(pause)));
        const QByteArray u = "uuid:" + Udn;
        const QList<QByteArray> expectedNt{"upnp:rootdevice", u, Type, TypeB};
        const QList<QByteArray> expectedUsn{u + "::upnp:rootdevice", u, u + "::" + Type, u + "::" + TypeB};
        for (int i = 0; i < 8; ++i) {
            const QNetworkDatagram& datagram = alive.at(i).datagram;
            QCOMPARE(datagram.data(), Ssdp::notifyMessage("239.255.255.250", "http://192.0.2.2:80/quarn.upnp",
                                                          expectedNt.at(i % 4), "ssdp:alive", coordinator->serverString(),
                                                          expectedUsn.at(i % 4), coordinator->bootId(), 0xFFFFFFFF));
            QCOMPARE(datagram.senderAddress(), QHostAddress("192.0.2.2"));
            QCOMPARE(datagram.senderPort(), 1900);
            QCOMPARE(datagram.hopLimit(), 2);
        }
        // The next alive burst comes after the (shrunk) re-announcement interval.
        QTRY_COMPARE_WITH_TIMEOUT(onD0->notifiesWith("ssdp:alive").size(), 16, 2000);
        const qint64 repeat = onD0->notifiesWith("ssdp:alive").at(8).at - alive.at(0).at;
        QVERIFY2(repeat >= 380 && repeat < 900, qPrintable(QString::number(repeat)));

        // A byebye burst goes out twice back to back.
        handler->sendByeBye();
        QTRY_COMPARE(onD0->notifiesWith("ssdp:byebye").size(), 8);
        const QList<SsdpPeer::Received> byebye = onD0->notifiesWith("ssdp:byebye");
        QVERIFY(byebye.last().at - byebye.first().at < 40);
        for (int i = 0; i < 4; ++i)
            QCOMPARE(byebye.at(i + 4).datagram.data(), byebye.at(i).datagram.data());
        QVERIFY(onD1->notifies.size() == 8 && onD1->notifiesWith("ssdp:byebye").size() == 8 && onD1->answers.isEmpty());
    }

    void searchesAreAnsweredPerTargetWithinTheMx()
    {
        coordinator->addDeviceType(Type);
        coordinator->addDeviceType(TypeB);
        // Both endpoints share the group's port: each answers only searches from its own link.
        const QList<UpnpInterfaceHandler*> handlers{endpoint("d0", "192.0.2.2", Ipv4Group),
                                                    endpoint("d1", "198.51.100.2", Ipv4Group)};
        QVERIFY(handlers.at(0) && handlers.at(1));
        const QByteArray u = "uuid:" + Udn;
        const QList<QByteArray> all{TypeB, Type, "upnp:rootdevice", u};
        struct Row
        {
            const char* name;
            QByteArray search;
            QList<QByteArray> targets;
            int times = 1; // five searches of four targets give twenty independent delays
            int link = 0;  // 2: the second link, from an address of the first one's subnet
        };
        const QList<Row> rows{
            {"ssdp:all: every target with its own ST", ssdpSearch("ssdp:all"), all, 5},
            {"on the other link", ssdpSearch("ssdp:all"), all, 1, 1},
            {"from the first link's subnet, on the other", ssdpSearch("ssdp:all"), {}, 1, 2},
            {"root device", ssdpSearch("upnp:rootdevice"), {"upnp:rootdevice"}},
            {"device UUID", ssdpSearch(u), {u}},
            {"device type", ssdpSearch(Type), {Type}},
            {"UUID in other case", ssdpSearch(u.toUpper()), {}},
            {"other version of the type", ssdpSearch("urn:tessaline:device:Quarn:2"), {}},
            {"MAN without quotes", ssdpSearch("ssdp:all").replace("\"ssdp:discover\"", "ssdp:discover"), {}},
            {"no MX", ssdpSearch("ssdp:all").replace("MX: 1\r\n", ""), {}},
            {"datagram just within 8 KiB", ssdpSearch("ssdp:all", "1\r\nX-PAD: " + QByteArray(8000, 'p')), all},
            {"datagram over 8 KiB", ssdpSearch("ssdp:all", "1\r\nX-PAD: " + QByteArray(8300, 'p')), {}},
        };
        // One searcher per row, each on its own port.
        std::vector<std::unique_ptr<SsdpPeer>> peers;
        QVERIFY(namespaces->addAddress(ControlPoint, "c1", "192.0.2.9/24"));
        for (const Row& row : rows) {
            peers.push_back(peer(row.link ? "c1" : "c0", Ipv4Group, QHostAddress(row.link == 2 ? "192.0.2.9" : "")));
            QVERIFY(peers.back());
        }
        for (int i = 0; i < rows.size(); ++i) {
            peers.at(i)->clock.restart(); // answers are timed from the search
            for (int n = 0; n < rows.at(i).times; ++n)
                peers.at(i)->send(rows.at(i).search);
        }
        // Every answer that is due has come (MX 1: within a second); any other
        // would have come by then too.
        auto allDue = [&] {
            for (int i = 0; i < rows.size(); ++i)
                if (peers.at(i)->answers.size() < rows.at(i).targets.size() * rows.at(i).times)
                    return false;
            return true;
        };
        QTRY_VERIFY_WITH_TIMEOUT(allDue(), 3000);

        for (int i = 0; i < rows.size(); ++i) {
            const Row& row = rows.at(i);
            // Answers only to the searcher: nothing reached its group port.
            QVERIFY2(peers.at(i)->notifies.size() == peers.at(i)->notifiesWith().size(), row.name);
            QList<QByteArray> expected, answered;
            for (int n = 0; n < row.times; ++n)
                expected += row.targets;
            qint64 latest = 0;
            for (const SsdpPeer::Received& answer : qAsConst(peers.at(i)->answers)) {
                const QByteArray st = ssdpHeader(answer.datagram.data(), "ST");
                answered << st;
                const QByteArray usn = st == u ? st : u + "::" + st;
                QCOMPARE(answer.datagram.data(), handlers.at(row.link & 1)->buildSearchReply(st, usn));
                QCOMPARE(answer.datagram.senderPort(), 1900);
                latest = std::max(latest, answer.at);
            }
            std::sort(expected.begin(), expected.end());
            std::sort(answered.begin(), answered.end());
            QVERIFY2(answered == expected, row.name);
            const QByteArray delay = QByteArray(row.name) + ": " + QByteArray::number(latest);
            QVERIFY2(latest < 1150, delay); // coarse timers may fire 5 % late
            // Twenty draws all below 60 % of the span would be very unlikely.
            QVERIFY2(row.times == 1 || latest > 600, delay);
        }
    }

    void joinFailuresAreLoggedOncePerWindow()
    {
        // No group memberships allowed: every join fails with ENOBUFS.
        QVERIFY(namespaces->run(Device, {"sysctl", "-qw", "net.ipv4.igmp_max_memberships=0"}));
        StdoutCapture capture;
        const bool created = endpoint("d0", "192.0.2.2", Ipv4Group);
        QTest::qWait(1200);
        const bool allowed = namespaces->run(Device, {"sysctl", "-qw", "net.ipv4.igmp_max_memberships=20"});
        QTRY_VERIFY(capture.peek().contains("joined successfully"));
        const QList<QByteArray> lines = capture.take().split('\n');
        QVERIFY(created && allowed);

        QByteArray joinLines;
        for (const QByteArray& line : lines)
            if (line.contains("multicast group") || line.contains("previous message"))
                joinLines += line.mid(line.indexOf(" d0 ") + 1) + '\n';
        // Failures every 40 ms for 1.2 s: an error line at the start and one per
        // 500 ms window after it, each later one followed by the number it hid.
        const QString error = "d0 failed to join multicast group 239.255.255.250 : 105 No buffer space available \n";
        const QString suppressed = "d0 \\(previous message suppressed ([0-9]+) times\\) \n";
        const QString done = "d0 multicast group 239.255.255.250 joined successfully after suppressing ([0-9]+) errors \n";
        const QRegularExpressionMatch match =
            QRegularExpression("^" + error + error + suppressed + error + suppressed + done + "$").match(joinLines);
        QVERIFY2(match.hasMatch(), joinLines);
        // Errors every 40 ms: at least 8 hidden in the first window.
        QVERIFY(match.captured(1).toInt() >= 8 && match.captured(3).toInt() >= 1);
    }

    void usableAddressesOfKnownInterfacesAreServed()
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
        // IGMP has queriers for IPv4 only.
        coordinator->setEnableIGMPQuerier(true);
        for (UpnpInterfaceHandler* advertiser : advertisers()) {
            QCOMPARE((QStringList{advertiser->groupAddress().toString(), advertiser->location()}),
                     expected.value(advertiser->addressEntry().ip().toString().section('%', 0, 0)));
            QCOMPARE(bool(advertiser->igmpQuerier()), advertiser->groupAddress() == Ipv4Group);
        }
    }

    void stableChangesAndSharedValuesReachTheLinks()
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

        // So does the coordinator's end.
        coordinator->removeInterface("d1"); // unknown now: logged, nothing else
        coordinator.reset();
        QTRY_COMPARE_WITH_TIMEOUT(onD0->notifiesWith("ssdp:byebye").size(), 8, 2000);
    }

    // The querier's election as only real links show it: a third namespace
    // ("x") on a link d2-x0 whose subnet overlaps d0-c0's.
    void queriersHearOnlyTheirOwnLink()
    {
        QVERIFY2(namespaces->add("x") && namespaces->addLink(Device, "d2", "192.0.2.9/24", "x", "x0", "192.0.2.1/24"),
                 qPrintable(namespaces->errorString()));
        IGMPTimings fast;
        fast.startupQueryInterval = 100;
        fast.queryInterval = 100;
        std::unique_ptr<IGMPQuerier> queriesOnD0 = querier(Device, "d0", "192.0.2.2"),
                                     queriesOnD2 = querier(Device, "d2", "192.0.2.9"),
                                     otherLink = querier("x", "x0", "192.0.2.1", fast);
        QVERIFY(queriesOnD0 && queriesOnD2 && otherLink);
        // The lower querier's queries reach the device, and silence the querier
        // of that link; the one on d0 goes on.
        QTRY_VERIFY_WITH_TIMEOUT(!queriesOnD2->isQuerier(), 2000);
        QVERIFY(queriesOnD0->isQuerier());

        QVERIFY(namespaces->addAddress(ControlPoint, "c0", "192.0.2.1/24"));
        std::unique_ptr<IGMPQuerier> lower = querier(ControlPoint, "c0", "192.0.2.1", fast);
        QVERIFY(lower);
        QTRY_VERIFY_WITH_TIMEOUT(!queriesOnD0->isQuerier(), 2000);
        QVERIFY(lower->isQuerier());
    }

private:
    std::unique_ptr<IGMPQuerier> querier(const char* ns, const char* interface, const QString& address,
                                         const IGMPTimings& timings = IGMPTimings())
    {
        if (!namespaces->enter(ns))
            return nullptr;
        std::unique_ptr<IGMPQuerier> querier(new IGMPQuerier(QNetworkInterface::interfaceFromName(interface),
                                                             addressEntry(interface, address), nullptr, timings));
        namespaces->leave();
        return querier;
    }
    // An endpoint of the device for one of its addresses, made in its namespace.
    UpnpInterfaceHandler* endpoint(const QString& interfaceName, const QString& address, const QHostAddress& group)
    {
        if (!namespaces->enter(Device))
            return nullptr;
        auto* handler = new UpnpInterfaceHandler(QNetworkInterface::interfaceFromName(interfaceName),
                                                 addressEntry(interfaceName, address), group,
                                                 "http://" + address.toLatin1() + ":80/quarn.upnp", coordinator.get());
        namespaces->leave();
        return handler;
    }
    std::unique_ptr<SsdpPeer> peer(const QString& interfaceName, const QHostAddress& group = Ipv4Group,
                                   const QHostAddress& source = QHostAddress())
    {
        if (!namespaces->enter(ControlPoint))
            return nullptr;
        std::unique_ptr<SsdpPeer> result(new SsdpPeer(interfaceName, group, source));
        namespaces->leave();
        return result->isValid() ? std::move(result) : nullptr;
    }
    QList<UpnpInterfaceHandler*> advertisers() const
    {
        QList<UpnpInterfaceHandler*> list;
        coordinator->onAllAdvertisers([&list](UpnpInterfaceHandler* advertiser) { list.append(advertiser); });
        return list;
    }
    QStringList advertisedAddresses() const
    {
        QStringList addresses;
        for (UpnpInterfaceHandler* advertiser : advertisers())
            addresses << advertiser->addressEntry().ip().toString().section('%', 0, 0);
        addresses.sort();
        return addresses;
    }
    void rescan(int times = 1)
    {
        for (int i = 0; i < times; ++i)
            coordinator->rescanInterfaces();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }

    std::unique_ptr<NetworkNamespaces> namespaces;
    std::unique_ptr<UpnpCoordinator> coordinator;
    std::unique_ptr<SsdpPeer> onD0, onD1; // control points on the links
};

QTEST_GUILESS_MAIN(tst_UpnpCoordinator)
#include "tst_upnpcoordinator.moc"
