#ifndef LOGGINGINTERFACE_H
#define LOGGINGINTERFACE_H

#include <QByteArray>
#include <QElapsedTimer>
#include <QList>
#include <QMap>
#include <QString>
#include <QStringList>
#include <QTextStream>
#include <QVariant>

// Process-wide logging switches. Plain globals: the daemon logs from its one
// event-loop thread only.
namespace logging {
// Detailed logging: while false only Notice, Warning and Error lines are built
// and written. Switched at run time from the configuration ("debug/enableLogging").
extern bool __LoggingActive;
// Indentation depth of log lines, three blanks per level; kept by LogIndent.
extern qint32 __Indent;

// The position prefix of a log line: the two-character kind prefix, the source
// file's base name cut and padded to 20, the line right-aligned in 5 (cut when
// longer), left padding that lines the text up at column 26 behind syslog's
// "name[pid]: ", and three blanks per indentation level. Pure, so that its
// layout can be checked for any process id and program name.
QByteArray formatPositionPrefix(const char* kindPrefix, const char* file, int line,
                                qint64 processId, int programNameLength, int indent);
// The same for this process: its id, its invocation name and logging::__Indent.
QByteArray positionPrefix(const char* kindPrefix, const char* file, int line);
} // namespace logging

// One log line. Built by streaming values into it, written by flush() or the
// destructor: to syslog (facility user) or, in console mode, to standard output.
//
// Lines of a kind other than Notice, Warning and Error are dropped while
// detailed logging is off: no prefix is built, nothing is formatted, nothing is
// written. Every value is followed by one blank, except signed numbers and
// other types that go through the text stream as they are. Unsigned numbers are
// written in hexadecimal with "0x".
class CDebug
{
public:
    // A fixed underlying type: a kind outside the table is a valid value too ("??").
    enum Kind : int { Notice = 0, Trace = 1, Debug = 2, Warning = 3, Info = 4, Verbose = 5, Error = 6 };

    // Starts a line with the position prefix of file (its base name) and line.
    CDebug(Kind kind, const char* file, int line);
    // Starts a line without any prefix.
    explicit CDebug(Kind kind);
    virtual ~CDebug();

    CDebug(const CDebug&) = delete;
    CDebug& operator=(const CDebug&) = delete;

    // Writes the collected text (if the kind's switches allow it) and empties
    // the line, so a line can be flushed more than once.
    void flush();

    // Turns a finished streaming expression into void, for CLOG's conditional:
    // "&" binds more loosely than "<<", so every value is streamed first.
    struct Voidify
    {
        void operator&(const CDebug&) {}
    };

    // Whether lines of this kind are built at all under the present switches.
    static bool isKindActive(int kind)
    {
        return kind == Notice || kind == Warning || kind == Error || logging::__LoggingActive;
    }

    // A null text puts the line into a failed state: nothing more is written to it.
    CDebug& operator<<(const char* text);
    CDebug& operator<<(char* text) { return *this << static_cast<const char*>(text); }
    CDebug& operator<<(unsigned int value);
    CDebug& operator<<(unsigned short value);
    CDebug& operator<<(unsigned long value);
    CDebug& operator<<(unsigned long long value);
    CDebug& operator<<(const QString& text);
    CDebug& operator<<(const QByteArray& bytes);
    CDebug& operator<<(const QStringList& list);
    CDebug& operator<<(const QList<int>& list);
    CDebug& operator<<(const QList<unsigned short>& list);
    CDebug& operator<<(const QVariant& value);
    CDebug& operator<<(const QMap<QString, QString>& map);
    CDebug& operator<<(const QMap<QString, QVariant>& map);

    // Signed numbers, doubles and whatever else a text stream takes: written as
    // the stream formats them, without a blank behind.
    template <typename T>
    CDebug& operator<<(const T& value)
    {
        if (writable()) {
            QString formatted;
            QTextStream(&formatted) << value;
            text += formatted.toUtf8();
        }
        return *this;
    }

protected:
    bool writable() const { return active && !failed; }
    void appendRaw(const QByteArray& bytes);
    void appendValue(const QByteArray& bytes);

private:
    void start(bool withPrefix, const char* file, int line);

    Kind kind;
    bool active;
    bool failed = false;
    QByteArray text;
};

// Traces entry to and exit from a scope as Trace lines "<name> =>" and
// "<name> <= 12ms"; the trace switch decides whether they reach the log.
class CTrace : public CDebug
{
public:
    CTrace(const char* file, const char* name, int line);
    ~CTrace() override;

private:
    QElapsedTimer timer;
    QByteArray name;
};

// Indents the log lines started while it lives by one level.
class LogIndent
{
public:
    LogIndent();
    ~LogIndent();
    LogIndent(const LogIndent&) = delete;
    LogIndent& operator=(const LogIndent&) = delete;
};

// A log line at a source line. Log readers on the controller key on the file's
// base name and the line number, so a line whose number is fixed names it with
// CLOG_AT; all others take their own line with CLOG. A line of a kind that is
// switched off does not even evaluate its operands.
#define CLOG_AT(kind, line) \
    !CDebug::isKindActive(CDebug::kind) ? (void)0 \
                                        : CDebug::Voidify() & CDebug(CDebug::kind, __FILE__, line)
#define CLOG(kind) CLOG_AT(kind, __LINE__)

// Opens syslog (facility user, console fallback), installs the handler for
// Qt's own messages with the category rules for info, warning, critical and,
// with debug, debug messages; stores the switches; resets the error line count.
void initLogging(bool debug, bool trace, bool info, bool console);
// initLogging from the application's settings: "logging/debug",
// "logging/trace", "logging/silenceisgolden" (info unless it is non-zero); never console.
void initLoggingByConfig();
// Closes syslog, restores Qt's own message handler, clears the debug, trace and
// info switches and the error line count. The console switch stays.
void shutdownLogging();

// Number of Error lines started since logging was initialised.
unsigned int getErrorLogLineCount();
void setErrorLogLineCount(unsigned int count);

// Routes Qt's messages (qDebug, qWarning, ...) into the same line format.
void dispatchLoggingMessage(QtMsgType type, const QMessageLogContext& context, const QString& message);

#endif // LOGGINGINTERFACE_H
