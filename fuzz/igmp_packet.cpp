// Fuzz target: the querier's receive path: the IPv4 header, the checksum, the
// subnet check and the dispatch into the election and the group states.
//
// Input: one byte of choices, then the packet. Bit 0 puts the source into the
// querier's subnet and bit 1 mends the IGMP checksum, so that most inputs get
// past the checks at the edge into the state machine; bits 2 to 4 run the
// groups, general query and other-querier timers' work. The querier lives from
// input to input, as it does on a busy link; whatever it sends must be an
// 8-byte query with a valid checksum, and its table stays within 100 groups.
#include "igmpquerier.h"

#include <QtEndian>

#include <cstdlib>

namespace {

constexpr quint32 OwnAddress = 0xC0000202; // 192.0.2.2/24

bool checkQuery(const QByteArray& message, quint32)
{
    if (message.size() != 8 || message.at(0) != char(IGMPQuerier::MembershipQuery)
        || !IGMPQuerier::validateIGMPChecksum(message))
        std::abort();
    return true;
}

IGMPQuerier& querier()
{
    static IGMPQuerier* instance = [] {
        QNetworkAddressEntry entry;
        entry.setIp(QHostAddress(OwnAddress));
        entry.setPrefixLength(24);
        return new IGMPQuerier(QNetworkInterface(), entry, nullptr, IGMPTimings(), checkQuery);
    }();
    return *instance;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1)
        return 0;
    QByteArray packet(reinterpret_cast<const char*>(data) + 1, int(size) - 1);
    const int headerLength = packet.isEmpty() ? 0 : (quint8(packet.at(0)) & 0x0F) * 4;
    if ((data[0] & 1) && packet.size() >= 16)
        qToBigEndian((OwnAddress & 0xFFFFFF00) | quint8(packet.at(15)), packet.data() + 12);
    if ((data[0] & 2) && headerLength >= 20 && packet.size() >= headerLength + 4)
        qToBigEndian(IGMPQuerier::calculateIGMPChecksum(packet.mid(headerLength)), packet.data() + headerLength + 2);
    IGMPQuerier& target = querier();
    target.handlePacket(packet);
    if (data[0] & 4)
        target.onGroupsTimerExpired();
    if (data[0] & 8)
        target.onGeneralQueryTimerExpired();
    if (data[0] & 16)
        target.onOtherQuerierPresentTimerExpired();
    if (target.groups().size() > 100)
        std::abort();
    return 0;
}
