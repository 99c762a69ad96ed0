// QtDBus beside the project's RPC, on the private dbus-daemon that
// DBUS_SESSION_BUS_ADDRESS names.
//
//   dbusbench serve                    the service org.quarn.QtBench: Echo(QString, int) -> QString,
//                                      Emit(uint n) sends n Changed(QString, int)
//   dbusbench call SECONDS MAXCALLS    Echo("Living room", 42) round trips
//   dbusbench signals COUNT SECONDS    Changed signals per second to one subscriber
#include "benchqt.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QElapsedTimer>

#include <cstdio>

namespace {

const QString Service = QStringLiteral("org.quarn.QtBench");
const QString Path = QStringLiteral("/bench");
const QString Interface = QStringLiteral("org.quarn.Bench");
const QString Text = QStringLiteral("Living room");

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
    QDBusMessage message = QDBusMessage::createMethodCall(Service, Path, Interface, QStringLiteral("Echo"));
    message << Text << 42;
    return benchTimedCalls(seconds, maxCalls, [&bus, &message](qint64) {
        const QDBusMessage reply = bus.call(message);
        return reply.type() == QDBusMessage::ReplyMessage && reply.arguments().value(0).toString() == Text;
    });
}

int runSignals(qint64 count, double seconds)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    BenchSignalCounter counter;
    if (!bus.connect(Service, Path, Interface, QStringLiteral("Changed"), &counter, SLOT(onChanged(QString,int))))
        return 1;
    QDBusMessage emitCall = QDBusMessage::createMethodCall(Service, Path, Interface, QStringLiteral("Emit"));
    emitCall << uint(count);
    QElapsedTimer clock;
    clock.start();
    bus.asyncCall(emitCall);
    while (counter.count < count && clock.nsecsElapsed() < qint64(seconds * 1e9))
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 100);
    benchReport(counter.count, clock.nsecsElapsed());
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
