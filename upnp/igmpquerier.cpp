#include "igmpquerier.h"

#include "logginginterface.h"

#include <QSocketNotifier>
#include <QtEndian>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr quint32 AllHostsGroup = 0xE0000001;   // 224.0.0.1
constexpr quint32 AllRoutersGroup = 0xE0000002; // 224.0.0.2
constexpr int GeneralQueryResponseSeconds = 10;
// The last member query interval: a host that is still a member answers a
// group-specific query within it (the last member query interval of RFC 2236).
constexpr int GroupQueryResponseSeconds = 1;
constexpr int MaxGroups = 100;
constexpr int IPv4MinimumHeaderLength = 20;
constexpr int IGMPMessageLength = 8;

ip_mreqn membershipRequest(quint32 group, quint32 ownAddress, int interfaceIndex)
{
    ip_mreqn request = {};
    request.imr_multiaddr.s_addr = qToBigEndian(group);
    request.imr_address.s_addr = qToBigEndian(ownAddress);
    request.imr_ifindex = interfaceIndex;
    return request;
}

} // namespace

IGMPQuerier::IGMPQuerier(const QNetworkInterface& interface, const QNetworkAddressEntry& addressEntry,
                         QObject* parent, const IGMPTimings& timings, Transmitter transmitter)
    : QObject(parent),
      interface(interface),
      addressEntry(addressEntry),
      ownAddress(addressEntry.ip().toIPv4Address()),
      timings(timings),
      transmitter(std::move(transmitter)),
      startupQueryCount(timings.startupQueryCount)
{
    CLOG(Debug) << "starting IGMP querier on" << interface.name() << "address" << addressEntry.ip().toString();

    generalQueryTimer.setInterval(timings.startupQueryInterval);
    connect(&generalQueryTimer, &QTimer::timeout, this, &IGMPQuerier::onGeneralQueryTimerExpired);
    otherQuerierPresentTimer.setInterval(timings.otherQuerierPresentInterval);
    otherQuerierPresentTimer.setSingleShot(true);
    connect(&otherQuerierPresentTimer, &QTimer::timeout, this,
            &IGMPQuerier::onOtherQuerierPresentTimerExpired);
    groupsTimer.setSingleShot(true);
    connect(&groupsTimer, &QTimer::timeout, this, &IGMPQuerier::onGroupsTimerExpired);

    if (!this->transmitter && openSocket()) {
        readNotifier = new QSocketNotifier(rawSocket, QSocketNotifier::Read, this);
        connect(readNotifier, &QSocketNotifier::activated, this, &IGMPQuerier::onReadyRead);
    }
    generalQueryTimer.start();
    sendGeneralQuery();
}

IGMPQuerier::~IGMPQuerier()
{
    CLOG(Debug) << "stopping IGMP querier on" << interface.name() << "address" << addressEntry.ip().toString();
    generalQueryTimer.stop();
    otherQuerierPresentTimer.stop();
    groupsTimer.stop();
    delete readNotifier;
    if (rawSocket >= 0)
        ::close(rawSocket);
}

bool IGMPQuerier::openSocket()
{
    rawSocket = ::socket(AF_INET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_IGMP);
    if (rawSocket < 0) {
        const int error = errno;
        CLOG(Error) << debugName() << "socket failed:" << QString::number(error) << std::strerror(error);
        return false;
    }
    // Only this interface's traffic: queriers on two links with overlapping
    // subnets must not hear each other.
    const QByteArray name = interface.name().toLocal8Bit();
    if (::setsockopt(rawSocket, SOL_SOCKET, SO_BINDTODEVICE, name.constData(), socklen_t(name.size())) != 0) {
        const int error = errno;
        CLOG(Warning) << debugName() << "failed to bind to the interface:" << QString::number(error)
                      << std::strerror(error);
    }
    // The kernel hands a raw socket only what is sent to groups this host is a
    // member of: other queriers' queries go to 224.0.0.1, hosts' leaves to
    // 224.0.0.2 (RFC 2236, section 3). Reports go to the group itself, so those
    // of groups the device joined (the SSDP group) arrive.
    const ip_mreqn allHosts = membershipRequest(AllHostsGroup, ownAddress, interface.index());
    const ip_mreqn allRouters = membershipRequest(AllRoutersGroup, ownAddress, interface.index());
    if (::setsockopt(rawSocket, IPPROTO_IP, IP_ADD_MEMBERSHIP, &allHosts, sizeof(allHosts)) != 0
        || ::setsockopt(rawSocket, IPPROTO_IP, IP_MULTICAST_IF, &allHosts, sizeof(allHosts)) != 0
        || ::setsockopt(rawSocket, IPPROTO_IP, IP_ADD_MEMBERSHIP, &allRouters, sizeof(allRouters)) != 0) {
        const int error = errno;
        CLOG(Warning) << debugName() << "failed to join the IGMP groups:" << QString::number(error)
                      << std::strerror(error);
    }
    return true;
}

QString IGMPQuerier::debugName() const
{
    return interface.name() + QLatin1Char('/') + addressEntry.ip().toString();
}

QByteArray IGMPQuerier::buildIGMPMessage(quint8 type, quint32 group, int maxResponseSeconds)
{
    QByteArray message(IGMPMessageLength, '\0');
    message[0] = char(type);
    message[1] = char(quint8(10 * maxResponseSeconds));
    qToBigEndian(group, message.data() + 4);
    qToBigEndian(calculateIGMPChecksum(message), message.data() + 2);
    return message;
}

quint16 IGMPQuerier::calculateIGMPChecksum(QByteArray message)
{
    if (message.size() % 2 != 0)
        message.append('\0');
    if (message.size() >= 4) {
        message[2] = '\0';
        message[3] = '\0';
    }
    quint32 sum = 0;
    const uchar* bytes = reinterpret_cast<const uchar*>(message.constData());
    for (int i = 0; i < message.size(); i += 2)
        sum += quint32(bytes[i] << 8 | bytes[i + 1]);
    sum = (sum >> 16) + (sum & 0xFFFF);
    sum += sum >> 16;
    return quint16(~sum & 0xFFFF);
}

bool IGMPQuerier::validateIGMPChecksum(const QByteArray& message)
{
    if (message.size() < 4)
        return false;
    return qFromBigEndian<quint16>(message.constData() + 2) == calculateIGMPChecksum(message);
}

void IGMPQuerier::sendQuery(quint32 group, quint32 destination, int maxResponseSeconds)
{
    transmit(buildIGMPMessage(MembershipQuery, group, maxResponseSeconds), destination);
}

bool IGMPQuerier::transmit(const QByteArray& message, quint32 destination)
{
    if (transmitter)
        return transmitter(message, destination);

    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = 0;
    address.sin_addr.s_addr = qToBigEndian(destination);
    // The kernel builds the IPv4 header of an IPPROTO_IGMP raw socket.
    if (::sendto(rawSocket, message.constData(), size_t(message.size()), MSG_NOSIGNAL,
                 reinterpret_cast<const sockaddr*>(&address), sizeof(address)) < 0) {
        const int error = errno;
        CLOG(Warning) << debugName() << "failed to send IGMP query:" << QString::number(error)
                      << std::strerror(error);
        return false;
    }
    return true;
}

void IGMPQuerier::sendGeneralQuery()
{
    sendQuery(0, AllHostsGroup, GeneralQueryResponseSeconds);
    if (startupQueryCount > 0 && --startupQueryCount == 0)
        generalQueryTimer.start(timings.queryInterval);
}

void IGMPQuerier::sendGroupQuery(quint32 group)
{
    sendQuery(group, group, GroupQueryResponseSeconds);
}

void IGMPQuerier::onGeneralQueryTimerExpired()
{
    if (querier)
        sendGeneralQuery();
}

void IGMPQuerier::onOtherQuerierPresentTimerExpired()
{
    if (querier)
        return;
    // The startup count stays spent: a querier that lost an election during its
    // startup phase goes on at the interval it had.
    querier = true;
    generalQueryTimer.start();
    sendGeneralQuery();
}

void IGMPQuerier::onReadyRead()
{
    char buffer[2000];
    const ssize_t received = ::recvfrom(rawSocket, buffer, sizeof(buffer), 0, nullptr, nullptr);
    if (received < 0) {
        const int error = errno;
        if (error != EAGAIN && error != EWOULDBLOCK && error != EINTR)
            CLOG(Warning) << debugName() << "recvfrom failed:" << QString::number(error)
                          << std::strerror(error);
        return;
    }
    handlePacket(QByteArray(buffer, int(received)));
}

void IGMPQuerier::handlePacket(const QByteArray& packet)
{
    if (packet.size() < IPv4MinimumHeaderLength)
        return;
    const int headerLength = (quint8(packet.at(0)) & 0x0F) * 4;
    if (headerLength < IPv4MinimumHeaderLength || headerLength > packet.size())
        return;
    const quint32 source = qFromBigEndian<quint32>(packet.constData() + 12);
    const quint32 destination = qFromBigEndian<quint32>(packet.constData() + 16);

    const QByteArray message = packet.mid(headerLength);
    if (message.size() < IGMPMessageLength || !validateIGMPChecksum(message))
        return;
    if (!QHostAddress(source).isInSubnet(addressEntry.ip(), addressEntry.prefixLength()))
        return;

    // A leave goes to all routers and names the group it leaves in the message.
    const quint8 type = quint8(message.at(0));
    const quint32 group = type == LeaveGroup ? qFromBigEndian<quint32>(message.constData() + 4) : destination;
    if (type == MembershipQuery) {
        handleQuery(source);
        return;
    }
    // Only multicast groups are tracked, and never all hosts, which every host is in.
    if ((group >> 28) != 0xE || group == AllHostsGroup)
        return;
    switch (type) {
    case Version2MembershipReport: handleReport(group, false); break;
    case Version1MembershipReport: handleReport(group, true); break;
    case LeaveGroup: handleLeave(group); break;
    default: break;
    }
}

void IGMPQuerier::handleQuery(quint32 source)
{
    // The lowest address on the link is the querier (RFC 2236, section 3).
    if (source == ownAddress || source > ownAddress)
        return;
    const bool wasQuerier = querier;
    startupQueryCount = 0;
    querier = false;
    generalQueryTimer.stop();
    otherQuerierPresentTimer.start();
    if (wasQuerier) {
        groupTable.clear();
        groupsTimer.stop();
    }
}

void IGMPQuerier::handleReport(quint32 group, bool version1)
{
    if (!querier)
        return;
    MulticastGroup& entry = groupTable[group];
    if (version1) {
        entry.state = V1MembersPresent;
        entry.version1HostClock.start();
    } else if (entry.state != V1MembersPresent) {
        entry.state = MembersPresent;
    }
    entry.membershipClock.start();
    entry.membershipTimeout = timings.groupMembershipInterval;
    updateGroupsTimer();
}

void IGMPQuerier::handleLeave(quint32 group)
{
    if (!querier)
        return;
    auto it = groupTable.find(group);
    // While version 1 hosts are present leaves are not honoured: they cannot
    // answer for the hosts that never send one.
    if (it != groupTable.end() && it->state == MembersPresent) {
        it->state = CheckingMembership;
        it->membershipClock.start();
        it->checkClock.start();
        it->membershipTimeout = timings.leaveMembershipTimeout;
        sendGroupQuery(group);
    }
    updateGroupsTimer();
}

void IGMPQuerier::onGroupsTimerExpired()
{
    for (auto it = groupTable.begin(); it != groupTable.end(); ++it) {
        MulticastGroup& group = *it;
        if (group.membershipClock.isValid() && group.membershipClock.elapsed() > group.membershipTimeout) {
            group.membershipClock.invalidate();
            if (group.state != NoMembersPresent) {
                group.version1HostClock.invalidate();
                group.checkClock.invalidate();
                group.state = NoMembersPresent;
            }
        }
        if (group.version1HostClock.isValid()
            && group.version1HostClock.elapsed() > timings.version1HostPresentInterval) {
            group.version1HostClock.invalidate();
            if (group.state == V1MembersPresent)
                group.state = MembersPresent;
        }
        if (group.checkClock.isValid() && group.checkClock.elapsed() > timings.lastMemberQueryInterval) {
            group.checkClock.invalidate();
            if (group.state == CheckingMembership) {
                group.checkClock.start();
                sendGroupQuery(it.key());
            }
        }
    }
    for (auto it = groupTable.begin(); it != groupTable.end();) {
        if (it->state == NoMembersPresent)
            it = groupTable.erase(it);
        else
            ++it;
    }
    updateGroupsTimer();
}

void IGMPQuerier::updateGroupsTimer()
{
    // Bounded, so that a flood of reports cannot grow the table. The victim is
    // random: a flood cannot aim at one group, and an evicted group that still
    // has members comes back with its next report.
    while (groupTable.size() > MaxGroups)
        groupTable.erase(std::next(groupTable.begin(), std::rand() % MaxGroups));

    qint64 next = -1;
    auto consider = [&next](const QElapsedTimer& clock, qint64 timeout) {
        if (!clock.isValid())
            return;
        const qint64 remaining = remainingTime(clock, timeout);
        if (next < 0 || remaining < next)
            next = remaining;
    };
    for (const MulticastGroup& group : qAsConst(groupTable)) {
        consider(group.membershipClock, group.membershipTimeout);
        consider(group.version1HostClock, timings.version1HostPresentInterval);
        consider(group.checkClock, timings.lastMemberQueryInterval);
    }
    if (next < 0) {
        groupsTimer.stop();
        return;
    }
    // A clock expires once more than its time has passed: fire no earlier than 1 ms.
    groupsTimer.start(int(std::max<qint64>(next, 1)));
}

qint64 IGMPQuerier::remainingTime(const QElapsedTimer& clock, qint64 timeout)
{
    return std::max<qint64>(0, timeout - clock.elapsed());
}
