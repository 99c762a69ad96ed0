#ifndef SPINLOCK_H
#define SPINLOCK_H

#include <QByteArray>

#include <atomic>
#include <thread>

// A small busy-waiting lock whose every acquisition carries a text label, so
// that a lock that is held too long or taken twice can say by whom.
//
// The RPC client holds its locks across blocking waits on the event-loop
// thread. Taking a lock again on the thread that already holds it would spin
// forever; instead it is logged as an error naming both labels and counted as a
// nested hold, released by the matching unlock().
class SpinLock
{
public:
    explicit SpinLock(const char* name = "");
    SpinLock(const SpinLock&) = delete;
    SpinLock& operator=(const SpinLock&) = delete;

    void lock(const QByteArray& label);
    void unlock();

    bool isLocked() const { return locked.load(std::memory_order_acquire); }
    // The label of the present holder; meaningful on the holding thread only.
    QByteArray holder() const { return holderLabel; }

private:
    const char* name;
    std::atomic<bool> locked{false};
    std::atomic<std::thread::id> owner{};
    int depth = 0;
    QByteArray holderLabel;
};

// Holds a SpinLock for its lifetime.
class SpinLocker
{
public:
    SpinLocker(SpinLock& lock, const QByteArray& label) : spinLock(lock) { spinLock.lock(label); }
    ~SpinLocker() { spinLock.unlock(); }
    SpinLocker(const SpinLocker&) = delete;
    SpinLocker& operator=(const SpinLocker&) = delete;

private:
    SpinLock& spinLock;
};

#endif // SPINLOCK_H
