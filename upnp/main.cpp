#include "defaults.h"
#include "logginginterface.h"

#include <QByteArray>
#include <QCoreApplication>
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

    // The module object (CUpnpAdaptor) is created here, with the application as
    // parent: before the crash counter is looked at and before SIGINT is handled.

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

    // The module object's RPC server starts listening here, under its service
    // name in database.socketDir: on a loopback TCP port (the "port" setting of
    // the application's own settings) when database.useTcp(), else on a local socket.

    return app.exec();
}
