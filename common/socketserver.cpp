#include "socketserver.h"

#include "socket.h"

SocketServer::SocketServer(QObject* parent) : QObject(parent)
{
}

SocketServer::~SocketServer() = default;

LocalServer::LocalServer(QObject* parent) : SocketServer(parent), server(new QLocalServer(this))
{
    connect(server, &QLocalServer::newConnection, this, &SocketServer::newConnection);
}

LocalServer::~LocalServer() = default;

bool LocalServer::listen(const QString& name)
{
    return server->listen(name);
}

QString LocalServer::errorString() const
{
    return server->errorString();
}

Socket* LocalServer::nextPendingConnection()
{
    QLocalSocket* accepted = server->nextPendingConnection();
    return accepted ? new LocalSocket(accepted) : nullptr;
}

TcpServer::TcpServer(QObject* parent) : SocketServer(parent), server(new QTcpServer(this))
{
    connect(server, &QTcpServer::newConnection, this, &SocketServer::newConnection);
}

TcpServer::~TcpServer() = default;

bool TcpServer::listen(const QHostAddress& address, quint16 port)
{
    return server->listen(address, port);
}

bool TcpServer::listen(int socketDescriptor)
{
    return server->setSocketDescriptor(socketDescriptor);
}

quint16 TcpServer::getPort() const
{
    return server->serverPort();
}

QString TcpServer::errorString() const
{
    return server->errorString();
}

Socket* TcpServer::nextPendingConnection()
{
    QTcpSocket* accepted = server->nextPendingConnection();
    return accepted ? new TcpSocket(accepted) : nullptr;
}
