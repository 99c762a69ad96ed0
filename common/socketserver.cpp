#include "socketserver.h"

#include "logginginterface.h"
#include "socket.h"

#include <QFile>
#include <QLocalSocket>
#include <QSocketNotifier>
#include <QTcpSocket>
#include <QTimer>

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

// Peers refused in one go at the descriptor limit; more wait for the next turn
// of the event loop, so that a flood of connects cannot hold it.
constexpr int MaxRefusedPerTurn = 64;
// How long accepting rests when not even the spare descriptor helps.
constexpr int AcceptPauseMs = 100;

int acceptPeer(int listener)
{
    return ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
}

int openSpare()
{
    return ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

} // namespace

SocketServer::SocketServer(QObject* parent) : QObject(parent)
{
}

SocketServer::~SocketServer()
{
    SocketServer::close();
}

bool SocketServer::failed(int descriptor)
{
    lastError = QString::fromLocal8Bit(std::strerror(errno));
    if (descriptor >= 0)
        ::close(descriptor);
    return false;
}

bool SocketServer::takeListener(int descriptor)
{
    SocketServer::close();
    const int flags = ::fcntl(descriptor, F_GETFL);
    if (flags < 0 || ::fcntl(descriptor, F_SETFL, flags | O_NONBLOCK) < 0)
        return failed(descriptor);
    listener = descriptor;
    // Opened now, while descriptors are to be had; at the limit it is what
    // lets a refused peer be told at once.
    spare = openSpare();
    notifier = new QSocketNotifier(listener, QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, &SocketServer::onActivated);
    return true;
}

void SocketServer::close()
{
    delete notifier;
    notifier = nullptr;
    for (int* descriptor : {&listener, &spare}) {
        if (*descriptor >= 0)
            ::close(*descriptor);
        *descriptor = -1;
    }
}

void SocketServer::onActivated()
{
    emit newConnection();
}

Socket* SocketServer::nextPendingConnection()
{
    int refused = 0;
    while (listener >= 0) {
        const int descriptor = acceptPeer(listener);
        if (descriptor >= 0) {
            refusing = false;
            if (Socket* socket = wrap(descriptor))
                return socket;
            continue;
        }
        switch (errno) {
        case EINTR:
        case ECONNABORTED:
        case EPROTO: continue; // that peer has gone already
        case EAGAIN: return nullptr;
        case EMFILE:
        case ENFILE:
        case ENOBUFS:
        case ENOMEM:
            // At the limit the kernel says so even when nobody is waiting.
            if (!refusing)
                CLOG(Error) << "out of descriptors: refusing new clients";
            refusing = true;
            switch (refuseOne()) {
            case Refused:
                if (++refused < MaxRefusedPerTurn)
                    continue;
                return nullptr; // the rest at the next turn
            case NobodyWaiting: return nullptr;
            case Failed: pauseAccepting(); return nullptr;
            }
            return nullptr;
        default: {
            failed(-1);
            const QString text = lastError;
            close();
            emit error(text);
            return nullptr;
        }
        }
    }
    return nullptr;
}

SocketServer::Refusal SocketServer::refuseOne()
{
    if (spare < 0 && (spare = openSpare()) < 0)
        return Failed;
    ::close(spare);
    const int descriptor = acceptPeer(listener);
    const int error = errno;
    if (descriptor >= 0)
        ::close(descriptor);
    spare = openSpare();
    return descriptor >= 0 ? Refused : error == EAGAIN ? NobodyWaiting : Failed;
}

void SocketServer::pauseAccepting()
{
    notifier->setEnabled(false);
    QTimer::singleShot(AcceptPauseMs, notifier, [notifier = notifier] { notifier->setEnabled(true); });
}

LocalServer::LocalServer(QObject* parent) : SocketServer(parent)
{
}

LocalServer::~LocalServer()
{
    LocalServer::close();
}

bool LocalServer::listen(const QString& name)
{
    close();
    const QByteArray file = QFile::encodeName(name);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (file.size() >= int(sizeof(address.sun_path))) {
        errno = ENAMETOOLONG;
        return failed(-1);
    }
    std::memcpy(address.sun_path, file.constData(), size_t(file.size()));
    const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0)
        return failed(-1);
    // The mode comes with the file: there is no moment at which another user
    // could connect. The daemon has one thread, so the umask is its own.
    const mode_t previous = ::umask(0117);
    const bool bound = ::bind(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    ::umask(previous);
    if (!bound)
        return failed(descriptor);
    path = name; // bound: the file is this server's to remove
    if (::listen(descriptor, SOMAXCONN) != 0)
        failed(descriptor);
    else if (takeListener(descriptor))
        return true;
    close();
    return false;
}

void LocalServer::close()
{
    SocketServer::close();
    if (!path.isEmpty())
        QFile::remove(path);
    path.clear();
}

Socket* LocalServer::wrap(int descriptor)
{
    auto* socket = new QLocalSocket;
    if (!socket->setSocketDescriptor(descriptor)) {
        delete socket;
        ::close(descriptor);
        return nullptr;
    }
    return new LocalSocket(socket, path);
}

TcpServer::TcpServer(QObject* parent) : SocketServer(parent)
{
}

TcpServer::~TcpServer() = default;

bool TcpServer::listen(const QHostAddress& address, quint16 requestedPort)
{
    close();
    sockaddr_storage storage = {};
    socklen_t length = 0;
    if (address.protocol() == QAbstractSocket::IPv6Protocol) {
        auto* in6 = reinterpret_cast<sockaddr_in6*>(&storage);
        in6->sin6_family = AF_INET6;
        in6->sin6_port = htons(requestedPort);
        const Q_IPV6ADDR bytes = address.toIPv6Address();
        std::memcpy(&in6->sin6_addr, bytes.c, sizeof(bytes.c));
        length = sizeof(*in6);
    } else {
        auto* in4 = reinterpret_cast<sockaddr_in*>(&storage);
        in4->sin_family = AF_INET;
        in4->sin_port = htons(requestedPort);
        in4->sin_addr.s_addr = htonl(address.toIPv4Address());
        length = sizeof(*in4);
    }
    const int descriptor = ::socket(storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0)
        return failed(-1);
    const int on = 1;
    ::setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    if (::bind(descriptor, reinterpret_cast<sockaddr*>(&storage), length) != 0
        || ::listen(descriptor, SOMAXCONN) != 0)
        return failed(descriptor);
    return listen(descriptor);
}

bool TcpServer::listen(int socketDescriptor)
{
    sockaddr_storage bound = {};
    socklen_t length = sizeof(bound);
    if (::getsockname(socketDescriptor, reinterpret_cast<sockaddr*>(&bound), &length) != 0)
        return failed(socketDescriptor);
    port = ntohs(bound.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&bound)->sin6_port
                                             : reinterpret_cast<sockaddr_in*>(&bound)->sin_port);
    return takeListener(socketDescriptor);
}

Socket* TcpServer::wrap(int descriptor)
{
    auto* socket = new QTcpSocket;
    if (!socket->setSocketDescriptor(descriptor)) {
        delete socket;
        ::close(descriptor);
        return nullptr;
    }
    return new TcpSocket(socket);
}
