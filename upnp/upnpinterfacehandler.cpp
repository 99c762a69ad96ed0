#include "upnpinterfacehandler.h"

#include "igmpquerier.h"
#include "logginginterface.h"
#include "upnpcoordinator.h"

#include <QtEndian>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>

UpnpInterfaceHandler::UpnpInterfaceHandler(const QNetworkInterface& interface,
                                           const QNetworkAddressEntry& addressEntry,
                                           const QHostAddress& groupAddress, const QByteArray& location,
                                           UpnpCoordinator* coordinator, int answerBudget)
    : QObject(coordinator),
      coordinator(coordinator),
      interface(interface),
      entry(addressEntry),
      group(groupAddress),
      locationUrl(location),
      interfaceAddresses{addressEntry},
      answers([this](const QHostAddress& host, quint16 port, int target) { return sendAnswer(host, port, target); },
              answerBudget)
{
    announceTimer.setSingleShot(true);
    connect(&announceTimer, &QTimer::timeout, this, &UpnpInterfaceHandler::sendAlive);
    announceTimer.start(coordinator->timings().firstAnnouncement);

    CLOG(Debug) << interface.name() << "source" << entry.ip().toString() << "advertising to"
                << group.toString();

    connect(&socket, &QUdpSocket::readyRead, this, &UpnpInterfaceHandler::onDatagramReceived);
    // Bound to the group, not to the own address: all endpoints of a family
    // share the group's port 1900.
    if (!socket.bind(group, Ssdp::Port, QUdpSocket::ShareAddress | QUdpSocket::ReuseAddressHint))
        CLOG(Warning) << interface.name() << "bind failed:" << socket.errorString();
    tryJoinMulticastGroup();
}

UpnpInterfaceHandler::~UpnpInterfaceHandler() = default;

bool UpnpInterfaceHandler::joinGroup()
{
    const int descriptor = int(socket.socketDescriptor());
    if (entry.ip().protocol() == QAbstractSocket::IPv4Protocol) {
        ip_mreqn request = {};
        request.imr_multiaddr.s_addr = qToBigEndian(group.toIPv4Address());
        request.imr_address.s_addr = qToBigEndian(entry.ip().toIPv4Address());
        request.imr_ifindex = interface.index();
        if (::setsockopt(descriptor, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof(request)) != 0)
            return false;
        // Multicast from this socket leaves through this interface and address.
        ::setsockopt(descriptor, IPPROTO_IP, IP_MULTICAST_IF, &request, sizeof(request));
        return true;
    }
    ipv6_mreq request = {};
    const Q_IPV6ADDR address = group.toIPv6Address();
    std::memcpy(&request.ipv6mr_multiaddr, &address, sizeof(address));
    request.ipv6mr_interface = unsigned(interface.index());
    return ::setsockopt(descriptor, IPPROTO_IPV6, IPV6_ADD_MEMBERSHIP, &request, sizeof(request)) == 0;
}

void UpnpInterfaceHandler::tryJoinMulticastGroup()
{
    if (joinGroup()) {
        if (suppressedCount > 0)
            CLOG(Notice) << interface.name() << "multicast group" << group.toString()
                         << "joined successfully after suppressing" << QString::number(suppressedCount)
                         << "errors";
        else
            CLOG(Notice) << interface.name() << "multicast group" << group.toString() << "joined successfully";
        suppressedCount = 0;
        joinErrorTimer.invalidate();
        return;
    }

    const int error = errno;
    // Retried every 30 s for as long as the endpoint lives, but logged at most
    // once per five minutes.
    if (joinErrorTimer.isValid() && joinErrorTimer.elapsed() < coordinator->timings().joinErrorLogInterval) {
        ++suppressedCount;
    } else {
        CLOG(Error) << interface.name() << "failed to join multicast group" << group.toString() << ":"
                    << QString::number(error) << std::strerror(error);
        joinErrorTimer.start();
        if (suppressedCount > 0) {
            CLOG(Notice) << interface.name() << "(previous message suppressed" << QString::number(suppressedCount)
                         << "times)";
            suppressedCount = 0;
        }
    }
    QTimer::singleShot(coordinator->timings().joinRetryInterval, this, &UpnpInterfaceHandler::tryJoinMulticastGroup);
}

void UpnpInterfaceHandler::sendSingleAdvertisement(const QByteArray& nts, const QByteArray& nt, const QByteArray& usn)
{
    QNetworkDatagram datagram(Ssdp::notifyMessage(Ssdp::hostText(group), locationUrl, nt, nts,
                                                  coordinator->serverString(), usn, coordinator->bootId(),
                                                  coordinator->configId()),
                              group, Ssdp::Port);
    datagram.setInterfaceIndex(uint(interface.index()));
    datagram.setSender(entry.ip(), 0);
    datagram.setHopLimit(2);
    if (socket.writeDatagram(datagram) >= 0 || addressStillAssigned())
        return;
    // The address has gone from the interface and can no longer be a source.
    // This endpoint's last messages, its byebye, then leave from another
    // address of the interface rather than not at all, so that control points
    // learn that the location is gone.
    unpinSourceAddress();
    datagram.setSender(QHostAddress(), 0);
    socket.writeDatagram(datagram);
}

bool UpnpInterfaceHandler::addressStillAssigned() const
{
    const QList<QNetworkAddressEntry> entries = QNetworkInterface::interfaceFromIndex(interface.index()).addressEntries();
    return std::any_of(entries.cbegin(), entries.cend(),
                       [this](const QNetworkAddressEntry& assigned) { return assigned.ip() == entry.ip(); });
}

void UpnpInterfaceHandler::unpinSourceAddress()
{
    if (entry.ip().protocol() != QAbstractSocket::IPv4Protocol)
        return;
    ip_mreqn request = {};
    request.imr_ifindex = interface.index();
    ::setsockopt(int(socket.socketDescriptor()), IPPROTO_IP, IP_MULTICAST_IF, &request, sizeof(request));
}

void UpnpInterfaceHandler::sendAdvertisements(const QByteArray& nts)
{
    const QByteArray udn = "uuid:" + coordinator->uuid();
    sendSingleAdvertisement(nts, Ssdp::RootDevice, udn + "::" + Ssdp::RootDevice);
    sendSingleAdvertisement(nts, udn, udn);
    for (const QByteArray& type : coordinator->deviceTypes())
        sendSingleAdvertisement(nts, type, udn + "::" + type);
}

void UpnpInterfaceHandler::sendSecondBurst(const QByteArray& nts)
{
    const UpnpTimings& timings = coordinator->timings();
    // Tied to this endpoint: a deleted endpoint sends no second copy.
    QTimer::singleShot(timings.secondBurstMinimum + std::rand() % timings.secondBurstSpread, this,
                       [this, nts] { sendAdvertisements(nts); });
}

void UpnpInterfaceHandler::sendAlive()
{
    sendAdvertisements(Ssdp::Alive);
    sendSecondBurst(Ssdp::Alive);
    const UpnpTimings& timings = coordinator->timings();
    announceTimer.start(timings.aliveRepeatMinimum + std::rand() % timings.aliveRepeatSteps * timings.aliveRepeatStep);
}

void UpnpInterfaceHandler::sendUpdate()
{
    answerTexts.clear();
    searchTargets.clear();
    sendAdvertisements(Ssdp::Update);
    sendSecondBurst(Ssdp::Update);
}

void UpnpInterfaceHandler::sendByeBye()
{
    sendAdvertisements(Ssdp::ByeBye);
    sendAdvertisements(Ssdp::ByeBye);
}

void UpnpInterfaceHandler::setEnableIGMPQuerier(bool on)
{
    if (on == bool(querier))
        return;
    if (!on) {
        querier.reset();
        return;
    }
    if (entry.ip().protocol() == QAbstractSocket::IPv4Protocol)
        querier.reset(new IGMPQuerier(interface, entry));
}

void UpnpInterfaceHandler::onDatagramReceived()
{
    // A search fits in well under 1 KiB: anything this large is dropped unread,
    // so that a datagram full of headers costs no parsing. The size asked
    // once is handed on: receiveDatagram() would ask again without it.
    const qint64 size = socket.pendingDatagramSize();
    if (size < 0)
        return; // nothing to read after all
    if (size > Ssdp::MaxDatagramSize) {
        socket.receiveDatagram(0);
        return;
    }
    const QNetworkDatagram datagram = socket.receiveDatagram(size);
    // Endpoints of one family share the group's port and all receive what
    // arrives on any interface; each answers only on its own, where its
    // location can be reached.
    if (datagram.interfaceIndex() != 0 && int(datagram.interfaceIndex()) != interface.index())
        return;
    // Searches are read without a header map: this runs for every search a
    // flood brings. The views point into data.
    const QByteArray data = datagram.data();
    const Ssdp::SearchHeaders search = Ssdp::parseSearch(data);
    if (search.isSearch)
        answerSearch(datagram.senderAddress(), quint16(datagram.senderPort()), search.man, search.mx, search.st);
}

void UpnpInterfaceHandler::handleMSearch(const QNetworkDatagram& datagram, const Ssdp::Headers& headers)
{
    const auto header = [&headers](const char* name) -> std::optional<std::string_view> {
        const auto it = headers.constFind(name);
        if (it == headers.cend())
            return std::nullopt;
        return std::string_view(it->constData(), size_t(it->size()));
    };
    answerSearch(datagram.senderAddress(), quint16(datagram.senderPort()), header("man"), header("mx"), header("st"));
}

void UpnpInterfaceHandler::answerSearch(const QHostAddress& sender, quint16 port,
                                        const std::optional<std::string_view>& man,
                                        const std::optional<std::string_view>& mx,
                                        const std::optional<std::string_view>& st)
{
    if (!isOnLink(sender))
        return;
    if (!man || !mx || !st)
        return;
    if (*man != "\"ssdp:discover\"")
        return;
    prepareAnswers();
    const quint32 span = Ssdp::responseSpan(QByteArray(mx->data(), int(mx->size())));
    const bool all = *st == Ssdp::All;
    // The targets of calculateStReplies(st), in its order: every target for
    // ssdp:all, else the one whose ST equals st.
    for (const SearchTarget& target : qAsConst(searchTargets)) {
        if (!all && std::string_view(target.st.constData(), size_t(target.st.size())) != *st)
            continue;
        const quint32 delay = quint32(std::rand()) % span;
        // Addressed to the searcher, out through the interface the search came in on.
        answers.schedule(sender, port, target.index, delay);
    }
}

void UpnpInterfaceHandler::prepareAnswers()
{
    if (!answerTexts.isEmpty())
        return;
    const QByteArray udn = "uuid:" + coordinator->uuid();
    answerTexts << buildSearchReply(Ssdp::RootDevice, udn + "::" + Ssdp::RootDevice) << buildSearchReply(udn, udn);
    for (const QByteArray& type : coordinator->deviceTypes())
        answerTexts << buildSearchReply(type, udn + "::" + type);
    const QMap<QByteArray, QByteArray> all = calculateStReplies(Ssdp::All);
    searchTargets.clear();
    for (auto it = all.cbegin(); it != all.cend(); ++it) {
        const int index = it.key() == Ssdp::RootDevice ? 0
                          : it.key() == udn            ? 1
                                                       : 2 + coordinator->deviceTypes().indexOf(it.key());
        searchTargets.append({it.key(), index});
    }
}

bool UpnpInterfaceHandler::sendAnswer(const QHostAddress& host, quint16 port, int target)
{
    prepareAnswers();
    if (target >= answerTexts.size())
        return true; // the device type went meanwhile
    // One datagram for all answers: only its text and destination change.
    answerDatagram.setData(answerTexts.at(target));
    answerDatagram.setDestination(host, port);
    answerDatagram.setInterfaceIndex(uint(interface.index()));
    if (socket.writeDatagram(answerDatagram) >= 0)
        return true;
    // A full send buffer drains within moments: the answer waits for it.
    return errno != EAGAIN && errno != EWOULDBLOCK && errno != ENOBUFS;
}

void UpnpInterfaceHandler::setInterfaceAddresses(const QList<QNetworkAddressEntry>& entries)
{
    interfaceAddresses = entries;
}

bool UpnpInterfaceHandler::isOnLink(const QHostAddress& source) const
{
    if (source.protocol() == QAbstractSocket::IPv6Protocol && source.isLinkLocal())
        return true;
    // The subnets of the interface's addresses of this endpoint's family; its
    // own address's subnet when the interface has none of them.
    const QAbstractSocket::NetworkLayerProtocol family = entry.ip().protocol();
    bool familySeen = false;
    for (const QNetworkAddressEntry& address : qAsConst(interfaceAddresses)) {
        const QHostAddress ip = address.ip();
        if (ip.protocol() != family)
            continue;
        familySeen = true;
        if (source.isInSubnet(ip, address.prefixLength()))
            return true;
    }
    return !familySeen && source.isInSubnet(entry.ip(), entry.prefixLength());
}

QMap<QByteArray, QByteArray> UpnpInterfaceHandler::calculateStReplies(const QByteArray& st) const
{
    const QByteArray udn = "uuid:" + coordinator->uuid();
    const bool all = st == Ssdp::All;
    QMap<QByteArray, QByteArray> replies;
    if (all || st == Ssdp::RootDevice)
        replies.insert(Ssdp::RootDevice, udn + "::" + Ssdp::RootDevice);
    if (all || st == udn)
        replies.insert(udn, udn);
    for (const QByteArray& type : coordinator->deviceTypes())
        if (all || st == type)
            replies.insert(type, udn + "::" + type);
    return replies;
}

QByteArray UpnpInterfaceHandler::buildSearchReply(const QByteArray& st, const QByteArray& usn) const
{
    return Ssdp::searchReply(locationUrl, coordinator->serverString(), st, usn, coordinator->bootId(),
                             coordinator->configId());
}
