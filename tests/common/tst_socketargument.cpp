#include "logginginterface.h"
#include "socketargument.h"
#include "socketconnection.h"
#include "socketpromise.h"
#include "stdoutcapture.h"

#include <QtTest>

#include <cfloat>
#include <cmath>
#include <cstring>
#include <functional>

Q_DECLARE_METATYPE(SocketArgument)

class tst_SocketArgument : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { initLogging(false, false, false, true); }
    void valuesHaveTheirWireForm_data();
    void valuesHaveTheirWireForm();
    void oddInputs_data();
    void oddInputs();
    void kindProperties_data();
    void kindProperties();
    void strictConvertersLogTheHeldKind();
    void retypingAndCopying();
    void doubleLayoutRoundTrip_data();
    void doubleLayoutRoundTrip();
    void nestedVariantsAreWrittenByType();
};

namespace {

QByteArray hex(const char* text)
{
    return QByteArray::fromHex(text);
}

QByteArray encoded(const SocketArgument& argument)
{
    QByteArray bytes;
    SocketConnection::appendParameter(bytes, argument);
    return bytes;
}

SocketArgument promise()
{
    SocketArgument argument;
    argument.setTypeFromString("SocketPromise");
    return argument;
}

InternalId sampleId()
{
    InternalId id;
    id.kind = InternalId::ChannelParameter;
    id.serialPrefix = 0x1234;
    id.serialNumber = 0x89abcdef;
    id.channel = 0x0102;
    id.index = 7;
    return id;
}

// n variant lists, each holding the next; the innermost is empty.
QByteArray nestedLists(int n)
{
    return hex("12 01000000").repeated(n - 1) + hex("12 00000000");
}

} // namespace

void tst_SocketArgument::valuesHaveTheirWireForm_data()
{
    QTest::addColumn<SocketArgument>("argument");
    QTest::addColumn<QByteArray>("bytes");
    QVariantList deep;
    for (int i = 1; i < 64; ++i)
        deep = QVariantList{QVariant(deep)};
    // Every kind with the bytes that peers write and read for it.
    const struct
    {
        const char* name;
        SocketArgument argument;
        QByteArray bytes;
    } rows[] = {
        {"invalid: the end tag", SocketArgument(), hex("00")},
        {"empty QString", QString(), hex("01 00000000")},
        {"QString as UTF-8", QString::fromUtf8("Grüße"), hex("01 07000000 4772c3bc c39f65")},
        {"QByteArray", QByteArray("abc"), hex("02 03000000 616263")},
        {"text up to NUL", "xy", hex("02 02000000 7879")},
        {"int8", static_cast<signed char>(-2), hex("03 fe")},
        {"int16", short(-2), hex("04 feff")},
        {"int32 -2", -2, hex("05 feffffff")},
        {"int64", -2LL, hex("06 feffffffffffffff")},
        {"uint8", static_cast<unsigned char>(200), hex("07 c8")},
        {"uint16", static_cast<unsigned short>(0x1234), hex("08 3412")},
        {"uint32", 0x12345678u, hex("09 78563412")},
        {"uint64", 0x0102030405060708ULL, hex("0a 0807060504030201")},
        {"bool true", true, hex("0b 01")},
        {"bool false", false, hex("0b 00")},
        {"QList<int>", QList<int>{1, -1}, hex("0c 02000000 01000000 ffffffff")},
        {"QStringList", QStringList{"a", "bc"}, hex("0d 02000000 01000000 61 02000000 6263")},
        {"InternalId: ten bytes", sampleId(), hex("0e 04 3412 efcdab89 0201 07")},
        {"double 1.0", 1.0, hex("0f 00000000 0000 1800")},
        {"double -2.5", -2.5, hex("0f 00000000 0000 2a80")},
        {"double 0.0", 0.0, hex("0f 00000000 0000 0000")},
        {"string map in key order", QMap<QString, QString>{{"b", "2"}, {"a", "1"}},
         hex("10 02000000 01000000 61 01000000 31 01000000 62 01000000 32")},
        {"variant map", QVariantMap{{"k", 5}}, hex("11 01000000 01000000 6b 05 05000000")},
        {"variant list, nested text as byte string", QVariantList{true, QString("s"), QVariantList{}},
         hex("12 03000000 0b01 02 01000000 73 12 00000000")},
        {"nested containers", QVariantMap{{"a", QStringList{"xx"}}, {"b", QVariantList{QVariantMap{{"", 1}}, 1LL}}},
         hex("11 02000000 01000000 61 0d 01000000 02000000 7878"
             "01000000 62 12 02000000 11 01000000 00000000 05 01000000 06 0100000000000000")},
        {"64 nested lists", deep, nestedLists(64)},
        {"promise: the bare tag", promise(), hex("13")},
    };
    for (const auto& row : rows)
        QTest::newRow(row.name) << row.argument << row.bytes;
}

void tst_SocketArgument::valuesHaveTheirWireForm()
{
    QFETCH(SocketArgument, argument);
    QFETCH(QByteArray, bytes);
    QCOMPARE(encoded(argument).toHex(' '), bytes.toHex(' '));
    const quint8 tag = quint8(bytes.at(0));
    // Readers refuse these three; see oddInputs.
    if (tag == SocketArgument::TypeInvalid || tag == SocketArgument::TypeInt16 || tag == SocketArgument::TypePromise)
        return;

    // Every prefix, down to one byte short, leaves the position unchanged.
    const QByteArray body = bytes.mid(1);
    SocketArgument target;
    for (int available = 0; available < body.size(); ++available) {
        int pos = 0;
        QCOMPARE(target.parseNextValue(body.constData(), pos, available, tag), SocketArgument::ParseNeedMore);
        QCOMPARE(pos, 0);
        QVERIFY(!target.isValid());
    }
    int pos = 0;
    QCOMPARE(target.parseNextValue(body.constData(), pos, body.size(), tag), SocketArgument::ParseDone);
    QCOMPARE(pos, body.size());
    QCOMPARE(int(target.getType()), int(tag));
    // Written again, the value gives the same bytes: nothing was lost.
    QCOMPARE(encoded(target).toHex(' '), bytes.toHex(' '));

    // The scanner that guards the stream parser agrees, fed byte by byte.
    if (SocketValueScanner::isNeededFor(tag)) {
        SocketValueScanner scanner;
        scanner.start(tag);
        for (int available = 0; available < body.size(); ++available)
            QCOMPARE(scanner.scan(body.constData(), available), SocketValueScanner::NeedMore);
        QCOMPARE(scanner.scan(body.constData(), body.size()), SocketValueScanner::Complete);
    }
}

void tst_SocketArgument::oddInputs_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<int>("result");
    QTest::addColumn<int>("position");
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QByteArray>("log");
    const int done = SocketArgument::ParseDone;
    const int more = SocketArgument::ParseNeedMore;
    const int broken = SocketArgument::ParseBroken;

    // Tags 4, 19 and 20 at the top level break the message: see the parser's table.
    QTest::newRow("tag 20") << hex("14 00") << broken << 1 << QVariant()
                            << QByteArray("invalid value type 0x14 at position 1");
    QTest::newRow("bool byte 02 reads true") << hex("0b 02") << done << 2 << QVariant(true) << QByteArray();
    QTest::newRow("variant map, count -1")
        << hex("11 ffffffff ff") << done << 5 << QVariant(QVariantMap()) << QByteArray();
    QTest::newRow("variant list, count -2^31")
        << hex("12 00000080 ff") << done << 5 << QVariant(QVariantList()) << QByteArray();
    QTest::newRow("int list, count -1") << hex("0c ffffffff ff") << done << 5 << QVariant() << QByteArray();
    QTest::newRow("nested identifier: invalid variant")
        << hex("12 01000000 0e 01 0000 00000000 0000 00") << done << 16 << QVariant(QVariantList{QVariant()})
        << QByteArray();
    // Inside a container such values do not break the stream: the container
    // waits for bytes that cannot help.
    QTest::newRow("nested 16-bit value waits") << hex("12 01000000 04 0100 ffff") << more << 1 << QVariant()
                                               << QByteArray("Unsupported data type \x04");
    QTest::newRow("nested end tag waits") << hex("11 01000000 01000000 6b 00 ffff") << more << 1 << QVariant()
                                          << QByteArray("Unsupported data type ");
    QTest::newRow("nested promise waits")
        << hex("12 01000000 13 ffff") << more << 1 << QVariant() << QByteArray("Unsupported data type \x13");
    QTest::newRow("nested tag 20 waits") << hex("12 01000000 14 ffff") << more << 1 << QVariant()
                                         << QByteArray("invalid value type 0x14 at position 6");
    QTest::newRow("65 nested lists wait") << nestedLists(65) + hex("ffff") << more << 1 << QVariant()
                                          << QByteArray("nested value too deep at position 321");
}

void tst_SocketArgument::oddInputs()
{
    QFETCH(QByteArray, bytes);
    QFETCH(int, result);
    QFETCH(int, position);
    QFETCH(QVariant, value);
    QFETCH(QByteArray, log);

    SocketArgument target;
    int pos = 0;
    int got = -1;
    const QByteArray out = captureStdout([&] {
        quint8 tag = 0;
        got = SocketArgument::parseValueType(bytes.constData(), pos, bytes.size(), tag);
        if (got == SocketArgument::ParseDone)
            got = target.parseNextValue(bytes.constData(), pos, bytes.size(), tag);
    });
    QCOMPARE(got, result);
    QCOMPARE(pos, position);
    QCOMPARE(target.toQVariant(), value);
    QCOMPARE(target.isValid(), result == SocketArgument::ParseDone);
    if (log.isEmpty())
        QCOMPARE(out, QByteArray());
    else
        QVERIFY2(out.contains("EE ") && out.endsWith(log + '\n'), out);

    if (result == SocketArgument::ParseNeedMore && !log.isEmpty()) {
        SocketValueScanner scanner;
        scanner.start(quint8(bytes.at(0)));
        const QByteArray body = bytes.mid(1);
        QCOMPARE(scanner.scan(body.constData(), body.size()), SocketValueScanner::Stuck);
        QCOMPARE(scanner.scan(body.constData(), body.size()), SocketValueScanner::NeedMore);
    }
}

void tst_SocketArgument::kindProperties_data()
{
    QTest::addColumn<SocketArgument>("argument");
    QTest::addColumn<int>("size");
    QTest::addColumn<QVariant>("variant");
    QTest::addColumn<QByteArray>("typeString");
    QTest::addColumn<QByteArray>("genericName");
    const QVariantMap map{{"k", 1}};
    const struct
    {
        const char* typeString;
        SocketArgument argument;
        int size;
        QVariant variant;
        const char* genericName;
    } rows[] = {
        {"QString", QString("abc"), 8, "abc", "QString"},
        {"QByteArray", "abc", 3, QByteArray("abc"), "QByteArray"},
        {"char", static_cast<signed char>(-3), 1, -3, "qint8"},
        {"short", short(-3), 2, -3, "qint16"},
        {"int", -3, 4, -3, "int"},
        {"qlonglong", -3LL, 8, -3LL, "qint64"},
        {"uchar", static_cast<unsigned char>(12), 1, 12, "quint8"},
        {"ushort", static_cast<unsigned short>(12), 2, 12, "quint16"},
        {"uint", 12u, 4, 12u, "uint"},
        {"qulonglong", 12ULL, 8, 12ULL, "quint64"},
        {"bool", false, 1, false, "bool"},
        {"QList<int>", QList<int>{1, 2}, 2, QVariant(), "QList<int>"},
        {"QStringList", QStringList{"a"}, 1, QStringList{"a"}, "QStringList"},
        {"InternalId", sampleId(), 9, QVariant(), "InternalId"},
        {"double", 2.5, 8, 2.5, "double"},
        {"QMap<QString,QString>", QMap<QString, QString>{{"k", "v"}}, 1, QVariant(), "<QMap<QString, QString>>"},
        {"QVariantMap", map, 1, map, "QVariantMap"},
        {"QVariantList", QVariantList{1}, 1, QVariantList{1}, "QVariantList"},
    };
    for (const auto& row : rows)
        QTest::newRow(row.typeString) << row.argument << row.size << row.variant << QByteArray(row.typeString)
                                      << QByteArray(row.genericName);
    QTest::newRow("invalid") << SocketArgument() << 0 << QVariant() << QByteArray() << QByteArray();
    QTest::newRow("promise") << promise() << 0 << QVariant() << QByteArray() << QByteArray();
}

void tst_SocketArgument::kindProperties()
{
    QFETCH(SocketArgument, argument);
    QFETCH(int, size);
    QFETCH(QVariant, variant);
    QFETCH(QByteArray, typeString);
    QFETCH(QByteArray, genericName);

    QCOMPARE(argument.size(), size);
    QCOMPARE(argument.toQVariant().userType(), variant.userType());
    QCOMPARE(argument.toQVariant(), variant);
    QCOMPARE(QByteArray(argument.getTypeString()), typeString);
    const QGenericArgument generic = argument.toQGenericArgument();
    QCOMPARE(QByteArray(generic.name()), genericName);
    QCOMPARE(generic.data(), genericName.isEmpty() ? nullptr : argument.getDataPointer());

    // A slot signature's type text prepares an argument of the kind that peers
    // send under it; the string map is known there only with a blank.
    const SocketArgument::eType kind = argument.getType();
    SocketArgument fromText(7);
    fromText.setTypeFromString(typeString.constData());
    QCOMPARE(fromText.getType(), kind == SocketArgument::TypeStringMap || kind == SocketArgument::TypePromise
                                     ? SocketArgument::TypeInvalid
                                     : kind);
    fromText.setTypeFromString("QMap<QString, QString>");
    QCOMPARE(fromText.getType(), SocketArgument::TypeStringMap);
    QVERIFY(fromText.toQStringMap().isEmpty());
}

void tst_SocketArgument::strictConvertersLogTheHeldKind()
{
    // Nothing widens or narrows: an int32 asked for as anything else gives the
    // default and names its kind, 5; a string list asked for as int32 names 13.
    const SocketArgument v(5), list(QStringList{"x"});
    const QByteArray out = captureStdout([&] {
        QVERIFY(v.toInt8() == 0 && v.toUInt8() == 0 && v.toInt16() == 0 && v.toUInt16() == 0
                && list.toInt32() == 0 && v.toUInt32() == 0 && v.toInt64() == 0 && v.toUInt64() == 0
                && !v.toBool() && v.toString8().isEmpty() && v.toQString().isEmpty()
                && !v.toInternalId().isValid() && v.toDouble() == 0.0 && v.toInt32() == 5);
    });
    QByteArray expected;
    for (const char* name : {"int8", "uint8", "int16", "uint16", "int32", "uint32", "int64", "uint64", "bool",
                             "string8", "string16", "internalid", "double"})
        expected += QByteArray("type is not ") + name + " - returning default value type= "
                    + (qstrcmp(name, "int32") ? "5" : "13") + '\n';
    QByteArray got;
    for (const QByteArray& line : out.split('\n'))
        if (line.contains("EE "))
            got += line.mid(line.indexOf("EE ") + 30) + '\n';
    QCOMPARE(got, expected);
}

void tst_SocketArgument::retypingAndCopying()
{
    // setType constructs every container but the variant list (and the
    // promise): its callers construct that in place. Numbers keep their bytes.
    SocketArgument argument(QString("replaced"));
    argument.setType(SocketArgument::TypeVariantList);
    QCOMPARE(argument.getType(), SocketArgument::TypeVariantList);
    new (argument.getDataPointer()) QVariantList{1, 2};
    QCOMPARE(SocketArgument(argument).toQVariant(), QVariant(QVariantList{1, 2}));
    argument.setTypeFromString("QVariantList");
    QVERIFY(argument.toQVariantList().isEmpty());
    argument.setType(SocketArgument::TypeStringList);
    QVERIFY(argument.toQStringList().isEmpty());
    SocketArgument number(7);
    number.setType(SocketArgument::TypeInt32);
    QCOMPARE(number.toInt32(), 7);

    // Copies hold their value in a buffer of their own;
    // assignment replaces what was held; clear() keeps the buffer.
    const SocketArgument original(QStringList{"a", "b"});
    SocketArgument copy(original);
    QVERIFY(copy.getDataPointer() != SocketArgument(original).getDataPointer());
    copy = SocketArgument(-9LL);
    QCOMPARE(copy.toInt64(), -9LL);
    copy = original;
    void* buffer = copy.getDataPointer();
    copy.clear();
    QCOMPARE(copy.getDataPointer(), buffer);
    QVERIFY(!copy.isValid());

    // A promise argument holds a shared handle; the last handle deletes.
    const SocketArgument held = promise();
    SocketPromiseData* data = held.toPromise().data();
    {
        const SocketArgument second(held);
        SocketPromise handle = second.toPromise();
        QCOMPARE(data->referenceCount, 3);
        handle = SocketPromise();
        QCOMPARE(data->referenceCount, 2);
    }
    QCOMPARE(data->referenceCount, 1);
}

void tst_SocketArgument::doubleLayoutRoundTrip_data()
{
    QTest::addColumn<double>("value");
    QTest::addColumn<bool>("exact");
    const double rows[][2] = {{0.0, 1}, {1.0, 1}, {-2.5, 1}, {-1e-3, 0}, {3.141592653589793, 0},
                              {4503599627370498.0, 1}, {1.0 + DBL_EPSILON, 0}, {-1e300, 0},
                              {std::ldexp(1.0, 1022), 1}, {1e-300, 0}, {DBL_MIN, 1},
                              {std::ldexp(1.0, -1024), 1}, {-0.0, 0}};
    for (const auto& row : rows)
        QTest::addRow("%.17g", row[0]) << row[0] << bool(row[1]);
    // Not provided for by the layout: exponents beyond its 11 bits wrap, NaN
    // and infinities travel as zero.
    QTest::newRow("DBL_MAX") << DBL_MAX << false;
    QTest::newRow("2^-1074") << std::ldexp(1.0, -1074) << false;
    QTest::newRow("NaN") << std::nan("") << false;
    QTest::newRow("-inf") << -HUGE_VAL << false;
}

void tst_SocketArgument::doubleLayoutRoundTrip()
{
    QFETCH(double, value);
    QFETCH(bool, exact);

    // What the peers compute: frexp's fraction truncated to 52 bits, the
    // exponent as an 11-bit two's complement field, rebuilt with ldexp.
    int exponent = 0;
    const double fraction = std::frexp(std::fabs(value), &exponent);
    const int field = (exponent & 0x7ff) > 1023 ? (exponent & 0x7ff) - 2048 : (exponent & 0x7ff);
    const bool representable = std::isfinite(value) && value != 0;
    const double expected =
        representable ? std::copysign(std::ldexp(std::floor(std::ldexp(fraction, 52)), field - 52), value)
                      : 0.0;

    QByteArray bytes;
    SocketConnection::appendValue(bytes, value);
    QCOMPARE(bytes.size(), 8);
    QCOMPARE(quint8(bytes.at(7)) >> 7, expected < 0 ? 1 : 0);
    SocketArgument decoded;
    int pos = 0;
    QVERIFY(decoded.parseDouble(bytes.constData(), pos, bytes.size()));
    // Bit for bit: QCOMPARE compares doubles fuzzily.
    const double result = decoded.toDouble();
    QVERIFY2(std::memcmp(&result, &expected, sizeof(double)) == 0,
             qPrintable(QString::number(result, 'g', 17)));
    if (exact)
        QVERIFY(std::memcmp(&result, &value, sizeof(double)) == 0);
    else if (representable && field == exponent)
        QVERIFY(std::fabs(result - value) <= std::fabs(value) * DBL_EPSILON);
}

void tst_SocketArgument::nestedVariantsAreWrittenByType()
{
    const QVariantMap map{{"a", QString("x")},
                          {"b", QDate(2024, 1, 1)},
                          {"c", QVariantList{QStringList{"s"}, QByteArray("y"), QTime(1, 2)}},
                          {"d", QVariantList{false, -1, 2u, -3LL, 4ULL, 1.5}}};
    QByteArray bytes;
    const QByteArray out = captureStdout([&] { SocketConnection::appendParameter(bytes, SocketArgument(map)); });
    // A date and a time have no wire form: left out, entry and all, though counted.
    QCOMPARE(out.count("EE "), 2);
    QVERIFY2(out.contains("WRITE invalid QVariantMap value from type QDate "
                          + QByteArray::number(QMetaType::QDate) + "\n"),
             out);
    QVERIFY2(out.endsWith("WRITE invalid QVariantMap value from type QTime "
                          + QByteArray::number(QMetaType::QTime) + "\n"),
             out);
    QCOMPARE(bytes.toHex(' '), hex("11 04000000 01000000 61 02 01000000 78"
                                   "01000000 63 12 03000000 0d 01000000 01000000 73 02 01000000 79"
                                   "01000000 64 12 06000000 0b00 05 ffffffff 09 02000000 06 fdffffffffffffff"
                                   "0a 0400000000000000 0f 00000000 0000 1c00")
                                   .toHex(' '));
    // The count promises more than follows: a reader waits for the rest.
    SocketArgument decoded;
    int pos = 0;
    QCOMPARE(decoded.parseNextValue(bytes.constData() + 1, pos, bytes.size() - 1, bytes.at(0)),
             SocketArgument::ParseNeedMore);
}

QTEST_GUILESS_MAIN(tst_SocketArgument)
#include "tst_socketargument.moc"
