#ifndef IGMPQUERIER_H
#define IGMPQUERIER_H

#include <QByteArray>
#include <QElapsedTimer>
#include <QMap>
#include <QNetworkAddressEntry>
#include <QNetworkInterface>
#include <QObject>
#include <QTimer>

#include <functional>

class QSocketNotifier;

// The durations of the querier, in milliseconds; the defaults are IGMPv2's
// (RFC 2236, section 8). Tests shrink them.
struct IGMPTimings
{
    int startupQueryInterval = 31250;
    int startupQueryCount = 2;
    int queryInterval = 125000;
    int otherQuerierPresentInterval = 255000;
    qint64 groupMembershipInterval = 260000;
    qint64 version1HostPresentInterval = 260000;
    qint64 lastMemberQueryInterval = 1000;
    // How long a group that a host left stays before it lapses: two
    // group-specific queries, lastMemberQueryInterval apart, fit in it.
    qint64 leaveMembershipTimeout = 2000;
};

// Makes this device the IGMPv2 querier of one IPv4 interface address, so that
// switches that snoop IGMP keep forwarding multicast (the SSDP group above all)
// where no router queries. Sends general queries, takes part in the querier
// election (the lowest address wins), tracks the groups that hosts report and
// checks a group with group-specific queries when a host leaves it.
//
// Everything arriving on the raw socket is checked where it enters and dropped
// silently when malformed.
class IGMPQuerier : public QObject
{
    Q_OBJECT

public:
    enum GroupState { NoMembersPresent = 0, MembersPresent = 1, V1MembersPresent = 2, CheckingMembership = 3 };
    Q_ENUM(GroupState)

    enum MessageType : quint8 {
        MembershipQuery = 0x11,
        Version1MembershipReport = 0x12,
        Version2MembershipReport = 0x16,
        LeaveGroup = 0x17,
    };

    struct MulticastGroup
    {
        QElapsedTimer membershipClock; // running (valid) since the last report or leave
        QElapsedTimer version1HostClock;
        QElapsedTimer checkClock;       // running while a leave is being checked
        qint64 membershipTimeout = 0;   // milliseconds
        GroupState state = NoMembersPresent;
    };

    // Sends one IGMP message to destination (an IPv4 address in host order);
    // true when it left. Replaces the raw socket, for tests of the state machine.
    using Transmitter = std::function<bool(const QByteArray& message, quint32 destination)>;

    // Starts at once: opens the raw socket (unless a transmitter is given) and
    // sends the first general query.
    IGMPQuerier(const QNetworkInterface& interface, const QNetworkAddressEntry& addressEntry,
                QObject* parent = nullptr, const IGMPTimings& timings = IGMPTimings(),
                Transmitter transmitter = Transmitter());
    ~IGMPQuerier() override;

    // An 8-byte IGMPv2 message, the group in network order (RFC 2236, section
    // 2). maxResponseSeconds is kept to the low 8 bits of its tenths; a query
    // with 0 there reads as IGMPv1's and sends member hosts back to version 1.
    static QByteArray buildIGMPMessage(quint8 type, quint32 group, int maxResponseSeconds);
    // The Internet checksum (RFC 1071) over message with bytes 2 and 3 taken as
    // zero and an odd length padded with a zero byte; 0xFFFF for no bytes.
    static quint16 calculateIGMPChecksum(QByteArray message);
    // Whether bytes 2 and 3 (big-endian) hold the checksum; false for fewer than 4 bytes.
    static bool validateIGMPChecksum(const QByteArray& message);

    void sendQuery(quint32 group, quint32 destination, int maxResponseSeconds);
    void sendGeneralQuery();
    void sendGroupQuery(quint32 group);

    // Checks and dispatches one received packet: an IPv4 header, then the IGMP
    // message. Packets that are cut short, carry a bad checksum, come from
    // outside the own subnet or are of an unknown type are dropped silently.
    void handlePacket(const QByteArray& packet);

    void updateGroupsTimer();
    // Milliseconds until clock has run for timeout milliseconds; 0 once passed.
    static qint64 remainingTime(const QElapsedTimer& clock, qint64 timeout);

    bool isQuerier() const { return querier; }
    const QMap<quint32, MulticastGroup>& groups() const { return groupTable; }
    QString debugName() const;

public slots:
    void onReadyRead();
    void onGeneralQueryTimerExpired();
    void onOtherQuerierPresentTimerExpired();
    void onGroupsTimerExpired();

private:
    bool openSocket();
    bool transmit(const QByteArray& message, quint32 destination);
    void handleQuery(quint32 source);
    void handleReport(quint32 group, bool version1);
    void handleLeave(quint32 group);

    QNetworkInterface interface;
    QNetworkAddressEntry addressEntry;
    quint32 ownAddress;
    IGMPTimings timings;
    Transmitter transmitter;
    int rawSocket = -1;
    QSocketNotifier* readNotifier = nullptr;
    QTimer generalQueryTimer;
    QTimer otherQuerierPresentTimer;
    QTimer groupsTimer;
    int startupQueryCount;
    bool querier = true;
    QMap<quint32, MulticastGroup> groupTable;
};

#endif // IGMPQUERIER_H
