#include "defaults.h"
#include "logginginterface.h"
#include "upnpadaptor.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QSettings>
#include <QTimer>

#include <csignal>
#include <cstdlib>
#include <ctime>

namespace {

// Runs in signal context: only ends logging and asks the event loop to quit;
// main's orderly tear-down follows when the loop returns.
void handleSignal(int signalNumber)
{
    if (signalNumber != SIGINT)
        return;
    shutdownLogging();
    QCoreApplication::quit();
}

// Installs handleSignal for SIGINT. quit() only ends a loop that runs, so an
// interrupt that comes before the event loop is held back until the loop's
// first turn instead of being lost.
void installSignalHandler(QCoreApplication* app)
{
    sigset_t interrupt;
    sigemptyset(&interrupt);
    sigaddset(&interrupt, SIGINT);
    sigprocmask(SIG_BLOCK, &interrupt, nullptr);

    struct sigaction action = {};
    action.sa_handler = handleSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, nullptr);

    QTimer::singleShot(0, app, [interrupt] { sigprocmask(SIG_UNBLOCK, &interrupt, nullptr); });
}

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

    installSignalHandler(&app);

    // Reported twice on purpose: the supervisor's raw text above, the parsed number here.
    const unsigned int counter = crashCounter(argc, argv);
    if (counter != 0)
        CLOG_AT(Warning, 53) << "restarted after crash. crash counter:" << counter;
    CLOG_AT(Notice, 56) << "start" << counter << QString::number(QCoreApplication::applicationPid());

    const DatabaseSettings database = readDatabaseSettings();
    WWWDir = database.wwwPath;

    // A failure to listen is logged; the daemon runs on regardless.
    if (database.useTcp())
        module->startTcpServer(database.socketDir, quint16(QSettings().value("port", "0").toUInt()));
    else
        module->startLocalServer(database.socketDir);

    const int status = app.exec();
    delete module;
    return status;
}
