#include "utils.h"

#include <QFile>

QString Utils::escapeXml(const QString& text)
{
    QString escaped = text;
    escaped.replace(QLatin1Char('<'), QLatin1String("&lt;"));
    escaped.replace(QLatin1Char('>'), QLatin1String("&gt;"));
    escaped.replace(QLatin1Char('&'), QLatin1String("&amp;"));
    escaped.replace(QLatin1Char('\''), QLatin1String("&apos;"));
    escaped.replace(QLatin1Char('"'), QLatin1String("&quot;"));
    return escaped;
}

QString Utils::wlanInterfaceName()
{
    return qEnvironmentVariable("RAVO_MACHINE").startsWith(QLatin1String("imx")) ? QStringLiteral("mlan0")
                                                                                 : QStringLiteral("wlan0");
}

QString Utils::getWlanMacAddress()
{
    QFile address(QStringLiteral("/sys/class/net/") + wlanInterfaceName() + QStringLiteral("/address"));
    if (!address.open(QIODevice::ReadOnly))
        return QString();
    return QString::fromLatin1(address.readAll());
}
