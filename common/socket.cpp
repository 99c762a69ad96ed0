#include "socket.h"

#include <cerrno>
#include <sys/socket.h>

namespace {

// A write while the framework's output buffer is empty goes to the descriptor
// at once: what the kernel takes then is neither buffered nor waited for, and
// the framework's write notifier is not switched on and off for it. Returns
// the bytes taken; errors are left for the framework's own write to find.
qint64 writeDirect(qintptr descriptor, const char* data, qint64 length)
{
    if (descriptor < 0)
        return 0;
    ssize_t sent = 0;
    do
        sent = ::send(int(descriptor), data, size_t(length), MSG_DONTWAIT | MSG_NOSIGNAL);
    while (sent < 0 && errno == EINTR);
    return sent > 0 ? sent : 0;
}

// The rest of a write that writeDirect began, through the framework's buffer.
template <typename Device>
qint64 writeRest(Device& device, const char* data, qint64 length, qint64 direct)
{
    if (direct == length)
        return length;
    const qint64 buffered = device.write(data + direct, length - direct);
    return buffered < 0 ? (direct > 0 ? direct : -1) : direct + buffered;
}

} // namespace

Socket::Socket(QObject* parent) : QObject(parent)
{
}

Socket::~Socket() = default;

void Socket::reportError(qint32 code, const QString& text)
{
    lastError = code;
    lastErrorText = text;
    emit error(text);
}

LocalSocket::LocalSocket(QObject* parent) : Socket(parent), socket(new QLocalSocket(this))
{
    attach();
}

LocalSocket::LocalSocket(QLocalSocket* accepted, const QString& serverName, QObject* parent)
    : Socket(parent), socket(accepted)
{
    // An accepted socket knows no server name of its own.
    setPeerName(serverName);
    if (socket)
        socket->setParent(this);
    attach();
}

LocalSocket::~LocalSocket() = default;

void LocalSocket::attach()
{
    if (!socket)
        return;
    connect(socket, &QLocalSocket::errorOccurred, this, &LocalSocket::onError);
    connect(socket, &QLocalSocket::readyRead, this, &Socket::readyRead);
    connect(socket, &QLocalSocket::disconnected, this, &Socket::disconnected);
}

void LocalSocket::connectToServer(const QString& name, QIODevice::OpenMode mode)
{
    setPeerName(name);
    if (socket)
        socket->connectToServer(name, mode);
}

QString LocalSocket::errorName(int code)
{
    // Codes 8 and 9 and the operation error have no name of their own here:
    // the peers report them as unknown too.
    switch (code) {
    case QLocalSocket::ConnectionRefusedError: return QStringLiteral("ConnectionRefusedError");
    case QLocalSocket::PeerClosedError: return QStringLiteral("PeerClosedError");
    case QLocalSocket::ServerNotFoundError: return QStringLiteral("ServerNotFoundError");
    case QLocalSocket::SocketAccessError: return QStringLiteral("SocketAccessError");
    case QLocalSocket::SocketResourceError: return QStringLiteral("SocketResourceError");
    case QLocalSocket::SocketTimeoutError: return QStringLiteral("SocketTimeoutError");
    case QLocalSocket::DatagramTooLargeError: return QStringLiteral("DatagramTooLargeError");
    case QLocalSocket::ConnectionError: return QStringLiteral("ConnectionError");
    case QLocalSocket::UnsupportedSocketOperationError:
        return QStringLiteral("UnsupportedSocketOperationError");
    default: return QStringLiteral("UnknownSocketError");
    }
}

void LocalSocket::onError(QLocalSocket::LocalSocketError code)
{
    reportError(code, errorName(code));
}

bool LocalSocket::isValid() const
{
    // QLocalSocket stays "valid" after its peer has closed, until it is closed
    // itself; a stream that has gone is of no use to anyone.
    return socket && socket->isValid() && socket->state() != QLocalSocket::UnconnectedState;
}

bool LocalSocket::waitForConnected(int ms)
{
    return socket && socket->waitForConnected(ms);
}

bool LocalSocket::waitForBytesWritten(int ms)
{
    return socket && socket->waitForBytesWritten(ms);
}

bool LocalSocket::waitForReadyRead(int ms)
{
    return socket && socket->waitForReadyRead(ms);
}

qint64 LocalSocket::bytesAvailable() const
{
    return socket ? socket->bytesAvailable() : 0;
}

qint64 LocalSocket::bytesToWrite() const
{
    return socket ? socket->bytesToWrite() : 0;
}

qint64 LocalSocket::write(const char* data, qint64 length)
{
    if (!socket)
        return -1;
    const bool direct = socket->bytesToWrite() == 0 && socket->isWritable()
                        && socket->state() == QLocalSocket::ConnectedState;
    return writeRest(*socket, data, length, direct ? writeDirect(socket->socketDescriptor(), data, length) : 0);
}

QByteArray LocalSocket::readAll()
{
    return socket ? socket->readAll() : QByteArray();
}

qint64 LocalSocket::read(char* data, qint64 length)
{
    return socket ? socket->read(data, length) : -1;
}

QAbstractSocket::SocketState LocalSocket::state() const
{
    return socket ? QAbstractSocket::SocketState(socket->state()) : QAbstractSocket::UnconnectedState;
}

bool LocalSocket::writeBuffered()
{
    // QLocalSocket::flush() writes what the kernel takes, without waiting.
    return socket && (socket->flush() || socket->state() == QLocalSocket::ConnectedState);
}

void LocalSocket::abort()
{
    if (socket)
        socket->abort();
}

qintptr LocalSocket::descriptor() const
{
    return socket ? socket->socketDescriptor() : -1;
}

TcpSocket::TcpSocket(QObject* parent) : Socket(parent), socket(new QTcpSocket(this))
{
    attach();
}

TcpSocket::TcpSocket(QTcpSocket* accepted, QObject* parent) : Socket(parent), socket(accepted)
{
    if (socket) {
        socket->setParent(this);
        setPeerName(socket->peerAddress().toString() + QLatin1Char(':')
                    + QString::number(socket->peerPort()));
    }
    attach();
}

TcpSocket::~TcpSocket() = default;

void TcpSocket::attach()
{
    if (!socket)
        return;
    connect(socket, &QAbstractSocket::errorOccurred, this, &TcpSocket::onError);
    connect(socket, &QAbstractSocket::readyRead, this, &Socket::readyRead);
    connect(socket, &QAbstractSocket::disconnected, this, &Socket::disconnected);
}

void TcpSocket::connectToHost(const QHostAddress& address, quint16 port, QIODevice::OpenMode mode)
{
    setPeerName(address.toString() + QLatin1Char(':') + QString::number(port));
    if (socket)
        socket->connectToHost(address, port, mode);
}

QString TcpSocket::errorName(int code)
{
    switch (code) {
    case QAbstractSocket::ConnectionRefusedError: return QStringLiteral("ConnectionRefusedError");
    case QAbstractSocket::RemoteHostClosedError: return QStringLiteral("RemoteHostClosedError");
    case QAbstractSocket::HostNotFoundError: return QStringLiteral("HostNotFoundError");
    case QAbstractSocket::SocketAccessError: return QStringLiteral("SocketAccessError");
    case QAbstractSocket::SocketResourceError: return QStringLiteral("SocketResourceError");
    case QAbstractSocket::SocketTimeoutError: return QStringLiteral("SocketTimeoutError");
    case QAbstractSocket::DatagramTooLargeError: return QStringLiteral("DatagramTooLargeError");
    case QAbstractSocket::NetworkError: return QStringLiteral("NetworkError");
    case QAbstractSocket::AddressInUseError: return QStringLiteral("AddressInUseError");
    case QAbstractSocket::SocketAddressNotAvailableError:
        return QStringLiteral("SocketAddressNotAvailableError");
    case QAbstractSocket::UnsupportedSocketOperationError:
        return QStringLiteral("UnsupportedSocketOperationError");
    case QAbstractSocket::UnfinishedSocketOperationError:
        return QStringLiteral("UnfinishedSocketOperationError");
    case QAbstractSocket::ProxyAuthenticationRequiredError:
        return QStringLiteral("ProxyAuthenticationRequiredError");
    case QAbstractSocket::SslHandshakeFailedError: return QStringLiteral("SslHandshakeFailedError");
    case QAbstractSocket::ProxyConnectionRefusedError:
        return QStringLiteral("ProxyConnectionRefusedError");
    case QAbstractSocket::ProxyConnectionClosedError:
        return QStringLiteral("ProxyConnectionClosedError");
    case QAbstractSocket::ProxyConnectionTimeoutError:
        return QStringLiteral("ProxyConnectionTimeoutError");
    case QAbstractSocket::ProxyNotFoundError: return QStringLiteral("ProxyNotFoundError");
    case QAbstractSocket::ProxyProtocolError: return QStringLiteral("ProxyProtocolError");
    default: return QStringLiteral("UnknownSocketError");
    }
}

void TcpSocket::onError(QAbstractSocket::SocketError code)
{
    reportError(code, errorName(code));
}

bool TcpSocket::isValid() const
{
    // QTcpSocket stays "valid" after a refused connect, until it is closed;
    // a stream that never connected or has gone is of no use to anyone.
    return socket && socket->isValid() && socket->state() != QAbstractSocket::UnconnectedState;
}

bool TcpSocket::waitForConnected(int ms)
{
    return socket && socket->waitForConnected(ms);
}

bool TcpSocket::waitForBytesWritten(int ms)
{
    return socket && socket->waitForBytesWritten(ms);
}

bool TcpSocket::waitForReadyRead(int ms)
{
    return socket && socket->waitForReadyRead(ms);
}

qint64 TcpSocket::bytesAvailable() const
{
    return socket ? socket->bytesAvailable() : 0;
}

qint64 TcpSocket::bytesToWrite() const
{
    return socket ? socket->bytesToWrite() : 0;
}

qint64 TcpSocket::write(const char* data, qint64 length)
{
    if (!socket)
        return -1;
    const bool direct = socket->bytesToWrite() == 0 && socket->isWritable()
                        && socket->state() == QAbstractSocket::ConnectedState;
    return writeRest(*socket, data, length, direct ? writeDirect(socket->socketDescriptor(), data, length) : 0);
}

QByteArray TcpSocket::readAll()
{
    return socket ? socket->readAll() : QByteArray();
}

qint64 TcpSocket::read(char* data, qint64 length)
{
    return socket ? socket->read(data, length) : -1;
}

QAbstractSocket::SocketState TcpSocket::state() const
{
    return socket ? socket->state() : QAbstractSocket::UnconnectedState;
}

bool TcpSocket::writeBuffered()
{
    // QAbstractSocket::flush() writes what the kernel takes, without waiting.
    return socket && (socket->flush() || socket->state() == QAbstractSocket::ConnectedState);
}

void TcpSocket::abort()
{
    if (socket)
        socket->abort();
}

qintptr TcpSocket::descriptor() const
{
    return socket ? socket->socketDescriptor() : -1;
}
