#ifndef SOCKETARGUMENT_H
#define SOCKETARGUMENT_H

#include "internalid.h"

#include <QByteArray>
#include <QGenericArgument>
#include <QList>
#include <QMap>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <new>
#include <vector>

class SocketPromise;

// One typed value of the backend's RPC protocol: a call argument, a return
// value or a signal argument.
//
// The value lives in one 32-byte heap block, constructed in place, so that the
// meta-object system can invoke a slot with a pointer into it and write a slot's
// return value straight into it (getDataPointer()). The kind number is at the
// same time the value's tag on the wire.
//
// The decoders read a value body from received bytes. Each takes the bytes, a
// position by reference and the end of the valid bytes. Either every byte the
// body needs is there, and the value is stored and the position moved behind the
// body; or the decoder reports that it needs more and leaves the position where
// it was, so that it can be called again from the same place once more bytes
// have arrived. Nothing is consumed partially. Multi-byte numbers are
// little-endian; lengths and counts are 32 bits.
class SocketArgument
{
public:
    enum eType : qint32 {
        TypeInvalid = 0,
        TypeString16 = 1,
        TypeString8 = 2,
        TypeInt8 = 3,
        TypeInt16 = 4,
        TypeInt32 = 5,
        TypeInt64 = 6,
        TypeUInt8 = 7,
        TypeUInt16 = 8,
        TypeUInt32 = 9,
        TypeUInt64 = 10,
        TypeBool = 11,
        TypeInt32List = 12,
        TypeStringList = 13,
        TypeInternalId = 14,
        TypeDouble = 15,
        TypeStringMap = 16,
        TypeVariantMap = 17,
        TypeVariantList = 18,
        TypePromise = 19,
    };

    // Outcome of parseValueType and parseNextValue. ParseOverLimit: the value
    // would decode to more elements than allowed; the stream that carries it
    // cannot be trusted any further.
    enum ParseResult { ParseDone = 0, ParseNeedMore = 1, ParseBroken = 2, ParseOverLimit = 3 };

    static constexpr int BufferSize = 32;
    // Tags from this number on are not value tags at all.
    static constexpr quint8 TagLimit = 20;
    // How many variant maps and lists may enclose each other in a received value.
    // Deeper values are treated like nested values that cannot be decoded: the
    // decoder waits. This keeps a hostile peer from exhausting the stack of the
    // recursive decoder.
    static constexpr int MaxNestingDepth = 64;
    // Elements that one received message may decode to: the counts of its
    // lists, string lists and maps, nested ones included. A count is charged
    // before anything is built, so that a few bytes on the wire cannot make
    // megabytes of QVariants (a variant list of bools takes some 20 times its
    // wire size). No message of the backend comes near it.
    static constexpr int MaxDecodedElements = 65536;

    SocketArgument() = default;
    SocketArgument(const QByteArray& value);
    // Copies the text up to its terminating NUL; a QByteArray value.
    SocketArgument(const char* text);
    SocketArgument(const QString& value);
    SocketArgument(signed char value);
    SocketArgument(unsigned char value);
    SocketArgument(short value);
    SocketArgument(unsigned short value);
    SocketArgument(int value);
    SocketArgument(unsigned int value);
    SocketArgument(long long value);
    SocketArgument(unsigned long long value);
    SocketArgument(bool value);
    SocketArgument(const InternalId& value);
    SocketArgument(double value);
    SocketArgument(const QStringList& value);
    SocketArgument(const QList<int>& value);
    SocketArgument(const QVariantList& value);
    SocketArgument(const QMap<QString, QString>& value);
    SocketArgument(const QVariantMap& value);

    SocketArgument(const SocketArgument& other);
    SocketArgument(SocketArgument&& other) noexcept;
    SocketArgument& operator=(const SocketArgument& other);
    SocketArgument& operator=(SocketArgument&& other) noexcept;
    ~SocketArgument();

    // Texts up to this many characters may stay in a parser's value slots.
    static constexpr int ShortTextCapacity = 32;

    eType getType() const { return type; }
    bool isValid() const { return type != TypeInvalid; }

    // Destroys the held value and makes the argument invalid; the buffer stays
    // for the next value.
    void clear();
    // A QString whose storage holds at most ShortTextCapacity characters: the
    // next text decoded into this argument reuses it.
    bool isShortText() const { return type == TypeString16 && held<QString>().capacity() <= ShortTextCapacity; }
    // Replaces the value by an empty one of this kind: an empty string, byte
    // array, list or map, or an invalid InternalId. Numbers and bools keep the
    // bytes that the buffer holds. TypeVariantList and TypePromise are NOT
    // constructed: the caller must construct the value in getDataPointer()
    // before the argument is read, copied, cleared or destroyed.
    void setType(eType newType);
    // Like setType, from the type text of a slot signature ("QString", "int",
    // "QMap<QString, QString>", "QVariantList", "SocketPromise", ...), every
    // container and the promise constructed. Unknown or empty text gives
    // TypeInvalid.
    void setTypeFromString(const char* typeName);

    // The type text under which the value appears in a signature; "" for
    // TypeInvalid and TypePromise.
    const char* getTypeString() const;
    // An argument for QMetaObject::invokeMethod pointing into the buffer; empty
    // for TypeInvalid and TypePromise. Valid while this argument lives unchanged.
    QGenericArgument toQGenericArgument() const;
    // The value buffer, allocated on first use.
    void* getDataPointer();
    // The size by kind: (characters + 1) * 2 for a QString, bytes for a
    // QByteArray, elements or entries for containers, the width of numbers,
    // 9 for an InternalId, 0 otherwise.
    int size() const;
    // The value as a QVariant; invalid for TypeInvalid, TypeInt32List,
    // TypeInternalId, TypeStringMap and TypePromise. 8- and 16-bit numbers
    // become int variants.
    QVariant toQVariant() const;

    // Strict converters: the value when the kind matches exactly, otherwise an
    // error line naming the held kind and the default value.
    qint8 toInt8() const;
    quint8 toUInt8() const;
    qint16 toInt16() const;
    quint16 toUInt16() const;
    qint32 toInt32() const;
    quint32 toUInt32() const;
    qint64 toInt64() const;
    quint64 toUInt64() const;
    bool toBool() const;
    QByteArray toString8() const;
    QString toQString() const;
    InternalId toInternalId() const;
    double toDouble() const;

    // Unchecked accessors: the caller must have checked the kind.
    QStringList& toQStringList() { return held<QStringList>(); }
    const QStringList& toQStringList() const { return held<QStringList>(); }
    QList<int>& toInt32List() { return held<QList<int>>(); }
    const QList<int>& toInt32List() const { return held<QList<int>>(); }
    QMap<QString, QString>& toQStringMap() { return held<QMap<QString, QString>>(); }
    const QMap<QString, QString>& toQStringMap() const { return held<QMap<QString, QString>>(); }
    QVariantList& toQVariantList() { return held<QVariantList>(); }
    const QVariantList& toQVariantList() const { return held<QVariantList>(); }
    QVariantMap& toQVariantMap() { return held<QVariantMap>(); }
    const QVariantMap& toQVariantMap() const { return held<QVariantMap>(); }
    SocketPromise& toPromise();
    const SocketPromise& toPromise() const;

    // Writes a Debug line with the kind's label and the value.
    void print() const;

    // Reads a value tag. ParseNeedMore when pos >= end. Otherwise the byte is
    // consumed: ParseDone for 0 (the end tag) to 19, ParseBroken (logged) for 20
    // and above.
    static ParseResult parseValueType(const char* data, int& pos, int end, quint8& tag);
    // Decodes the body of a value with this tag into this argument. Tags 0, 4,
    // 19 and 20 and above are refused (logged, ParseBroken): a peer of this
    // protocol does not accept 16-bit signed values although it writes them.
    // A value of more than MaxDecodedElements elements gives ParseOverLimit.
    ParseResult parseNextValue(const char* data, int& pos, int end, quint8 tag);
    // The same within what is left of a message's elements: elementBudget is
    // charged with the value's elements when it is done, and only then.
    ParseResult parseNextValue(const char* data, int& pos, int end, quint8 tag, int& elementBudget);

    // The decoders of the single kinds: true when the value was stored, false
    // when bytes are missing (position unchanged) or, for containers, when it
    // has more than MaxDecodedElements elements.
    bool parse16BitString(const char* data, int& pos, int end);
    bool parse8BitString(const char* data, int& pos, int end);
    bool parseInt8(const char* data, int& pos, int end);
    bool parseUInt8(const char* data, int& pos, int end);
    bool parseInt16(const char* data, int& pos, int end);
    bool parseUInt16(const char* data, int& pos, int end);
    bool parseInt32(const char* data, int& pos, int end);
    bool parseUInt32(const char* data, int& pos, int end);
    bool parseInt64(const char* data, int& pos, int end);
    bool parseUInt64(const char* data, int& pos, int end);
    bool parseBool(const char* data, int& pos, int end);
    bool parseInt32List(const char* data, int& pos, int end);
    bool parseStringList(const char* data, int& pos, int end);
    bool parseInternalId(const char* data, int& pos, int end);
    bool parseDouble(const char* data, int& pos, int end);
    bool parseStringMap(const char* data, int& pos, int end);
    // Nested values that are invalid or of a kind that is refused make these two
    // report missing bytes, not a broken value: the stream then waits.
    bool parseVariantMap(const char* data, int& pos, int end);
    bool parseVariantList(const char* data, int& pos, int end);

    // The protocol's own eight-byte layout of a double (not IEEE 754): the
    // fraction of frexp() truncated to 52 bits in bytes 0 to 5 and the low
    // nibble of byte 6, the binary exponent's 11 bits in the high nibble of
    // byte 6 and the low seven bits of byte 7, the sign in bit 7 of byte 7.
    // Zero, NaN and infinities are written as eight zero bytes; exponents
    // outside -1024..1023 (subnormals below 2^-1024, values from 2^1023 on)
    // wrap as the 11-bit field does on the peers.
    static void encodeDouble(double value, uchar* out);
    static double decodeDouble(const uchar* in);

private:
    void* buffer();
    template <typename T>
    T& held()
    {
        return *std::launder(reinterpret_cast<T*>(data));
    }
    template <typename T>
    const T& held() const
    {
        return *std::launder(reinterpret_cast<const T*>(data));
    }
    template <typename T>
    void store(eType kind, const T& value);
    template <typename T>
    bool parseFixed(eType kind, const char* data, int& pos, int end);
    bool hasKind(eType kind, const char* mismatchText) const;
    void copyFrom(const SocketArgument& other);
    void constructEmpty(eType kind);
    ParseResult decodeBody(const char* data, int& pos, int end, quint8 tag, int depth, int& budget);
    bool decodeAlone(quint8 tag, const char* data, int& pos, int end);
    ParseResult decodeInt32List(const char* data, int& pos, int end, int& budget);
    ParseResult decodeStringList(const char* data, int& pos, int end, int& budget);
    ParseResult decodeStringMap(const char* data, int& pos, int end, int& budget);
    ParseResult decodeVariantMap(const char* data, int& pos, int end, int depth, int& budget);
    ParseResult decodeVariantList(const char* data, int& pos, int end, int depth, int& budget);
    static ParseResult decodeNested(const char* data, int& pos, int end, int depth, int& budget,
                                    QVariant& value);

    eType type = TypeInvalid;
    void* data = nullptr;
};

// Tells, without building anything, whether the body of a string, a list or a
// map has arrived completely, and whether it keeps within its limits. It
// remembers how far it got, so that a body arriving in many small pieces is
// walked once in total rather than once per piece, and the decoder then runs
// once on the complete body. It applies the decoders' rules exactly, including
// their waiting on a nested value that cannot be decoded, which it reports as
// Stuck, and their counting of elements. A declared length or count that goes
// beyond a limit is reported as soon as it has arrived: a peer cannot make the
// stream wait for gigabytes.
class SocketValueScanner
{
public:
    enum Result { Complete, NeedMore, Stuck, OverLimit };

    // Whether bodies with this tag need the scanner: the decoders of all other
    // kinds decide in constant time whether their few bytes are there.
    static bool isNeededFor(quint8 tag);

    // Begins a body with this tag (one for which isNeededFor is true) that may
    // take at most maxBytes bytes and decode to at most maxElements elements.
    void start(quint8 tag, qint64 maxBytes, int maxElements);
    // Continues over the body bytes body[0, available), the same body as
    // before with possibly more bytes behind. Stuck is reported once; after it
    // the body reads as NeedMore for ever, as no later byte can complete it.
    // OverLimit is final.
    Result scan(const char* body, int available);
    // A body was started and has not been found complete.
    bool isActive() const { return active; }
    void reset();

private:
    enum Item : quint8 { Fixed, String, Value, Count, Repeat };
    enum Element : quint8 { IntElements, StringElements, StringPairs, MapEntries, Values };
    struct Token
    {
        Item item;
        Element element;
        qint64 amount; // bytes of Fixed, elements still to come of Repeat
    };
    bool pushBody(quint8 tag);
    int depth() const;
    Result exceeded();

    std::vector<Token> tokens;
    qint64 scanned = 0;
    qint64 byteLimit = 0;
    qint64 elements = 0;
    qint64 elementLimit = 0;
    bool active = false;
    bool overLimit = false;
    bool stuck = false;
    bool stuckReported = false;
};

#endif // SOCKETARGUMENT_H
