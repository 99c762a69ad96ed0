#include "internalid.h"

QString InternalId::toString() const
{
    return QStringLiteral("%1:%2-%3:%4.%5")
        .arg(kind)
        .arg(serialPrefix)
        .arg(serialNumber)
        .arg(channel)
        .arg(index);
}
