#include "upnpcoordinator.h"

#include "logginginterface.h"

#include <QDeadlineTimer>

#include <ctime>
#include <sys/utsname.h>

namespace {

// Seconds from the Unix epoch to 2020-01-01 00:00:00 UTC.
constexpr quint32 BootIdEpoch = 1577836800;

} // namespace

UpnpCoordinator::UpnpCoordinator(const QByteArray& uuid, const QByteArray& locationTemplate,
                                 bool enableIGMPQuerier, QObject* parent, const UpnpTimings& timings)
    : QObject(parent),
      uuidText(uuid),
      locationTemplate(locationTemplate),
      boot(quint32(std::time(nullptr)) - BootIdEpoch),
      enableIGMPQuerier(enableIGMPQuerier),
      durations(timings)
{
    connect(&rescanTimer, &QTimer::timeout, this, &UpnpCoordinator::rescanInterfaces);
    rescanTimer.start(durations.rescanInterval);
    server = makeServerString();
}

UpnpCoordinator::~UpnpCoordinator()
{
    onAllAdvertisers([](UpnpInterfaceHandler* advertiser) { advertiser->sendByeBye(); });
}

QByteArray UpnpCoordinator::makeServerString()
{
    utsname system = {};
    ::uname(&system);
    return QByteArray(system.sysname) + '/' + QByteArray(system.release) + ", UPnP/2.0, Pellinor/3.5.3";
}

bool UpnpCoordinator::isUsableAddress(const QNetworkAddressEntry& entry)
{
    const QHostAddress ip = entry.ip();
    if (!ip.isGlobal() && !ip.isLinkLocal())
        return false;
    switch (ip.protocol()) {
    case QAbstractSocket::IPv4Protocol: return !ip.isLoopback();
    // Deprecated temporary addresses are on their way out.
    case QAbstractSocket::IPv6Protocol: return entry.isPermanent() || !entry.preferredLifetime().hasExpired();
    default: return false;
    }
}

void UpnpCoordinator::addInterface(const QString& name)
{
    if (advertisers.contains(name))
        return;
    CLOG_AT(Info, 113) << "addInterface" << name;
    const QNetworkInterface interface = QNetworkInterface::interfaceFromName(name);
    if (!interface.isValid()) {
        CLOG_AT(Error, 117) << "cannot find interface named" << name;
        return;
    }
    // The endpoints come with the rescans, once the addresses are stable.
    advertisers.insert(interface.name(), {});
}

void UpnpCoordinator::removeInterface(const QString& name)
{
    CLOG_AT(Info, 220) << "removeInterface" << name;
    auto it = advertisers.find(name);
    if (it == advertisers.end())
        return;
    for (UpnpInterfaceHandler* advertiser : qAsConst(*it)) {
        advertiser->sendByeBye();
        advertiser->deleteLater();
    }
    advertisers.erase(it);
    pending.remove(name);
}

void UpnpCoordinator::rescanInterfaces()
{
    const QStringList names = advertisers.keys();
    for (const QString& name : names) {
        const QNetworkInterface interface = QNetworkInterface::interfaceFromName(name);
        if (interface.isValid())
            updateActiveAdvertisers(interface);
        else
            CLOG_AT(Warning, 238) << "have advertisers for" << name << "but did not find the interface";
    }
}

void UpnpCoordinator::updateActiveAdvertisers(const QNetworkInterface& interface)
{
    const QString name = interface.name();
    QList<QNetworkAddressEntry> fresh;
    for (const QNetworkAddressEntry& entry : interface.addressEntries())
        if (isUsableAddress(entry))
            fresh.append(entry);
    // Searchers on any subnet of the interface are answered, also while a
    // change of its addresses waits to be stable.
    const QList<QNetworkAddressEntry> usable = fresh;
    onAllAdvertisers(name, [&usable](UpnpInterfaceHandler* advertiser) { advertiser->setInterfaceAddresses(usable); });

    QList<UpnpInterfaceHandler*> obsolete;
    for (UpnpInterfaceHandler* advertiser : advertisers.value(name)) {
        if (fresh.contains(advertiser->addressEntry()))
            fresh.removeAll(advertiser->addressEntry());
        else
            obsolete.append(advertiser);
    }
    if (fresh.isEmpty() && obsolete.isEmpty()) {
        // Back to what is advertised: a change seen before has to be seen
        // twice again.
        pending.remove(name);
        return;
    }

    PendingChange& change = pending[name];
    if (fresh != change.newEntries || obsolete != change.obsoleteAdvertisers) {
        CLOG_AT(Info, 182) << "address changes not yet stable";
        change = {fresh, obsolete};
        return;
    }

    pending.remove(name);
    const bool hadAny = hadAdvertisers;
    // A new boot id tells control points that the device's addresses changed.
    if (hadAny)
        ++boot;
    for (const QNetworkAddressEntry& entry : qAsConst(fresh)) {
        CLOG_AT(Info, 197) << name << "advertising on" << entry.ip().toString();
        createAdvertiser(QString::fromUtf8(locationTemplate.constData()), interface, entry);
        if (!advertisers.value(name).isEmpty())
            advertisers.value(name).last()->setInterfaceAddresses(usable);
    }
    for (UpnpInterfaceHandler* advertiser : qAsConst(obsolete)) {
        CLOG_AT(Info, 202) << name << "removing obsolete advertiser" << advertiser->addressEntry().ip().toString();
        advertisers[name].removeAll(advertiser);
        advertiser->sendByeBye();
        advertiser->deleteLater();
    }
    if (hadAny)
        onAllAdvertisers([&fresh](UpnpInterfaceHandler* advertiser) {
            if (!fresh.contains(advertiser->addressEntry()))
                advertiser->sendUpdate();
        });
    hadAdvertisers = !advertisers.value(name).isEmpty();
}

void UpnpCoordinator::createAdvertiser(const QString& locationTemplate, const QNetworkInterface& interface,
                                       const QNetworkAddressEntry& entry)
{
    const QHostAddress ip = entry.ip();
    if (ip.isNull())
        return;
    QHostAddress group;
    QString host = ip.toString();
    switch (ip.protocol()) {
    case QAbstractSocket::IPv4Protocol:
        group = QHostAddress(QStringLiteral("239.255.255.250"));
        break;
    case QAbstractSocket::IPv6Protocol:
        group = QHostAddress(ip.isLinkLocal() ? QStringLiteral("ff02::c") : QStringLiteral("ff05::c"));
        group.setScopeId(ip.scopeId());
        host = QLatin1Char('[') + host.left(host.indexOf(QLatin1Char('%'))) + QLatin1Char(']');
        break;
    default:
        CLOG_AT(Warning, 273) << "Got address with unknown protocol" << QString::number(ip.protocol())
                              << ip.toString();
        return;
    }
    const QByteArray location = QString(locationTemplate).arg(host).toUtf8();
    auto* advertiser = new UpnpInterfaceHandler(interface, entry, group, location, this);
    advertiser->setEnableIGMPQuerier(enableIGMPQuerier);
    advertisers[interface.name()].append(advertiser);
}

void UpnpCoordinator::addDeviceType(const QByteArray& type)
{
    if (types.contains(type))
        return;
    types.append(type);
    updateAllAdvertisers();
}

void UpnpCoordinator::removeDeviceType(const QByteArray& type)
{
    if (types.removeAll(type) > 0)
        updateAllAdvertisers();
}

void UpnpCoordinator::clearDeviceTypes()
{
    if (types.isEmpty())
        return;
    types.clear();
    updateAllAdvertisers();
}

void UpnpCoordinator::setConfigId(unsigned int id)
{
    if (id == config)
        return;
    config = id;
    updateAllAdvertisers();
}

void UpnpCoordinator::setEnableIGMPQuerier(bool enable)
{
    if (enable == enableIGMPQuerier)
        return;
    enableIGMPQuerier = enable;
    onAllAdvertisers([enable](UpnpInterfaceHandler* advertiser) { advertiser->setEnableIGMPQuerier(enable); });
}

void UpnpCoordinator::updateAllAdvertisers()
{
    onAllAdvertisers([](UpnpInterfaceHandler* advertiser) { advertiser->sendUpdate(); });
}

void UpnpCoordinator::onAllAdvertisers(const std::function<void(UpnpInterfaceHandler*)>& f) const
{
    for (const QList<UpnpInterfaceHandler*>& list : advertisers)
        for (UpnpInterfaceHandler* advertiser : list)
            f(advertiser);
}

void UpnpCoordinator::onAllAdvertisers(const QString& name,
                                       const std::function<void(UpnpInterfaceHandler*)>& f) const
{
    const auto it = advertisers.find(name);
    if (it == advertisers.end())
        return;
    for (UpnpInterfaceHandler* advertiser : *it)
        f(advertiser);
}
