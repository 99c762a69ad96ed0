#ifndef NETNS_H
#define NETNS_H

#include <QCoreApplication>
#include <QFile>
#include <QProcess>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

// Private network namespaces for one test, made with iproute2 and removed
// again when the object goes. Names carry the process id, so parallel test
// programs never meet. Needs root.
class NetworkNamespaces
{
public:
    NetworkNamespaces() : original(::open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC)) {}
    ~NetworkNamespaces()
    {
        leave();
        for (const QString& name : qAsConst(created))
            ip({"netns", "delete", fullName(name)});
        if (original >= 0)
            ::close(original);
    }
    NetworkNamespaces(const NetworkNamespaces&) = delete;
    NetworkNamespaces& operator=(const NetworkNamespaces&) = delete;

    // Creates namespace name with its loopback up. IPv6 addresses, link-local
    // ones included, are usable at once: no duplicate address detection in a
    // namespace of one test.
    bool add(const QString& name)
    {
        if (!ip({"netns", "add", fullName(name)}))
            return false;
        created.append(name);
        return ip({"-n", fullName(name), "link", "set", "lo", "up"})
               && run(name, {"sysctl", "-qw", "net.ipv6.conf.all.accept_dad=0", "net.ipv6.conf.default.accept_dad=0"});
    }
    // A veth pair from interface1 in namespace1 to interface2 in namespace2, both up.
    bool addVethPair(const QString& namespace1, const QString& interface1, const QString& namespace2,
                     const QString& interface2)
    {
        return ip({"link", "add", interface1, "netns", fullName(namespace1), "type", "veth", "peer", "name", interface2,
                   "netns", fullName(namespace2)})
               && ip({"-n", fullName(namespace1), "link", "set", interface1, "up"})
               && ip({"-n", fullName(namespace2), "link", "set", interface2, "up"});
    }
    // A veth link with an address on each end, such as "192.0.2.2/24".
    bool addLink(const QString& namespace1, const QString& interface1, const QString& address1,
                 const QString& namespace2, const QString& interface2, const QString& address2)
    {
        return addVethPair(namespace1, interface1, namespace2, interface2) && addAddress(namespace1, interface1, address1)
               && addAddress(namespace2, interface2, address2);
    }
    // Adds an address such as "192.0.2.2/24" or "2001:db8::2/64" to an interface.
    bool addAddress(const QString& name, const QString& interface, const QString& address)
    {
        QStringList arguments{"-n", fullName(name), "address", "add", address, "dev", interface};
        return ip(address.contains(':') ? arguments << "nodad" : arguments);
    }
    // Runs a command inside namespace name; output gets its standard output.
    bool run(const QString& name, const QStringList& command, QByteArray* output = nullptr)
    {
        return ip(QStringList{"netns", "exec", fullName(name)} + command, output);
    }

    // Moves the calling thread into namespace name: sockets and interface
    // lookups it makes from then on belong there. Sockets keep the namespace
    // they were made in.
    bool enter(const QString& name)
    {
        const int descriptor = ::open(QFile::encodeName("/var/run/netns/" + fullName(name)), O_RDONLY | O_CLOEXEC);
        const bool entered = descriptor >= 0 && ::setns(descriptor, CLONE_NEWNET) == 0;
        if (!entered)
            error = QString("entering %1: %2").arg(fullName(name), QString::fromLocal8Bit(std::strerror(errno)));
        if (descriptor >= 0)
            ::close(descriptor);
        return entered;
    }
    // Back to the namespace the object was made in.
    bool leave()
    {
        if (original >= 0 && ::setns(original, CLONE_NEWNET) == 0)
            return true;
        error = QString("leaving: %1").arg(QString::fromLocal8Bit(std::strerror(errno)));
        return false;
    }

    // The system-wide name of namespace name.
    QString fullName(const QString& name) const { return prefix + name; }
    QString errorString() const { return error; }

private:
    bool ip(const QStringList& arguments, QByteArray* output = nullptr)
    {
        QProcess process;
        process.start("ip", arguments);
        if (!process.waitForFinished(30000) || process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0) {
            error = QString("ip %1: %2").arg(arguments.join(' '), QString::fromLocal8Bit(process.readAllStandardError()));
            return false;
        }
        if (output)
            *output = process.readAllStandardOutput();
        return true;
    }

    const QString prefix = QString("upnpt%1_").arg(QCoreApplication::applicationPid());
    QStringList created;
    const int original;
    QString error;
};

#endif // NETNS_H
