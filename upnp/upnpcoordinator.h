#ifndef UPNPCOORDINATOR_H
#define UPNPCOORDINATOR_H

#include "upnpinterfacehandler.h"

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QNetworkAddressEntry>
#include <QNetworkInterface>
#include <QObject>
#include <QTimer>

#include <functional>

// Keeps one SSDP endpoint (UpnpInterfaceHandler) for every usable address of
// every interface it serves. It rescans the interfaces every 10 s and applies
// a change of an interface's addresses only once two consecutive scans agree
// on it, so that addresses that come and go during a link change are never
// announced. Each interface is judged on its own. It
// holds what all endpoints announce: UDN, SERVER text, device types, boot id,
// config id, and the IGMP querier switch.
class UpnpCoordinator : public QObject
{
    Q_OBJECT

public:
    UpnpCoordinator(const QByteArray& uuid, const QByteArray& locationTemplate, bool enableIGMPQuerier,
                    QObject* parent = nullptr, const UpnpTimings& timings = UpnpTimings());
    // Every endpoint says byebye before it goes.
    ~UpnpCoordinator() override;

    // Serves the interface from the second rescan on; an unknown name is logged.
    void addInterface(const QString& name);
    // Every endpoint of the interface says byebye and goes.
    void removeInterface(const QString& name);
    void updateActiveAdvertisers(const QNetworkInterface& interface);
    void createAdvertiser(const QString& locationTemplate, const QNetworkInterface& interface,
                          const QNetworkAddressEntry& entry);

    // Each change makes every endpoint send ssdp:update; no change sends nothing.
    void addDeviceType(const QByteArray& type);
    void removeDeviceType(const QByteArray& type);
    void clearDeviceTypes();
    void setConfigId(unsigned int id);
    void setEnableIGMPQuerier(bool enable);
    void updateAllAdvertisers();

    // Interface by interface in name order, endpoints in the order they were made.
    void onAllAdvertisers(const std::function<void(UpnpInterfaceHandler*)>& f) const;
    void onAllAdvertisers(const QString& name, const std::function<void(UpnpInterfaceHandler*)>& f) const;

    // Global or link-local; IPv4 not loopback; IPv6 permanent or still preferred.
    static bool isUsableAddress(const QNetworkAddressEntry& entry);
    // "sysname/release, UPnP/2.0, Pellinor/3.5.3" from uname.
    static QByteArray makeServerString();

    const QByteArray& uuid() const { return uuidText; }
    const QByteArray& serverString() const { return server; }
    const QList<QByteArray>& deviceTypes() const { return types; }
    quint32 bootId() const { return boot; }
    quint32 configId() const { return config; }
    const UpnpTimings& timings() const { return durations; }

public slots:
    void rescanInterfaces();

private:
    QByteArray uuidText;
    QByteArray server;
    QByteArray locationTemplate;
    QList<QByteArray> types;
    quint32 boot;
    quint32 config = 0xFFFFFFFF;
    QMap<QString, QList<UpnpInterfaceHandler*>> advertisers;
    QTimer rescanTimer;
    bool hadAdvertisers = false;
    bool enableIGMPQuerier;
    // A change of one interface's addresses seen by the last scan and not yet
    // applied. Kept per interface: interfaces that change at the same time
    // (Ethernet and WLAN coming up together), or one whose addresses change
    // on every scan, never hold up each other.
    struct PendingChange
    {
        QList<QNetworkAddressEntry> newEntries;
        QList<UpnpInterfaceHandler*> obsoleteAdvertisers;
    };
    QMap<QString, PendingChange> pending;
    UpnpTimings durations;
};

#endif // UPNPCOORDINATOR_H
