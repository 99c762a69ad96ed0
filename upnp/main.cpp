#include "defaults.h"
#include "logginginterface.h"
#include "signalpipe.h"
#include "upnpadaptor.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QSettings>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

// The supervisor's crash counter; text that is not a decimal number reads as 0.
unsigned int crashCounter(int argc, char* argv[])
{
    return argc > 1 ? QByteArray(argv[1]).toUInt() : 0;
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("quarn"));
    QCoreApplication::setOrganizationDomain(QStringLiteral("zan.com"));
    QCoreApplication::setApplicationName(QStringLiteral("upnp"));

    initLoggingByConfig();
    std::srand(static_cast<unsigned int>(std::time(nullptr)));

    // Before the crash counter is looked at: it reads its settings and makes
    // the device UUID; the description files come with the configuration.
    auto* module = new CUpnpAdaptor(&app);

    if (crashCounter(argc, argv) != 0)
        CLOG_AT(Warning, 41) << "restarted after crash. crash counter:" << argv[1];

    // SIGINT, the daemon's clean stop: logging ends and the event loop quits,
    // from the loop itself, never in the handler (it may have interrupted syslog).
    if (!onSignals({SIGINT}, module, [module] {
            shutdownLogging();
            module->quit();
        }))
        CLOG(Error) << "cannot handle SIGINT:" << std::strerror(errno);

    // Reported twice on purpose: the supervisor's raw text above, the parsed number here.
    const unsigned int counter = crashCounter(argc, argv);
    if (counter != 0)
        CLOG_AT(Warning, 53) << "restarted after crash. crash counter:" << counter;
    CLOG_AT(Notice, 56) << "start" << counter << QString::number(QCoreApplication::applicationPid());

    const DatabaseSettings database = readDatabaseSettings();
    WWWDir = database.wwwPath;

    // A failure to listen is logged; the daemon runs on regardless.
    if (database.useTcp())
        module->startTcpServer(database.socketDir, quint16(readNumberSetting(QSettings(), "port", 0, 0, 65535)));
    else
        module->startLocalServer(database.socketDir);

    const int status = app.exec();
    delete module;
    return status;
}
