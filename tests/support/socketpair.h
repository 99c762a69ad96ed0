#ifndef SOCKETPAIR_H
#define SOCKETPAIR_H

#include "socketconnection.h"
#include "socketserver.h"

#include <QElapsedTimer>
#include <QFile>
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

// The resident size of a process, from the kernel.
inline qint64 residentKiB(qint64 pid)
{
    QFile status(QString("/proc/%1/status").arg(pid));
    status.open(QIODevice::ReadOnly);
    const QByteArray text = status.readAll();
    return text.mid(text.indexOf("VmRSS:") + 6).trimmed().split(' ').value(0).toLongLong();
}

// --- Messages as peers write them, built from the value encoders.

inline QByteArray encodedValues(const QList<SocketArgument>& values)
{
    QByteArray bytes;
    for (const SocketArgument& value : values)
        SocketConnection::appendParameter(bytes, value);
    return bytes;
}

inline QByteArray header(quint8 type)
{
    QByteArray bytes;
    SocketConnection::appendValue(bytes, SocketConnection::MagicNumber);
    SocketConnection::appendValue(bytes, type);
    return bytes;
}

// Types 0 (with the query id), 1 and 2: the name, the values, the end tag.
inline QByteArray message(quint8 type, const QByteArray& name, const QList<SocketArgument>& values = {},
                          quint16 queryId = 0)
{
    QByteArray bytes = header(type);
    if (type == SocketConnection::CallWithReturnMessage)
        SocketConnection::appendValue(bytes, queryId);
    return bytes + name + '\0' + encodedValues(values) + '\0';
}

#endif // SOCKETPAIR_H
