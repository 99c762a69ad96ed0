// rpctestserver SOCKETDIR local|tcp [INVOKETIMEOUTMS|database]
//
// An RPC service "com.zan.ravo.testserver" for the tests: slots that echo each
// value kind, record calls in order, emit signals, and answer through
// promises in every way a slot may. With "database": a configuration
// database that answers with the wrong types. Prints "ready" once it listens.
#include "logginginterface.h"
#include "socketadaptor.h"
#include "socketpromise.h"

#include <QCoreApplication>
#include <QThread>
#include <QTimer>

#include <cstdio>
#include <malloc.h>

class TestServer : public SocketAdaptor
{
    Q_OBJECT

public slots:
    QString getModuleName() override { return QStringLiteral("com.zan.ravo.testserver"); }

    QString echoString(QString value) { return value; }
    QByteArray echoBytes(QByteArray value) { return value; }
    char echoInt8(char value) { return value; }
    uchar echoUInt8(uchar value) { return value; }
    ushort echoUInt16(ushort value) { return value; }
    int echoInt32(int value) { return value; }
    uint echoUInt32(uint value) { return value; }
    qlonglong echoInt64(qlonglong value) { return value; }
    qulonglong echoUInt64(qulonglong value) { return value; }
    bool echoBool(bool value) { return value; }
    double echoDouble(double value) { return value; }
    QStringList echoStrings(QStringList value) { return value; }
    QList<int> echoInts(QList<int> value) { return value; }
    InternalId echoId(InternalId value) { return value; }
    QVariantMap echoMap(QVariantMap value) { return value; }
    int add(int a, int b, int c, int d, int e, int f, int g, int h, int i, int j)
    {
        return a + b + c + d + e + f + g + h + i + j;
    }
    // Hands freed heap back to the system, so that the resident size shows
    // what the server still holds; answers nothing.
    void trimHeap() { malloc_trim(0); }

    // Calls in the order they are invoked.
    void record(QString tag) { recordedCalls << tag; }
    QStringList recorded() { return recordedCalls; }
    // Holds up every client, as a slow slot does.
    void block(int ms) { QThread::msleep(ulong(ms)); }

    void notify(QString text) { emitSignal("changed(QString,int)", text, 42); }
    int notifyThenAnswer(QString text) { return notify(text), 7; }

    SocketPromise resultBeforeCallData(int value)
    {
        SocketPromise promise;
        promise.setResult(value * 2);
        return promise;
    }
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
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s SOCKETDIR local|tcp [INVOKETIMEOUTMS|database]\n", argv[0]);
        return 2;
    }
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
