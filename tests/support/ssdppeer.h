#ifndef SSDPPEER_H
#define SSDPPEER_H

#include <QElapsedTimer>
#include <QNetworkDatagram>
#include <QNetworkInterface>
#include <QUdpSocket>

#include <netinet/in.h>

// The other end of an SSDP link, as a control point sees it: one socket that
// receives the group's NOTIFYs on an interface, one that sends searches and
// receives their unicast answers. Create it while the thread is in the
// control point's network namespace.
class SsdpPeer
{
public:
    struct Received
    {
        QNetworkDatagram datagram;
        qint64 at; // milliseconds since the peer was made
    };

    // Searches leave from source, or from the address the kernel picks.
    SsdpPeer(const QString& interfaceName, const QHostAddress& group, const QHostAddress& source = QHostAddress())
        : interface(QNetworkInterface::interfaceFromName(interfaceName)), group(group)
    {
        clock.start();
        const QHostAddress any = group.protocol() == QAbstractSocket::IPv6Protocol ? QHostAddress::AnyIPv6
                                                                                  : QHostAddress::AnyIPv4;
        listening = notifySocket.bind(any, 1900, QUdpSocket::ShareAddress | QUdpSocket::ReuseAddressHint)
                    && notifySocket.joinMulticastGroup(group, interface)
                    && searchSocket.bind(source.isNull() ? any : source, 0);
        // Room for the answers of a flood of searches while the test is busy sending.
        const int answerBuffer = 32 << 20;
        ::setsockopt(int(searchSocket.socketDescriptor()), SOL_SOCKET, SO_RCVBUFFORCE, &answerBuffer,
                     sizeof(answerBuffer));
        searchSocket.setMulticastInterface(interface);
        // Only the group's traffic on this interface, not what other links of the namespace carry.
        const int off = 0;
        ::setsockopt(int(notifySocket.socketDescriptor()), IPPROTO_IP, IP_MULTICAST_ALL, &off, sizeof(off));
        // The peer's own searches are not looped back to its listening socket.
        searchSocket.setSocketOption(QAbstractSocket::MulticastLoopbackOption, 0);
        QObject::connect(&notifySocket, &QUdpSocket::readyRead, [this] { drain(notifySocket, notifies); });
        QObject::connect(&searchSocket, &QUdpSocket::readyRead, [this] { drain(searchSocket, answers); });
    }

    bool isValid() const { return listening; }
    // The port that searches leave from and answers come back to.
    quint16 searchPort() const { return searchSocket.localPort(); }

    // Sends a search datagram to the group (or any text, for bad input).
    void send(const QByteArray& text)
    {
        QNetworkDatagram datagram(text, group, 1900);
        // An interface index would make the kernel pick the source address;
        // a socket bound to one leaves through the multicast interface.
        const QHostAddress source = searchSocket.localAddress();
        if (source == QHostAddress::AnyIPv4 || source == QHostAddress::AnyIPv6)
            datagram.setInterfaceIndex(uint(interface.index()));
        searchSocket.writeDatagram(datagram);
    }

    // NOTIFYs received so far with the given NTS (all when empty).
    QList<Received> notifiesWith(const QByteArray& nts = QByteArray()) const
    {
        QList<Received> matching;
        for (const Received& received : notifies)
            if (received.datagram.data().startsWith("NOTIFY * HTTP/1.1\r\n")
                && (nts.isEmpty() || received.datagram.data().contains("\r\nNTS: " + nts + "\r\n")))
                matching.append(received);
        return matching;
    }

    QNetworkInterface interface;
    QHostAddress group;
    QElapsedTimer clock;
    QList<Received> notifies;
    QList<Received> answers;

private:
    void drain(QUdpSocket& socket, QList<Received>& into)
    {
        while (socket.hasPendingDatagrams())
            into.append({socket.receiveDatagram(), clock.elapsed()});
    }

    QUdpSocket notifySocket;
    QUdpSocket searchSocket;
    bool listening = false;
};

// A search for st that lets answers take mx seconds.
inline QByteArray ssdpSearch(const QByteArray& st, const QByteArray& mx = "1")
{
    return "M-SEARCH * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nMAN: \"ssdp:discover\"\r\nMX: " + mx + "\r\nST: " + st
           + "\r\n\r\n";
}

// The value of one header of an SSDP text, or empty.
inline QByteArray ssdpHeader(const QByteArray& text, const QByteArray& name)
{
    const int start = text.indexOf("\r\n" + name + ": ");
    if (start < 0)
        return QByteArray();
    const int valueStart = start + 4 + name.size();
    return text.mid(valueStart, text.indexOf("\r\n", valueStart) - valueStart);
}

#endif // SSDPPEER_H
