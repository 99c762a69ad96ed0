#ifndef SOCKETPROMISE_H
#define SOCKETPROMISE_H

#include "socketargument.h"

#include <QByteArray>
#include <QPointer>

class SocketAdaptor;
class SocketConnection;
struct SocketCall;

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
// handle to go deletes it. A promise of a call that goes without a result
// answers the caller with a failure, so that nobody waits for a time limit.
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

    // Called by the RPC server right after the slot returned this promise.
    void setCallData(SocketAdaptor* adaptor, const SocketCall& call);
    // Called by the slot's implementation when the result is ready, from any
    // copy of the handle; the first result wins. Sent as soon as both the
    // call and the result are known.
    void setResult(const SocketArgument& result) const;

    // The shared data; null never happens for a live handle.
    SocketPromiseData* data() const { return d; }

private:
    void release();

    SocketPromiseData* d;
};

Q_DECLARE_METATYPE(SocketPromise)

#endif // SOCKETPROMISE_H
