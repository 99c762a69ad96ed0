#ifndef NETWORKCONFIG_H
#define NETWORKCONFIG_H

#include <QByteArray>
#include <QString>
#include <QStringList>

// The network configuration of one interface as the system service sends it
// with its network events, serialised in Qt's data-stream format: int32
// version (1), int32 state, bool, six strings, the interface name.
struct NetworkConfig
{
    static constexpr qint32 CurrentVersion = 1;

    qint32 version = CurrentVersion;
    qint32 state = 0;         // non-zero: the event is to be acted on
    bool flag = false;
    QStringList details;      // six strings this daemon does not use
    QString interfaceName;

    QByteArray toByteArray() const;
    // A wrong version is logged and read on regardless. valid is false when
    // the data end before the interface name.
    static NetworkConfig fromByteArray(const QByteArray& data, bool* valid = nullptr);
};

#endif // NETWORKCONFIG_H
