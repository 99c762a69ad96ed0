#ifndef SOCKETPROMISE_H
#define SOCKETPROMISE_H

#include "socketargument.h"

#include <QByteArray>
#include <QPointer>

class SocketAdaptor;
class SocketConnection;

// The state shared by all handles of one promise: which call the deferred
// result belongs to, and a result that arrived before the call was known.
// Used on the RPC server's thread only, so the count is a plain int.
struct SocketPromiseData
{
    int referenceCount = 1;
    // Weak: either may be gone by the time the result is ready.
    QPointer<SocketAdaptor> adaptor;
    QPointer<SocketConnection> connection;
    QByteArray signature;
    quint16 queryId = 0;
    bool callDataSet = false;
    bool resultSet = false;
    SocketArgument result;
};

// A cheap handle on a deferred result. A slot exposed over RPC returns one when
// it cannot answer at once; the handle lives on in a SocketArgument of kind
// TypePromise and in the slot's own copies. Copies share the data; the last
// handle to go deletes it.
class SocketPromise
{
public:
    // Creates fresh data.
    SocketPromise();
    SocketPromise(const SocketPromise& other);
    SocketPromise& operator=(const SocketPromise& other);
    // Virtual: the handle is also constructed and destroyed in place inside a
    // SocketArgument's value buffer.
    virtual ~SocketPromise();

    // The shared data; null never happens for a live handle.
    SocketPromiseData* data() const { return d; }

private:
    void release();

    SocketPromiseData* d;
};

#endif // SOCKETPROMISE_H
