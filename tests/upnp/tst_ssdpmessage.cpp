// SSDP texts, the parser, and the schedule of the answers to searches. (The
// lean search reader must agree with the parser: the fuzz target ssdp_datagram
// holds it to that, over these datagrams among others.)
#include "ssdpanswerschedule.h"
#include "ssdpmessage.h"

#include <QtTest>

using Ssdp::Message;

namespace {

const QHostAddress Flooder("192.0.2.7");
const QHostAddress Newcomer("192.0.2.8");

} // namespace

class tst_SsdpMessage : public QObject
{
    Q_OBJECT

private slots:
    void textsCarryEveryHeaderInOrder()
    {
        QCOMPARE(Ssdp::notifyMessage(Ssdp::hostText(QHostAddress("239.255.255.250")), "http://192.0.2.5:80/quarn.upnp",
                                     "upnp:rootdevice", "ssdp:alive", "Linux/5.10.0, UPnP/2.0, Pellinor/3.5.3",
                                     "uuid:33221100-5511-4433-0011-443311332211::upnp:rootdevice", 185000000, 42),
                 QByteArray("NOTIFY * HTTP/1.1\r\n"
                            "HOST: 239.255.255.250:1900\r\n"
                            "CACHE-CONTROL: max-age=1800\r\n"
                            "LOCATION: http://192.0.2.5:80/quarn.upnp\r\n"
                            "NT: upnp:rootdevice\r\n"
                            "NTS: ssdp:alive\r\n"
                            "SERVER: Linux/5.10.0, UPnP/2.0, Pellinor/3.5.3\r\n"
                            "USN: uuid:33221100-5511-4433-0011-443311332211::upnp:rootdevice\r\n"
                            "BOOTID.UPNP.ORG: 185000000\r\n"
                            "CONFIGID.UPNP.ORG: 42\r\n"
                            "\r\n"));

        // Other groups and kinds: only the lines that differ. Byebye on the
        // IPv6 link-local group with a scope; update on the site-local one
        // before the config id is set.
        QHostAddress linkLocal("ff02::c");
        linkLocal.setScopeId("eth0");
        const QByteArray byebye =
            Ssdp::notifyMessage(Ssdp::hostText(linkLocal), "L", "uuid:abc", "ssdp:byebye", "S", "uuid:abc", 7, 0);
        QCOMPARE(byebye.mid(byebye.indexOf("HOST"), 22) + byebye.mid(byebye.indexOf("NTS"), 18),
                 QByteArray("HOST: [ff02::c]:1900\r\nNTS: ssdp:byebye\r\n"));
        const QByteArray update = Ssdp::notifyMessage(Ssdp::hostText(QHostAddress("ff05::c")), "L", "uuid:abc",
                                                      "ssdp:update", "S", "uuid:abc", 4294967295u, 0xFFFFFFFF);
        QCOMPARE(update.mid(update.indexOf("HOST"), 22) + update.mid(update.indexOf("BOOTID")),
                 QByteArray("HOST: [ff05::c]:1900\r\nBOOTID.UPNP.ORG: 4294967295\r\nCONFIGID.UPNP.ORG: 4294967295\r\n\r\n"));

        // A search reply names its own target.
        QCOMPARE(Ssdp::searchReply("http://192.0.2.5:80/quarn.upnp", "Linux/5.10.0, UPnP/2.0, Pellinor/3.5.3",
                                   "urn:tessaline:device:Quarn:1", "uuid:abc::urn:tessaline:device:Quarn:1", 3, 0xFFFFFFFF),
                 QByteArray("HTTP/1.1 200 OK\r\n"
                            "CACHE-CONTROL: max-age=1800\r\n"
                            "EXT:\r\n"
                            "LOCATION: http://192.0.2.5:80/quarn.upnp\r\n"
                            "SERVER: Linux/5.10.0, UPnP/2.0, Pellinor/3.5.3\r\n"
                            "ST: urn:tessaline:device:Quarn:1\r\n"
                            "USN: uuid:abc::urn:tessaline:device:Quarn:1\r\n"
                            "BOOTID.UPNP.ORG: 3\r\n"
                            "CONFIGID.UPNP.ORG: 4294967295\r\n"
                            "\r\n"));
    }

    void parserAcceptsAndDrops_data()
    {
        QTest::addColumn<QByteArray>("datagram");
        QTest::addColumn<int>("kind");
        QTest::addColumn<QByteArray>("stKey");
        QTest::addColumn<QByteArray>("stValue");
        auto accept = [](const char* name, const QByteArray& datagram, Message::Kind kind, const QByteArray& key,
                         const QByteArray& value) { QTest::newRow(name) << datagram << int(kind) << key << value; };
        auto drop = [](const char* name, const QByteArray& datagram) {
            QTest::newRow(name) << datagram << int(Message::Invalid) << QByteArray() << QByteArray();
        };
        const QByteArray headers = "HOST: 239.255.255.250:1900\r\nMAN: \"ssdp:discover\"\r\nMX: 2\r\nST: ssdp:all\r\n";
        const QByteArray search = "M-SEARCH * HTTP/1.1\r\n";

        accept("search", search + headers + "\r\n", Message::Search, "st", "ssdp:all");
        accept("search, start line in mixed case", "m-search * HTTP/1.1\r\n" + headers + "\r\n", Message::Search, "st",
               "ssdp:all");
        accept("notify of another device", "NOTIFY * HTTP/1.1\r\nNT: upnp:rootdevice\r\nNTS: ssdp:alive\r\n\r\n",
               Message::Notify, "nt", "upnp:rootdevice");
        accept("response", "HTTP/1.1 200 OK\r\nST: upnp:rootdevice\r\n\r\n", Message::Response, "st",
               "upnp:rootdevice");
        accept("keys in lower case, values keep case and lose blanks", search + "St: \t Urn:X:1 \t\r\n\r\n",
               Message::Search, "st", "Urn:X:1");
        accept("value without blank after the colon", search + "ST:ssdp:all\r\n\r\n", Message::Search, "st",
               "ssdp:all");
        accept("key with a leading blank is kept as it is", search + " ST: ssdp:all\r\n\r\n", Message::Search, " st",
               "ssdp:all");
        accept("repeated key keeps the last value", search + "ST: a\r\nst: b\r\n\r\n", Message::Search, "st", "b");
        accept("headers end with the datagram, no empty line", search + "ST: ssdp:all\r\n", Message::Search, "st",
               "ssdp:all");
        accept("body after the empty line is not a header", search + "ST: a\r\n\r\nST: b\r\n", Message::Search, "st",
               "a");
        accept("start line only", search, Message::Search, QByteArray(), QByteArray());
        QByteArray huge = search;
        for (int i = 0; i < 4000; ++i)
            huge += "X-" + QByteArray::number(i) + ": " + QByteArray(8, 'v') + "\r\n";
        accept("60 KiB of headers", huge + "ST: ssdp:all\r\n\r\n", Message::Search, "st", "ssdp:all");

        drop("no line break at all", "M-SEARCH * HTTP/1.1");
        drop("last header line not closed", search + "ST: ssdp:all");
        drop("two blanks before the star", "M-SEARCH  * HTTP/1.1\r\n" + headers + "\r\n");
        drop("text after the version", "M-SEARCH * HTTP/1.1 \r\n" + headers + "\r\n");
        drop("other method", "GET / HTTP/1.1\r\n" + headers + "\r\n");
        drop("other status", "HTTP/1.1 404 Not Found\r\n\r\n");
        drop("header without colon", search + "MX 1\r\nST: ssdp:all\r\n\r\n");
        drop("colon first", search + ": ssdp:all\r\n\r\n");
        drop("blank before the colon", search + "ST : ssdp:all\r\n\r\n");
        drop("binary garbage", QByteArray("\x00\xff\r\n\x01:\x02\r\n", 8));
    }

    void parserAcceptsAndDrops()
    {
        QFETCH(QByteArray, datagram);
        QFETCH(int, kind);
        QFETCH(QByteArray, stKey);
        QFETCH(QByteArray, stValue);

        const Message message = Ssdp::parse(datagram);
        QCOMPARE(int(message.kind), kind);
        if (kind == Message::Invalid)
            QVERIFY(message.headers.isEmpty());
        else if (!stKey.isEmpty())
            QCOMPARE(message.headers.value(stKey), stValue);
    }

    void responseSpanFollowsMx()
    {
        // MX seconds within 1 to 5; 3 s when MX is not a number.
        const struct
        {
            const char* mx;
            uint span;
        } rows[] = {{"1", 1000}, {"5", 5000}, {"120", 5000}, {"0", 1000}, {"", 3000},
                    {"-1", 3000}, {"two", 3000}, {"2s", 3000}, {"99999999999", 3000}};
        for (const auto& row : rows)
            QVERIFY2(Ssdp::responseSpan(row.mx) == row.span, row.mx);
    }

    void aFlooderLosesItsOwnAnswersNeverANewcomers()
    {
        QElapsedTimer clock;
        clock.start();
        QList<int> sent;
        int early = 0;
        bool full = true; // the socket takes nothing the first time
        SsdpAnswerSchedule schedule([&](const QHostAddress&, quint16, int target) {
            if (std::exchange(full, false))
                return false;
            // Target i is due after 50 + i ms, a newcomer's after 10.
            early += clock.elapsed() < (target < 200 ? 50 + target : 10);
            sent.append(target);
            return true;
        }, 100);
        for (int i = 0; i < 100; ++i)
            QVERIFY(schedule.schedule(Flooder, 1900, i, 50 + i));
        QVERIFY(!schedule.schedule(Flooder, 1900, 100, 0)); // the largest holder is refused...
        for (int i = 0; i < 3; ++i)
            QVERIFY(schedule.schedule(Newcomer, 1900, 200 + i, 10)); // ...and gives way to others
        QCOMPARE(schedule.pendingCount(), 100);
        QCOMPARE(schedule.pendingCount(Flooder), 97);
        QCOMPARE(schedule.pendingCount(Newcomer), 3);
        QTRY_COMPARE(schedule.pendingCount(), 0);
        // The flooder lost the answers due first; those due together go out in
        // the order they came, the one the full socket refused as well.
        QList<int> expected{200, 201, 202};
        for (int i = 3; i < 100; ++i)
            expected << i;
        QCOMPARE(sent, expected);
        QCOMPARE(early, 0);
    }
};

QTEST_GUILESS_MAIN(tst_SsdpMessage)
#include "tst_ssdpmessage.moc"
