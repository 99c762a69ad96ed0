#ifndef CONFIGCACHE_H
#define CONFIGCACHE_H

#include <QElapsedTimer>
#include <QMap>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QTimer>

class SocketInterface;

// The process's cache of the configuration database ("com.zan.ravo.database").
// Reads come from memory and fall back to a blocking call; writes go through
// to the database; the database's change signals keep the cache current and
// are passed on as valueChanged. Values are strings, keys "section/key".
//
// Until the first complete batch has arrived, every RPC client of the
// process delivers only the batch signal: single changes are dropped, so that
// the cache is always filled by a whole batch before they count, and the
// signals of other services are held and delivered right after the batch.
class ConfigCache : public QObject
{
    Q_OBJECT

public:
    explicit ConfigCache(QObject* parent = nullptr);
    ~ConfigCache() override;

    // The process's cache, made on first use.
    static ConfigCache* instance();
    static void deleteInstance();

    // Makes sure a valid connection exists. While there is none (the database
    // is not up yet, or went away), the cache tries again by itself, 1 s after
    // the failure and then at doubling pauses up to 30 s; a database that
    // comes back sends its batch, which replaces the cache.
    bool connectToDatabase();
    bool isConnected() const;
    bool isBatchReceived() const { return batchReceived; }

    // From the cache, else asked of the database (and then cached). ok may be null.
    QString getConfigValue(const QString& key, bool* ok = nullptr);
    // The cache takes the value at once, whatever the database says; the
    // change signal comes later from the database.
    bool setConfigValueBlocking(const QString& key, const QString& value, bool flag);
    bool setConfigValueNonblock(const QString& key, const QString& value, bool flag);
    // Asked of the database once, then remembered for the life of the process.
    bool getFeatureSupport(const QString& feature, bool* ok = nullptr);

signals:
    // moreToCome: further values of the same batch follow.
    void valueChanged(QString key, QString value, bool moreToCome);

public slots:
    void configValueChanged(QString key, QString value, bool moreToCome);
    // key, value, key, value...: replaces the whole cache.
    void configValueBatchUpdate(QStringList confvalues);
    void databaseDisconnected();

private:
    bool setConfigValue(const QString& key, const QString& value, bool flag, bool blocking);
    void retryLater();

    SocketInterface* interface = nullptr;
    QTimer retryTimer;
    int retryDelay = 0;
    QElapsedTimer connectErrorLogged; // the error is written at most every 10 s
    QMap<QString, QString> valueCache;
    QMap<QString, bool> featureCache;
    bool batchReceived = false;

    static ConfigCache* mInstance;
};

#endif // CONFIGCACHE_H
