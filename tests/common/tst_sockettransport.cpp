#include "socket.h"
#include "socketserver.h"

#include <QTemporaryDir>
#include <QtTest>

#include <memory>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

class tst_SocketTransport : public QObject
{
    Q_OBJECT

private slots:
    void failedConnectIsReported_data();
    void failedConnectIsReported();
    void acceptedPeersCarryBytesBothWays_data();
    void acceptedPeersCarryBytesBothWays();
    void peerCloseIsReportedOnce_data();
    void peerCloseIsReportedOnce();
    void tcpServerTakesOverListeningDescriptor();
    void errorNamesKeepTheirGaps_data();
    void errorNamesKeepTheirGaps();
};

namespace {

// A connected client and its accepted peer over a local or a TCP socket.
struct Pair
{
    QTemporaryDir dir;
    std::unique_ptr<SocketServer> server;
    std::unique_ptr<Socket> client;
    std::unique_ptr<Socket> peer;
    QString name;
    quint16 port = 0;

    QString open(bool tcp)
    {
        if (tcp) {
            auto* tcpServer = new TcpServer;
            server.reset(tcpServer);
            auto* socket = new TcpSocket;
            client.reset(socket);
            if (!tcpServer->listen(QHostAddress::LocalHost, 0))
                return tcpServer->errorString();
            port = tcpServer->getPort();
            socket->connectToHost(QHostAddress::LocalHost, port);
        } else {
            auto* localServer = new LocalServer;
            server.reset(localServer);
            auto* socket = new LocalSocket;
            client.reset(socket);
            name = dir.filePath("service");
            if (!localServer->listen(name))
                return localServer->errorString();
            socket->connectToServer(name);
        }
        if (!client->waitForConnected(5000))
            return "connect: " + client->getLastErrorText();
        QSignalSpy accepted(server.get(), &SocketServer::newConnection);
        peer.reset(server->nextPendingConnection());
        if (!peer && accepted.wait(5000))
            peer.reset(server->nextPendingConnection());
        return peer ? QString() : QString("nothing accepted");
    }
};

QByteArray readAtLeast(Socket& socket, int count)
{
    QByteArray bytes = socket.readAll();
    QElapsedTimer timer;
    timer.start();
    while (bytes.size() < count && !timer.hasExpired(10000)) {
        socket.waitForReadyRead(50);
        bytes += socket.readAll();
    }
    return bytes;
}

void addTransportRows()
{
    QTest::addColumn<bool>("tcp");
    QTest::newRow("local") << false;
    QTest::newRow("tcp") << true;
}

} // namespace

void tst_SocketTransport::failedConnectIsReported_data()
{
    QTest::addColumn<bool>("tcp");
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("code");
    QTest::newRow("local name nobody listens on") << false << "ServerNotFoundError" << 2;
    QTest::newRow("tcp port nobody listens on") << true << "ConnectionRefusedError" << 0;
}

void tst_SocketTransport::failedConnectIsReported()
{
    QFETCH(bool, tcp);
    QFETCH(QString, text);
    QFETCH(int, code);
    QTemporaryDir dir;
    std::unique_ptr<Socket> socket(tcp ? static_cast<Socket*>(new TcpSocket) : new LocalSocket);
    QSignalSpy errors(socket.get(), &Socket::error);
    QString peerName = dir.filePath("nobody");
    if (tcp) {
        QTcpServer closed;
        QVERIFY(closed.listen(QHostAddress::LocalHost, 0));
        const quint16 port = closed.serverPort();
        closed.close();
        static_cast<TcpSocket*>(socket.get())->connectToHost(QHostAddress::LocalHost, port);
        peerName = "127.0.0.1:" + QString::number(port);
    } else {
        static_cast<LocalSocket*>(socket.get())->connectToServer(peerName);
    }
    QVERIFY(!socket->waitForConnected(5000));
    QTRY_COMPARE(errors.count(), 1);
    QCOMPARE(errors.at(0).at(0).toString(), text);
    QCOMPARE(socket->getLastErrorText(), text);
    QCOMPARE(socket->getLastError(), code);
    QCOMPARE(socket->getPeerName(), peerName);
    QCOMPARE(socket->state(), QAbstractSocket::UnconnectedState);
}

void tst_SocketTransport::acceptedPeersCarryBytesBothWays_data()
{
    addTransportRows();
}

void tst_SocketTransport::acceptedPeersCarryBytesBothWays()
{
    QFETCH(bool, tcp);
    Pair pair;
    const QString failure = pair.open(tcp);
    QVERIFY2(failure.isEmpty(), qPrintable(failure));
    QCOMPARE(qobject_cast<TcpSocket*>(pair.peer.get()) != nullptr, tcp);
    QCOMPARE(qobject_cast<LocalSocket*>(pair.peer.get()) != nullptr, !tcp);
    QVERIFY(!pair.server->nextPendingConnection());
    QCOMPARE(pair.client->state(), QAbstractSocket::ConnectedState);
    QVERIFY(pair.client->isValid() && pair.peer->isValid());
    if (tcp) {
        QCOMPARE(pair.client->getPeerName(), "127.0.0.1:" + QString::number(pair.port));
        // The accepted end names the client's address and port.
        const QRegularExpressionMatch match =
            QRegularExpression("^127\\.0\\.0\\.1:(\\d+)$").match(pair.peer->getPeerName());
        QVERIFY2(match.hasMatch() && match.captured(1).toUInt() != pair.port,
                 qPrintable(pair.peer->getPeerName()));
    } else {
        QCOMPARE(pair.client->getPeerName(), pair.name);
        QCOMPARE(pair.peer->getPeerName(), pair.name);
    }

    QSignalSpy peerReady(pair.peer.get(), &Socket::readyRead);
    QCOMPARE(pair.client->write("ping", 4), qint64(4));
    QCOMPARE(pair.client->bytesToWrite(), qint64(4));
    QVERIFY(pair.client->waitForBytesWritten(5000));
    QCOMPARE(pair.client->bytesToWrite(), qint64(0));
    QVERIFY(pair.peer->waitForReadyRead(5000));
    QCOMPARE(peerReady.count(), 1);
    QTRY_COMPARE(pair.peer->bytesAvailable(), qint64(4));
    QCOMPARE(pair.peer->readAll(), QByteArray("ping"));

    // The accepted socket belongs to its taker, not to the server.
    pair.server.reset();
    QSignalSpy clientReady(pair.client.get(), &Socket::readyRead);
    QCOMPARE(pair.peer->write("pong!", 5), qint64(5));
    QVERIFY(clientReady.wait(5000));
    QCOMPARE(readAtLeast(*pair.client, 5), QByteArray("pong!"));

    TcpSocket unconnected;
    unconnected.connectToHost(QHostAddress("127.0.0.1"), 4000);
    QCOMPARE(unconnected.getPeerName(), QString("127.0.0.1:4000"));
}

void tst_SocketTransport::peerCloseIsReportedOnce_data()
{
    QTest::addColumn<bool>("tcp");
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("code");
    QTest::newRow("local") << false << "PeerClosedError" << int(QLocalSocket::PeerClosedError);
    QTest::newRow("tcp") << true << "RemoteHostClosedError" << int(QAbstractSocket::RemoteHostClosedError);
}

void tst_SocketTransport::peerCloseIsReportedOnce()
{
    QFETCH(bool, tcp);
    QFETCH(QString, text);
    QFETCH(int, code);
    Pair pair;
    const QString failure = pair.open(tcp);
    QVERIFY2(failure.isEmpty(), qPrintable(failure));
    QSignalSpy errors(pair.client.get(), &Socket::error);
    QSignalSpy disconnected(pair.client.get(), &Socket::disconnected);

    pair.peer.reset(); // destroying the transport closes its framework socket
    QTRY_COMPARE(disconnected.count(), 1);
    QCOMPARE(errors.count(), 1);
    QCOMPARE(errors.at(0).at(0).toString(), text);
    QCOMPARE(pair.client->getLastErrorText(), text);
    QCOMPARE(pair.client->getLastError(), code);
    QVERIFY(!pair.client->waitForReadyRead(10));
    QCOMPARE(errors.count(), 1);
}

void tst_SocketTransport::tcpServerTakesOverListeningDescriptor()
{
    // A descriptor that already listens, as a service manager hands it over.
    const int descriptor = ::socket(AF_INET, SOCK_STREAM, 0);
    QVERIFY(descriptor >= 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    QVERIFY(::bind(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0);
    QVERIFY(::listen(descriptor, 4) == 0);
    QVERIFY(::getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length) == 0);

    TcpServer server;
    QVERIFY2(server.listen(descriptor), qPrintable(server.errorString()));
    QCOMPARE(server.getPort(), ntohs(address.sin_port));
    QSignalSpy accepted(&server, &SocketServer::newConnection);
    TcpSocket client;
    client.connectToHost(QHostAddress::LocalHost, server.getPort());
    QVERIFY2(client.waitForConnected(5000), qPrintable(client.getLastErrorText()));
    QVERIFY(accepted.count() > 0 || accepted.wait(5000));
    const std::unique_ptr<Socket> peer(server.nextPendingConnection());
    QVERIFY(peer);
    QCOMPARE(client.write("fd", 2), qint64(2));
    QVERIFY(client.waitForBytesWritten(5000));
    QCOMPARE(readAtLeast(*peer, 2), QByteArray("fd"));
}

void tst_SocketTransport::errorNamesKeepTheirGaps_data()
{
    QTest::addColumn<bool>("tcp");
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("name");
    // The local table has no names for 8, 9 and the operation error; peers
    // log them as unknown too.
    QTest::newRow("local 8") << false << 8 << "UnknownSocketError";
    QTest::newRow("local 9") << false << 9 << "UnknownSocketError";
    QTest::newRow("local 19") << false << 19 << "UnknownSocketError";
    QTest::newRow("tcp 8") << true << 8 << "AddressInUseError";
    QTest::newRow("tcp 9") << true << 9 << "SocketAddressNotAvailableError";
    QTest::newRow("tcp 19") << true << 19 << "UnknownSocketError";
    QTest::newRow("tcp -1") << true << -1 << "UnknownSocketError";
}

void tst_SocketTransport::errorNamesKeepTheirGaps()
{
    QFETCH(bool, tcp);
    QFETCH(int, code);
    QFETCH(QString, name);
    QCOMPARE(tcp ? TcpSocket::errorName(code) : LocalSocket::errorName(code), name);
}

QTEST_GUILESS_MAIN(tst_SocketTransport)
#include "tst_sockettransport.moc"
