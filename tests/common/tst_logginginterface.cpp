#include "logginginterface.h"
#include "stdoutcapture.h"

#include <QCoreApplication>
#include <QtTest>

namespace {

// Padding of this test program's lines: syslog's "tst_logginginterface[pid]: ".
QByteArray ownPadding()
{
    const int digits = qMin(5, QByteArray::number(QCoreApplication::applicationPid()).size());
    return QByteArray(qMax(0, 26 - (digits + 3 + int(qstrlen("tst_logginginterface")))), ' ');
}

} // namespace

class tst_LoggingInterface : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        logging::__LoggingActive = false;
        logging::__Indent = 0;
        initLogging(false, false, false, true);
    }
    void cleanup() { init(); }

    void prefixesAreLaidOutByteForByte()
    {
        using logging::formatPositionPrefix;
        // The name padded or cut to 20, the line to 5.
        QCOMPARE(formatPositionPrefix("EE", "common/averyveryverylongsourcename.cpp", 123456, 12345, 4, 0),
                 QByteArray("              EE averyveryverylongsou 12345 "));
        // Two indentation levels; a pid of seven digits counts as five, of one as one.
        QCOMPARE(formatPositionPrefix("WW", "a.cpp", 7, 1234567, 4, 2),
                 QByteArray("              WW a.cpp                    7       "));
        QCOMPARE(formatPositionPrefix("--", "x/y/z.cpp", 99999, 7, 4, 0),
                 QByteArray("                  -- z.cpp                99999 "));
        // A long program name leaves no padding.
        QCOMPARE(formatPositionPrefix("??", "plain.cpp", 100, 4242, 19, 1),
                 QByteArray("?? plain.cpp              100    "));

        // This process's lines, indented while a LogIndent lives.
        const QByteArray out = captureStdout([] {
            CDebug(CDebug::Warning, "some/dir/tst_logginginterface.cpp", 41) << "restarted";
            CLOG_AT(Error, 123456) << "bad";
            LogIndent outer;
            {
                LogIndent inner;
                CDebug(CDebug::Notice, "f.cpp", 1) << "deep";
            }
            CDebug(CDebug::Notice, "f.cpp", 2) << "shallow";
        });
        const QByteArray pad = ownPadding();
        QCOMPARE(out, pad + "WW tst_logginginterface    41 restarted \n" + pad + "EE tst_logginginterface 12345 bad \n"
                          + pad + "-- f.cpp                    1       deep \n" + pad
                          + "-- f.cpp                    2    shallow \n");
        QCOMPARE(logging::__Indent, 0);

        // Error lines count when they start: "bad" above, one flushed twice
        // (written once); shutdown starts again from 0.
        const QByteArray errors = captureStdout([] {
            CDebug line(CDebug::Error);
            line << "flushed twice";
            line.flush();
            line.flush();
        });
        QCOMPARE(getErrorLogLineCount(), 2u);
        QCOMPARE(errors, QByteArray("flushed twice \n"));
        shutdownLogging();
        QCOMPARE(getErrorLogLineCount(), 0u);
    }

    void valuesAreFollowedByOneBlank()
    {
        const QByteArray out = captureStdout([] {
            CDebug(CDebug::Notice) << "text" << 12u << static_cast<unsigned short>(255)
                                   << static_cast<unsigned long long>(0x1234567890ULL);
            CDebug(CDebug::Notice) << QString::fromUtf8("Grüße") << QByteArray("bytes") << QStringList{"a", "b"}
                                   << QList<int>{1, 16} << QList<unsigned short>{10};
            CDebug(CDebug::Notice) << QVariant(42) << QMap<QString, QString>{{"k1", "v1"}, {"k2", "v2"}}
                                   << QMap<QString, QVariant>{{"n", 3}};
            // Signed numbers and doubles go through the text stream without a blank.
            CDebug(CDebug::Notice) << "pid" << -42 << qint64(7) << 2.5 << "end";
            // A null text fails the line: what came before is kept, nothing after.
            CDebug(CDebug::Notice) << "before" << static_cast<const char*>(nullptr) << "after" << 1u;
        });
        QCOMPARE(out, QByteArray("text 0xc 0xff 0x1234567890 \n"
                                 "Grüße bytes a b 0x1 0x10 0xa \n"
                                 "42 k1.v1 k2.v2 n.3 \n"
                                 "pid -4272.5end \n"
                                 "before \n"));
    }

    void switchesGateDetailedLines()
    {
        // Detailed logging off: Info, Verbose and Debug lines cost no formatting.
        int evaluated = 0;
        auto expensive = [&evaluated] { return QString("expensive %1").arg(++evaluated); };
        QCOMPARE(captureStdout([&] {
                     CLOG(Info) << expensive();
                     CLOG(Verbose) << expensive();
                     CLOG(Debug) << expensive();
                     CDebug(CDebug::Info) << "built without the macro" << 1u;
                     CDebug(CDebug::Notice) << "notice";
                     CDebug(CDebug::Warning) << "warning";
                 }),
                 QByteArray("notice \nwarning \n"));
        QCOMPARE(evaluated, 0);

        // On: each detailed kind needs its own switch; a kind outside the table passes.
        logging::__LoggingActive = true;
        auto allKinds = [] {
            for (int kind : {int(CDebug::Trace), int(CDebug::Debug), int(CDebug::Info), int(CDebug::Verbose), 9})
                CDebug(CDebug::Kind(kind)) << "kind" << kind;
        };
        QCOMPARE(captureStdout(allKinds), QByteArray("kind 4\nkind 9\n"));
        initLogging(true, false, false, true);
        QCOMPARE(captureStdout(allKinds), QByteArray("kind 2\nkind 4\nkind 9\n"));
        initLogging(false, true, true, true);
        QCOMPARE(captureStdout(allKinds), QByteArray("kind 1\nkind 4\nkind 5\nkind 9\n"));
        QVERIFY(captureStdout([] { CDebug(CDebug::Kind(9), "f.cpp", 1) << "x"; }).contains("?? f.cpp"));

    }

    void frameworkMessagesAreFiltered()
    {
        auto dispatch = [](QtMsgType type, const char* category, const char* text,
                           const char* file = "src/qtfile.cpp") {
            return captureStdout([=] {
                dispatchLoggingMessage(type, QMessageLogContext(file, 12, "function", category),
                                       QString::fromUtf8(text));
            });
        };
        auto at12 = [](const char* kind) { return ownPadding() + kind + " qtfile.cpp              12 "; };

        // Detailed logging off: warnings, criticals and permanent-log messages only.
        QCOMPARE(dispatch(QtWarningMsg, "default", "careful"), at12("WW") + "careful");
        QCOMPARE(dispatch(QtCriticalMsg, "qt.network", "broken"), at12("EE") + "broken");
        QCOMPARE(dispatch(QtInfoMsg, "quarn.permalog", "kept"), at12("--") + "kept");
        QCOMPARE(dispatch(QtInfoMsg, "default", "chatter"), QByteArray());
        QCOMPARE(dispatch(QtWarningMsg, "quarn.trace", "traced"), QByteArray());
        QCOMPARE(dispatch(QtWarningMsg, "default", ""), QByteArray());
        QCOMPARE(dispatch(QtWarningMsg, "default", "\"Object does not exist at path /x\"", nullptr), QByteArray());

        // Detailed logging on: info passes, debug still needs the debug switch.
        logging::__LoggingActive = true;
        QVERIFY(dispatch(QtInfoMsg, "default", "chatter").endsWith("chatter"));
        QCOMPARE(dispatch(QtDebugMsg, "default", "dbg"), QByteArray());
        initLogging(true, true, false, true);
        QCOMPARE(dispatch(QtDebugMsg, "default", "dbg"), at12("**") + "dbg");

        // The handler is installed: Qt's own macros arrive in the same format.
        QVERIFY(captureStdout([] { qWarning("through qWarning"); }).contains("WW "));
    }
};

QTEST_GUILESS_MAIN(tst_LoggingInterface)
#include "tst_logginginterface.moc"
