#ifndef SOCKETSERVER_H
#define SOCKETSERVER_H

#include <QHostAddress>
#include <QLocalServer>
#include <QObject>
#include <QString>
#include <QTcpServer>

class Socket;

// A listener of the RPC layer that hands out accepted peers as Sockets.
class SocketServer : public QObject
{
    Q_OBJECT

public:
    explicit SocketServer(QObject* parent = nullptr);
    ~SocketServer() override;

    // The next accepted peer in a new Socket that the caller owns, or null when
    // none is pending.
    virtual Socket* nextPendingConnection() = 0;

signals:
    void newConnection();
};

// Listens on a Unix-domain socket.
class LocalServer : public SocketServer
{
    Q_OBJECT

public:
    explicit LocalServer(QObject* parent = nullptr);
    ~LocalServer() override;

    // Listens under this name (a path, or a name in the framework's socket
    // directory). False when the name is taken or cannot be created.
    bool listen(const QString& name);
    QString errorString() const;

    Socket* nextPendingConnection() override;

private:
    QLocalServer* server;
};

// Listens on a TCP port.
class TcpServer : public SocketServer
{
    Q_OBJECT

public:
    explicit TcpServer(QObject* parent = nullptr);
    ~TcpServer() override;

    // Port 0 lets the system choose; getPort() tells which.
    bool listen(const QHostAddress& address, quint16 port);
    // Takes over a socket descriptor that already listens, as a service
    // manager hands it in; it is closed with this server.
    bool listen(int socketDescriptor);
    quint16 getPort() const;
    QString errorString() const;

    Socket* nextPendingConnection() override;

private:
    QTcpServer* server;
};

#endif // SOCKETSERVER_H
