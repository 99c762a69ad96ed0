#ifndef INTERNALID_H
#define INTERNALID_H

#include <QMetaType>
#include <QString>
#include <QtGlobal>

// Identifies a device, a channel parameter or a data point of the controller.
// Only the fields that travel over the RPC protocol are held here.
struct InternalId
{
    enum Kind : quint8 {
        Device = 1,
        ChannelParameter = 4,
        InputDataPoint = 5,
        OutputDataPoint = 6,
        ChannelTimerSensor = 11,
        Invalid = 255,
    };

    quint8 kind = Invalid;
    quint16 serialPrefix = 0;
    quint32 serialNumber = 0;
    quint16 channel = 0;
    quint8 index = 0;

    bool isValid() const { return kind != Invalid; }
    // "kind:prefix-serial:channel.index", numbers in decimal, for log lines.
    QString toString() const;

    friend bool operator==(const InternalId& a, const InternalId& b)
    {
        return a.kind == b.kind && a.serialPrefix == b.serialPrefix
               && a.serialNumber == b.serialNumber && a.channel == b.channel && a.index == b.index;
    }
    friend bool operator!=(const InternalId& a, const InternalId& b) { return !(a == b); }
};

Q_DECLARE_METATYPE(InternalId)

#endif // INTERNALID_H
