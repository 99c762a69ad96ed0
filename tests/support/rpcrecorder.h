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
    void callReceived(SocketConnection* c, bool urgent) override
    {
        // Only a call with return carries a query id.
        events << line(urgent ? "urgent" : "call", c->getSignature(), values(c),
                       c->getMessageType() == SocketConnection::CallWithReturnMessage ? c->getQueryId() : 0);
    }
    void subscriptionReceived(SocketConnection*, const QByteArray& signature) override
    {
        events << line("subscription", signature);
    }
    void returnValueReceived(SocketConnection*, quint16 id, bool success, const SocketArgument* value) override
    {
        events << line("return", success ? "ok" : "failed", value ? QList<SocketArgument>{*value} : QList<SocketArgument>(), id);
    }
    void signalReceived(SocketConnection* c) override { events << line("signal", c->getSignature(), values(c)); }

private:
    static QList<SocketArgument> values(SocketConnection* c)
    {
        QList<SocketArgument> list;
        for (int i = 0; i < c->getParsedValueCount(); ++i)
            list << c->getParsedValue(i);
        return list;
    }
};

#endif // RPCRECORDER_H
