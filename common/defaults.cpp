#include "defaults.h"

#include "logginginterface.h"

#include <QSettings>

QString WWWDir;
QString DataDir;

DatabaseSettings readDatabaseSettings()
{
    const QSettings settings(QStringLiteral("quarn"), QStringLiteral("database"));
    DatabaseSettings result;
    result.socketDir = settings.value("socketDir", "/tmp").toString();
    result.socketType = settings.value("socketType", "local").toString();
    result.wwwPath = settings.value("data/wwwpath", DataDir).toString();
    return result;
}

int readNumberSetting(const QSettings& settings, const QString& key, int defaultValue, int minimum, int maximum)
{
    const QVariant value = settings.value(key);
    if (!value.isValid())
        return defaultValue;
    bool isNumber = false;
    const qlonglong number = value.toString().trimmed().toLongLong(&isNumber);
    if (isNumber && number >= minimum && number <= maximum)
        return int(number);
    CLOG(Warning) << "invalid setting" << key << "=" << value.toString() << "in" << settings.fileName()
                  << "- using" << QString::number(defaultValue);
    return defaultValue;
}
