#include "utils.h"

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
