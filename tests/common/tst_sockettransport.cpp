#include "socket.h"
#include "socketpair.h"
#include "socketserver.h"

#include <QtTest>

class tst_SocketTransport : public QObject
{
    Q_OBJECT

private slots:
    void failedConnectIsReported_data();
    void failedConnectIsReported();
    void peersCarryBytesBothWaysUntilOneCloses_data();
    void peersCarryBytesBothWaysUntilOneCloses();
    void errorNamesKeepTheirGaps();
};

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

void tst_SocketTransport::peersCarryBytesBothWaysUntilOneCloses_data()
{
    QTest::addColumn<bool>("tcp");
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("code");
    QTest::newRow("local") << false << "PeerClosedError" << int(QLocalSocket::PeerClosedError);
    QTest::newRow("tcp") << true << "RemoteHostClosedError" << int(QAbstractSocket::RemoteHostClosedError);
}

void tst_SocketTransport::peersCarryBytesBothWaysUntilOneCloses()
{
    QFETCH(bool, tcp);
    QFETCH(QString, text);
    QFETCH(int, code);
    SocketPair pair;
    const QString failure = pair.open(tcp);
    QVERIFY2(failure.isEmpty(), qPrintable(failure));
    QCOMPARE(qobject_cast<TcpSocket*>(pair.peer.get()) != nullptr, tcp);
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

    // Destroying the transport closes its framework socket: the other end
    // reports it once.
    QSignalSpy errors(pair.client.get(), &Socket::error);
    QSignalSpy disconnected(pair.client.get(), &Socket::disconnected);
    pair.peer.reset();
    QTRY_COMPARE(disconnected.count(), 1);
    QVERIFY(!pair.client->waitForReadyRead(10));
    QCOMPARE(errors.count(), 1);
    QCOMPARE(errors.at(0).at(0).toString(), text);
    QCOMPARE(pair.client->getLastErrorText(), text);
    QCOMPARE(pair.client->getLastError(), code);

    TcpSocket unconnected;
    unconnected.connectToHost(QHostAddress("127.0.0.1"), 4000);
    QCOMPARE(unconnected.getPeerName(), QString("127.0.0.1:4000"));
}

void tst_SocketTransport::errorNamesKeepTheirGaps()
{
    // The local table has no names for 8, 9 and the operation error; peers
    // log them as unknown too.
    for (int code : {8, 9, 19})
        QCOMPARE(LocalSocket::errorName(code), QString("UnknownSocketError"));
    QCOMPARE(TcpSocket::errorName(8), QString("AddressInUseError"));
    QCOMPARE(TcpSocket::errorName(9), QString("SocketAddressNotAvailableError"));
    QCOMPARE(TcpSocket::errorName(19), QString("UnknownSocketError"));
    QCOMPARE(TcpSocket::errorName(-1), QString("UnknownSocketError"));
}

QTEST_GUILESS_MAIN(tst_SocketTransport)
#include "tst_sockettransport.moc"
