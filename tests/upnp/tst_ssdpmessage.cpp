#include "ssdpmessage.h"

#include <QtTest>

using Ssdp::Message;

class tst_SsdpMessage : public QObject
{
    Q_OBJECT

private slots:
    void notifyCarriesEveryHeaderInOrder_data();
    void notifyCarriesEveryHeaderInOrder();
    void searchReplyNamesItsOwnTarget();
    void parserAcceptsAndDrops_data();
    void parserAcceptsAndDrops();
    void responseSpanFollowsMx_data();
    void responseSpanFollowsMx();
};

void tst_SsdpMessage::notifyCarriesEveryHeaderInOrder_data()
{
    QTest::addColumn<QByteArray>("message");
    QTest::addColumn<QByteArray>("expected");

    QTest::newRow("alive, IPv4")
        << Ssdp::notifyMessage(Ssdp::hostText(QHostAddress("239.255.255.250")),
                               "http://192.168.1.5:80/quarn.upnp", "upnp:rootdevice", "ssdp:alive",
                               "Linux/5.10.0, UPnP/2.0, Pellinor/3.5.3",
                               "uuid:33221100-5511-4433-0011-443311332211::upnp:rootdevice", 185000000, 42)
        << QByteArray("NOTIFY * HTTP/1.1\r\n"
                      "HOST: 239.255.255.250:1900\r\n"
                      "CACHE-CONTROL: max-age=1800\r\n"
                      "LOCATION: http://192.168.1.5:80/quarn.upnp\r\n"
                      "NT: upnp:rootdevice\r\n"
                      "NTS: ssdp:alive\r\n"
                      "SERVER: Linux/5.10.0, UPnP/2.0, Pellinor/3.5.3\r\n"
                      "USN: uuid:33221100-5511-4433-0011-443311332211::upnp:rootdevice\r\n"
                      "BOOTID.UPNP.ORG: 185000000\r\n"
                      "CONFIGID.UPNP.ORG: 42\r\n"
                      "\r\n");

    QHostAddress linkLocal("ff02::c");
    linkLocal.setScopeId("eth0");
    QTest::newRow("byebye, IPv6 link-local group with scope")
        << Ssdp::notifyMessage(Ssdp::hostText(linkLocal), "http://[fe80::1]:80/quarn.upnp",
                               "urn:tessaline:device:Quarn:1", "ssdp:byebye", "Linux/6.1.0, UPnP/2.0, Pellinor/3.5.3",
                               "uuid:abc::urn:tessaline:device:Quarn:1", 7, 0)
        << QByteArray("NOTIFY * HTTP/1.1\r\n"
                      "HOST: [ff02::c]:1900\r\n"
                      "CACHE-CONTROL: max-age=1800\r\n"
                      "LOCATION: http://[fe80::1]:80/quarn.upnp\r\n"
                      "NT: urn:tessaline:device:Quarn:1\r\n"
                      "NTS: ssdp:byebye\r\n"
                      "SERVER: Linux/6.1.0, UPnP/2.0, Pellinor/3.5.3\r\n"
                      "USN: uuid:abc::urn:tessaline:device:Quarn:1\r\n"
                      "BOOTID.UPNP.ORG: 7\r\n"
                      "CONFIGID.UPNP.ORG: 0\r\n"
                      "\r\n");

    QTest::newRow("update, site-local group, config id not yet set")
        << Ssdp::notifyMessage(Ssdp::hostText(QHostAddress("ff05::c")), "http://[2001:db8::5]:80/quarn.upnp",
                               "uuid:abc", "ssdp:update", "S", "uuid:abc", 4294967295u, 0xFFFFFFFF)
        << QByteArray("NOTIFY * HTTP/1.1\r\n"
                      "HOST: [ff05::c]:1900\r\n"
                      "CACHE-CONTROL: max-age=1800\r\n"
                      "LOCATION: http://[2001:db8::5]:80/quarn.upnp\r\n"
                      "NT: uuid:abc\r\n"
                      "NTS: ssdp:update\r\n"
                      "SERVER: S\r\n"
                      "USN: uuid:abc\r\n"
                      "BOOTID.UPNP.ORG: 4294967295\r\n"
                      "CONFIGID.UPNP.ORG: 4294967295\r\n"
                      "\r\n");
}

void tst_SsdpMessage::notifyCarriesEveryHeaderInOrder()
{
    QFETCH(QByteArray, message);
    QFETCH(QByteArray, expected);
    QCOMPARE(message, expected);
}

void tst_SsdpMessage::searchReplyNamesItsOwnTarget()
{
    QCOMPARE(Ssdp::searchReply("http://192.168.1.5:80/quarn.upnp", "Linux/5.10.0, UPnP/2.0, Pellinor/3.5.3",
                               "urn:tessaline:device:Quarn:1", "uuid:abc::urn:tessaline:device:Quarn:1", 3,
                               0xFFFFFFFF),
             QByteArray("HTTP/1.1 200 OK\r\n"
                        "CACHE-CONTROL: max-age=1800\r\n"
                        "EXT:\r\n"
                        "LOCATION: http://192.168.1.5:80/quarn.upnp\r\n"
                        "SERVER: Linux/5.10.0, UPnP/2.0, Pellinor/3.5.3\r\n"
                        "ST: urn:tessaline:device:Quarn:1\r\n"
                        "USN: uuid:abc::urn:tessaline:device:Quarn:1\r\n"
                        "BOOTID.UPNP.ORG: 3\r\n"
                        "CONFIGID.UPNP.ORG: 4294967295\r\n"
                        "\r\n"));
}

void tst_SsdpMessage::parserAcceptsAndDrops_data()
{
    QTest::addColumn<QByteArray>("datagram");
    QTest::addColumn<int>("kind");
    QTest::addColumn<QByteArray>("stKey");
    QTest::addColumn<QByteArray>("stValue");

    const QByteArray headers = "HOST: 239.255.255.250:1900\r\nMAN: \"ssdp:discover\"\r\nMX: 2\r\nST: ssdp:all\r\n";
    QTest::newRow("search") << "M-SEARCH * HTTP/1.1\r\n" + headers + "\r\n" << int(Message::Search)
                            << QByteArray("st") << QByteArray("ssdp:all");
    QTest::newRow("search, start line in mixed case") << "m-search * HTTP/1.1\r\n" + headers + "\r\n"
                                                      << int(Message::Search) << QByteArray("st")
                                                      << QByteArray("ssdp:all");
    QTest::newRow("notify of another device")
        << QByteArray("NOTIFY * HTTP/1.1\r\nNT: upnp:rootdevice\r\nNTS: ssdp:alive\r\n\r\n") << int(Message::Notify)
        << QByteArray("nt") << QByteArray("upnp:rootdevice");
    QTest::newRow("response") << QByteArray("HTTP/1.1 200 OK\r\nST: upnp:rootdevice\r\n\r\n") << int(Message::Response)
                              << QByteArray("st") << QByteArray("upnp:rootdevice");
    QTest::newRow("keys in lower case, values keep case and lose blanks")
        << QByteArray("M-SEARCH * HTTP/1.1\r\nSt: \t Urn:X:1 \t\r\n\r\n") << int(Message::Search) << QByteArray("st")
        << QByteArray("Urn:X:1");
    QTest::newRow("value without blank after the colon")
        << QByteArray("M-SEARCH * HTTP/1.1\r\nST:ssdp:all\r\n\r\n") << int(Message::Search) << QByteArray("st")
        << QByteArray("ssdp:all");
    QTest::newRow("key with a leading blank is kept as it is")
        << QByteArray("M-SEARCH * HTTP/1.1\r\n ST: ssdp:all\r\n\r\n") << int(Message::Search) << QByteArray(" st")
        << QByteArray("ssdp:all");
    QTest::newRow("repeated key keeps the last value")
        << QByteArray("M-SEARCH * HTTP/1.1\r\nST: a\r\nst: b\r\n\r\n") << int(Message::Search) << QByteArray("st")
        << QByteArray("b");
    QTest::newRow("headers end with the datagram, no empty line")
        << QByteArray("M-SEARCH * HTTP/1.1\r\nST: ssdp:all\r\n") << int(Message::Search) << QByteArray("st")
        << QByteArray("ssdp:all");
    QTest::newRow("body after the empty line is not a header")
        << QByteArray("M-SEARCH * HTTP/1.1\r\nST: a\r\n\r\nST: b\r\n") << int(Message::Search) << QByteArray("st")
        << QByteArray("a");
    QTest::newRow("start line only") << QByteArray("M-SEARCH * HTTP/1.1\r\n") << int(Message::Search) << QByteArray()
                                     << QByteArray();

    QTest::newRow("no line break at all") << QByteArray("M-SEARCH * HTTP/1.1") << int(Message::Invalid)
                                          << QByteArray() << QByteArray();
    QTest::newRow("last header line not closed")
        << QByteArray("M-SEARCH * HTTP/1.1\r\nST: ssdp:all") << int(Message::Invalid) << QByteArray() << QByteArray();
    QTest::newRow("two blanks before the star") << "M-SEARCH  * HTTP/1.1\r\n" + headers + "\r\n"
                                                << int(Message::Invalid) << QByteArray() << QByteArray();
    QTest::newRow("text after the version") << "M-SEARCH * HTTP/1.1 \r\n" + headers + "\r\n"
                                            << int(Message::Invalid) << QByteArray() << QByteArray();
    QTest::newRow("other method") << "GET / HTTP/1.1\r\n" + headers + "\r\n" << int(Message::Invalid)
                                  << QByteArray() << QByteArray();
    QTest::newRow("other status") << QByteArray("HTTP/1.1 404 Not Found\r\n\r\n") << int(Message::Invalid)
                                  << QByteArray() << QByteArray();
    QTest::newRow("header without colon") << QByteArray("M-SEARCH * HTTP/1.1\r\nMX 1\r\nST: ssdp:all\r\n\r\n")
                                          << int(Message::Invalid) << QByteArray() << QByteArray();
    QTest::newRow("colon first") << QByteArray("M-SEARCH * HTTP/1.1\r\n: ssdp:all\r\n\r\n") << int(Message::Invalid)
                                 << QByteArray() << QByteArray();
    QTest::newRow("blank before the colon") << QByteArray("M-SEARCH * HTTP/1.1\r\nST : ssdp:all\r\n\r\n")
                                            << int(Message::Invalid) << QByteArray() << QByteArray();
    QTest::newRow("tab before the colon") << QByteArray("M-SEARCH * HTTP/1.1\r\nST\t: ssdp:all\r\n\r\n")
                                          << int(Message::Invalid) << QByteArray() << QByteArray();
    QTest::newRow("colon only on the next line")
        << QByteArray("M-SEARCH * HTTP/1.1\r\nST\r\nMX: 1\r\n\r\n") << int(Message::Invalid) << QByteArray()
        << QByteArray();
    QTest::newRow("empty") << QByteArray() << int(Message::Invalid) << QByteArray() << QByteArray();
    QTest::newRow("binary garbage") << QByteArray("\x00\xff\r\n\x01:\x02\r\n", 8) << int(Message::Invalid)
                                    << QByteArray() << QByteArray();

    QByteArray huge = "M-SEARCH * HTTP/1.1\r\n";
    for (int i = 0; i < 4000; ++i)
        huge += "X-" + QByteArray::number(i) + ": " + QByteArray(8, 'v') + "\r\n";
    huge += "ST: ssdp:all\r\n\r\n";
    QTest::newRow("60 KiB of headers") << huge << int(Message::Search) << QByteArray("st") << QByteArray("ssdp:all");
}

void tst_SsdpMessage::parserAcceptsAndDrops()
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

void tst_SsdpMessage::responseSpanFollowsMx_data()
{
    QTest::addColumn<QByteArray>("mx");
    QTest::addColumn<uint>("span");
    QTest::newRow("1") << QByteArray("1") << 1000u;
    QTest::newRow("5") << QByteArray("5") << 5000u;
    QTest::newRow("120 is held to 5") << QByteArray("120") << 5000u;
    QTest::newRow("0") << QByteArray("0") << 0u;
    QTest::newRow("empty") << QByteArray() << 3000u;
    QTest::newRow("negative") << QByteArray("-1") << 3000u;
    QTest::newRow("letters") << QByteArray("two") << 3000u;
    QTest::newRow("trailing letters") << QByteArray("2s") << 3000u;
    QTest::newRow("beyond 32 bits") << QByteArray("99999999999") << 3000u;
}

void tst_SsdpMessage::responseSpanFollowsMx()
{
    QFETCH(QByteArray, mx);
    QFETCH(uint, span);
    QCOMPARE(Ssdp::responseSpan(mx), span);
}

QTEST_GUILESS_MAIN(tst_SsdpMessage)
#include "tst_ssdpmessage.moc"
