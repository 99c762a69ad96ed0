#ifndef SOCKET_H
#define SOCKET_H

#include <QAbstractSocket>
#include <QHostAddress>
#include <QLocalSocket>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QTcpSocket>

// One byte stream of the RPC layer, over a Unix-domain or a TCP socket.
//
// Every error of the wrapped framework socket is reported once through
// error(QString) with the name of its code ("ServerNotFoundError",
// "RemoteHostClosedError", ...); the last name and code stay readable. The
// operations forward to the wrapped socket; once that is gone (destroyed from
// elsewhere) they report false, 0 or -1.
class Socket : public QObject
{
    Q_OBJECT

public:
    explicit Socket(QObject* parent = nullptr);
    ~Socket() override;

    // The local server name connected to, or "address:port" for TCP.
    QString getPeerName() const { return peerName; }
    QString getLastErrorText() const { return lastErrorText; }
    // The framework's error code of the last error; -1 before any.
    qint32 getLastError() const { return lastError; }

public slots:
    virtual bool isValid() const = 0;
    virtual bool waitForConnected(int ms) = 0;
    virtual bool waitForBytesWritten(int ms) = 0;
    virtual bool waitForReadyRead(int ms) = 0;
    virtual qint64 bytesAvailable() const = 0;
    virtual qint64 bytesToWrite() const = 0;
    // The number of bytes taken, or -1 on error.
    virtual qint64 write(const char* data, qint64 length) = 0;
    virtual QByteArray readAll() = 0;
    // Up to length bytes into data; the number read, or -1 on error.
    virtual qint64 read(char* data, qint64 length) = 0;
    // QLocalSocket's states have the same numbers as QAbstractSocket's.
    virtual QAbstractSocket::SocketState state() const = 0;
    // Writes as much of the output buffer as the kernel takes now, without
    // waiting; the rest leaves from the event loop. False when the socket failed.
    virtual bool writeBuffered() = 0;
    // Closes at once, dropping what is buffered either way; disconnected()
    // follows, from inside the call when the socket was connected.
    virtual void abort() = 0;
    // The operating system's descriptor, or -1.
    virtual qintptr descriptor() const = 0;

signals:
    void error(QString text);
    void readyRead();
    void disconnected();

protected:
    void setPeerName(const QString& name) { peerName = name; }
    // Stores the error and emits error(text).
    void reportError(qint32 code, const QString& text);

private:
    QString peerName;
    QString lastErrorText;
    qint32 lastError = -1;
};

// A Unix-domain stream socket.
class LocalSocket : public Socket
{
    Q_OBJECT

public:
    explicit LocalSocket(QObject* parent = nullptr);
    // Takes over an accepted socket, which becomes this object's child; its
    // peer name is the name of the server that accepted it.
    LocalSocket(QLocalSocket* socket, const QString& serverName, QObject* parent = nullptr);
    ~LocalSocket() override;

    // Connects to the local server of this name (a path or a name in the
    // framework's socket directory); the outcome arrives asynchronously or
    // through waitForConnected().
    void connectToServer(const QString& name, QIODevice::OpenMode mode = QIODevice::ReadWrite);

    // The name of a local socket error code, as peers log it.
    static QString errorName(int code);

    bool isValid() const override;
    bool waitForConnected(int ms) override;
    bool waitForBytesWritten(int ms) override;
    bool waitForReadyRead(int ms) override;
    qint64 bytesAvailable() const override;
    qint64 bytesToWrite() const override;
    qint64 write(const char* data, qint64 length) override;
    QByteArray readAll() override;
    qint64 read(char* data, qint64 length) override;
    QAbstractSocket::SocketState state() const override;
    bool writeBuffered() override;
    void abort() override;
    qintptr descriptor() const override;

private slots:
    void onError(QLocalSocket::LocalSocketError code);

private:
    void attach();

    QPointer<QLocalSocket> socket;
};

// A TCP stream socket.
class TcpSocket : public Socket
{
    Q_OBJECT

public:
    explicit TcpSocket(QObject* parent = nullptr);
    // Takes over an accepted socket, which becomes this object's child; its
    // peer name is the remote address and port.
    explicit TcpSocket(QTcpSocket* socket, QObject* parent = nullptr);
    ~TcpSocket() override;

    void connectToHost(const QHostAddress& address, quint16 port,
                       QIODevice::OpenMode mode = QIODevice::ReadWrite);

    // The name of a TCP socket error code, as peers log it.
    static QString errorName(int code);

    bool isValid() const override;
    bool waitForConnected(int ms) override;
    bool waitForBytesWritten(int ms) override;
    bool waitForReadyRead(int ms) override;
    qint64 bytesAvailable() const override;
    qint64 bytesToWrite() const override;
    qint64 write(const char* data, qint64 length) override;
    QByteArray readAll() override;
    qint64 read(char* data, qint64 length) override;
    QAbstractSocket::SocketState state() const override;
    bool writeBuffered() override;
    void abort() override;
    qintptr descriptor() const override;

private slots:
    void onError(QAbstractSocket::SocketError code);

private:
    void attach();

    QPointer<QTcpSocket> socket;
};

#endif // SOCKET_H
