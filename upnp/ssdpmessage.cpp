#include "ssdpmessage.h"

#include <algorithm>

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

Ssdp::Message Ssdp::parse(const QByteArray& datagram)
{
    Message message;
    const int startLineEnd = datagram.indexOf("\r\n");
    if (startLineEnd < 0)
        return message;

    const QByteArray startLine = datagram.left(startLineEnd).toLower();
    Message::Kind kind;
    if (startLine == "notify * http/1.1")
        kind = Message::Notify;
    else if (startLine == "m-search * http/1.1")
        kind = Message::Search;
    else if (startLine == "http/1.1 200 ok")
        kind = Message::Response;
    else
        return message;

    int position = startLineEnd + 2;
    while (position < datagram.size()) {
        const int lineEnd = datagram.indexOf("\r\n", position);
        if (lineEnd < 0)
            return message; // headers not closed by a line break
        if (lineEnd == position) {
            position += 2;
            break;
        }
        const int colon = datagram.indexOf(':', position);
        if (colon < 0 || colon >= lineEnd || colon == position)
            return message;
        const char beforeColon = datagram.at(colon - 1);
        if (beforeColon == ' ' || beforeColon == '\t')
            return message;
        message.headers.insert(datagram.mid(position, colon - position).toLower(),
                               datagram.mid(colon + 1, lineEnd - colon - 1).trimmed());
        position = lineEnd + 2;
    }
    message.body = datagram.mid(position);
    message.kind = kind;
    return message;
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
