#ifndef SOCKETSERVER_H
#define SOCKETSERVER_H

#include <QHostAddress>
#include <QObject>
#include <QString>

class QSocketNotifier;
class Socket;

// A listener of the RPC layer that hands out accepted peers as Sockets.
//
// It accepts on a listening descriptor of its own, so that running out of
// descriptors does not end it: it keeps one spare descriptor open and gives it
// up for a moment to accept a peer that could not be accepted otherwise, and to
// close that peer at once, rather than leaving it waiting in the backlog. Any
// other failure of the listener closes it and emits error(); the owner may
// listen again.
class SocketServer : public QObject
{
    Q_OBJECT

public:
    explicit SocketServer(QObject* parent = nullptr);
    ~SocketServer() override;

    // The next accepted peer in a new Socket that the caller owns, or null when
    // none is pending now or the listener failed.
    virtual Socket* nextPendingConnection();
    bool isListening() const { return listener >= 0; }
    QString errorString() const { return lastError; }
    // Stops listening; nothing pending is accepted any more.
    virtual void close();

signals:
    void newConnection();
    // The listener failed and has been closed.
    void error(QString text);

protected:
    // Takes over a listening descriptor; false (with the error text) when it
    // cannot be watched.
    bool takeListener(int descriptor);
    // Records the error text of errno and closes the descriptor; returns false.
    bool failed(int descriptor);
    // Wraps an accepted, connected descriptor, or closes it and returns null.
    virtual Socket* wrap(int descriptor) = 0;

private slots:
    void onActivated();

private:
    enum Refusal { Refused, NobodyWaiting, Failed };
    Refusal refuseOne();
    void pauseAccepting();

    int listener = -1;
    int spare = -1;
    QSocketNotifier* notifier = nullptr;
    bool refusing = false;
    QString lastError;
};

// Listens on a Unix-domain socket. The socket file is made with mode 0660:
// only the owning user and its group can connect.
class LocalServer : public SocketServer
{
    Q_OBJECT

public:
    explicit LocalServer(QObject* parent = nullptr);
    ~LocalServer() override;

    // Listens at this path. False when the path is taken or cannot be made.
    bool listen(const QString& name);
    // Stops listening and removes the socket file.
    void close() override;

protected:
    Socket* wrap(int descriptor) override;

private:
    QString path;
};

// Listens on a TCP port.
class TcpServer : public SocketServer
{
    Q_OBJECT

public:
    explicit TcpServer(QObject* parent = nullptr);
    ~TcpServer() override;

    // Port 0 lets the system choose; getPort() tells which.
    bool listen(const QHostAddress& address, quint16 port);
    // Takes over a socket descriptor that already listens, as a service
    // manager hands it in; it is closed with this server.
    bool listen(int socketDescriptor);
    quint16 getPort() const { return port; }

protected:
    Socket* wrap(int descriptor) override;

private:
    quint16 port = 0;
};

#endif // SOCKETSERVER_H
