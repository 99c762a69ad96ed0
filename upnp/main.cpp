#include "defaults.h"
#include "logginginterface.h"
#include "upnpadaptor.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QSettings>
#include <QSocketNotifier>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

namespace {

int interruptPipe[2] = {-1, -1};

// Runs in signal context: writes one byte to a pipe, which is all that is
// safe there (logging could be inside syslog's lock right now). The event
// loop reads it and ends the daemon.
void handleSignal(int signalNumber)
{
    if (signalNumber != SIGINT)
        return;
    const char byte = 1;
    [[maybe_unused]] const ssize_t written = ::write(interruptPipe[1], &byte, 1);
}

// Installs handleSignal for SIGINT. An interrupt that comes before the event
// loop runs waits in the pipe for the loop's first turn.
void installSignalHandler(CUpnpAdaptor* module)
{
    if (::pipe2(interruptPipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        CLOG(Error) << "cannot make the interrupt pipe:" << std::strerror(errno);
        return;
    }
    auto* notifier = new QSocketNotifier(interruptPipe[0], QSocketNotifier::Read, module);
    QObject::connect(notifier, &QSocketNotifier::activated, module, [module] {
        char byte;
        while (::read(interruptPipe[0], &byte, 1) > 0) {
        }
        shutdownLogging();
        module->quit();
    });
    struct sigaction action = {};
    action.sa_handler = handleSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, nullptr);
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

    installSignalHandler(module);

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
