#include "spinlock.h"

#include "logginginterface.h"

#include <QElapsedTimer>

SpinLock::SpinLock(const char* name) : name(name)
{
}

void SpinLock::lock(const QByteArray& label)
{
    const std::thread::id self = std::this_thread::get_id();
    if (locked.load(std::memory_order_acquire) && owner.load(std::memory_order_relaxed) == self) {
        CLOG(Error) << "spin lock" << name << "taken again by" << label << "while held by"
                    << holderLabel;
        ++depth;
        return;
    }

    QElapsedTimer waiting;
    bool reported = false;
    bool expected = false;
    while (!locked.compare_exchange_weak(expected, true, std::memory_order_acquire)) {
        expected = false;
        if (!waiting.isValid()) {
            waiting.start();
        } else if (!reported && waiting.elapsed() > 1000) {
            CLOG(Warning) << "spin lock" << name << ":" << label << "waiting for more than 1 s";
            reported = true;
        }
        std::this_thread::yield();
    }
    owner.store(self, std::memory_order_relaxed);
    depth = 1;
    holderLabel = label;
}

void SpinLock::unlock()
{
    if (!locked.load(std::memory_order_acquire)) {
        CLOG(Error) << "spin lock" << name << "released while not held";
        return;
    }
    if (--depth > 0)
        return;
    holderLabel.clear();
    owner.store(std::thread::id(), std::memory_order_relaxed);
    locked.store(false, std::memory_order_release);
}
