#ifndef UPNPINTERFACEHANDLER_H
#define UPNPINTERFACEHANDLER_H

#include "ssdpanswerschedule.h"
#include "ssdpmessage.h"

#include <QElapsedTimer>
#include <QHostAddress>
#include <QNetworkAddressEntry>
#include <QNetworkDatagram>
#include <QNetworkInterface>
#include <QObject>
#include <QTimer>
#include <QUdpSocket>
#include <QVector>

#include <memory>

class IGMPQuerier;
class UpnpCoordinator;

// The durations of SSDP advertising, in milliseconds; the defaults are the
// daemon's. Tests shrink them.
struct UpnpTimings
{
    int rescanInterval = 10000;
    int firstAnnouncement = 100;
    // An alive burst is repeated after aliveRepeatMinimum + random mod
    // aliveRepeatSteps steps of aliveRepeatStep: 870 to 1769 s, always below
    // the advertised max-age of 1800 s.
    int aliveRepeatMinimum = 870000;
    int aliveRepeatSteps = 900;
    int aliveRepeatStep = 1000;
    // The second copy of an alive or update burst: 50 to 149 ms later.
    int secondBurstMinimum = 50;
    int secondBurstSpread = 100;
    int joinRetryInterval = 30000;
    qint64 joinErrorLogInterval = 300000;
};

// The SSDP endpoint of one address of one interface: a socket bound to the
// SSDP group of the address's family, announcements on a random schedule,
// answers to searches, and the IGMP querier of the interface when enabled.
// Created, driven and deleted by the UpnpCoordinator, whose shared values
// (UDN, SERVER text, device types, boot id, config id) it announces.
class UpnpInterfaceHandler : public QObject
{
    Q_OBJECT

public:
    UpnpInterfaceHandler(const QNetworkInterface& interface, const QNetworkAddressEntry& addressEntry,
                         const QHostAddress& groupAddress, const QByteArray& location,
                         UpnpCoordinator* coordinator, int answerBudget = SsdpAnswerSchedule::DefaultBudget);
    ~UpnpInterfaceHandler() override;

    // Each alive or update burst goes out twice, a short random pause apart;
    // an alive also schedules the next one. Byebye goes out twice at once.
    void sendAlive();
    void sendUpdate();
    void sendByeBye();
    // Runs an IGMP querier on this address while on; never on IPv6.
    void setEnableIGMPQuerier(bool on);

    // Validates a search and schedules one answer per matching target, each
    // after its own random delay within the searcher's MX. Searches from
    // outside the link are dropped: an answer is eight times the size of a
    // search, and must not be reflected at a forged source elsewhere.
    void handleMSearch(const QNetworkDatagram& datagram, const Ssdp::Headers& headers);
    // The interface's addresses as the last scan found them: a searcher in
    // one of their subnets (or at an IPv6 link-local address) is on the link.
    void setInterfaceAddresses(const QList<QNetworkAddressEntry>& entries);
    bool isOnLink(const QHostAddress& source) const;
    // ST -> USN of every target that answers st, ordered by ST.
    QMap<QByteArray, QByteArray> calculateStReplies(const QByteArray& st) const;
    QByteArray buildSearchReply(const QByteArray& st, const QByteArray& usn) const;

    const QNetworkInterface& networkInterface() const { return interface; }
    const QNetworkAddressEntry& addressEntry() const { return entry; }
    const QHostAddress& groupAddress() const { return group; }
    const QByteArray& location() const { return locationUrl; }
    IGMPQuerier* igmpQuerier() const { return querier.get(); }
    const SsdpAnswerSchedule& answerSchedule() const { return answers; }

private slots:
    void tryJoinMulticastGroup();
    void onDatagramReceived();

private:
    void sendSingleAdvertisement(const QByteArray& nts, const QByteArray& nt, const QByteArray& usn);
    void sendAdvertisements(const QByteArray& nts);
    void sendSecondBurst(const QByteArray& nts);
    void answerSearch(const QHostAddress& sender, quint16 port, const std::optional<std::string_view>& man,
                      const std::optional<std::string_view>& mx, const std::optional<std::string_view>& st);
    void prepareAnswers();
    bool sendAnswer(const QHostAddress& host, quint16 port, int target);
    bool joinGroup();
    bool addressStillAssigned() const;
    void unpinSourceAddress();

    std::unique_ptr<IGMPQuerier> querier;
    UpnpCoordinator* coordinator;
    QNetworkInterface interface;
    QNetworkAddressEntry entry;
    QHostAddress group;
    QByteArray locationUrl;
    QUdpSocket socket;
    QTimer announceTimer;
    QElapsedTimer joinErrorTimer;
    qint32 suppressedCount = 0;
    // Shared by all endpoints of the interface: a rescan hands the same list
    // to each of them, at no cost per endpoint.
    QList<QNetworkAddressEntry> interfaceAddresses;
    SsdpAnswerSchedule answers;
    // The answer texts by target (root device, UUID, each device type), and
    // the targets in the order in which a search for ssdp:all schedules them
    // (by ST), made when first needed and again after every change of the
    // shared values, which always comes with an update burst.
    struct SearchTarget
    {
        QByteArray st;
        int index;
    };
    QVector<QByteArray> answerTexts;
    QVector<SearchTarget> searchTargets;
    QNetworkDatagram answerDatagram;
};

#endif // UPNPINTERFACEHANDLER_H
