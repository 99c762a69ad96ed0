#ifndef SSDPMESSAGE_H
#define SSDPMESSAGE_H

#include <QByteArray>
#include <QHostAddress>
#include <QMap>

#include <optional>
#include <string_view>

// The SSDP texts the daemon sends and the parsing of what it receives. Every
// byte of them is fixed: control points of several vendors rely on them. Pure
// functions; the endpoint (UpnpInterfaceHandler) fills in its values.
namespace Ssdp {

constexpr quint16 Port = 1900;
// The largest datagram that is read as SSDP at all.
constexpr qint64 MaxDatagramSize = 8192;

// Target values (NT in a NOTIFY, ST in a search answer) and the NTS kinds.
constexpr char RootDevice[] = "upnp:rootdevice";
constexpr char All[] = "ssdp:all";
constexpr char Alive[] = "ssdp:alive";
constexpr char Update[] = "ssdp:update";
constexpr char ByeBye[] = "ssdp:byebye";

// The HOST value of a group: "239.255.255.250", or an IPv6 group cut at its
// scope and bracketed, "[ff02::c]".
QByteArray hostText(const QHostAddress& group);

// One NOTIFY. Byebye and update carry the same headers as alive.
QByteArray notifyMessage(const QByteArray& host, const QByteArray& location, const QByteArray& nt,
                         const QByteArray& nts, const QByteArray& server, const QByteArray& usn,
                         quint32 bootId, quint32 configId);

// One answer to a search, for one target.
QByteArray searchReply(const QByteArray& location, const QByteArray& server, const QByteArray& st,
                       const QByteArray& usn, quint32 bootId, quint32 configId);

// Keys in lower case, values trimmed; a repeated key keeps its last value.
using Headers = QMap<QByteArray, QByteArray>;

struct Message
{
    enum Kind { Invalid, Notify, Search, Response };
    Kind kind = Invalid;
    Headers headers;
    QByteArray body;
};

// Classifies a datagram by its start line (compared in lower case) and splits
// its header lines. Invalid for anything malformed: no line break, an unknown
// start line, a header line without a colon or with a blank before it, headers
// not closed by a line break.
Message parse(const QByteArray& datagram);

// What parse() would find of the three headers that a search is answered by,
// without building the header map: the daemon reads every search this way.
// The views point into the datagram and are valid while it lives. isSearch is
// false for anything that parse() does not classify as a search.
struct SearchHeaders
{
    bool isSearch = false;
    std::optional<std::string_view> man, mx, st;
};
SearchHeaders parseSearch(const QByteArray& datagram);

// How long a searcher lets answers take, from its MX value: MX seconds, kept
// within 1 to 5, in milliseconds; 3000 ms when MX is not a number.
quint32 responseSpan(const QByteArray& mx);

} // namespace Ssdp

#endif // SSDPMESSAGE_H
