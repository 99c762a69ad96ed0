#include "socketargument.h"

#include "logginginterface.h"
#include "socketpromise.h"

#include <QtEndian>

#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace {

// Every value is constructed in the one malloc'ed block, so each held type must
// fit into it and need no stricter alignment than malloc gives.
template <typename T>
constexpr bool fitsBuffer()
{
    return sizeof(T) <= SocketArgument::BufferSize && alignof(T) <= alignof(std::max_align_t);
}
static_assert(fitsBuffer<QString>() && fitsBuffer<QByteArray>() && fitsBuffer<qint64>()
                  && fitsBuffer<quint64>() && fitsBuffer<double>() && fitsBuffer<bool>()
                  && fitsBuffer<QList<int>>() && fitsBuffer<QStringList>()
                  && fitsBuffer<InternalId>() && fitsBuffer<QMap<QString, QString>>()
                  && fitsBuffer<QVariantMap>() && fitsBuffer<QVariantList>()
                  && fitsBuffer<SocketPromise>(),
              "a value type does not fit the 32-byte value buffer");

struct KindNames
{
    const char* typeString;
    const char* genericName; // null: no generic argument
};

// Indexed by eType. The string map's three spellings differ on purpose: peers
// and the meta-object system know it under these exact texts.
const KindNames kindNames[] = {
    {"", nullptr},
    {"QString", "QString"},
    {"QByteArray", "QByteArray"},
    {"char", "qint8"},
    {"short", "qint16"},
    {"int", "int"},
    {"qlonglong", "qint64"},
    {"uchar", "quint8"},
    {"ushort", "quint16"},
    {"uint", "uint"},
    {"qulonglong", "quint64"},
    {"bool", "bool"},
    {"QList<int>", "QList<int>"},
    {"QStringList", "QStringList"},
    {"InternalId", "InternalId"},
    {"double", "double"},
    {"QMap<QString,QString>", "<QMap<QString, QString>>"},
    {"QVariantMap", "QVariantMap"},
    {"QVariantList", "QVariantList"},
    {"", nullptr},
};
static_assert(sizeof(kindNames) / sizeof(kindNames[0]) == SocketArgument::TypePromise + 1,
              "one name entry per kind");

// Whether count bytes from pos lie before end. 64-bit, so that a length read
// from the stream cannot overflow the sum.
bool bytesAvailable(int pos, qint64 count, int end)
{
    return qint64(pos) + count <= qint64(end);
}

template <typename T>
T readLittleEndian(const char* data, int pos)
{
    return qFromLittleEndian<T>(data + pos);
}

// A length-prefixed UTF-8 text, as the elements of lists and maps carry it.
bool readUtf8(const char* data, int& pos, int end, QString& text)
{
    if (!bytesAvailable(pos, 4, end))
        return false;
    const quint32 length = readLittleEndian<quint32>(data, pos);
    if (!bytesAvailable(pos, 4 + qint64(length), end))
        return false;
    text = QString::fromUtf8(data + pos + 4, int(length));
    pos += 4 + int(length);
    return true;
}

// Charges a container's count to an element budget; false when it is over.
bool charge(qint32 count, int& budget)
{
    if (count <= 0)
        return true;
    if (count > budget)
        return false;
    budget -= count;
    return true;
}

constexpr double TwoPow52 = 4503599627370496.0;

} // namespace

SocketArgument::SocketArgument(const QByteArray& value)
{
    store(TypeString8, value);
}

SocketArgument::SocketArgument(const char* text)
{
    store(TypeString8, QByteArray(text));
}

SocketArgument::SocketArgument(const QString& value)
{
    store(TypeString16, value);
}

SocketArgument::SocketArgument(signed char value)
{
    store(TypeInt8, qint8(value));
}

SocketArgument::SocketArgument(unsigned char value)
{
    store(TypeUInt8, quint8(value));
}

SocketArgument::SocketArgument(short value)
{
    store(TypeInt16, qint16(value));
}

SocketArgument::SocketArgument(unsigned short value)
{
    store(TypeUInt16, quint16(value));
}

SocketArgument::SocketArgument(int value)
{
    store(TypeInt32, qint32(value));
}

SocketArgument::SocketArgument(unsigned int value)
{
    store(TypeUInt32, quint32(value));
}

SocketArgument::SocketArgument(long long value)
{
    store(TypeInt64, qint64(value));
}

SocketArgument::SocketArgument(unsigned long long value)
{
    store(TypeUInt64, quint64(value));
}

SocketArgument::SocketArgument(bool value)
{
    store(TypeBool, value);
}

SocketArgument::SocketArgument(const InternalId& value)
{
    store(TypeInternalId, value);
}

SocketArgument::SocketArgument(double value)
{
    store(TypeDouble, value);
}

SocketArgument::SocketArgument(const QStringList& value)
{
    store(TypeStringList, value);
}

SocketArgument::SocketArgument(const QList<int>& value)
{
    store(TypeInt32List, value);
}

SocketArgument::SocketArgument(const QVariantList& value)
{
    store(TypeVariantList, value);
}

SocketArgument::SocketArgument(const QMap<QString, QString>& value)
{
    store(TypeStringMap, value);
}

SocketArgument::SocketArgument(const QVariantMap& value)
{
    store(TypeVariantMap, value);
}

SocketArgument::SocketArgument(const SocketArgument& other)
{
    copyFrom(other);
}

SocketArgument::SocketArgument(SocketArgument&& other) noexcept : type(other.type), data(other.data)
{
    other.type = TypeInvalid;
    other.data = nullptr;
}

SocketArgument& SocketArgument::operator=(const SocketArgument& other)
{
    if (this != &other) {
        clear();
        copyFrom(other);
    }
    return *this;
}

SocketArgument& SocketArgument::operator=(SocketArgument&& other) noexcept
{
    if (this != &other) {
        clear();
        std::free(data);
        type = other.type;
        data = other.data;
        other.type = TypeInvalid;
        other.data = nullptr;
    }
    return *this;
}

SocketArgument::~SocketArgument()
{
    clear();
    std::free(data);
}

void* SocketArgument::buffer()
{
    if (!data) {
        data = std::malloc(BufferSize);
        Q_CHECK_PTR(data);
        // Numbers are read as they lie after setType(); let a fresh block read as 0.
        std::memset(data, 0, BufferSize);
    }
    return data;
}

template <typename T>
void SocketArgument::store(eType kind, const T& value)
{
    clear();
    new (buffer()) T(value);
    type = kind;
}

void SocketArgument::copyFrom(const SocketArgument& other)
{
    switch (other.type) {
    case TypeInvalid: break;
    case TypeString16: store(other.type, other.held<QString>()); break;
    case TypeString8: store(other.type, other.held<QByteArray>()); break;
    case TypeInt32List: store(other.type, other.held<QList<int>>()); break;
    case TypeStringList: store(other.type, other.held<QStringList>()); break;
    case TypeStringMap: store(other.type, other.held<QMap<QString, QString>>()); break;
    case TypeVariantMap: store(other.type, other.held<QVariantMap>()); break;
    case TypeVariantList: store(other.type, other.held<QVariantList>()); break;
    case TypePromise: store(other.type, other.held<SocketPromise>()); break;
    default:
        // Numbers, bool, double and InternalId are plain bytes.
        std::memcpy(buffer(), other.data, BufferSize);
        type = other.type;
        break;
    }
}

void SocketArgument::clear()
{
    switch (type) {
    case TypeString16: held<QString>().~QString(); break;
    case TypeString8: held<QByteArray>().~QByteArray(); break;
    case TypeInt32List: held<QList<int>>().~QList<int>(); break;
    case TypeStringList: held<QStringList>().~QStringList(); break;
    case TypeStringMap: held<QMap<QString, QString>>().~QMap<QString, QString>(); break;
    case TypeVariantMap: held<QVariantMap>().~QVariantMap(); break;
    case TypeVariantList: held<QVariantList>().~QVariantList(); break;
    case TypePromise: held<SocketPromise>().~SocketPromise(); break;
    default: break;
    }
    type = TypeInvalid;
}

void SocketArgument::constructEmpty(eType kind)
{
    switch (kind) {
    case TypeString16: store(kind, QString()); break;
    case TypeString8: store(kind, QByteArray()); break;
    case TypeInt32List: store(kind, QList<int>()); break;
    case TypeStringList: store(kind, QStringList()); break;
    case TypeInternalId: store(kind, InternalId()); break;
    case TypeStringMap: store(kind, QMap<QString, QString>()); break;
    case TypeVariantMap: store(kind, QVariantMap()); break;
    case TypeVariantList: store(kind, QVariantList()); break;
    case TypePromise: store(kind, SocketPromise()); break;
    default:
        clear();
        buffer();
        type = kind;
        break;
    }
}

void SocketArgument::setType(eType newType)
{
    if (newType == TypeVariantList || newType == TypePromise) {
        // Left to the caller to construct, as every user of this call does.
        clear();
        buffer();
        type = newType;
        return;
    }
    constructEmpty(newType);
}

void SocketArgument::setTypeFromString(const char* typeName)
{
    static const struct
    {
        const char* text;
        eType kind;
    } names[] = {
        {"QString", TypeString16},
        {"QByteArray", TypeString8},
        {"QStringList", TypeStringList},
        {"InternalId", TypeInternalId},
        {"char", TypeInt8},
        {"uchar", TypeUInt8},
        {"short", TypeInt16},
        {"ushort", TypeUInt16},
        {"int", TypeInt32},
        {"uint", TypeUInt32},
        {"qlonglong", TypeInt64},
        {"qulonglong", TypeUInt64},
        {"bool", TypeBool},
        {"QList<int>", TypeInt32List},
        {"double", TypeDouble},
        {"QMap<QString, QString>", TypeStringMap},
        {"QVariantMap", TypeVariantMap},
        {"QVariantList", TypeVariantList},
        {"SocketPromise", TypePromise},
    };
    eType kind = TypeInvalid;
    if (typeName) {
        for (const auto& name : names) {
            if (std::strcmp(typeName, name.text) == 0) {
                kind = name.kind;
                break;
            }
        }
    }
    constructEmpty(kind);
}

const char* SocketArgument::getTypeString() const
{
    if (type < TypeInvalid || type > TypePromise)
        return "";
    return kindNames[type].typeString;
}

QGenericArgument SocketArgument::toQGenericArgument() const
{
    if (type < TypeInvalid || type > TypePromise || !kindNames[type].genericName)
        return QGenericArgument();
    return QGenericArgument(kindNames[type].genericName, data);
}

void* SocketArgument::getDataPointer()
{
    return buffer();
}

int SocketArgument::size() const
{
    switch (type) {
    case TypeString16: return (held<QString>().size() + 1) * 2;
    case TypeString8: return held<QByteArray>().size();
    case TypeStringMap: return held<QMap<QString, QString>>().size();
    case TypeVariantMap: return held<QVariantMap>().size();
    case TypeInt32List: return held<QList<int>>().size();
    case TypeStringList: return held<QStringList>().size();
    case TypeVariantList: return held<QVariantList>().size();
    case TypeInt8:
    case TypeUInt8:
    case TypeBool: return 1;
    case TypeInt16:
    case TypeUInt16: return 2;
    case TypeInt32:
    case TypeUInt32: return 4;
    case TypeInt64:
    case TypeUInt64:
    case TypeDouble: return 8;
    // The identifier travels as 10 bytes; peers know this number as 9.
    case TypeInternalId: return 9;
    default: return 0;
    }
}

QVariant SocketArgument::toQVariant() const
{
    switch (type) {
    case TypeString16: return held<QString>();
    case TypeString8: return held<QByteArray>();
    case TypeInt8: return int(held<qint8>());
    case TypeInt16: return int(held<qint16>());
    case TypeInt32: return int(held<qint32>());
    case TypeInt64: return qlonglong(held<qint64>());
    case TypeUInt8: return int(held<quint8>());
    case TypeUInt16: return int(held<quint16>());
    case TypeUInt32: return uint(held<quint32>());
    case TypeUInt64: return qulonglong(held<quint64>());
    case TypeBool: return held<bool>();
    case TypeStringList: return held<QStringList>();
    case TypeDouble: return held<double>();
    case TypeVariantMap: return held<QVariantMap>();
    case TypeVariantList: return held<QVariantList>();
    default: return QVariant();
    }
}

bool SocketArgument::hasKind(eType kind, const char* mismatchText) const
{
    if (type == kind)
        return true;
    CLOG(Error) << mismatchText << int(type);
    return false;
}

qint8 SocketArgument::toInt8() const
{
    return hasKind(TypeInt8, "type is not int8 - returning default value type=") ? held<qint8>() : 0;
}

quint8 SocketArgument::toUInt8() const
{
    return hasKind(TypeUInt8, "type is not uint8 - returning default value type=") ? held<quint8>() : 0;
}

qint16 SocketArgument::toInt16() const
{
    return hasKind(TypeInt16, "type is not int16 - returning default value type=") ? held<qint16>() : 0;
}

quint16 SocketArgument::toUInt16() const
{
    return hasKind(TypeUInt16, "type is not uint16 - returning default value type=") ? held<quint16>()
                                                                                      : 0;
}

qint32 SocketArgument::toInt32() const
{
    return hasKind(TypeInt32, "type is not int32 - returning default value type=") ? held<qint32>() : 0;
}

quint32 SocketArgument::toUInt32() const
{
    return hasKind(TypeUInt32, "type is not uint32 - returning default value type=") ? held<quint32>()
                                                                                      : 0;
}

qint64 SocketArgument::toInt64() const
{
    return hasKind(TypeInt64, "type is not int64 - returning default value type=") ? held<qint64>() : 0;
}

quint64 SocketArgument::toUInt64() const
{
    return hasKind(TypeUInt64, "type is not uint64 - returning default value type=") ? held<quint64>()
                                                                                      : 0;
}

bool SocketArgument::toBool() const
{
    return hasKind(TypeBool, "type is not bool - returning default value type=") ? held<bool>() : false;
}

QByteArray SocketArgument::toString8() const
{
    return hasKind(TypeString8, "type is not string8 - returning default value type=")
               ? held<QByteArray>()
               : QByteArray();
}

QString SocketArgument::toQString() const
{
    return hasKind(TypeString16, "type is not string16 - returning default value type=")
               ? held<QString>()
               : QString();
}

InternalId SocketArgument::toInternalId() const
{
    return hasKind(TypeInternalId, "type is not internalid - returning default value type=")
               ? held<InternalId>()
               : InternalId();
}

double SocketArgument::toDouble() const
{
    return hasKind(TypeDouble, "type is not double - returning default value type=") ? held<double>()
                                                                                      : 0.0;
}

SocketPromise& SocketArgument::toPromise()
{
    return held<SocketPromise>();
}

const SocketPromise& SocketArgument::toPromise() const
{
    return held<SocketPromise>();
}

void SocketArgument::print() const
{
    switch (type) {
    case TypeString16: CLOG(Debug) << "QString:" << held<QString>(); break;
    case TypeString8: CLOG(Debug) << "QByteArray:" << held<QByteArray>(); break;
    case TypeInt8: CLOG(Debug) << "char:" << int(held<qint8>()); break;
    case TypeInt16: CLOG(Debug) << "short:" << int(held<qint16>()); break;
    case TypeInt32: CLOG(Debug) << "int:" << held<qint32>(); break;
    case TypeInt64: CLOG(Debug) << "qlonglong:" << held<qint64>(); break;
    case TypeUInt8: CLOG(Debug) << "uchar:" << unsigned(held<quint8>()); break;
    case TypeUInt16: CLOG(Debug) << "ushort:" << held<quint16>(); break;
    case TypeUInt32: CLOG(Debug) << "uint:" << held<quint32>(); break;
    case TypeUInt64: CLOG(Debug) << "qulonglong:" << held<quint64>(); break;
    case TypeBool: CLOG(Debug) << "bool:" << (held<bool>() ? "true" : "false"); break;
    case TypeInt32List: CLOG(Debug) << "QList<int>:" << held<QList<int>>(); break;
    case TypeStringList: CLOG(Debug) << "QStringList:" << held<QStringList>(); break;
    case TypeInternalId: CLOG(Debug) << "InternalId:" << held<InternalId>().toString(); break;
    case TypeDouble: CLOG(Debug) << "double:" << held<double>(); break;
    case TypeStringMap: CLOG(Debug) << "QMap<QString, QString>:" << held<QMap<QString, QString>>(); break;
    case TypeVariantMap: CLOG(Debug) << "QVariantMap:" << held<QVariantMap>(); break;
    default: break;
    }
}

SocketArgument::ParseResult SocketArgument::parseValueType(const char* data, int& pos, int end,
                                                           quint8& tag)
{
    if (pos >= end)
        return ParseNeedMore;
    tag = quint8(data[pos]);
    ++pos;
    if (tag < TagLimit)
        return ParseDone;
    CLOG(Error) << "invalid value type" << unsigned(tag) << "at position" << pos;
    return ParseBroken;
}

SocketArgument::ParseResult SocketArgument::parseNextValue(const char* data, int& pos, int end,
                                                           quint8 tag)
{
    int budget = MaxDecodedElements;
    return decodeBody(data, pos, end, tag, 0, budget);
}

SocketArgument::ParseResult SocketArgument::parseNextValue(const char* data, int& pos, int end, quint8 tag,
                                                           int& elementBudget)
{
    // Charged only when done: an incomplete value is decoded again, from the
    // start, once more bytes have arrived.
    int budget = elementBudget;
    const ParseResult result = decodeBody(data, pos, end, tag, 0, budget);
    if (result == ParseDone)
        elementBudget = budget;
    return result;
}

SocketArgument::ParseResult SocketArgument::decodeBody(const char* data, int& pos, int end, quint8 tag,
                                                       int depth, int& budget)
{
    bool done = false;
    switch (tag) {
    case TypeString16: done = parse16BitString(data, pos, end); break;
    case TypeString8: done = parse8BitString(data, pos, end); break;
    case TypeInt8: done = parseInt8(data, pos, end); break;
    case TypeInt32: done = parseInt32(data, pos, end); break;
    case TypeInt64: done = parseInt64(data, pos, end); break;
    case TypeUInt8: done = parseUInt8(data, pos, end); break;
    case TypeUInt16: done = parseUInt16(data, pos, end); break;
    case TypeUInt32: done = parseUInt32(data, pos, end); break;
    case TypeUInt64: done = parseUInt64(data, pos, end); break;
    case TypeBool: done = parseBool(data, pos, end); break;
    case TypeInternalId: done = parseInternalId(data, pos, end); break;
    case TypeDouble: done = parseDouble(data, pos, end); break;
    case TypeInt32List: return decodeInt32List(data, pos, end, budget);
    case TypeStringList: return decodeStringList(data, pos, end, budget);
    case TypeStringMap: return decodeStringMap(data, pos, end, budget);
    case TypeVariantMap: return decodeVariantMap(data, pos, end, depth, budget);
    case TypeVariantList: return decodeVariantList(data, pos, end, depth, budget);
    default:
        // Tag 4 included: peers of this protocol refuse 16-bit signed values.
        CLOG(Error) << "Unsupported data type" << char(tag);
        return ParseBroken;
    }
    return done ? ParseDone : ParseNeedMore;
}

bool SocketArgument::decodeAlone(quint8 tag, const char* data, int& pos, int end)
{
    int budget = MaxDecodedElements;
    return decodeBody(data, pos, end, tag, 0, budget) == ParseDone;
}

namespace {

bool assignAscii(QString& target, const char* text, int length)
{
    for (int i = 0; i < length; ++i)
        if (uchar(text[i]) >= 0x80)
            return false;
    target.resize(length);
    QChar* out = target.data();
    for (int i = 0; i < length; ++i)
        out[i] = QLatin1Char(text[i]);
    return true;
}

} // namespace

bool SocketArgument::parse16BitString(const char* data, int& pos, int end)
{
    if (!bytesAvailable(pos, 4, end))
        return false;
    const quint32 length = readLittleEndian<quint32>(data, pos);
    if (!bytesAvailable(pos, 4 + qint64(length), end))
        return false;
    // An ASCII text goes into the text held before: no allocation while
    // nobody else shares it. Anything else is UTF-8's.
    const char* text = data + pos + 4;
    if (type != TypeString16 || length == 0 || !assignAscii(held<QString>(), text, int(length)))
        store(TypeString16, QString::fromUtf8(text, int(length)));
    pos += 4 + int(length);
    return true;
}

bool SocketArgument::parse8BitString(const char* data, int& pos, int end)
{
    if (!bytesAvailable(pos, 4, end))
        return false;
    const quint32 length = readLittleEndian<quint32>(data, pos);
    if (!bytesAvailable(pos, 4 + qint64(length), end))
        return false;
    store(TypeString8, QByteArray(data + pos + 4, int(length)));
    pos += 4 + int(length);
    return true;
}

// The fixed-width integers: the whole value or nothing.
template <typename T>
bool SocketArgument::parseFixed(eType kind, const char* data, int& pos, int end)
{
    if (!bytesAvailable(pos, qint64(sizeof(T)), end))
        return false;
    store(kind, readLittleEndian<T>(data, pos));
    pos += int(sizeof(T));
    return true;
}

bool SocketArgument::parseInt8(const char* data, int& pos, int end)
{
    return parseFixed<qint8>(TypeInt8, data, pos, end);
}

bool SocketArgument::parseUInt8(const char* data, int& pos, int end)
{
    return parseFixed<quint8>(TypeUInt8, data, pos, end);
}

bool SocketArgument::parseInt16(const char* data, int& pos, int end)
{
    return parseFixed<qint16>(TypeInt16, data, pos, end);
}

bool SocketArgument::parseUInt16(const char* data, int& pos, int end)
{
    return parseFixed<quint16>(TypeUInt16, data, pos, end);
}

bool SocketArgument::parseInt32(const char* data, int& pos, int end)
{
    return parseFixed<qint32>(TypeInt32, data, pos, end);
}

bool SocketArgument::parseUInt32(const char* data, int& pos, int end)
{
    return parseFixed<quint32>(TypeUInt32, data, pos, end);
}

bool SocketArgument::parseInt64(const char* data, int& pos, int end)
{
    return parseFixed<qint64>(TypeInt64, data, pos, end);
}

bool SocketArgument::parseUInt64(const char* data, int& pos, int end)
{
    return parseFixed<quint64>(TypeUInt64, data, pos, end);
}

bool SocketArgument::parseBool(const char* data, int& pos, int end)
{
    if (!bytesAvailable(pos, 1, end))
        return false;
    store(TypeBool, data[pos] != 0);
    pos += 1;
    return true;
}

bool SocketArgument::parseInt32List(const char* data, int& pos, int end)
{
    return decodeAlone(TypeInt32List, data, pos, end);
}

SocketArgument::ParseResult SocketArgument::decodeInt32List(const char* data, int& pos, int end, int& budget)
{
    if (!bytesAvailable(pos, 4, end))
        return ParseNeedMore;
    const qint32 count = readLittleEndian<qint32>(data, pos);
    if (!charge(count, budget))
        return ParseOverLimit;
    const qint64 elements = qMax<qint64>(count, 0);
    if (!bytesAvailable(pos, 4 * (elements + 1), end))
        return ParseNeedMore;
    QList<int> list;
    list.reserve(int(elements)); // the bytes are all there, so the count is not a bluff
    for (qint64 i = 0; i < elements; ++i)
        list.append(readLittleEndian<qint32>(data, pos + 4 + int(4 * i)));
    store(TypeInt32List, list);
    pos += int(4 * (elements + 1));
    return ParseDone;
}

bool SocketArgument::parseStringList(const char* data, int& pos, int end)
{
    return decodeAlone(TypeStringList, data, pos, end);
}

SocketArgument::ParseResult SocketArgument::decodeStringList(const char* data, int& pos, int end, int& budget)
{
    if (!bytesAvailable(pos, 4, end))
        return ParseNeedMore;
    const qint32 count = readLittleEndian<qint32>(data, pos);
    if (!charge(count, budget))
        return ParseOverLimit;
    int p = pos + 4;
    QStringList list;
    for (qint32 i = 0; i < count; ++i) {
        QString element;
        if (!readUtf8(data, p, end, element))
            return ParseNeedMore;
        list.append(element);
    }
    store(TypeStringList, list);
    pos = p;
    return ParseDone;
}

bool SocketArgument::parseInternalId(const char* data, int& pos, int end)
{
    if (!bytesAvailable(pos, 10, end))
        return false;
    // Only these five fields travel; everything else keeps its default.
    InternalId id;
    id.kind = readLittleEndian<quint8>(data, pos);
    id.serialPrefix = readLittleEndian<quint16>(data, pos + 1);
    id.serialNumber = readLittleEndian<quint32>(data, pos + 3);
    id.channel = readLittleEndian<quint16>(data, pos + 7);
    id.index = readLittleEndian<quint8>(data, pos + 9);
    store(TypeInternalId, id);
    pos += 10;
    return true;
}

bool SocketArgument::parseDouble(const char* data, int& pos, int end)
{
    if (!bytesAvailable(pos, 8, end))
        return false;
    store(TypeDouble, decodeDouble(reinterpret_cast<const uchar*>(data + pos)));
    pos += 8;
    return true;
}

bool SocketArgument::parseStringMap(const char* data, int& pos, int end)
{
    return decodeAlone(TypeStringMap, data, pos, end);
}

SocketArgument::ParseResult SocketArgument::decodeStringMap(const char* data, int& pos, int end, int& budget)
{
    if (!bytesAvailable(pos, 4, end))
        return ParseNeedMore;
    const qint32 count = readLittleEndian<qint32>(data, pos);
    if (!charge(count, budget))
        return ParseOverLimit;
    int p = pos + 4;
    QMap<QString, QString> map;
    for (qint32 i = 0; i < count; ++i) {
        QString key;
        QString value;
        if (!readUtf8(data, p, end, key) || !readUtf8(data, p, end, value))
            return ParseNeedMore;
        map.insert(key, value);
    }
    store(TypeStringMap, map);
    pos = p;
    return ParseDone;
}

bool SocketArgument::parseVariantMap(const char* data, int& pos, int end)
{
    return decodeAlone(TypeVariantMap, data, pos, end);
}

bool SocketArgument::parseVariantList(const char* data, int& pos, int end)
{
    return decodeAlone(TypeVariantList, data, pos, end);
}

// A nested value that is broken or refused makes its container wait, as peers
// of this protocol do; only a count over the budget ends it at once.
SocketArgument::ParseResult SocketArgument::decodeNested(const char* data, int& pos, int end, int depth,
                                                         int& budget, QVariant& value)
{
    int p = pos;
    quint8 tag = 0;
    if (parseValueType(data, p, end, tag) != ParseDone)
        return ParseNeedMore;
    SocketArgument element;
    const ParseResult result = element.decodeBody(data, p, end, tag, depth, budget);
    if (result != ParseDone)
        return result == ParseOverLimit ? result : ParseNeedMore;
    value = element.toQVariant();
    pos = p;
    return ParseDone;
}

SocketArgument::ParseResult SocketArgument::decodeVariantMap(const char* data, int& pos, int end, int depth,
                                                             int& budget)
{
    if (depth >= MaxNestingDepth) {
        CLOG(Error) << "nested value too deep at position" << pos;
        return ParseNeedMore;
    }
    if (!bytesAvailable(pos, 4, end))
        return ParseNeedMore;
    const qint32 count = readLittleEndian<qint32>(data, pos);
    if (!charge(count, budget))
        return ParseOverLimit;
    int p = pos + 4;
    QVariantMap map;
    for (qint32 i = 0; i < count; ++i) {
        QString key;
        QVariant value;
        if (!readUtf8(data, p, end, key))
            return ParseNeedMore;
        const ParseResult result = decodeNested(data, p, end, depth + 1, budget, value);
        if (result != ParseDone)
            return result;
        map.insert(key, value);
    }
    store(TypeVariantMap, map);
    pos = p;
    return ParseDone;
}

SocketArgument::ParseResult SocketArgument::decodeVariantList(const char* data, int& pos, int end, int depth,
                                                              int& budget)
{
    if (depth >= MaxNestingDepth) {
        CLOG(Error) << "nested value too deep at position" << pos;
        return ParseNeedMore;
    }
    if (!bytesAvailable(pos, 4, end))
        return ParseNeedMore;
    const qint32 count = readLittleEndian<qint32>(data, pos);
    if (!charge(count, budget))
        return ParseOverLimit;
    int p = pos + 4;
    QVariantList list;
    for (qint32 i = 0; i < count; ++i) {
        QVariant value;
        const ParseResult result = decodeNested(data, p, end, depth + 1, budget, value);
        if (result != ParseDone)
            return result;
        list.append(value);
    }
    store(TypeVariantList, list);
    pos = p;
    return ParseDone;
}

void SocketArgument::encodeDouble(double value, uchar* out)
{
    std::memset(out, 0, 8);
    if (!std::isfinite(value) || value == 0.0)
        return;
    int exponent = 0;
    const double fraction = std::frexp(std::fabs(value), &exponent);
    // fraction is in [0.5, 1): the mantissa below 2^52 with bit 51 set. The
    // lowest of the double's 53 bits is dropped, as the peers do.
    const quint64 mantissa = quint64(fraction * TwoPow52);
    const unsigned field = unsigned(exponent) & 0x7ff;
    for (int i = 0; i < 6; ++i)
        out[i] = uchar(mantissa >> (8 * i));
    out[6] = uchar(((mantissa >> 48) & 0x0f) | ((field & 0x0f) << 4));
    out[7] = uchar((field >> 4) | (value < 0 ? 0x80 : 0));
}

double SocketArgument::decodeDouble(const uchar* in)
{
    quint64 mantissa = quint64(in[6] & 0x0f) << 48;
    for (int i = 0; i < 6; ++i)
        mantissa |= quint64(in[i]) << (8 * i);
    int exponent = (in[7] & 0x7f) * 16 + (in[6] >> 4);
    if (exponent > 1023)
        exponent -= 2048;
    const double magnitude = std::ldexp(double(mantissa) / TwoPow52, exponent);
    return (in[7] & 0x80) ? -magnitude : magnitude;
}

bool SocketValueScanner::isNeededFor(quint8 tag)
{
    switch (tag) {
    case SocketArgument::TypeString16:
    case SocketArgument::TypeString8:
    case SocketArgument::TypeInt32List:
    case SocketArgument::TypeStringList:
    case SocketArgument::TypeStringMap:
    case SocketArgument::TypeVariantMap:
    case SocketArgument::TypeVariantList: return true;
    default: return false;
    }
}

void SocketValueScanner::reset()
{
    tokens.clear();
    scanned = 0;
    elements = 0;
    active = false;
    overLimit = false;
    stuck = false;
    stuckReported = false;
}

void SocketValueScanner::start(quint8 tag, qint64 maxBytes, int maxElements)
{
    reset();
    active = true;
    byteLimit = maxBytes;
    elementLimit = maxElements;
    if (!pushBody(tag))
        stuck = true;
}

SocketValueScanner::Result SocketValueScanner::exceeded()
{
    overLimit = true;
    return OverLimit;
}

int SocketValueScanner::depth() const
{
    int enclosing = 0;
    for (const Token& token : tokens)
        if (token.item == Repeat && (token.element == MapEntries || token.element == Values))
            ++enclosing;
    return enclosing;
}

bool SocketValueScanner::pushBody(quint8 tag)
{
    switch (tag) {
    case SocketArgument::TypeString16:
    case SocketArgument::TypeString8: tokens.push_back({String, Values, 0}); return true;
    case SocketArgument::TypeInt8:
    case SocketArgument::TypeUInt8:
    case SocketArgument::TypeBool: tokens.push_back({Fixed, Values, 1}); return true;
    case SocketArgument::TypeUInt16: tokens.push_back({Fixed, Values, 2}); return true;
    case SocketArgument::TypeInt32:
    case SocketArgument::TypeUInt32: tokens.push_back({Fixed, Values, 4}); return true;
    case SocketArgument::TypeInt64:
    case SocketArgument::TypeUInt64:
    case SocketArgument::TypeDouble: tokens.push_back({Fixed, Values, 8}); return true;
    case SocketArgument::TypeInternalId: tokens.push_back({Fixed, Values, 10}); return true;
    case SocketArgument::TypeInt32List: tokens.push_back({Count, IntElements, 0}); return true;
    case SocketArgument::TypeStringList: tokens.push_back({Count, StringElements, 0}); return true;
    case SocketArgument::TypeStringMap: tokens.push_back({Count, StringPairs, 0}); return true;
    case SocketArgument::TypeVariantMap:
    case SocketArgument::TypeVariantList:
        if (depth() >= SocketArgument::MaxNestingDepth)
            return false;
        tokens.push_back(
            {Count, tag == SocketArgument::TypeVariantMap ? MapEntries : Values, 0});
        return true;
    default:
        // The end tag, 16-bit signed values, promises: the decoder refuses them.
        return false;
    }
}

SocketValueScanner::Result SocketValueScanner::scan(const char* body, int available)
{
    if (overLimit)
        return OverLimit;
    if (stuck) {
        if (stuckReported)
            return NeedMore;
        stuckReported = true;
        return Stuck;
    }
    while (!tokens.empty()) {
        Token& token = tokens.back();
        switch (token.item) {
        case Fixed:
            if (scanned + token.amount > available)
                return NeedMore;
            scanned += token.amount;
            tokens.pop_back();
            break;
        case String:
            if (scanned + 4 > available)
                return NeedMore;
            token = {Fixed, Values, qint64(qFromLittleEndian<quint32>(body + scanned))};
            scanned += 4;
            if (scanned + token.amount > byteLimit)
                return exceeded();
            break;
        case Count: {
            if (scanned + 4 > available)
                return NeedMore;
            const qint32 count = qFromLittleEndian<qint32>(body + scanned);
            scanned += 4;
            if (count <= 0) {
                tokens.pop_back();
                break;
            }
            // Counted as the decoders charge their budget.
            elements += count;
            if (elements > elementLimit)
                return exceeded();
            if (token.element == IntElements) {
                token = {Fixed, Values, 4 * qint64(count)};
                if (scanned + token.amount > byteLimit)
                    return exceeded();
            } else {
                token = {Repeat, token.element, count};
            }
            break;
        }
        case Repeat: {
            if (token.amount == 0) {
                tokens.pop_back();
                break;
            }
            --token.amount;
            // The enclosing Repeat stays below its element while that is
            // scanned, so depth() counts it. Tokens are taken from the back.
            switch (token.element) {
            case StringElements: tokens.push_back({String, Values, 0}); break;
            case StringPairs:
                tokens.push_back({String, Values, 0});
                tokens.push_back({String, Values, 0});
                break;
            case MapEntries:
                tokens.push_back({Value, Values, 0});
                tokens.push_back({String, Values, 0});
                break;
            default: tokens.push_back({Value, Values, 0}); break;
            }
            break;
        }
        case Value: {
            if (scanned + 1 > available)
                return NeedMore;
            const quint8 tag = quint8(body[scanned]);
            scanned += 1;
            tokens.pop_back();
            if (tag >= SocketArgument::TagLimit || !pushBody(tag)) {
                stuck = true;
                stuckReported = true;
                return Stuck;
            }
            break;
        }
        }
    }
    active = false;
    return Complete;
}
