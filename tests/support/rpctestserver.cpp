// rpctestserver SOCKETDIR local|tcp [INVOKETIMEOUTMS|database]: prints "ready"
// once it listens as "com.zan.ravo.testserver", with slots that echo each value
// kind, record calls, emit signals and answer through promises; or, with
// "database", as a configuration database that answers with the wrong types.
#include "logginginterface.h"
#include "socketadaptor.h"
#include "socketpromise.h"

#include <QCoreApplication>
#include <QThread>
#include <QTimer>

#include <cstdio>

// The heap in use: the resident size hides it behind what the allocator keeps.
#ifdef __SANITIZE_ADDRESS__
extern "C" size_t __sanitizer_get_current_allocated_bytes();
static qulonglong heapInUse() { return __sanitizer_get_current_allocated_bytes(); }
#else
#include <malloc.h>
static qulonglong heapInUse() { return mallinfo2().uordblks + mallinfo2().hblkhd; }
#endif

class TestServer : public SocketAdaptor
{
    Q_OBJECT

public slots:
    QString getModuleName() override { return QStringLiteral("com.zan.ravo.testserver"); }

    QString echo(QString value) { return value; }
    QByteArray echo(QByteArray value) { return value; }
    char echo(char value) { return value; }
    uchar echo(uchar value) { return value; }
    ushort echo(ushort value) { return value; }
    int echo(int value) { return value; }
    uint echo(uint value) { return value; }
    qlonglong echo(qlonglong value) { return value; }
    qulonglong echo(qulonglong value) { return value; }
    bool echo(bool value) { return value; }
    double echo(double value) { return value; }
    QStringList echo(QStringList value) { return value; }
    QList<int> echo(QList<int> value) { return value; }
    InternalId echo(InternalId value) { return value; }
    QVariantMap echo(QVariantMap value) { return value; }
    int add(int a, int b, int c, int d, int e, int f, int g, int h, int i, int j)
    {
        return a + b + c + d + e + f + g + h + i + j;
    }
    qulonglong heapBytes() { return heapInUse(); }

    // Calls in the order they are invoked.
    void record(QString tag) { recordedCalls << tag; }
    QStringList recorded() { return recordedCalls; }
    // Holds up every client, as a slow slot does.
    void block(int ms) { QThread::msleep(ulong(ms)); }

    void notify(QString text) { emitSignal("changed(QString,int)", text, 42); }
    int notifyThenAnswer(QString text) { return notify(text), 7; }

    SocketPromise resultBeforeCallData(int value) { SocketPromise promise; promise.setResult(value * 2); return promise; }
    SocketPromise resultTwice()
    {
        SocketPromise promise;
        QTimer::singleShot(50, this, [promise] { promise.setResult(1), promise.setResult(2); });
        return promise;
    }
    SocketPromise neverAnswered() { return SocketPromise(); }
    // Answers after a pause; the client may be gone by then.
    SocketPromise resultAfter(int ms)
    {
        SocketPromise promise;
        QTimer::singleShot(ms, this, [promise, ms] { promise.setResult(QString::number(ms)); });
        return promise;
    }

private:
    QStringList recordedCalls;
};

// A configuration database that answers with the wrong types, and sends
// its signals when told to.
class OddDatabase : public SocketAdaptor
{
    Q_OBJECT

public slots:
    QString getModuleName() override { return QStringLiteral("com.zan.ravo.database"); }
    int getConfigValue(QString) { return 7; }
    bool setConfigValue(QString, QString, bool) { return true; }
    QString getFeatureValue(QString) { return QStringLiteral("yes"); }
    void changed(QString key, QString value) { emitSignal("configValueChanged(QString,QString,bool)", key, value, false); }
    void batch(QStringList values) { emitSignal("configValueBatchUpdate(QStringList)", values); }
    void leave() { QTimer::singleShot(0, qApp, &QCoreApplication::quit); }
};

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    if (argc < 3)
        return 2;
    initLogging(false, false, false, true);
    const QByteArray option = argc > 3 ? argv[3] : "";
    TestServer testServer;
    OddDatabase database;
    SocketAdaptor& server = option == "database" ? static_cast<SocketAdaptor&>(database) : testServer;
    if (const int invokeTimeout = option.toInt(); invokeTimeout > 0)
        server.setInvokeTimeoutInterval(invokeTimeout);
    const QString socketDir = QString::fromLocal8Bit(argv[1]);
    const bool listening = QByteArray(argv[2]) == "tcp" ? server.startTcpServer(socketDir, 0)
                                                        : server.startLocalServer(socketDir);
    if (!listening)
        return 1;
    std::puts("ready");
    std::fflush(stdout);
    return app.exec();
}

#include "rpctestserver.moc"
