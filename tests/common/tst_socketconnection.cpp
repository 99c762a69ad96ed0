#include "logginginterface.h"
#include "socketconnection.h"
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
    void messagesHaveTheirWireLayout();
    void everySplitGivesTheSameMessages_data();
    void everySplitGivesTheSameMessages();
    void brokenMessagesAreSkipped_data();
    void brokenMessagesAreSkipped();
    void serverAndClientReadTheirMessages();
    void parsingIsLinearInTheBytesReceived();
};

namespace {

QByteArray hex(const char* text)
{
    return QByteArray::fromHex(text);
}

// --- Messages as peers write them, built from the value encoders.

QByteArray header(quint8 type)
{
    return hex("45bfd7a3") + char(type);
}

QByteArray encodedValues(const QList<SocketArgument>& values)
{
    QByteArray bytes;
    for (const SocketArgument& value : values)
        SocketConnection::appendParameter(bytes, value);
    return bytes;
}

// Types 0 (with the query id), 1 and 2.
QByteArray message(quint8 type, const QByteArray& name, const QList<SocketArgument>& values = {},
                   quint16 queryId = 0)
{
    QByteArray bytes = header(type);
    if (type == SocketConnection::CallWithReturnMessage)
        SocketConnection::appendValue(bytes, queryId);
    return bytes + name + '\0' + encodedValues(values) + '\0';
}

QByteArray oneValueMessage(quint8 type, const SocketArgument& value)
{
    return header(type) + encodedValues({value});
}

QList<SocketArgument> ints(int count)
{
    QList<SocketArgument> values;
    for (int i = 0; i < count; ++i)
        values.append(i);
    return values;
}

// A value of every kind that peers accept, nested containers included.
QList<SocketArgument> everyKind()
{
    return {QString::fromUtf8("näme"), QByteArray("raw"), static_cast<signed char>(-1), -100000,
            -(1LL << 40), static_cast<unsigned char>(250), static_cast<unsigned short>(65000),
            4000000000u, 1ULL << 63, true, QList<int>{1, -2}, QStringList{"a", ""},
            InternalId{InternalId::Device, 0, 123456}, -0.75, QMap<QString, QString>{{"k", "v"}},
            QVariantMap{{"l", QVariantList{1, QString("two"), QVariantMap{{"x", 2.5}}}}, {"n", 7u}},
            QVariantList{QStringList{"p"}, QByteArray("q"), -3LL, 4ULL, false}};
}

// What the parser hands out, as text: kind, query id, signature or outcome,
// the values written again.
QString parsed(const char* kind, const QByteArray& what, const QList<SocketArgument>& values = {}, int queryId = 0)
{
    return QString("%1 %2 %3 %4").arg(kind).arg(queryId).arg(what, encodedValues(values).toHex());
}

class Recorder : public SocketMessageReceiver
{
public:
    void callReceived(SocketConnection* c, bool urgent) override
    {
        // Only a call with return carries a query id.
        events << parsed(urgent ? "urgent" : "call", c->getSignature(), values(c),
                         c->getMessageType() == SocketConnection::CallWithReturnMessage ? c->getQueryId() : 0);
    }
    void subscriptionReceived(SocketConnection*, const QByteArray& signature) override
    {
        events << parsed("subscription", signature);
    }
    void returnValueReceived(SocketConnection*, quint16 id, bool success, const SocketArgument* value) override
    {
        events << parsed("return", success ? "ok" : "failed",
                         value ? QList<SocketArgument>{*value} : QList<SocketArgument>(), id);
    }
    void signalReceived(SocketConnection* c) override { events << parsed("signal", c->getSignature(), values(c)); }

    QStringList events;

private:
    static QList<SocketArgument> values(SocketConnection* c)
    {
        QList<SocketArgument> list;
        for (int i = 0; i < c->getParsedValueCount(); ++i)
            list << c->getParsedValue(i);
        return list;
    }
};

struct ParseRun
{
    QStringList events;
    QStringList errors; // the error lines' texts, positions masked
    QByteArray clientName;
    QByteArray unparsed;

    QStringList all() const { return events + errors + QStringList{clientName, unparsed.toHex()}; }
};

// Parses stream on a connection without socket, delivered in pieces that end
// at the given offsets and at its end.
ParseRun parse(SocketConnection::ParserSide side, const QByteArray& stream, const QList<int>& cuts = {})
{
    ParseRun run;
    SocketConnection connection(static_cast<Socket*>(nullptr));
    Recorder recorder;
    const QByteArray log = captureStdout([&] {
        int from = 0;
        for (int cut : cuts + QList<int>{stream.size()}) {
            connection.appendReceivedData(stream.mid(from, cut - from));
            connection.parseReceivedData(side, &recorder);
            from = cut;
        }
    });
    for (const QByteArray& line : log.split('\n')) {
        // Behind "EE", the file name and the line number. Positions count
        // from the start of a read, so they depend on the split.
        if (line.contains("EE "))
            run.errors << QString::fromUtf8(line.mid(line.indexOf("EE ") + 30))
                              .replace(QRegularExpression("position -?\\d+"), "position N");
    }
    run.events = recorder.events;
    run.clientName = connection.getClientName();
    run.unparsed = connection.unparsedData();
    return run;
}

} // namespace

void tst_SocketConnection::messagesHaveTheirWireLayout()
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
        SocketConnection w(pair.client.release());
        QVERIFY(w.flush(10)); // nothing to send
        QVERIFY(w.writeCall(SocketConnection::CallWithReturnMessage, 7, "getName", {})
                && w.writeCall(SocketConnection::CallWithoutReturnMessage, 7, "ping", {&name, &stage})
                && w.writeCall(SocketConnection::CallWithoutReturnMessage, 0, "m", {&yes, &invalid, &one})
                && w.writeSignal("changed", {&key}) && w.writeReturnValue(7, true, &one)
                && w.writeReturnValue(7, false, &one) && w.writeReturnValue(8, true, &invalid)
                && w.writeSubscription("changed(int)") && w.writeClientName("rpc") && w.flush(5000));
        QCOMPARE(readAtLeast(*pair.peer, expected.size()).toHex(' '), expected.toHex(' '));

        // Nobody reads: once the kernel's buffers are full nothing leaves.
        const QByteArray block(1 << 20, 'x');
        for (int i = 0; i < 48; ++i)
            QVERIFY(w.writeData(block.constData(), block.size()));
        QVERIFY(!w.flush(200));
        QVERIFY(w.getSocket()->bytesToWrite() > 0);
    }
}

void tst_SocketConnection::everySplitGivesTheSameMessages_data()
{
    QTest::addColumn<int>("side");
    QTest::addColumn<QByteArray>("stream");
    QTest::addColumn<int>("eventCount");
    QTest::addColumn<int>("errorCount");

    const QList<SocketArgument> all = everyKind();
    QList<SocketArgument> broken = ints(2);
    broken.append(short(5));
    // Garbage, every message type, broken messages and an unfinished one.
    QTest::newRow("server") << int(SocketConnection::ServerSide)
                            << hex("00 11") + oneValueMessage(5, "rpc") + message(0, "getName", {}, 7)
                                   + message(1, "first", all.mid(0, 10)) + hex("ab cd ef 45")
                                   + oneValueMessage(4, "changed(int)") + message(1, "rest", all.mid(10))
                                   + message(1, "bad", broken) + message(2, "asCall", {true})
                                   + oneValueMessage(5, "other") + header(1) + "tag20" + hex("00 14 00")
                                   + header(4) + hex("00") + message(1, "eleven", ints(11))
                                   + message(0, "ten", ints(10), 9) + message(1, "many", ints(33)) + header(0)
                                   + hex("0a00") + "unfinished"
                            << 6 << 11;
    QTest::newRow("client") << int(SocketConnection::ClientSide)
                            << hex("45 45bf 45bfd7a3 03 0700 01 0d 02000000 01000000 78 01000000 79"
                                   "45bfd7a3 03 0800 00 45bfd7a3 03 0900 01 00")
                                   + message(2, "all", all) + hex("d7a3") + message(2, "bad", broken) + header(3)
                                   + hex("0b00 01 13") + message(1, "callAsSignal", {true})
                                   + message(2, "max", ints(32)) + message(2, "over", ints(33)) + header(3)
                                   + hex("0c00 01 14") + header(2) + "unfinished" + hex("00 05 0100")
                            << 6 << 10;
}

void tst_SocketConnection::everySplitGivesTheSameMessages()
{
    QFETCH(int, side);
    QFETCH(QByteArray, stream);
    QFETCH(int, eventCount);
    QFETCH(int, errorCount);
    const auto parserSide = SocketConnection::ParserSide(side);

    const ParseRun whole = parse(parserSide, stream);
    QCOMPARE(whole.events.size(), eventCount);
    QCOMPARE(whole.errors.size(), errorCount);
    QVERIFY(!whole.unparsed.isEmpty()); // the unfinished message waits

    QList<int> everyByte;
    for (int i = 1; i < stream.size(); ++i)
        everyByte << i;
    // Cut 0 stands for byte by byte.
    for (int cut = 0; cut < stream.size(); ++cut) {
        const QStringList split = parse(parserSide, stream, cut ? QList<int>{cut} : everyByte).all();
        QVERIFY2(split == whole.all(),
                 qPrintable(QString("split at %1 gives:\n%2").arg(cut).arg(split.join('\n'))));
    }
}

void tst_SocketConnection::brokenMessagesAreSkipped_data()
{
    QTest::addColumn<int>("side");
    QTest::addColumn<QByteArray>("broken");
    QTest::addColumn<QStringList>("errors");
    const int server = SocketConnection::ServerSide;
    const int client = SocketConnection::ClientSide;
    const QByteArray m = QByteArray("m") + '\0';
    // Each broken message ends at the byte that breaks it; the dump shows it whole.
    const auto row = [](const char* name, int side, const QByteArray& broken, QStringList errors,
                        const char* method, int count) {
        errors << QString("method name: %1 so far parsed parameters: %2buffer content: %3 ")
                      .arg(method).arg(count).arg(QString(broken.toHex()));
        QTest::newRow(name) << side << broken << errors;
    };
    row("server: tag 4", server, header(1) + m + hex("05 01000000 04"),
        {"Unsupported data type \x04", "broken rpc command: m "}, "m", 1);
    row("server: tag 20", server, header(0) + hex("0100") + m + hex("14"),
        {"invalid value type 0x14 at position N"}, "m", 0);
    row("server: subscription with end tag", server, header(4) + hex("00"),
        {"Unsupported data type ", "broken subscription "}, "", 0);
    row("server: client name of kind 4", server, header(5) + hex("04"),
        {"Unsupported data type \x04", "broken client name "}, "", 0);
    row("client: return value of kind 4", client, header(3) + hex("0700 01 04"),
        {"Unsupported data type \x04", "broken return value "}, "", 0);
    row("client: signal with tag 19", client, header(2) + m + hex("0b01 13"),
        {"Unsupported data type \x13", "broken signal at position N: m "}, "m", 1);
    row("client: tag 20 in a return value", client, header(3) + hex("0700 01 20"),
        {"invalid value type 0x20 at position N"}, "", 0);
}

void tst_SocketConnection::brokenMessagesAreSkipped()
{
    QFETCH(int, side);
    QFETCH(QByteArray, broken);
    QFETCH(QStringList, errors);
    // The parser logs, dumps the message and searches the next sync word.
    const ParseRun run = parse(SocketConnection::ParserSide(side), broken + message(1, "good"));
    QCOMPARE(run.events.size(), 1);
    QVERIFY(run.events.first().contains("good()"));
    QCOMPARE(run.errors, errors);
}

void tst_SocketConnection::serverAndClientReadTheirMessages()
{
    // Garbage goes; the start of a sync word waits for the next read.
    SocketConnection connection(static_cast<Socket*>(nullptr));
    Recorder recorder;
    connection.appendReceivedData(hex("00 11 45 bf d7"));
    connection.parseReceivedData(SocketConnection::ServerSide, &recorder);
    QCOMPARE(connection.unparsedData(), hex("45 bf d7"));
    connection.appendReceivedData(message(1, "getName").mid(3));
    connection.parseReceivedData(SocketConnection::ServerSide, &recorder);
    QCOMPARE(recorder.events, QStringList{parsed("call", "getName()")});

    // A server calls with up to 10 values and drops more at the end tag; 33
    // values would overflow the 32 slots: the message is broken. Type 2 is a
    // call without return. Calls after the name "rpc" are urgent; a name that
    // is not a byte string reads as empty, with the converter's line.
    ParseRun run = parse(SocketConnection::ServerSide,
                         message(1, "ten", ints(10)) + message(1, "eleven", ints(11)) + message(1, "many", ints(33))
                             + message(2, "asCall", {true}) + oneValueMessage(4, "changed(int)")
                             + oneValueMessage(5, "rpc") + message(1, "b") + oneValueMessage(5, "rpcx")
                             + message(1, "c") + oneValueMessage(5, "rpc") + oneValueMessage(5, QString("rpc"))
                             + message(1, "d"));
    QCOMPARE(run.events, (QStringList{parsed("call", "ten(int,int,int,int,int,int,int,int,int,int)", ints(10)),
                                      parsed("call", "asCall(bool)", {true}), parsed("subscription", "changed(int)"),
                                      parsed("urgent", "b()"), parsed("call", "c()"), parsed("call", "d()")}));
    QCOMPARE(run.clientName, QByteArray());
    run.errors.replaceInStrings(QRegularExpression("content: 45bfd7a3.*"), "content: 45bfd7a3…");
    QCOMPARE(run.errors, (QStringList{"more than 10 arguments!!! ", "broken rpc command: many ",
                                      "method name: many so far parsed parameters: 32buffer content: 45bfd7a3…",
                                      "type is not string8 - returning default value type= 1"}));

    run = parse(SocketConnection::ClientSide,
                hex("45bfd7a3 03 0700 01 05 01000000 45bfd7a3 03 0700 00 45bfd7a3 03 0900 01 00"));
    QCOMPARE(run.events, (QStringList{parsed("return", "ok", {1}, 7), parsed("return", "failed", {}, 7),
                                      parsed("return", "ok", {}, 9)}));
}

void tst_SocketConnection::parsingIsLinearInTheBytesReceived()
{
    // The machine's pace (emulators and sanitizers are slow): the time it
    // takes to encode the first stream. Parsing a stream costs a small
    // multiple of that; a parser that copies the buffer per message or per
    // piece, or rescans a field or value from its start per piece, takes far
    // longer. Each loop stops at the bound.
    QElapsedTimer pace;
    pace.start();
    QByteArray many;
    const int messages = 400000;
    for (int i = 0; i < messages; ++i)
        many += message(1, "m", {i});
    const qint64 boundMs = 10 * qMax<qint64>(pace.elapsed(), 20) + 1000;

    QStringList list;
    QVariantList variants;
    for (int i = 0; i < 20000; ++i) {
        list << QString(QChar('a' + i % 26));
        variants << i;
    }
    const QByteArray longOnes = message(2, "lists", {list, QVariantMap{{"v", variants}}})
                                + message(1, QByteArray(1600000, 'n')) + many.left(many.size() / 20);
    for (const bool byteByByte : {false, true}) {
        const QByteArray& stream = byteByByte ? longOnes : many;
        const int piece = byteByByte ? 1 : stream.size();
        const char* what = byteByByte ? "long containers, a long name and 20000 messages byte by byte"
                                      : "400000 messages at once";
        SocketConnection connection(static_cast<Socket*>(nullptr));
        Recorder recorder;
        QElapsedTimer timer;
        timer.start();
        for (int from = 0; from < stream.size() && !timer.hasExpired(boundMs); from += piece) {
            connection.appendReceivedData(stream.mid(from, piece));
            connection.parseReceivedData(SocketConnection::ClientSide, &recorder);
        }
        std::fprintf(stderr, "%s: %lld ms (bound %lld ms)\n", what, static_cast<long long>(timer.elapsed()),
                     static_cast<long long>(boundMs));
        QVERIFY2(timer.elapsed() < boundMs, what);
        QCOMPARE(recorder.events.size(), byteByByte ? 2 + messages / 20 : messages);
    }
}

QTEST_GUILESS_MAIN(tst_SocketConnection)
#include "tst_socketconnection.moc"
