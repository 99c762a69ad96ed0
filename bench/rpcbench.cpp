// The project's RPC under load, each side against a plain reference, and a
// plain Qt local-socket ping-pong with the same bytes.
//
//   rpcbench serve DIR                            the project's server "com.zan.ravo.bench" in DIR
//   rpcbench call DIR SERVICE SECONDS MAXCALLS    the project's client: echo("Living room", 42) with return
//   rpcbench signals DIR COUNT SECONDS            signals changed(QString,int) per second to one subscriber
//   rpcbench oneway DIR COUNT SECONDS             pipelined calls without return, in bursts of 1,000
//                                                 each followed by a call with return
//   rpcbench qtserve PATH / qtcall PATH SECONDS MAXCALLS
//                                                 QLocalServer / QLocalSocket answering the golden bytes
//
// Results are one line, as the C references print it:
// "calls=N seconds=S rate=R p50_us=A p99_us=B".
#include "benchqt.h"
#include "benchwire.h"
#include "socketadaptor.h"
#include "socketinterface.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QLocalServer>
#include <QLocalSocket>

#include <cstdio>
#include <cstring>

namespace {

const QString Text = QStringLiteral("Living room");
const char* const ServiceName = "com.zan.ravo.bench";
// Calls without return sent back to back before one with return.
constexpr int OneWayBurst = 1000;
static_assert(OneWayBurst < SocketAdaptor::MaxQueuedCalls, "a burst must stay below the server's limit");

class BenchService : public SocketAdaptor
{
    Q_OBJECT

public:
    QString getModuleName() override { return QString::fromLatin1(ServiceName); }

public slots:
    QString echo(const QString& text, int number)
    {
        Q_UNUSED(number);
        ++calls;
        return text;
    }
    int received() { return calls; }
    void emitChanged(int count)
    {
        for (int i = 0; i < count; ++i)
            emitSignal("changed(QString,int)", Text, i);
    }

private:
    int calls = 0;
};

int runServer(const QString& dir)
{
    BenchService service;
    if (!service.startLocalServer(dir))
        return 1;
    std::printf("ready\n");
    std::fflush(stdout);
    return QCoreApplication::exec();
}

int runCalls(const QString& dir, const QString& service, double seconds, qint64 maxCalls)
{
    SocketInterface client(SocketConnection::LocalSocketType, service, dir);
    if (!client.isValid())
        return 1;
    return benchTimedCalls(seconds, maxCalls, [&client](qint64) {
        return client.call(SocketInterface::CallWithReturn, "echo", Text, 42).toQString() == Text;
    });
}

int runSignals(const QString& dir, int count, double seconds)
{
    SocketInterface client(SocketConnection::LocalSocketType, QString::fromLatin1(ServiceName), dir);
    BenchSignalCounter counter;
    if (!client.isValid()
        || !client.connectDynamicSignal("changed(QString,int)", &counter, "onChanged(QString,int)"))
        return 1;
    QElapsedTimer clock;
    clock.start();
    client.call("emitChanged", count);
    while (counter.count < count && clock.nsecsElapsed() < qint64(seconds * 1e9))
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 100);
    benchReport(counter.count, clock.nsecsElapsed());
    return 0;
}

int runOneWay(const QString& dir, int count, double seconds)
{
    SocketInterface client(SocketConnection::LocalSocketType, QString::fromLatin1(ServiceName), dir);
    if (!client.isValid())
        return 1;
    const int before = client.call(SocketInterface::CallWithReturn, "received").toInt32();
    QElapsedTimer clock;
    clock.start();
    int sent = 0;
    while (sent < count && (sent % 256 != 0 || clock.nsecsElapsed() < qint64(seconds * 1e9))) {
        client.call("echo", Text, 42);
        // The server drops a client with more than 1,024 calls waiting: a call
        // with return after every burst waits until it has caught up.
        if (++sent % OneWayBurst == 0)
            client.call(SocketInterface::CallWithReturn, "received");
    }
    const int arrived = client.call(SocketInterface::CallWithReturn, "received").toInt32() - before;
    if (arrived != sent) {
        std::fprintf(stderr, "%d of %d one-way calls arrived\n", arrived, sent);
        return 1;
    }
    benchReport(sent, clock.nsecsElapsed());
    return 0;
}

// The plain Qt server: every golden call is answered with the golden return.
int runQtServer(const QString& path)
{
    QLocalServer::removeServer(path);
    QLocalServer server;
    if (!server.listen(path))
        return 1;
    QObject::connect(&server, &QLocalServer::newConnection, [&server] {
        QLocalSocket* socket = server.nextPendingConnection();
        QObject::connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
        QObject::connect(socket, &QLocalSocket::readyRead, socket, [socket] {
            char request[sizeof(BenchCall)];
            char answer[sizeof(BenchReturn)];
            std::memcpy(answer, BenchReturn, sizeof(answer));
            while (socket->bytesAvailable() >= qint64(sizeof(request))) {
                socket->read(request, sizeof(request));
                std::memcpy(answer + BENCH_QUERY_ID_OFFSET, request + BENCH_QUERY_ID_OFFSET, 2);
                socket->write(answer, sizeof(answer));
            }
        });
    });
    std::printf("ready\n");
    std::fflush(stdout);
    return QCoreApplication::exec();
}

int runQtCalls(const QString& path, double seconds, qint64 maxCalls)
{
    QLocalSocket socket;
    socket.connectToServer(path);
    if (!socket.waitForConnected(5000))
        return 1;
    char request[sizeof(BenchCall)];
    char answer[sizeof(BenchReturn)];
    std::memcpy(request, BenchCall, sizeof(request));
    return benchTimedCalls(seconds, maxCalls, [&](qint64 call) {
        request[BENCH_QUERY_ID_OFFSET] = char(call & 0xFF);
        request[BENCH_QUERY_ID_OFFSET + 1] = char((call >> 8) & 0xFF);
        socket.write(request, sizeof(request));
        socket.flush();
        while (socket.bytesAvailable() < qint64(sizeof(answer)))
            if (!socket.waitForReadyRead(5000))
                return false;
        socket.read(answer, sizeof(answer));
        return std::memcmp(answer + BENCH_QUERY_ID_OFFSET, request + BENCH_QUERY_ID_OFFSET, 2) == 0;
    });
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    const QString mode = args.value(1);
    if (mode == "serve" && args.size() == 3)
        return runServer(args[2]);
    if (mode == "call" && args.size() == 6)
        return runCalls(args[2], args[3], args[4].toDouble(), args[5].toLongLong());
    if (mode == "signals" && args.size() == 5)
        return runSignals(args[2], args[3].toInt(), args[4].toDouble());
    if (mode == "oneway" && args.size() == 5)
        return runOneWay(args[2], args[3].toInt(), args[4].toDouble());
    if (mode == "qtserve" && args.size() == 3)
        return runQtServer(args[2]);
    if (mode == "qtcall" && args.size() == 5)
        return runQtCalls(args[2], args[3].toDouble(), args[4].toLongLong());
    std::fprintf(stderr, "usage: rpcbench serve DIR | call DIR SERVICE SECONDS MAXCALLS | signals DIR COUNT SECONDS"
                         " | oneway DIR COUNT SECONDS | qtserve PATH | qtcall PATH SECONDS MAXCALLS\n");
    return 2;
}

#include "rpcbench.moc"
