#ifndef NETNS_H
#define NETNS_H

#include <QByteArray>
#include <QString>
#include <QStringList>

// Private network namespaces for one test, made with iproute2 and removed
// again when the object goes. Names carry the process id, so parallel test
// programs never meet. Needs root.
class NetworkNamespaces
{
public:
    NetworkNamespaces();
    ~NetworkNamespaces();
    NetworkNamespaces(const NetworkNamespaces&) = delete;
    NetworkNamespaces& operator=(const NetworkNamespaces&) = delete;

    // Creates namespace name: loopback up, no duplicate address detection.
    bool add(const QString& name);
    // A veth pair from interface1 in namespace1 to interface2 in namespace2, both up.
    bool addVethPair(const QString& namespace1, const QString& interface1,
                     const QString& namespace2, const QString& interface2);
    // A veth link with an address on each end, such as "192.0.2.2/24".
    bool addLink(const QString& namespace1, const QString& interface1, const QString& address1,
                 const QString& namespace2, const QString& interface2, const QString& address2);
    // Adds an address such as "192.0.2.2/24" or "2001:db8::2/64" to an interface.
    bool addAddress(const QString& name, const QString& interface, const QString& address);
    // Runs a command inside namespace name; output gets its standard output.
    bool run(const QString& name, const QStringList& command, QByteArray* output = nullptr);

    // Moves the calling thread into namespace name: sockets and interface
    // lookups it makes from then on belong there. Sockets keep the namespace
    // they were made in.
    bool enter(const QString& name);
    // Back to the namespace the object was made in.
    bool leave();

    // The system-wide name of namespace name.
    QString fullName(const QString& name) const { return prefix + name; }
    QString errorString() const { return error; }

private:
    bool ip(const QStringList& arguments, QByteArray* output = nullptr);

    QString prefix;
    QStringList created;
    int original = -1;
    QString error;
};

#endif // NETNS_H
