#ifndef SOCKETPAIR_H
#define SOCKETPAIR_H

#include "socketserver.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTemporaryDir>

#include <memory>

// A client connected over a local or a TCP loopback socket, and the peer its
// server accepted.
struct SocketPair
{
    QTemporaryDir dir;
    std::unique_ptr<SocketServer> server;
    std::unique_ptr<Socket> client;
    std::unique_ptr<Socket> peer;
    QString name; // the local server's path
    quint16 port = 0;

    // An error text, empty when both ends stand.
    QString open(bool tcp)
    {
        if (tcp) {
            auto* tcpServer = new TcpServer;
            server.reset(tcpServer);
            if (!tcpServer->listen(QHostAddress::LocalHost, 0))
                return tcpServer->errorString();
            port = tcpServer->getPort();
            auto* socket = new TcpSocket;
            client.reset(socket);
            socket->connectToHost(QHostAddress::LocalHost, port);
        } else {
            auto* localServer = new LocalServer;
            server.reset(localServer);
            name = dir.filePath("service");
            if (!localServer->listen(name))
                return localServer->errorString();
            auto* socket = new LocalSocket;
            client.reset(socket);
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

// What socket receives until count bytes have come or ten seconds passed.
inline QByteArray readAtLeast(Socket& socket, int count)
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

#endif // SOCKETPAIR_H
