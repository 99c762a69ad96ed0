#ifndef SOCKETPAIR_H
#define SOCKETPAIR_H

#include "socketconnection.h"
#include "socketserver.h"

#include <QFile>
#include <QTest>
#include <QTemporaryDir>

#include <memory>

// A client connected over a local or a TCP loopback socket, and the peer its
// server accepted.
struct SocketPair
{
    QTemporaryDir dir;
    std::unique_ptr<SocketServer> server;
    std::unique_ptr<Socket> client, peer;
    QString name = dir.filePath("service"); // the local server's path
    quint16 port = 0;

    // An error text, empty when both ends stand.
    QString open(bool tcp)
    {
        if (tcp) {
            auto* listener = new TcpServer;
            server.reset(listener);
            if (!listener->listen(QHostAddress::LocalHost, 0))
                return listener->errorString();
            auto* socket = new TcpSocket;
            client.reset(socket);
            socket->connectToHost(QHostAddress::LocalHost, port = listener->getPort());
        } else {
            auto* listener = new LocalServer;
            server.reset(listener);
            if (!listener->listen(name))
                return listener->errorString();
            auto* socket = new LocalSocket;
            client.reset(socket);
            socket->connectToServer(name);
        }
        if (!client->waitForConnected(5000))
            return "connect: " + client->getLastErrorText();
        const auto accepted = [this] { return peer || (peer.reset(server->nextPendingConnection()), peer); };
        return QTest::qWaitFor(accepted, 5000) ? QString() : QString("nothing accepted");
    }
};

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
