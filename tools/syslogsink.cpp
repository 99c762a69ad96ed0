// syslogsink SOCKET: prints every syslog line that arrives on the Unix datagram
// socket SOCKET (a private /dev/log) as "severity tag: text", until interrupted.
#include "syslogreceiver.h"

#include <QString>

#include <cstdio>

int main(int argc, char* argv[])
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s SOCKET\n", argv[0]);
        return 2;
    }
    SyslogReceiver receiver(QString::fromLocal8Bit(argv[1]));
    if (!receiver.isValid()) {
        std::fprintf(stderr, "%s: %s\n", argv[1], qPrintable(receiver.errorString()));
        return 1;
    }
    static const char* const severities[] = {"emerg", "alert", "crit", "err",
                                             "warning", "notice", "info", "debug"};
    SyslogReceiver::Line line;
    for (;;) {
        if (!receiver.receive(&line, -1))
            continue;
        const char* severity = line.priority >= 0 ? severities[line.priority % 8] : "?";
        std::printf("%-7s %s: %s\n", severity, line.tag.constData(), line.text.constData());
        std::fflush(stdout);
    }
}
