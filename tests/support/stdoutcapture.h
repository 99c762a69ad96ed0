#ifndef STDOUTCAPTURE_H
#define STDOUTCAPTURE_H

#include <QByteArray>
#include <QTemporaryFile>

#include <cstdio>
#include <functional>
#include <unistd.h>

// Redirects this process's standard output into a file while it lives (or
// until take()), so that console-mode log lines can be compared byte for byte.
class StdoutCapture
{
public:
    StdoutCapture()
    {
        file.open();
        std::fflush(stdout);
        saved = ::dup(STDOUT_FILENO);
        ::dup2(file.handle(), STDOUT_FILENO);
    }
    ~StdoutCapture() { restore(); }

    // Everything written since construction; restores standard output.
    QByteArray take()
    {
        restore();
        return peek();
    }
    // Everything written since construction, going on capturing.
    QByteArray peek()
    {
        std::fflush(stdout);
        file.seek(0);
        return file.readAll();
    }

private:
    void restore()
    {
        if (saved < 0)
            return;
        std::fflush(stdout);
        ::dup2(saved, STDOUT_FILENO);
        ::close(saved);
        saved = -1;
    }

    QTemporaryFile file;
    int saved = -1;
};

// What work writes to standard output.
inline QByteArray captureStdout(const std::function<void()>& work)
{
    StdoutCapture capture;
    work();
    return capture.take();
}

#endif // STDOUTCAPTURE_H
