// QtDBus beside the project's RPC, on the private dbus-daemon that
// DBUS_SESSION_BUS_ADDRESS names.
//
//   dbusbench serve                    the service org.quarn.QtBench: Echo(QString, int) -> QString,
//                                      Emit(uint n) sends n Changed(QString, int)
//   dbusbench call SECONDS MAXCALLS    Echo("Living room", 42) round trips
//   dbusbench signals COUNT SECONDS    Changed signals per second to one subscriber
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QElapsedTimer>

#include <algorithm>
#include <cstdio>
#include <vector>

namespace {

const QString Service = QStringLiteral("org.quarn.QtBench");
const QString Path = QStringLiteral("/bench");
const QString Interface = QStringLiteral("org.quarn.Bench");
const QString Text = QStringLiteral("Living room");

void report(qint64 calls, qint64 elapsedNs, std::vector<qint64>* latencies = nullptr)
{
    double p50 = 0, p99 = 0;
    if (latencies && !latencies->empty()) {
        std::sort(latencies->begin(), latencies->end());
        p50 = latencies->at(latencies->size() / 2) / 1000.0;
        p99 = latencies->at(latencies->size() * 99 / 100) / 1000.0;
    }
    std::printf("calls=%lld seconds=%.6f rate=%.1f p50_us=%.2f p99_us=%.2f\n", static_cast<long long>(calls),
                elapsedNs / 1e9, elapsedNs > 0 ? calls * 1e9 / elapsedNs : 0.0, p50, p99);
    std::fflush(stdout);
}

} // namespace

class BenchObject : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.quarn.Bench")

public slots:
    QString Echo(const QString& text, int number)
    {
        Q_UNUSED(number);
        return text;
    }
    void Emit(uint count)
    {
        for (uint i = 0; i < count; ++i)
            emit Changed(Text, int(i));
    }

signals:
    void Changed(const QString& text, int number);
};

class SignalCounter : public QObject
{
    Q_OBJECT

public:
    qint64 count = 0;

public slots:
    void onChanged(const QString& text, int number)
    {
        Q_UNUSED(text);
        Q_UNUSED(number);
        ++count;
    }
};

namespace {

int runServer()
{
    BenchObject object;
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.registerObject(Path, &object, QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllSignals)
        || !bus.registerService(Service)) {
        std::fprintf(stderr, "cannot register: %s\n", qPrintable(bus.lastError().message()));
        return 1;
    }
    std::printf("ready\n");
    std::fflush(stdout);
    return QCoreApplication::exec();
}

int runCalls(double seconds, qint64 maxCalls)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    std::vector<qint64> latencies;
    latencies.reserve(size_t(maxCalls));
    QDBusMessage message = QDBusMessage::createMethodCall(Service, Path, Interface, QStringLiteral("Echo"));
    message << Text << 42;
    QElapsedTimer clock;
    clock.start();
    qint64 calls = 0, now = 0;
    while (calls < maxCalls && now < qint64(seconds * 1e9)) {
        const qint64 sent = now;
        const QDBusMessage reply = bus.call(message);
        if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().value(0).toString() != Text) {
            std::fprintf(stderr, "Echo failed: %s\n", qPrintable(reply.errorMessage()));
            return 1;
        }
        now = clock.nsecsElapsed();
        latencies.push_back(now - sent);
        ++calls;
    }
    report(calls, now, &latencies);
    return 0;
}

int runSignals(qint64 count, double seconds)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    SignalCounter counter;
    if (!bus.connect(Service, Path, Interface, QStringLiteral("Changed"), &counter, SLOT(onChanged(QString,int))))
        return 1;
    QDBusMessage emitCall = QDBusMessage::createMethodCall(Service, Path, Interface, QStringLiteral("Emit"));
    emitCall << uint(count);
    QElapsedTimer clock;
    clock.start();
    bus.asyncCall(emitCall);
    while (counter.count < count && clock.nsecsElapsed() < qint64(seconds * 1e9))
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 100);
    report(counter.count, clock.nsecsElapsed());
    return 0;
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    const QString mode = args.value(1);
    if (mode == "serve" && args.size() == 2)
        return runServer();
    if (mode == "call" && args.size() == 4)
        return runCalls(args[2].toDouble(), args[3].toLongLong());
    if (mode == "signals" && args.size() == 4)
        return runSignals(args[2].toLongLong(), args[3].toDouble());
    std::fprintf(stderr, "usage: dbusbench serve | call SECONDS MAXCALLS | signals COUNT SECONDS\n");
    return 2;
}

#include "dbusbench.moc"
