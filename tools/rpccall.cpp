// rpccall: calls a slot of any backend service, or prints its signals, from
// the command line, through the backend's own RPC library.
#include "defaults.h"
#include "logginginterface.h"
#include "signalpipe.h"
#include "socketinterface.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QJsonDocument>
#include <QTimer>

#include <cmath>
#include <csignal>
#include <cstdio>

namespace {

enum ExitStatus { Success = 0, NoService = 1, Usage = 2, CallFailed = 3 };

const char* const ArgumentHelp =
    "Arguments are TYPE:VALUE, one per slot parameter:\n"
    "  string:TEXT  bytes:TEXT  char:N  uchar:N  ushort:N  int:N  uint:N\n"
    "  int64:N  uint64:N  bool:true|false  double:X  strings:A,B,C  ints:1,2,3\n"
    "  id:KIND.PREFIX.SERIAL.CHANNEL.INDEX\n"
    "(short cannot be sent: services do not read 16-bit signed values;\n"
    " double takes finite numbers only: the protocol has no NaN or infinity.)\n";

template <typename T>
bool parseNumber(const QString& text, T* value)
{
    bool ok = false;
    if constexpr (std::is_signed<T>::value) {
        const qlonglong number = text.toLongLong(&ok);
        ok = ok && number >= std::numeric_limits<T>::min() && number <= std::numeric_limits<T>::max();
        *value = T(number);
    } else {
        const qulonglong number = text.toULongLong(&ok);
        ok = ok && number <= std::numeric_limits<T>::max();
        *value = T(number);
    }
    return ok;
}

// One "TYPE:VALUE" argument; false for an unknown type or a value that does not fit it.
bool parseArgument(const QString& text, SocketArgument* argument)
{
    const int colon = text.indexOf(QLatin1Char(':'));
    if (colon < 0)
        return false;
    const QString type = text.left(colon);
    const QString value = text.mid(colon + 1);
    bool ok = true;
    if (type == "string") {
        *argument = SocketArgument(value);
    } else if (type == "bytes") {
        *argument = SocketArgument(value.toUtf8());
    } else if (type == "char") {
        signed char number = 0;
        ok = parseNumber(value, &number);
        *argument = SocketArgument(number);
    } else if (type == "uchar") {
        unsigned char number = 0;
        ok = parseNumber(value, &number);
        *argument = SocketArgument(number);
    } else if (type == "ushort") {
        unsigned short number = 0;
        ok = parseNumber(value, &number);
        *argument = SocketArgument(number);
    } else if (type == "int") {
        int number = 0;
        ok = parseNumber(value, &number);
        *argument = SocketArgument(number);
    } else if (type == "uint") {
        unsigned int number = 0;
        ok = parseNumber(value, &number);
        *argument = SocketArgument(number);
    } else if (type == "int64") {
        long long number = 0;
        ok = parseNumber(value, &number);
        *argument = SocketArgument(number);
    } else if (type == "uint64") {
        unsigned long long number = 0;
        ok = parseNumber(value, &number);
        *argument = SocketArgument(number);
    } else if (type == "bool") {
        ok = value == "true" || value == "false";
        *argument = SocketArgument(value == "true");
    } else if (type == "double") {
        // Sent anyway, a NaN or an infinity would arrive as 0.
        const double number = value.toDouble(&ok);
        ok = ok && std::isfinite(number);
        *argument = SocketArgument(number);
    } else if (type == "strings") {
        *argument = SocketArgument(value.isEmpty() ? QStringList() : value.split(QLatin1Char(',')));
    } else if (type == "ints") {
        QList<int> numbers;
        for (const QString& part : value.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
            int number = 0;
            ok = ok && parseNumber(part, &number);
            numbers << number;
        }
        *argument = SocketArgument(numbers);
    } else if (type == "id") {
        const QStringList parts = value.split(QLatin1Char('.'));
        InternalId id;
        ok = parts.size() == 5 && parseNumber(parts[0], &id.kind) && parseNumber(parts[1], &id.serialPrefix)
             && parseNumber(parts[2], &id.serialNumber) && parseNumber(parts[3], &id.channel)
             && parseNumber(parts[4], &id.index);
        *argument = SocketArgument(id);
    } else {
        return false;
    }
    return ok;
}

QString json(const QVariant& value)
{
    return QString::fromUtf8(QJsonDocument::fromVariant(value).toJson(QJsonDocument::Compact));
}

// The value as text, containers as JSON.
QString formatValue(const SocketArgument& value)
{
    switch (value.getType()) {
    case SocketArgument::TypeInvalid: return QStringLiteral("(no value)");
    case SocketArgument::TypeString16: return value.toQString();
    case SocketArgument::TypeString8: return QString::fromUtf8(value.toString8());
    case SocketArgument::TypeInt8: return QString::number(value.toInt8());
    case SocketArgument::TypeBool: return value.toBool() ? QStringLiteral("true") : QStringLiteral("false");
    case SocketArgument::TypeDouble: return QString::number(value.toDouble(), 'g', 17);
    case SocketArgument::TypeInternalId: return value.toInternalId().toString();
    case SocketArgument::TypeStringList: return json(value.toQStringList());
    case SocketArgument::TypeInt32List: {
        QVariantList numbers;
        for (int number : value.toInt32List())
            numbers << number;
        return json(numbers);
    }
    case SocketArgument::TypeStringMap: {
        QVariantMap map;
        for (auto it = value.toQStringMap().cbegin(); it != value.toQStringMap().cend(); ++it)
            map.insert(it.key(), it.value());
        return json(map);
    }
    case SocketArgument::TypeVariantMap: return json(value.toQVariantMap());
    case SocketArgument::TypeVariantList: return json(value.toQVariantList());
    default: return value.toQVariant().toString();
    }
}

void print(const QString& line)
{
    std::printf("%s\n", line.toUtf8().constData());
    std::fflush(stdout);
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("quarn"));
    QCoreApplication::setApplicationName(QStringLiteral("rpccall"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Calls METHOD of the backend service SERVICE and prints its typed result, or with --listen "
        "prints every emission of the given SIGNALs, such as 'configValueChanged(QString,QString,bool)'. "
        "Services are found where the backend's database settings say (socket directory and type)."));
    parser.addHelpOption();
    parser.addPositionalArgument("service", "The service, e.g. com.zan.ravo.upnp.");
    parser.addPositionalArgument("method", "The slot's name, or with --listen the signals.", "METHOD|SIGNAL...");
    parser.addPositionalArgument("arguments", ArgumentHelp, "[TYPE:VALUE...]");
    const QCommandLineOption noReturn("no-return", "Send the call without waiting for a result.");
    const QCommandLineOption listen("listen", "Print the service's signals instead of calling.");
    const QCommandLineOption seconds("seconds", "With --listen: stop after N seconds.", "N");
    const QCommandLineOption clientName("client-name", "Announce this client name first.", "NAME");
    const QCommandLineOption socketDir("socket-dir", "Where the services' sockets are.", "DIR");
    const QCommandLineOption tcp("tcp", "The services listen on loopback TCP ports.");
    const QCommandLineOption local("local", "The services listen on local sockets.");
    const QCommandLineOption verbose("verbose", "Print the RPC library's log lines here, not to the system log.");
    parser.addOptions({noReturn, listen, seconds, clientName, socketDir, tcp, local, verbose});
    parser.process(app);

    const QStringList positional = parser.positionalArguments();
    if (positional.size() < 2) {
        std::fprintf(stderr, "%s\n", qPrintable(parser.helpText()));
        return Usage;
    }
    QList<SocketArgument> arguments;
    if (!parser.isSet(listen)) {
        for (const QString& text : positional.mid(2)) {
            SocketArgument argument;
            if (!parseArgument(text, &argument)) {
                std::fprintf(stderr, "rpccall: malformed argument '%s'\n%s", qPrintable(text), ArgumentHelp);
                return Usage;
            }
            arguments << argument;
        }
        if (arguments.size() > 10) {
            std::fprintf(stderr, "rpccall: a call takes at most 10 arguments\n");
            return Usage;
        }
    }
    // The library's log lines go to the system log, as every backend process's do.
    initLogging(false, false, false, parser.isSet(verbose));

    DatabaseSettings settings = readDatabaseSettings();
    if (parser.isSet(socketDir))
        settings.socketDir = parser.value(socketDir);
    bool useTcp = settings.useTcp();
    if (parser.isSet(tcp) || parser.isSet(local))
        useTcp = parser.isSet(tcp);

    const QString service = positional.at(0);
    SocketInterface interface(useTcp ? SocketConnection::TcpSocketType : SocketConnection::LocalSocketType, service,
                              settings.socketDir, nullptr, parser.value(clientName).toUtf8());
    if (!interface.isValid()) {
        std::fprintf(stderr, "rpccall: cannot connect to service %s in %s (%s): %s\n", qPrintable(service),
                     qPrintable(settings.socketDir), useTcp ? "tcp" : "local",
                     qPrintable(interface.errorText().isEmpty() ? QStringLiteral("no port file")
                                                                : interface.errorText()));
        return NoService;
    }

    if (parser.isSet(listen)) {
        interface.setSignalObserver([](const QByteArray& signature, const QVector<SocketArgument>& values) {
            QStringList words{QString::fromUtf8(signature)};
            for (const SocketArgument& value : values)
                words << formatValue(value);
            print(words.join(QLatin1Char(' ')));
        });
        for (const QString& signal : positional.mid(1)) {
            if (!interface.subscribeSignal(signal.toUtf8().constData())) {
                std::fprintf(stderr, "rpccall: cannot subscribe to %s\n", qPrintable(signal));
                return CallFailed;
            }
        }
        QObject::connect(&interface, &SocketInterface::disconnected, &app, [] {
            std::fprintf(stderr, "rpccall: the service went away\n");
            QCoreApplication::exit(CallFailed);
        });
        if (parser.isSet(seconds))
            QTimer::singleShot(int(parser.value(seconds).toDouble() * 1000), &app, &QCoreApplication::quit);
        if (!quitOnSignals({SIGINT, SIGTERM})) {
            std::perror("rpccall: pipe");
            return CallFailed;
        }
        return app.exec();
    }

    const QByteArray method = positional.at(1).toUtf8();
    const SocketInterface::CallMode mode = parser.isSet(noReturn) ? SocketInterface::CallWithoutReturn
                                                                  : SocketInterface::CallWithReturn;
    const SocketArgument result = interface.callWithArgumentList(mode, method.constData(), arguments);
    if (interface.hasError()) {
        std::fprintf(stderr, "rpccall: %s failed: %s\n", method.constData(), qPrintable(interface.errorText()));
        return CallFailed;
    }
    if (mode == SocketInterface::CallWithoutReturn)
        return Success;
    if (interface.lastCallFailed()) {
        std::fprintf(stderr, "rpccall: %s refused the call %s (unknown method or argument types?)\n",
                     qPrintable(service), method.constData());
        return CallFailed;
    }
    print(result.isValid() ? QString::fromLatin1(result.getTypeString()) + QLatin1Char(' ') + formatValue(result)
                           : formatValue(result));
    return Success;
}
