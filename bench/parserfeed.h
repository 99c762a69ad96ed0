#ifndef PARSERFEED_H
#define PARSERFEED_H

#include <QByteArray>

#include <memory>

class SocketConnection;

// The parser benchmark's one contact with the RPC wire layer: received bytes
// go in, complete calls are counted as the server would take them. How the
// connection exposes its parser is known here only, so that the benchmark
// follows the wire layer when it changes.
class ParserFeed
{
public:
    ParserFeed();
    ~ParserFeed();
    ParserFeed(const ParserFeed&) = delete;
    ParserFeed& operator=(const ParserFeed&) = delete;

    // Hands bytes to the server-side parser as a read from the socket would.
    void feed(const char* data, int length);
    // Complete calls parsed so far, and the signature of the first one.
    qint64 calls() const;
    QByteArray firstSignature() const;

private:
    class Receiver;
    std::unique_ptr<Receiver> receiver;
    std::unique_ptr<SocketConnection> connection;
};

#endif // PARSERFEED_H
