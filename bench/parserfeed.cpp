#include "parserfeed.h"

#include "socketconnection.h"

class ParserFeed::Receiver : public SocketMessageReceiver
{
public:
    void callReceived(SocketConnection* connection, bool urgent) override
    {
        Q_UNUSED(urgent);
        if (calls++ == 0)
            signature = connection->getSignature();
    }

    qint64 calls = 0;
    QByteArray signature;
};

ParserFeed::ParserFeed()
    : receiver(new Receiver), connection(new SocketConnection(SocketConnection::LocalSocketType))
{
}

ParserFeed::~ParserFeed() = default;

void ParserFeed::feed(const char* data, int length)
{
    connection->appendReceivedData(QByteArray::fromRawData(data, length));
    connection->parseReceivedData(SocketConnection::ServerSide, receiver.get());
}

qint64 ParserFeed::calls() const
{
    return receiver->calls;
}

QByteArray ParserFeed::firstSignature() const
{
    return receiver->signature;
}
