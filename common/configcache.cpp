#include "configcache.h"

#include "defaults.h"
#include "logginginterface.h"
#include "socketinterface.h"

#include <algorithm>

ConfigCache* ConfigCache::mInstance = nullptr;

namespace {

const char* const DatabaseService = "com.zan.ravo.database";
constexpr int FirstRetryMs = 1000;
constexpr int LastRetryMs = 30000;
constexpr qint64 ConnectErrorLogMs = 10000;

} // namespace

ConfigCache::ConfigCache(QObject* parent) : QObject(parent)
{
    if (!mInstance)
        mInstance = this;
    // Until the first batch: single changes are dropped, so that the cache is
    // always filled by a whole batch first; the other services' signals are
    // held and follow the batch, so that their receivers find the settings in.
    SocketInterface::SignalWhiteList = {"configValueBatchUpdate"};
    SocketInterface::SignalDropList = {"configValueChanged"};
    retryTimer.setSingleShot(true);
    connect(&retryTimer, &QTimer::timeout, this, &ConfigCache::connectToDatabase);
}

ConfigCache::~ConfigCache()
{
    if (mInstance == this)
        mInstance = nullptr;
}

ConfigCache* ConfigCache::instance()
{
    if (!mInstance)
        new ConfigCache();
    return mInstance;
}

void ConfigCache::deleteInstance()
{
    delete mInstance;
    mInstance = nullptr;
}

bool ConfigCache::isConnected() const
{
    return interface && interface->isValid();
}

bool ConfigCache::connectToDatabase()
{
    if (interface) {
        if (interface->isValid())
            return true;
        delete interface;
        interface = nullptr;
    }
    const DatabaseSettings settings = readDatabaseSettings();
    interface = new SocketInterface(settings.useTcp() ? SocketConnection::TcpSocketType
                                                      : SocketConnection::LocalSocketType,
                                    DatabaseService, settings.socketDir, this);
    if (!interface->isValid()) {
        // Left in place until the next attempt.
        if (!connectErrorLogged.isValid() || connectErrorLogged.elapsed() >= ConnectErrorLogMs) {
            CLOG(Error) << "failed to open interface to database" << interface->errorText();
            connectErrorLogged.start();
        }
        retryLater();
        return false;
    }
    retryTimer.stop();
    retryDelay = 0;
    connectErrorLogged.invalidate();
    interface->connectDynamicSignal("configValueChanged(QString, QString, bool)", this,
                                    "configValueChanged(QString, QString, bool)");
    interface->connectDynamicSignal("configValueBatchUpdate(QStringList)", this,
                                    "configValueBatchUpdate(QStringList)");
    connect(interface, &SocketInterface::disconnected, this, &ConfigCache::databaseDisconnected);
    return true;
}

void ConfigCache::databaseDisconnected()
{
    // The cached values stay readable. Signals that came before the end, a
    // batch among them, are still delivered: they are queued for the event
    // loop's next turn, and the interface goes after that.
    if (interface) {
        SocketInterface* gone = interface;
        QTimer::singleShot(0, gone, [gone] { gone->deleteLater(); });
    }
    interface = nullptr;
    retryLater();
}

void ConfigCache::retryLater()
{
    if (retryTimer.isActive())
        return;
    retryDelay = retryDelay == 0 ? FirstRetryMs : std::min(2 * retryDelay, LastRetryMs);
    retryTimer.start(retryDelay);
}

QString ConfigCache::getConfigValue(const QString& key, bool* ok)
{
    bool found = false;
    QString value;
    if (valueCache.contains(key)) {
        found = true;
        value = valueCache.value(key);
    } else {
        CLOG(Warning) << "key" << key << "cannot be found in the config cache. Batch update received:"
                      << QVariant(batchReceived);
        if (!interface) {
            CLOG(Error) << "failed to get config value for" << key << "- not connected to database";
        } else {
            // The database may go during the call: the interface then stays
            // until the event loop's next turn, but no longer as the cache's.
            SocketInterface* database = interface;
            const SocketArgument result = database->call(SocketInterface::CallWithReturn, "getConfigValue", key);
            if (!database->hasError() && result.isValid()) {
                found = true;
                value = result.toQString();
                valueCache.insert(key, value);
            } else {
                CLOG(Error) << "getConfigValue call for key" << key << "failed:" << database->errorText();
            }
        }
    }
    if (ok)
        *ok = found;
    return value;
}

bool ConfigCache::setConfigValueBlocking(const QString& key, const QString& value, bool flag)
{
    return setConfigValue(key, value, flag, true);
}

bool ConfigCache::setConfigValueNonblock(const QString& key, const QString& value, bool flag)
{
    return setConfigValue(key, value, flag, false);
}

bool ConfigCache::setConfigValue(const QString& key, const QString& value, bool flag, bool blocking)
{
    valueCache.insert(key, value);
    if (!interface) {
        CLOG(Error) << "failed to set config value:" << key << value << "- not connected to database";
        return false;
    }
    SocketInterface* database = interface; // may stop being the cache's during the call
    database->call(blocking ? SocketInterface::CallWithReturn : SocketInterface::CallWithoutReturn,
                   "setConfigValue", key, value, flag);
    if (database->hasError()) {
        CLOG(Error) << "setConfigValue call failed:" << database->errorText();
        return false;
    }
    return true;
}

bool ConfigCache::getFeatureSupport(const QString& feature, bool* ok)
{
    bool found = false;
    bool supported = false;
    if (featureCache.contains(feature)) {
        found = true;
        supported = featureCache.value(feature);
    } else if (!interface) {
        CLOG(Error) << "failed to get feature support for" << feature << "- not connected to database";
    } else {
        SocketInterface* database = interface; // may stop being the cache's during the call
        const SocketArgument result = database->call(SocketInterface::CallWithReturn, "getFeatureValue", feature);
        if (!database->hasError() && result.isValid()) {
            found = true;
            supported = result.toBool();
            featureCache.insert(feature, supported);
        } else {
            CLOG(Error) << "getFeatureValue call failed:" << database->errorText();
        }
    }
    if (ok)
        *ok = found;
    return supported;
}

void ConfigCache::configValueChanged(QString key, QString value, bool moreToCome)
{
    valueCache.insert(key, value);
    emit valueChanged(key, value, moreToCome);
}

void ConfigCache::configValueBatchUpdate(QStringList confvalues)
{
    if (confvalues.size() % 2 != 0) {
        CLOG(Error) << "configValueBatchUpdate received an odd-length list:" << QString::number(confvalues.size());
        return;
    }
    valueCache.clear();
    for (int i = 0; i < confvalues.size(); i += 2) {
        valueCache.insert(confvalues.at(i), confvalues.at(i + 1));
        // Listeners can leave expensive work to the last pair of a batch.
        emit valueChanged(confvalues.at(i), confvalues.at(i + 1), i + 2 < confvalues.size());
    }
    // From now on single changes count too; what was held comes now.
    batchReceived = true;
    SocketInterface::releaseHeldSignals();
}
