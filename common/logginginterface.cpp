#include "logginginterface.h"

#include "defaults.h"

#include <QCoreApplication>
#include <QLoggingCategory>
#include <QSettings>

#include <climits>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <syslog.h>

namespace logging {
bool __LoggingActive = false;
qint32 __Indent = 0;
} // namespace logging

namespace {

bool debugEnabled = false;
bool traceEnabled = false;
bool infoEnabled = false;
bool consoleEnabled = false;
unsigned int errorLineCount = 0;
int programNameLength = -1;

struct KindInfo
{
    const char* prefix;
    int priority;
};

KindInfo kindInfo(int kind)
{
    switch (kind) {
    case CDebug::Notice: return {"--", LOG_NOTICE};
    case CDebug::Trace: return {"--", LOG_DEBUG};
    case CDebug::Debug: return {"**", LOG_DEBUG};
    case CDebug::Warning: return {"WW", LOG_WARNING};
    case CDebug::Info: return {"--", LOG_INFO};
    case CDebug::Verbose: return {"--", LOG_INFO};
    case CDebug::Error: return {"EE", LOG_ERR};
    default: return {"??", LOG_INFO};
    }
}

// The switch that must also be on for a line of this kind to be written.
bool kindSwitchOn(int kind)
{
    switch (kind) {
    case CDebug::Trace: return traceEnabled;
    case CDebug::Debug: return debugEnabled;
    case CDebug::Verbose: return infoEnabled;
    default: return true;
    }
}

int decimalDigits(qint64 processId)
{
    if (processId <= 9)
        return 1;
    if (processId <= 99)
        return 2;
    if (processId <= 999)
        return 3;
    if (processId <= 9999)
        return 4;
    return 5;
}

int invocationNameLength()
{
    if (programNameLength < 0)
        programNameLength = int(std::strlen(program_invocation_short_name));
    return programNameLength;
}

void writeLine(int priority, const QByteArray& line)
{
    if (consoleEnabled) {
        std::puts(line.constData());
        std::fflush(stdout);
    } else {
        syslog(LOG_USER | priority, "%s", line.constData());
    }
}

} // namespace

QByteArray logging::formatPositionPrefix(const char* kindPrefix, const char* file, int line,
                                         qint64 processId, int programNameLength, int indent)
{
    const char* slash = std::strrchr(file, '/');
    const QByteArray baseName(slash ? slash + 1 : file);

    QByteArray prefix(kindPrefix);
    prefix += ' ';
    prefix += baseName.left(20).leftJustified(20, ' ');
    prefix += ' ';
    prefix += QByteArray::number(line).rightJustified(5, ' ', true);
    // syslog writes "name[pid]: " in front; pad so that the text starts at column 26.
    const int used = decimalDigits(processId) + 3 + programNameLength;
    prefix.prepend(QByteArray(std::max(0, 26 - used), ' '));
    prefix += ' ';
    prefix += QByteArray(3 * std::max(0, indent), ' ');
    return prefix;
}

QByteArray logging::positionPrefix(const char* kindPrefix, const char* file, int line)
{
    return formatPositionPrefix(kindPrefix, file, line, QCoreApplication::applicationPid(),
                                invocationNameLength(), __Indent);
}

CDebug::CDebug(Kind kind, const char* file, int line) : kind(kind), active(isKindActive(kind))
{
    start(true, file, line);
}

CDebug::CDebug(Kind kind) : kind(kind), active(isKindActive(kind))
{
    start(false, nullptr, 0);
}

CDebug::~CDebug()
{
    flush();
}

void CDebug::start(bool withPrefix, const char* file, int line)
{
    if (kind == Error)
        ++errorLineCount;
    if (active && withPrefix)
        text = logging::positionPrefix(kindInfo(kind).prefix, file ? file : "(null)", line);
}

void CDebug::flush()
{
    if (!active || text.isEmpty()) {
        text.clear();
        return;
    }
    if (kindSwitchOn(kind))
        writeLine(kindInfo(kind).priority, text);
    text.clear();
}

void CDebug::appendRaw(const QByteArray& bytes)
{
    if (writable())
        text += bytes;
}

void CDebug::appendValue(const QByteArray& bytes)
{
    if (writable()) {
        text += bytes;
        text += ' ';
    }
}

CDebug& CDebug::operator<<(const char* value)
{
    if (!value)
        failed = true;
    else
        appendValue(QByteArray(value));
    return *this;
}

CDebug& CDebug::operator<<(unsigned int value)
{
    return *this << static_cast<unsigned long long>(value);
}

CDebug& CDebug::operator<<(unsigned short value)
{
    return *this << static_cast<unsigned long long>(value);
}

CDebug& CDebug::operator<<(unsigned long value)
{
    return *this << static_cast<unsigned long long>(value);
}

CDebug& CDebug::operator<<(unsigned long long value)
{
    if (writable())
        appendValue("0x" + QByteArray::number(value, 16));
    return *this;
}

CDebug& CDebug::operator<<(const QString& value)
{
    if (writable())
        appendValue(value.toUtf8());
    return *this;
}

CDebug& CDebug::operator<<(const QByteArray& value)
{
    appendValue(value);
    return *this;
}

CDebug& CDebug::operator<<(const QStringList& list)
{
    for (const QString& element : list)
        *this << element;
    return *this;
}

CDebug& CDebug::operator<<(const QList<int>& list)
{
    for (int element : list)
        *this << static_cast<unsigned int>(element);
    return *this;
}

CDebug& CDebug::operator<<(const QList<unsigned short>& list)
{
    for (unsigned short element : list)
        *this << element;
    return *this;
}

CDebug& CDebug::operator<<(const QVariant& value)
{
    if (writable())
        appendValue(value.toString().toUtf8());
    return *this;
}

CDebug& CDebug::operator<<(const QMap<QString, QString>& map)
{
    if (writable())
        for (auto it = map.cbegin(); it != map.cend(); ++it)
            appendValue(it.key().toUtf8() + '.' + it.value().toUtf8());
    return *this;
}

CDebug& CDebug::operator<<(const QMap<QString, QVariant>& map)
{
    if (writable())
        for (auto it = map.cbegin(); it != map.cend(); ++it)
            appendValue(it.key().toUtf8() + '.' + it.value().toString().toUtf8());
    return *this;
}

CTrace::CTrace(const char* /*file*/, const char* name, int /*line*/) : CDebug(Trace), name(name)
{
    if (logging::__LoggingActive) {
        appendRaw('<' + this->name + "> =>");
        flush();
    }
    timer.start();
}

CTrace::~CTrace()
{
    if (logging::__LoggingActive)
        appendRaw('<' + name + "> <= " + QByteArray::number(timer.elapsed()) + "ms");
}

LogIndent::LogIndent()
{
    ++logging::__Indent;
}

LogIndent::~LogIndent()
{
    if (logging::__Indent > 0)
        --logging::__Indent;
}

void initLogging(bool debug, bool trace, bool info, bool console)
{
    openlog(nullptr, LOG_CONS, LOG_USER);
    qInstallMessageHandler(dispatchLoggingMessage);
    QByteArray rules = "*.info=true\n*.warning=true\n*.critical=true\n";
    if (debug)
        rules += "*.debug=true\n";
    QLoggingCategory::setFilterRules(QString::fromLatin1(rules));
    debugEnabled = debug;
    traceEnabled = trace;
    infoEnabled = info;
    consoleEnabled = console;
    errorLineCount = 0;
}

void initLoggingByConfig()
{
    const QSettings settings;
    const bool debug = readNumberSetting(settings, "logging/debug", 0, INT_MIN, INT_MAX) != 0;
    const bool trace = readNumberSetting(settings, "logging/trace", 0, INT_MIN, INT_MAX) != 0;
    const bool silence = readNumberSetting(settings, "logging/silenceisgolden", 0, INT_MIN, INT_MAX) != 0;
    initLogging(debug, trace, !silence, false);
}

void shutdownLogging()
{
    closelog();
    qInstallMessageHandler(nullptr);
    debugEnabled = false;
    traceEnabled = false;
    infoEnabled = false;
    errorLineCount = 0;
}

unsigned int getErrorLogLineCount()
{
    return errorLineCount;
}

void setErrorLogLineCount(unsigned int count)
{
    errorLineCount = count;
}

void dispatchLoggingMessage(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    if (message.isEmpty())
        return;

    const QByteArray category(context.category ? context.category : "(null)");
    const bool permanent = category.endsWith(".permalog");
    const bool traceMessage = category.endsWith(".trace");

    if (traceMessage && !traceEnabled)
        return;
    // Fatal messages end the process; they are never filtered away.
    if (!logging::__LoggingActive && type != QtCriticalMsg && type != QtFatalMsg && !permanent
        && type != QtWarningMsg)
        return;
    // The category rules leave Qt's debug messages on by default; like Debug
    // lines they are written only with the debug switch.
    if (type == QtDebugMsg && !debugEnabled)
        return;

    KindInfo info;
    switch (type) {
    case QtDebugMsg: info = {"**", LOG_DEBUG}; break;
    case QtWarningMsg: info = {"WW", LOG_WARNING}; break;
    case QtCriticalMsg: info = {"EE", LOG_ERR}; break;
    case QtFatalMsg: info = {"EE", LOG_CRIT}; break;
    case QtInfoMsg: info = {"--", permanent ? LOG_NOTICE : LOG_INFO}; break;
    default: info = {"??", LOG_CRIT}; break;
    }

    // Noise of the framework's bus layer that nobody on the controller acts on.
    if (type == QtWarningMsg && !context.file && category == "default"
        && message.startsWith(QLatin1String("\"Object does not exist at path")))
        return;

    const QByteArray prefix =
        logging::positionPrefix(info.prefix, context.file ? context.file : "(null)", context.line);
    const QByteArray text = message.toUtf8();
    if (consoleEnabled) {
        std::printf("%s%s", prefix.constData(), text.constData());
        std::fflush(stdout);
    } else {
        syslog(LOG_USER | info.priority, "%s%s", prefix.constData(), text.constData());
    }
}
