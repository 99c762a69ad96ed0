#ifndef SYSLOGRECEIVER_H
#define SYSLOGRECEIVER_H

#include <QByteArray>
#include <QString>

// The receiving end of a private /dev/log: a Unix datagram socket at a path,
// one datagram per syslog line as the C library writes it:
// "<priority>Mmm dd hh:mm:ss tag: text".
class SyslogReceiver
{
public:
    struct Line
    {
        int priority = -1; // facility * 8 + severity
        QByteArray tag;    // the program name, with "[pid]" if the program asked for it
        QByteArray text;   // everything after "tag: ", exactly as sent
    };

    // Binds a socket at path (an existing file there is replaced).
    explicit SyslogReceiver(const QString& path);
    ~SyslogReceiver();
    SyslogReceiver(const SyslogReceiver&) = delete;
    SyslogReceiver& operator=(const SyslogReceiver&) = delete;

    bool isValid() const { return descriptor >= 0; }
    QString errorString() const { return error; }

    // Waits up to timeoutMs for the next datagram; false when none came.
    bool receive(Line* line, int timeoutMs);

    static Line parse(const QByteArray& datagram);

private:
    QString path;
    QString error;
    int descriptor = -1;
};

#endif // SYSLOGRECEIVER_H
