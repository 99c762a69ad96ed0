#ifndef RPCRECORDER_H
#define RPCRECORDER_H

#include "socketconnection.h"

#include <QStringList>

// What a stream parser hands out, one line per message: kind, query id,
// signature or outcome, and the values written again, in hexadecimal.
class Recorder : public SocketMessageReceiver
{
public:
    QStringList events;

    static QString line(const char* kind, const QByteArray& what, const QList<SocketArgument>& values = {}, int queryId = 0)
    {
        QByteArray bytes;
        for (const SocketArgument& value : values)
            SocketConnection::appendParameter(bytes, value);
        return QString("%1 %2 %3 %4").arg(kind).arg(queryId).arg(what, bytes.toHex());
    }

    void callDropped(SocketConnection*, quint16 id) override { events << line("dropped", "", {}, id); }
    // Only a call with return carries a query id.
    void callReceived(SocketConnection* c, bool urgent) override
    {
        events << line(urgent ? "urgent" : "call", c->getSignature(), values(c), c->getMessageType() ? 0 : c->getQueryId());
    }
    void subscriptionReceived(SocketConnection*, const QByteArray& signature) override { events << line("subscription", signature); }
    void returnValueReceived(SocketConnection*, quint16 id, bool success, const SocketArgument* value) override
    {
        events << line("return", success ? "ok" : "failed", value ? QList<SocketArgument>{*value} : QList<SocketArgument>(), id);
    }
    void signalReceived(SocketConnection* c) override { events << line("signal", c->getSignature(), values(c)); }

private:
    static QList<SocketArgument> values(SocketConnection* c)
    {
        QList<SocketArgument> list;
        while (list.size() < c->getParsedValueCount())
            list << c->getParsedValue(list.size());
        return list;
    }
};

#endif // RPCRECORDER_H
