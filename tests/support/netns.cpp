#include "netns.h"

#include <QCoreApplication>
#include <QFile>
#include <QProcess>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

NetworkNamespaces::NetworkNamespaces()
    : prefix(QStringLiteral("upnpt%1_").arg(QCoreApplication::applicationPid()))
{
    original = ::open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
}

NetworkNamespaces::~NetworkNamespaces()
{
    leave();
    for (const QString& name : qAsConst(created))
        ip({"netns", "delete", fullName(name)});
    if (original >= 0)
        ::close(original);
}

bool NetworkNamespaces::ip(const QStringList& arguments, QByteArray* output)
{
    QProcess process;
    process.start(QStringLiteral("ip"), arguments);
    if (!process.waitForFinished(30000) || process.exitStatus() != QProcess::NormalExit
        || process.exitCode() != 0) {
        error = QStringLiteral("ip %1: %2").arg(arguments.join(' '),
                                                QString::fromLocal8Bit(process.readAllStandardError()));
        return false;
    }
    if (output)
        *output = process.readAllStandardOutput();
    return true;
}

bool NetworkNamespaces::add(const QString& name)
{
    if (!ip({"netns", "add", fullName(name)}))
        return false;
    created.append(name);
    // IPv6 addresses, link-local ones included, are usable at once: no
    // duplicate address detection in a namespace of one test.
    return ip({"-n", fullName(name), "link", "set", "lo", "up"})
           && run(name, {"sysctl", "-qw", "net.ipv6.conf.all.accept_dad=0", "net.ipv6.conf.default.accept_dad=0"});
}

bool NetworkNamespaces::addVethPair(const QString& namespace1, const QString& interface1,
                                    const QString& namespace2, const QString& interface2)
{
    return ip({"link", "add", interface1, "netns", fullName(namespace1), "type", "veth", "peer",
               "name", interface2, "netns", fullName(namespace2)})
           && ip({"-n", fullName(namespace1), "link", "set", interface1, "up"})
           && ip({"-n", fullName(namespace2), "link", "set", interface2, "up"});
}

bool NetworkNamespaces::addLink(const QString& namespace1, const QString& interface1, const QString& address1,
                                const QString& namespace2, const QString& interface2, const QString& address2)
{
    return addVethPair(namespace1, interface1, namespace2, interface2) && addAddress(namespace1, interface1, address1)
           && addAddress(namespace2, interface2, address2);
}

bool NetworkNamespaces::addAddress(const QString& name, const QString& interface, const QString& address)
{
    // No duplicate address detection: IPv6 addresses are usable at once.
    QStringList arguments{"-n", fullName(name), "address", "add", address, "dev", interface};
    if (address.contains(':'))
        arguments << "nodad";
    return ip(arguments);
}

bool NetworkNamespaces::run(const QString& name, const QStringList& command, QByteArray* output)
{
    return ip(QStringList{"netns", "exec", fullName(name)} + command, output);
}

bool NetworkNamespaces::enter(const QString& name)
{
    const QByteArray path = QFile::encodeName(QStringLiteral("/var/run/netns/") + fullName(name));
    const int descriptor = ::open(path.constData(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0 || ::setns(descriptor, CLONE_NEWNET) != 0) {
        error = QStringLiteral("entering %1: %2").arg(fullName(name), QString::fromLocal8Bit(std::strerror(errno)));
        if (descriptor >= 0)
            ::close(descriptor);
        return false;
    }
    ::close(descriptor);
    return true;
}

bool NetworkNamespaces::leave()
{
    if (original < 0 || ::setns(original, CLONE_NEWNET) != 0) {
        error = QStringLiteral("leaving: %1").arg(QString::fromLocal8Bit(std::strerror(errno)));
        return false;
    }
    return true;
}
