#include "syslogreceiver.h"

#include <QFile>

#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

SyslogReceiver::SyslogReceiver(const QString& path) : path(path)
{
    const QByteArray encoded = QFile::encodeName(path);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (size_t(encoded.size()) >= sizeof(address.sun_path)) {
        error = QStringLiteral("socket path too long: ") + path;
        return;
    }
    std::memcpy(address.sun_path, encoded.constData(), size_t(encoded.size()));
    ::unlink(encoded.constData());
    descriptor = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0 || ::bind(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        error = QString::fromLocal8Bit(std::strerror(errno));
        if (descriptor >= 0)
            ::close(descriptor);
        descriptor = -1;
    }
}

SyslogReceiver::~SyslogReceiver()
{
    if (descriptor >= 0) {
        ::close(descriptor);
        ::unlink(QFile::encodeName(path).constData());
    }
}

bool SyslogReceiver::receive(Line* line, int timeoutMs)
{
    if (descriptor < 0)
        return false;
    pollfd readable = {descriptor, POLLIN, 0};
    if (::poll(&readable, 1, timeoutMs) <= 0)
        return false;
    char buffer[65536];
    const ssize_t received = ::recv(descriptor, buffer, sizeof(buffer), 0);
    if (received < 0)
        return false;
    *line = parse(QByteArray(buffer, int(received)));
    return true;
}

SyslogReceiver::Line SyslogReceiver::parse(const QByteArray& datagram)
{
    Line line;
    const int close = datagram.indexOf('>');
    if (!datagram.startsWith('<') || close < 0) {
        line.text = datagram;
        return line;
    }
    line.priority = datagram.mid(1, close - 1).toInt();
    // "Mmm dd hh:mm:ss " is 16 characters.
    const int tagStart = close + 1 + 16;
    const int separator = datagram.indexOf(": ", tagStart);
    if (separator < 0) {
        line.text = datagram.mid(tagStart);
        return line;
    }
    line.tag = datagram.mid(tagStart, separator - tagStart);
    line.text = datagram.mid(separator + 2);
    return line;
}
