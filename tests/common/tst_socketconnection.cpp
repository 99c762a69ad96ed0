// The stream of the RPC layer: the transports and writers over real sockets,
// the parser of both sides over byte strings.
#include "logginginterface.h"
#include "rpcrecorder.h"
#include "socketpair.h"
#include "stdoutcapture.h"

#include <QRegularExpression>
#include <QtTest>

#include <cstdio>

class tst_SocketConnection : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { initLogging(false, false, false, true); }
    void writersAndTransportsCarryTheWireLayout();
    void parserHandsOutMessagesAndSkipsFaults_data();
    void parserHandsOutMessagesAndSkipsFaults();
    void parsingIsLinearInTheBytesReceived();
};

namespace {

QByteArray hex(const char* text) { return QByteArray::fromHex(text); }

QList<SocketArgument> ints(int count)
{
    QList<SocketArgument> values;
    while (values.size() < count)
        values << values.size();
    return values;
}

QString parsed(const char* kind, const QByteArray& what, const QList<SocketArgument>& values = {}, int queryId = 0)
{
    return Recorder::line(kind, what, values, queryId);
}

} // namespace

void tst_SocketConnection::writersAndTransportsCarryTheWireLayout()
{
    const char* const golden[] = {
        "45bfd7a3 00 0700 6765744e616d65 00 00",                        // call with return 7 getName()
        "45bfd7a3 01 70696e67 00 01 04000000 75706e70 05 03000000 00",   // call without return
        "45bfd7a3 01 6d 00 0b 01 00",                                   // ends at the invalid argument
        "45bfd7a3 02 6368616e676564 00 02 01000000 6b 00",              // signal
        "45bfd7a3 03 0700 01 05 01000000",                              // return of int32 1
        "45bfd7a3 03 0700 00",                                          // failed return
        "45bfd7a3 03 0800 01 00",                                       // return without value
        "45bfd7a3 04 02 0c000000 6368616e67656428696e7429",             // subscription
        "45bfd7a3 05 02 03000000 727063",                               // client name
    };
    QByteArray expected;
    for (const char* message : golden)
        expected += hex(message);
    const SocketArgument name(QString("upnp")), stage(3), yes(true), invalid, key("k"), one(1);
    for (bool tcp : {false, true}) {
        SocketPair pair;
        const QString failure = pair.open(tcp);
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
        // Local peers are named by the server's path, TCP ones by address and port.
        QCOMPARE(pair.client->getPeerName(), tcp ? "127.0.0.1:" + QString::number(pair.port) : pair.name);
        QVERIFY(pair.peer->getPeerName().startsWith(tcp ? "127.0.0.1:" : pair.name));
        SocketConnection w(pair.client.release());
        QVERIFY(w.flush(10)); // nothing to send
        QVERIFY(w.writeCall(SocketConnection::CallWithReturnMessage, 7, "getName", {})
                && w.writeCall(SocketConnection::CallWithoutReturnMessage, 7, "ping", {&name, &stage})
                && w.writeCall(SocketConnection::CallWithoutReturnMessage, 0, "m", {&yes, &invalid, &one})
                && w.writeSignal("changed", {&key}) && w.writeReturnValue(7, true, &one)
                && w.writeReturnValue(7, false, &one) && w.writeReturnValue(8, true, &invalid)
                && w.writeSubscription("changed(int)") && w.writeClientName("rpc") && w.flush(5000));
        QByteArray received;
        QTRY_VERIFY((received += pair.peer->readAll()).size() >= expected.size());
        QCOMPARE(received.toHex(' '), expected.toHex(' '));

        // Aborted, it leaves at once; its peer is told once, by the framework's name.
        QSignalSpy gone(pair.peer.get(), &Socket::disconnected), errors(pair.peer.get(), &Socket::error);
        w.getSocket()->abort();
        QVERIFY(gone.wait(5000) && !w.queueMessage("x"));
        QCOMPARE(errors.count(), 1);
        QCOMPARE(pair.peer->getLastErrorText(), tcp ? "RemoteHostClosedError" : "PeerClosedError");
    }
}

void tst_SocketConnection::parserHandsOutMessagesAndSkipsFaults_data()
{
    QTest::addColumn<int>("side");
    QTest::addColumn<QByteArray>("stream");
    QTest::addColumn<QStringList>("events");
    QTest::addColumn<QStringList>("errors");
    const int server = SocketConnection::ServerSide, client = SocketConnection::ClientSide;
    const auto one = [](quint8 type, const SocketArgument& value) { return header(type) + encodedValues({value}); };
    QTest::newRow("server: garbage, then a call") << server << hex("00 11 45 bf") + message(1, "getName")
                                                  << QStringList{parsed("call", "getName()")} << QStringList();
    // Up to 10 values are a call; more are dropped at the end tag; 33 would
    // overflow the 32 slots. Type 2 is a call too. After the name "rpc" calls
    // are urgent; a name that is not a byte string reads as empty.
    QTest::newRow("server: calls, names, subscriptions")
        << server
        << message(1, "ten", ints(10)) + message(1, "eleven", ints(11)) + message(0, "many", ints(33), 3)
               + message(2, "asCall", {true}) + one(4, "changed(int)") + one(5, "rpc") + message(1, "b") + one(5, "rpcx")
               + message(1, "c") + one(5, "rpc") + one(5, QString("rpc")) + message(0, "d", {}, 4)
        << QStringList{parsed("call", "ten(int,int,int,int,int,int,int,int,int,int)", ints(10)), parsed("dropped", "", {}, 3),
                       parsed("call", "asCall(bool)", {true}), parsed("subscription", "changed(int)"),
                       parsed("urgent", "b()"), parsed("call", "c()"), parsed("call", "d()", {}, 4)}
        << QStringList{"more than 10 arguments!!! ", "broken rpc command: many ",
                       "method name: many so far parsed parameters: 32buffer content: 45bfd7a3…",
                       "type is not string8 - returning default value type= 1"};
    QTest::newRow("client: return values") << client << hex("45bfd7a3 03 0700 01 05 01000000 45bfd7a3 03 0700 00 45bfd7a3 03 0900 01 00")
                                           << QStringList{parsed("return", "ok", {1}, 7), parsed("return", "failed", {}, 7),
                                                          parsed("return", "ok", {}, 9)}
                                           << QStringList();
    // A broken message ends at the byte that breaks it and is dumped whole;
    // the parser goes on at the next sync word, with "good".
    const QByteArray m = QByteArray("m") + '\0';
    const auto row = [](const char* name, int side, const QByteArray& broken, QStringList events, QStringList errors,
                        const char* method, int count) {
        errors << QString("method name: %1 so far parsed parameters: %2buffer content: %3 ")
                      .arg(method).arg(count).arg(QString(broken.toHex()));
        QTest::newRow(name) << side << broken + message(1, "good")
                            << events + QStringList{parsed(side ? "signal" : "call", "good()")} << errors;
    };
    row("server: tag 4", server, header(1) + m + hex("05 01000000 04"), {},
        {"Unsupported data type \x04", "broken rpc command: m "}, "m", 1);
    row("server: tag 20 in a call with return, answered failed", server, header(0) + hex("0100") + m + hex("14"),
        {parsed("dropped", "", {}, 1)}, {"invalid value type 0x14 at position N"}, "m", 0);
    row("server: subscription with end tag", server, header(4) + hex("00"), {},
        {"Unsupported data type ", "broken subscription "}, "", 0);
    row("server: client name of kind 4", server, header(5) + hex("04"), {},
        {"Unsupported data type \x04", "broken client name "}, "", 0);
    row("client: return value of kind 4, delivered as failed", client, header(3) + hex("0700 01 04"),
        {parsed("return", "failed", {}, 7)}, {"Unsupported data type \x04", "broken return value "}, "", 0);
    row("client: signal with tag 19", client, header(2) + m + hex("0b01 13"), {},
        {"Unsupported data type \x13", "broken signal at position N: m "}, "m", 1);
    row("client: tag 20 in a return value", client, header(3) + hex("0700 01 20"), {parsed("return", "failed", {}, 7)},
        {"invalid value type 0x20 at position N"}, "", 0);
    // Over a limit the peer is dropped: one line, and nothing more is parsed.
    const QStringList drop{"dropping connection N () for a message over 16777216 bytes or 65536 elements "};
    QTest::newRow("server: a byte array of 0xfffffff0 bytes") << server << header(1) + m + hex("02 f0ffffff") + message(1, "good")
                                                              << QStringList() << drop;
    QTest::newRow("server: 65537 ints") << server << header(1) + m + hex("0c 01000100") << QStringList() << drop;
    QTest::newRow("client: 65537 elements, nested") << client << header(2) + m + hex("12 02000000 0c 00000100 0c 01000000")
                                                    << QStringList() << drop;
}

void tst_SocketConnection::parserHandsOutMessagesAndSkipsFaults()
{
    QFETCH(int, side);
    QFETCH(QByteArray, stream);
    QFETCH(QStringList, events);
    QFETCH(QStringList, errors);
    SocketConnection connection(static_cast<Socket*>(nullptr));
    Recorder recorder;
    const QByteArray log = captureStdout([&] {
        connection.appendReceivedData(stream);
        connection.parseReceivedData(SocketConnection::ParserSide(side), &recorder);
    });
    QCOMPARE(recorder.events, events);
    // Behind "EE", the file name and the line number.
    QStringList lines;
    for (const QByteArray& line : log.split('\n'))
        if (line.contains("EE "))
            lines << QString::fromUtf8(line.mid(line.indexOf("EE ") + 30))
                         .replace(QRegularExpression("(position|connection) -?\\d+"), "\\1 N")
                         .replace(QRegularExpression("content: 45bfd7a3.{100,}"), "content: 45bfd7a3…");
    QCOMPARE(lines, errors);
}

void tst_SocketConnection::parsingIsLinearInTheBytesReceived()
{
    // The machine's pace (emulators and sanitizers are slow): the time it
    // takes to build the stream. A parser that rescans a value or a name from
    // its start for every piece that arrives takes far longer.
    QElapsedTimer timer;
    timer.start();
    QStringList list;
    QVariantList variants;
    for (int i = 0; i < 20000; ++i)
        list << QString(QChar('a' + i % 26)), variants << i;
    QByteArray stream = message(2, "lists", {list, QVariantMap{{"v", variants}}}) + message(1, QByteArray(1600000, 'n'));
    for (int i = 0; i < 20000; ++i)
        stream += message(1, "m", {i});
    const qint64 boundMs = 40 * qMax<qint64>(timer.restart(), 20) + 1000;
    SocketConnection connection(static_cast<Socket*>(nullptr));
    Recorder recorder;
    for (int from = 0; from < stream.size() && !timer.hasExpired(boundMs); ++from) {
        connection.appendReceivedData(stream.mid(from, 1));
        connection.parseReceivedData(SocketConnection::ClientSide, &recorder);
    }
    std::fprintf(stderr, "byte by byte: %lld ms (bound %lld ms)\n", timer.elapsed(), boundMs);
    QVERIFY(timer.elapsed() < boundMs);
    QCOMPARE(recorder.events.size(), 2 + 20000);
}

QTEST_GUILESS_MAIN(tst_SocketConnection)
#include "tst_socketconnection.moc"
