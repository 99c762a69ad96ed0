#include "defaults.h"

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
