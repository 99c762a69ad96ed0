#include "profiler.h"

#include <QFile>
#include <QVector>

#include <algorithm>

Profiler TheProfiler;

namespace {

qint64 statusValueKiB(const char* key)
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    const QByteArray wanted = QByteArray(key) + ':';
    const QList<QByteArray> lines = status.readAll().split('\n');
    for (const QByteArray& line : lines)
        if (line.startsWith(wanted))
            return line.mid(wanted.size()).simplified().split(' ').value(0).toLongLong();
    return -1;
}

QString milliseconds(qint64 nanoseconds)
{
    return QString::number(double(nanoseconds) / 1e6, 'f', 3);
}

} // namespace

void Profiler::addCall(const QByteArray& name, qint64 nanoseconds)
{
    Entry& entry = entries[name];
    ++entry.calls;
    entry.total += nanoseconds;
    entry.max = std::max(entry.max, nanoseconds);
    entry.last = nanoseconds;
}

qint64 Profiler::peakResidentKiB()
{
    return statusValueKiB("VmHWM");
}

qint64 Profiler::peakVirtualKiB()
{
    return statusValueKiB("VmPeak");
}

QString Profiler::statistics(int sortColumn) const
{
    struct Row
    {
        QByteArray name;
        Entry entry;
        qint64 mean;
    };
    QVector<Row> rows;
    rows.reserve(entries.size());
    for (auto it = entries.cbegin(); it != entries.cend(); ++it)
        rows.append({it.key(), it.value(), qint64(it.value().total / qint64(it.value().calls))});

    auto key = [sortColumn](const Row& row) -> qint64 {
        switch (sortColumn) {
        case CallsColumn: return qint64(row.entry.calls);
        case TotalColumn: return row.entry.total;
        case MaxColumn: return row.entry.max;
        case MeanColumn: return row.mean;
        case LastColumn: return row.entry.last;
        default: return 0;
        }
    };
    // Rows come out of the map sorted by name; a stable sort keeps that order among equals.
    std::stable_sort(rows.begin(), rows.end(),
                     [&key](const Row& a, const Row& b) { return key(a) > key(b); });

    int nameWidth = 4;
    for (const Row& row : rows)
        nameWidth = std::max(nameWidth, int(row.name.size()));

    QString table = QStringLiteral("%1 %2 %3 %4 %5 %6\n")
                        .arg(QStringLiteral("name"), -nameWidth)
                        .arg(QStringLiteral("calls"), 10)
                        .arg(QStringLiteral("total ms"), 12)
                        .arg(QStringLiteral("max ms"), 12)
                        .arg(QStringLiteral("mean ms"), 12)
                        .arg(QStringLiteral("last ms"), 12);
    for (const Row& row : rows)
        table += QStringLiteral("%1 %2 %3 %4 %5 %6\n")
                     .arg(QString::fromUtf8(row.name), -nameWidth)
                     .arg(row.entry.calls, 10)
                     .arg(milliseconds(row.entry.total), 12)
                     .arg(milliseconds(row.entry.max), 12)
                     .arg(milliseconds(row.mean), 12)
                     .arg(milliseconds(row.entry.last), 12);
    table += QStringLiteral("peak memory: %1 KiB resident, %2 KiB virtual\n")
                 .arg(peakResidentKiB())
                 .arg(peakVirtualKiB());
    return table;
}
