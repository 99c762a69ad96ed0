// Linked into every fuzz target: the application object the targets' Qt
// objects need, and log lines to the console, with the console going nowhere:
// they would cost time only.
#include "logginginterface.h"

#include <QCoreApplication>

#include <cstdio>

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    static int argc = 1;
    static char name[] = "fuzz";
    static char* argv[] = {name, nullptr};
    static QCoreApplication application(argc, argv);
    initLogging(false, false, false, true);
    return std::freopen("/dev/null", "w", stdout) ? 0 : 1;
}
