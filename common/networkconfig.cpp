#include "networkconfig.h"

#include "logginginterface.h"

#include <QDataStream>

namespace {

constexpr int DetailCount = 6;

} // namespace

QByteArray NetworkConfig::toByteArray() const
{
    QByteArray data;
    QDataStream stream(&data, QIODevice::WriteOnly);
    stream << version << state << flag;
    for (int i = 0; i < DetailCount; ++i)
        stream << details.value(i);
    stream << interfaceName;
    return data;
}

NetworkConfig NetworkConfig::fromByteArray(const QByteArray& data, bool* valid)
{
    NetworkConfig config;
    QDataStream stream(data);
    stream >> config.version;
    if (config.version != CurrentVersion)
        CLOG_AT(Error, 97) << "Invalid NetworkConfig version" << config.version;
    stream >> config.state >> config.flag;
    for (int i = 0; i < DetailCount; ++i) {
        QString detail;
        stream >> detail;
        config.details << detail;
    }
    stream >> config.interfaceName;
    if (valid)
        *valid = stream.status() == QDataStream::Ok;
    return config;
}
