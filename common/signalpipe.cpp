#include "signalpipe.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace {

int signalPipe[2] = {-1, -1};

void onSignal(int)
{
    const char byte = 1;
    [[maybe_unused]] const ssize_t written = ::write(signalPipe[1], &byte, 1);
}

} // namespace

bool onSignals(std::initializer_list<int> signalNumbers, QObject* context, std::function<void()> action)
{
    if (::pipe2(signalPipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return false;
    auto* notifier = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, context);
    QObject::connect(notifier, &QSocketNotifier::activated, context, [action = std::move(action)] {
        char byte;
        while (::read(signalPipe[0], &byte, 1) > 0) {
        }
        action();
    });
    struct sigaction handler = {};
    handler.sa_handler = onSignal;
    handler.sa_flags = SA_RESTART;
    sigemptyset(&handler.sa_mask);
    for (int signalNumber : signalNumbers)
        sigaction(signalNumber, &handler, nullptr);
    return true;
}

bool quitOnSignals(std::initializer_list<int> signalNumbers)
{
    return onSignals(signalNumbers, QCoreApplication::instance(), [] { QCoreApplication::quit(); });
}
