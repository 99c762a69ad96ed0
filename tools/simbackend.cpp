// simbackend: one process that plays the upnp daemon's sibling services, for
// development, the tests and the demo, on the backend's own RPC library:
//   - the configuration database "com.zan.ravo.database",
//   - the system service "com.zan.ravo.system" with its network events,
//   - the diagnosis service "com.zan.ravo.diagnosis" that records heartbeats,
//   - the supervisor, a client of "com.zan.ravo.upnp" that calls its run stages,
// and a control service "com.zan.ravo.simbackend" through which a test or the
// demo drives all of them (tools/rpccall can call it). Every event is one line
// on standard output, prefixed by the role.
#include "logginginterface.h"
#include "networkconfig.h"
#include "signalpipe.h"
#include "socketadaptor.h"
#include "socketinterface.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QMap>
#include <QPointer>
#include <QThread>
#include <QTimer>

#include <csignal>
#include <cstdio>
#include <functional>
#include <memory>

namespace {

enum ExitStatus { Success = 0, Failure = 1, Usage = 2 };

const char* const DatabaseService = "com.zan.ravo.database";
const char* const SystemService = "com.zan.ravo.system";
const char* const DiagnosisService = "com.zan.ravo.diagnosis";
const char* const UpnpService = "com.zan.ravo.upnp";
const char* const ControlService = "com.zan.ravo.simbackend";

const char* const ConfigValueChanged = "configValueChanged(QString,QString,bool)";
const char* const ConfigValueBatchUpdate = "configValueBatchUpdate(QStringList)";
const char* const NetworkEventWithLink = "networkEventWithLink(int,QByteArray,int)";

// The system service's event codes and the link it reports them with.
constexpr int InterfaceUpCode = 3;
constexpr int InterfaceDownCode = 5;
constexpr int EventLink = 1;

constexpr int ConnectRetryMs = 200;
constexpr int ConnectGiveUpMs = 60000;
constexpr int LastStage = 3;

void say(const char* role, const QString& text)
{
    std::printf("%s: %s\n", role, text.toUtf8().constData());
    std::fflush(stdout);
}

QString subscriberNote(const SocketAdaptor* service, const char* signature)
{
    return service->isSignalSubscribed(signature) ? QString() : QStringLiteral(" (no subscriber)");
}

// The configuration database: string values by key, boolean features by name.
// A client that subscribes to the batch signal gets the whole content, as from
// the real database; the daemon's configuration cache fills itself from it.
class Database : public SocketAdaptor
{
    Q_OBJECT

public:
    // readDelay: how long each single read takes, as of a database that is busy.
    Database(QMap<QString, QString> initialValues, QMap<QString, bool> initialFeatures, int readDelay)
        : values(std::move(initialValues)), features(std::move(initialFeatures)), readDelay(readDelay)
    {
        // Queued: the subscription arrives while the connection's bytes are
        // being parsed, and the answer is written to that very connection.
        connect(this, &SocketAdaptor::signalSubscribed, this,
                [this](const QByteArray& signature) {
                    if (signature == ConfigValueBatchUpdate)
                        sendBatch();
                },
                Qt::QueuedConnection);
    }

    // Stores the value and tells every subscriber, as a write through RPC does.
    void store(const QString& key, const QString& value)
    {
        values.insert(key, value);
        say("database", key + QStringLiteral(" = ") + value + subscriberNote(this, ConfigValueChanged));
        emitSignal(ConfigValueChanged, key, value, false);
    }

    void sendBatch()
    {
        say("database", QStringLiteral("batch of %1 values%2").arg(values.size())
                            .arg(subscriberNote(this, ConfigValueBatchUpdate)));
        emitSignal(ConfigValueBatchUpdate, flattened());
    }

    // key, value, key, value ... in key order.
    QStringList flattened() const
    {
        QStringList pairs;
        for (auto it = values.cbegin(); it != values.cend(); ++it)
            pairs << it.key() << it.value();
        return pairs;
    }

public slots:
    QString getModuleName() override { return QString::fromLatin1(DatabaseService); }

    QString getConfigValue(QString key)
    {
        if (readDelay > 0) {
            say("database", QStringLiteral("reading ") + key);
            QThread::msleep(ulong(readDelay));
        }
        const auto it = values.constFind(key);
        if (it == values.cend()) {
            say("database", QStringLiteral("read ") + key + QStringLiteral(": unknown"));
            return QString();
        }
        say("database", QStringLiteral("read ") + key + QStringLiteral(" = ") + *it);
        return *it;
    }

    bool setConfigValue(QString key, QString value, bool)
    {
        store(key, value);
        return true;
    }

    bool getFeatureValue(QString feature)
    {
        const bool supported = features.value(feature, false);
        say("database", QStringLiteral("feature ") + feature + QLatin1String(supported ? " = true" : " = false"));
        return supported;
    }

private:
    QMap<QString, QString> values;
    QMap<QString, bool> features;
    int readDelay;
};

// The system service: network events for interfaces going up and down. It
// keeps the interfaces that are up and tells each new subscriber about them,
// as the real service does.
class System : public SocketAdaptor
{
    Q_OBJECT

public:
    explicit System(QStringList initiallyUp) : up(std::move(initiallyUp))
    {
        connect(this, &SocketAdaptor::signalSubscribed, this,
                [this](const QByteArray& signature) {
                    if (signature != NetworkEventWithLink)
                        return;
                    for (const QString& name : up)
                        announce(InterfaceUpCode, name);
                },
                Qt::QueuedConnection);
    }

    void setInterface(const QString& name, bool isUp)
    {
        up.removeAll(name);
        if (isUp)
            up << name;
        announce(isUp ? InterfaceUpCode : InterfaceDownCode, name);
    }

    // Anything, including configurations the daemon must cope with.
    void sendRaw(int code, const QByteArray& config, int link)
    {
        say("system", QStringLiteral("event %1 with %2 bytes, link %3%4")
                          .arg(code).arg(config.size()).arg(link)
                          .arg(subscriberNote(this, NetworkEventWithLink)));
        emitSignal(NetworkEventWithLink, code, config, link);
    }

public slots:
    QString getModuleName() override { return QString::fromLatin1(SystemService); }

private:
    void announce(int code, const QString& name)
    {
        NetworkConfig config;
        config.state = 1;
        config.interfaceName = name;
        say("system", name + (code == InterfaceUpCode ? " up" : " down") + subscriberNote(this, NetworkEventWithLink));
        emitSignal(NetworkEventWithLink, code, config.toByteArray(), EventLink);
    }

    QStringList up;
};

// The diagnosis service: records every heartbeat in order.
class Diagnosis : public SocketAdaptor
{
    Q_OBJECT

public:
    QStringList pings;

public slots:
    QString getModuleName() override { return QString::fromLatin1(DiagnosisService); }

    void ping(QString module, int stage)
    {
        pings << module + QLatin1Char(' ') + QString::number(stage);
        say("diagnosis", QStringLiteral("ping ") + pings.last());
    }
};

// The supervisor's side of the daemon: calls its run stages and quit. Never
// waits for an answer: the daemon's stage 3 waits for this process's
// database, so a blocking call here would hold up both processes for good.
class Supervisor : public QObject
{
    Q_OBJECT

public:
    Supervisor(SocketConnection::SocketType type, QString socketDir) : type(type), socketDir(std::move(socketDir))
    {
        retryTimer.setInterval(ConnectRetryMs);
        connect(&retryTimer, &QTimer::timeout, this, &Supervisor::tryToStart);
    }

    // Waits until the daemon can be reached, then runs stages 0 to 3, each
    // once the previous one has been answered.
    void runAllStages()
    {
        waited.start();
        tryToStart();
        if (!daemon)
            retryTimer.start();
    }

    void runStage(int stage, std::function<void()> then = nullptr)
    {
        if (!reach()) {
            say("supervisor", QStringLiteral("cannot reach ") + UpnpService);
            return;
        }
        const QPointer<Supervisor> self(this);
        const bool sent = daemon->callWithArgumentListAndCallback(
            "run", QList<SocketArgument>{stage}, [self, stage, then](SocketArgument) {
                // The answer comes in while the client parses: carry on from
                // the event loop instead.
                if (!self)
                    return;
                QTimer::singleShot(0, self, [stage, then] {
                    say("supervisor", QStringLiteral("stage %1 done").arg(stage));
                    if (then)
                        then();
                });
            });
        if (!sent)
            say("supervisor", QStringLiteral("cannot send stage %1").arg(stage));
    }

    void quitModule()
    {
        if (!reach()) {
            say("supervisor", QStringLiteral("cannot reach ") + UpnpService);
            return;
        }
        daemon->call("quit");
        say("supervisor", QStringLiteral("quit sent"));
    }

private:
    void tryToStart()
    {
        if (reach()) {
            retryTimer.stop();
            runStagesFrom(0);
        } else if (waited.elapsed() >= ConnectGiveUpMs) {
            retryTimer.stop();
            say("supervisor", QStringLiteral("cannot reach ") + UpnpService);
        }
    }

    void runStagesFrom(int stage)
    {
        runStage(stage, stage < LastStage ? std::function<void()>([this, stage] { runStagesFrom(stage + 1); })
                                          : std::function<void()>());
    }

    // A connection to the daemon, made when there is none. The daemon's socket
    // or port file must be there first: trying without it only fills the log.
    bool reach()
    {
        if (daemon && daemon->isValid())
            return true;
        const QString path = socketDir + QLatin1Char('/') + UpnpService
                             + (type == SocketConnection::TcpSocketType ? ".port" : "");
        if (!QFileInfo::exists(path))
            return false;
        daemon.reset(new SocketInterface(type, QString::fromLatin1(UpnpService), socketDir));
        if (!daemon->isValid()) {
            daemon.reset();
            return false;
        }
        say("supervisor", QStringLiteral("reached ") + UpnpService);
        SocketInterface* reached = daemon.get();
        connect(reached, &SocketInterface::disconnected, this, [this, reached] {
            if (daemon.get() != reached)
                return;
            say("supervisor", QString::fromLatin1(UpnpService) + " went away");
            // It may be inside its own callback: released from the event loop.
            daemon.release()->deleteLater();
        });
        return true;
    }

    SocketConnection::SocketType type;
    QString socketDir;
    std::unique_ptr<SocketInterface> daemon;
    QTimer retryTimer;
    QElapsedTimer waited;
};

// What tests and the demo call to drive the simulated services.
class Control : public SocketAdaptor
{
    Q_OBJECT

public:
    Control(Database* database, System* system, Diagnosis* diagnosis, Supervisor* supervisor)
        : database(database), system(system), diagnosis(diagnosis), supervisor(supervisor)
    {
    }

public slots:
    QString getModuleName() override { return QString::fromLatin1(ControlService); }

    void setConfigValue(QString key, QString value)
    {
        if (has(database, "database"))
            database->store(key, value);
    }
    void sendBatch()
    {
        if (has(database, "database"))
            database->sendBatch();
    }
    void interfaceUp(QString name)
    {
        if (has(system, "system"))
            system->setInterface(name, true);
    }
    void interfaceDown(QString name)
    {
        if (has(system, "system"))
            system->setInterface(name, false);
    }
    void sendNetworkEvent(int code, QByteArray config, int link)
    {
        if (has(system, "system"))
            system->sendRaw(code, config, link);
    }
    void runStage(int stage) { supervisor->runStage(stage); }
    void quitModule() { supervisor->quitModule(); }
    QStringList pings() { return diagnosis ? diagnosis->pings : QStringList(); }
    QStringList config() { return database ? database->flattened() : QStringList(); }

private:
    static bool has(const QObject* service, const char* role)
    {
        if (!service)
            say(role, QStringLiteral("not running"));
        return service;
    }

    Database* database;
    System* system;
    Diagnosis* diagnosis;
    Supervisor* supervisor;
};

// "key=value" per line; '#' starts a comment line; blank lines are skipped.
bool readConfigFile(const QString& path, QMap<QString, QString>* values)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) {
        std::fprintf(stderr, "simbackend: cannot read %s: %s\n", qPrintable(path), qPrintable(file.errorString()));
        return false;
    }
    int number = 0;
    while (!file.atEnd()) {
        ++number;
        const QString line = QString::fromUtf8(file.readLine()).trimmed();
        if (line.isEmpty() || line.startsWith(QLatin1Char('#')))
            continue;
        const int equals = line.indexOf(QLatin1Char('='));
        if (equals <= 0) {
            std::fprintf(stderr, "simbackend: %s:%d: not key=value\n", qPrintable(path), number);
            return false;
        }
        values->insert(line.left(equals).trimmed(), line.mid(equals + 1).trimmed());
    }
    return true;
}

bool listen(SocketAdaptor* service, bool tcp, const QString& socketDir)
{
    if (tcp ? service->startTcpServer(socketDir, 0) : service->startLocalServer(socketDir))
        return true;
    std::fprintf(stderr, "simbackend: %s cannot listen in %s\n", qPrintable(service->getModuleName()),
                 qPrintable(socketDir));
    return false;
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("simbackend"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Plays the upnp daemon's sibling services: configuration database, system service, diagnosis and "
        "supervisor, plus the control service com.zan.ravo.simbackend that drives them."));
    parser.addHelpOption();
    const QCommandLineOption socketDirOption("socket-dir", "Where the services listen (required).", "DIR");
    const QCommandLineOption tcpOption("tcp", "Listen on loopback TCP ports with port files, not local sockets.");
    const QCommandLineOption configOption("config", "Initial database content, key=value per line.", "FILE");
    const QCommandLineOption interfaceOption("interface", "An interface that is up (repeatable).", "NAME");
    const QCommandLineOption featureOption("feature", "A database feature (repeatable).", "NAME=true|false");
    const QCommandLineOption stagesOption("stages", "Run the daemon's stages 0 to 3 once it can be reached.");
    const QCommandLineOption readDelayOption("read-delay", "The database answers each single read after MS.", "MS");
    const QCommandLineOption withoutOption("without", "Do not offer this service (repeatable).",
                                           "database|system|diagnosis|control");
    parser.addOptions({socketDirOption, tcpOption, configOption, interfaceOption, featureOption, stagesOption,
                       readDelayOption, withoutOption});
    parser.process(app);

    if (!parser.isSet(socketDirOption) || !parser.positionalArguments().isEmpty()) {
        std::fprintf(stderr, "%s", qPrintable(parser.helpText()));
        return Usage;
    }
    const QStringList without = parser.values(withoutOption);
    for (const QString& name : without) {
        if (name != "database" && name != "system" && name != "diagnosis" && name != "control") {
            std::fprintf(stderr, "simbackend: --without takes database, system, diagnosis or control, not %s\n",
                         qPrintable(name));
            return Usage;
        }
    }
    QMap<QString, bool> features;
    for (const QString& feature : parser.values(featureOption)) {
        const int equals = feature.lastIndexOf(QLatin1Char('='));
        const QString value = feature.mid(equals + 1);
        if (equals <= 0 || (value != "true" && value != "false")) {
            std::fprintf(stderr, "simbackend: --feature takes NAME=true|false, not %s\n", qPrintable(feature));
            return Usage;
        }
        features.insert(feature.left(equals), value == "true");
    }
    QMap<QString, QString> values;
    if (parser.isSet(configOption) && !readConfigFile(parser.value(configOption), &values))
        return Failure;

    initLogging(false, false, false, true);

    if (!quitOnSignals({SIGINT, SIGTERM})) {
        std::perror("simbackend: pipe");
        return Failure;
    }

    const QString socketDir = parser.value(socketDirOption);
    const bool tcp = parser.isSet(tcpOption);
    std::unique_ptr<Database> database;
    std::unique_ptr<System> system;
    std::unique_ptr<Diagnosis> diagnosis;
    if (!without.contains("database"))
        database.reset(new Database(values, features, parser.value(readDelayOption).toInt()));
    if (!without.contains("system"))
        system.reset(new System(parser.values(interfaceOption)));
    if (!without.contains("diagnosis"))
        diagnosis.reset(new Diagnosis);
    Supervisor supervisor(tcp ? SocketConnection::TcpSocketType : SocketConnection::LocalSocketType, socketDir);
    Control control(database.get(), system.get(), diagnosis.get(), &supervisor);

    // A second backend that adds one service leaves the control service to the first.
    const QList<SocketAdaptor*> services{database.get(), system.get(), diagnosis.get(),
                                         without.contains("control") ? nullptr : &control};
    for (SocketAdaptor* service : services) {
        if (service && !listen(service, tcp, socketDir))
            return Failure;
    }
    for (auto it = values.cbegin(); database && it != values.cend(); ++it)
        say("database", it.key() + QStringLiteral(" = ") + it.value());
    std::puts("ready");
    std::fflush(stdout);

    if (parser.isSet(stagesOption))
        supervisor.runAllStages();
    const int status = app.exec();
    // A port file left behind would send the next clients to a closed port.
    if (tcp) {
        for (SocketAdaptor* service : services)
            if (service)
                QFile::remove(socketDir + QLatin1Char('/') + service->getModuleName() + QStringLiteral(".port"));
    }
    return status;
}

#include "simbackend.moc"
