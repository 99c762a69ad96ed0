#ifndef INTERFACEADDRESS_H
#define INTERFACEADDRESS_H

#include <QNetworkInterface>

// Look-ups among the addresses of an interface of the calling thread's
// network namespace; addresses are compared and returned without scope.

// The entry of address, or an empty entry.
inline QNetworkAddressEntry addressEntry(const QString& interfaceName, const QString& address)
{
    for (const QNetworkAddressEntry& entry : QNetworkInterface::interfaceFromName(interfaceName).addressEntries())
        if (entry.ip().toString().section('%', 0, 0) == address)
            return entry;
    return QNetworkAddressEntry();
}

// The IPv6 link-local address, or an empty text.
inline QString linkLocalAddress(const QString& interfaceName)
{
    for (const QNetworkAddressEntry& entry : QNetworkInterface::interfaceFromName(interfaceName).addressEntries())
        if (entry.ip().isLinkLocal() && entry.ip().protocol() == QAbstractSocket::IPv6Protocol)
            return entry.ip().toString().section('%', 0, 0);
    return QString();
}

#endif // INTERFACEADDRESS_H
