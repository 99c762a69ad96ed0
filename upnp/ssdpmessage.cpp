#include "ssdpmessage.h"

#include <algorithm>
#include <cstring>

QByteArray Ssdp::hostText(const QHostAddress& group)
{
    if (group.protocol() != QAbstractSocket::IPv6Protocol)
        return group.toString().toLatin1();
    const QString text = group.toString();
    return '[' + text.left(text.indexOf(QLatin1Char('%'))).toLatin1() + ']';
}

QByteArray Ssdp::notifyMessage(const QByteArray& host, const QByteArray& location, const QByteArray& nt,
                               const QByteArray& nts, const QByteArray& server, const QByteArray& usn,
                               quint32 bootId, quint32 configId)
{
    QByteArray message;
    message.reserve(512);
    message += "NOTIFY * HTTP/1.1\r\nHOST: ";
    message += host;
    message += ":1900\r\nCACHE-CONTROL: max-age=1800";
    message += "\r\nLOCATION: " + location;
    message += "\r\nNT: " + nt;
    message += "\r\nNTS: " + nts;
    message += "\r\nSERVER: " + server;
    message += "\r\nUSN: " + usn;
    message += "\r\nBOOTID.UPNP.ORG: " + QByteArray::number(bootId);
    message += "\r\nCONFIGID.UPNP.ORG: " + QByteArray::number(configId);
    message += "\r\n\r\n";
    return message;
}

QByteArray Ssdp::searchReply(const QByteArray& location, const QByteArray& server, const QByteArray& st,
                             const QByteArray& usn, quint32 bootId, quint32 configId)
{
    QByteArray reply = "HTTP/1.1 200 OK\r\nCACHE-CONTROL: max-age=1800\r\nEXT:\r\nLOCATION: ";
    reply += location;
    reply += "\r\nSERVER: " + server;
    reply += "\r\nST: " + st;
    reply += "\r\nUSN: " + usn;
    reply += "\r\nBOOTID.UPNP.ORG: " + QByteArray::number(bootId);
    reply += "\r\nCONFIGID.UPNP.ORG: " + QByteArray::number(configId);
    reply += "\r\n\r\n";
    return reply;
}

namespace {

// The blanks that QByteArray::trimmed() removes.
bool isBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

std::string_view trimmed(const char* begin, const char* end)
{
    while (begin < end && isBlank(*begin))
        ++begin;
    while (end > begin && isBlank(end[-1]))
        --end;
    return std::string_view(begin, size_t(end - begin));
}

// ASCII case folding is enough: what is compared here is ASCII, and a byte
// that folds only as Latin-1 can never match it.
bool equalsLowerCase(std::string_view text, std::string_view lower)
{
    if (text.size() != lower.size())
        return false;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if ((c >= 'A' && c <= 'Z' ? char(c + ('a' - 'A')) : c) != lower[i])
            return false;
    }
    return true;
}

// The offset of the next CR LF from position on, or -1.
int lineEnd(const char* data, int size, int position)
{
    while (position < size) {
        const void* cr = std::memchr(data + position, '\r', size_t(size - position));
        if (!cr)
            return -1;
        const int at = int(static_cast<const char*>(cr) - data);
        if (at + 1 < size && data[at + 1] == '\n')
            return at;
        position = at + 1;
    }
    return -1;
}

// The one reading of a datagram's layout, shared by parse() and parseSearch():
// the kind of its start line, and visit(name as sent, value trimmed) for
// every header line; Invalid for anything malformed. bodyStart is where the
// body begins.
template <typename Visit>
Ssdp::Message::Kind scan(const QByteArray& datagram, int& bodyStart, Visit visit)
{
    using Kind = Ssdp::Message::Kind;
    const char* data = datagram.constData();
    const int size = datagram.size();
    const int startLineEnd = lineEnd(data, size, 0);
    if (startLineEnd < 0)
        return Kind::Invalid;
    const std::string_view startLine(data, size_t(startLineEnd));
    Kind kind;
    if (equalsLowerCase(startLine, "notify * http/1.1"))
        kind = Kind::Notify;
    else if (equalsLowerCase(startLine, "m-search * http/1.1"))
        kind = Kind::Search;
    else if (equalsLowerCase(startLine, "http/1.1 200 ok"))
        kind = Kind::Response;
    else
        return Kind::Invalid;

    int position = startLineEnd + 2;
    while (position < size) {
        const int end = lineEnd(data, size, position);
        if (end < 0)
            return Kind::Invalid; // headers not closed by a line break
        if (end == position) {
            position += 2;
            break;
        }
        const void* found = std::memchr(data + position, ':', size_t(end - position));
        const int colon = found ? int(static_cast<const char*>(found) - data) : -1;
        if (colon <= position)
            return Kind::Invalid;
        const char beforeColon = data[colon - 1];
        if (beforeColon == ' ' || beforeColon == '\t')
            return Kind::Invalid;
        visit(std::string_view(data + position, size_t(colon - position)), trimmed(data + colon + 1, data + end));
        position = end + 2;
    }
    bodyStart = position;
    return kind;
}

} // namespace

Ssdp::Message Ssdp::parse(const QByteArray& datagram)
{
    Message message;
    Headers headers;
    int bodyStart = 0;
    const Message::Kind kind = scan(datagram, bodyStart, [&headers](std::string_view name, std::string_view value) {
        headers.insert(QByteArray(name.data(), int(name.size())).toLower(), QByteArray(value.data(), int(value.size())));
    });
    if (kind == Message::Invalid)
        return message;
    message.kind = kind;
    message.headers = headers;
    message.body = datagram.mid(bodyStart);
    return message;
}

Ssdp::SearchHeaders Ssdp::parseSearch(const QByteArray& datagram)
{
    SearchHeaders search;
    int bodyStart = 0;
    const Message::Kind kind = scan(datagram, bodyStart, [&search](std::string_view name, std::string_view value) {
        // A repeated header keeps its last value, as in parse().
        if (equalsLowerCase(name, "man"))
            search.man = value;
        else if (equalsLowerCase(name, "mx"))
            search.mx = value;
        else if (equalsLowerCase(name, "st"))
            search.st = value;
    });
    if (kind != Message::Search)
        return SearchHeaders();
    search.isSearch = true;
    return search;
}

quint32 Ssdp::responseSpan(const QByteArray& mx)
{
    bool isNumber = false;
    const uint seconds = mx.toUInt(&isNumber);
    if (!isNumber)
        return 3000;
    // MX 0 is answered as MX 1: a span of 0 would leave the raw random draw,
    // up to 24 days, as the delay, and such answers would fill the schedule.
    return std::min(std::max(seconds, 1u), 5u) * 1000;
}
