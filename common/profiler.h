#ifndef PROFILER_H
#define PROFILER_H

#include <QByteArray>
#include <QElapsedTimer>
#include <QMap>
#include <QString>

// Call-time statistics of the process: for every named entry the number of
// calls and the total, longest, mean and last time. The module exports the
// table over RPC ("exportProfilerStatistics").
class Profiler
{
public:
    enum Column { NameColumn = 0, CallsColumn, TotalColumn, MaxColumn, MeanColumn, LastColumn };

    void addCall(const QByteArray& name, qint64 nanoseconds);

    // A header line, one line per entry sorted by sortColumn (names ascending,
    // numbers largest first; an unknown column sorts by name), and the peak memory.
    QString statistics(int sortColumn) const;

    // Peak resident and peak virtual size in KiB from /proc/self/status; -1 when unknown.
    static qint64 peakResidentKiB();
    static qint64 peakVirtualKiB();

private:
    struct Entry
    {
        quint64 calls = 0;
        qint64 total = 0;
        qint64 max = 0;
        qint64 last = 0;
    };
    QMap<QByteArray, Entry> entries;
};

extern Profiler TheProfiler;

// Adds the time from construction to destruction to TheProfiler under name.
class ProfileScope
{
public:
    explicit ProfileScope(const char* name) : name(name) { timer.start(); }
    ~ProfileScope() { TheProfiler.addCall(name, timer.nsecsElapsed()); }
    ProfileScope(const ProfileScope&) = delete;
    ProfileScope& operator=(const ProfileScope&) = delete;

private:
    const char* name;
    QElapsedTimer timer;
};

#endif // PROFILER_H
