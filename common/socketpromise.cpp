#include "socketpromise.h"

#include "logginginterface.h"
#include "socketadaptor.h"

namespace {

void sendResult(SocketPromiseData* data)
{
    if (!data->adaptor || !data->connection) {
        CLOG(Error) << "SocketPromise cannot send result, adaptor or connection deleted"
                    << QVariant(!data->adaptor.isNull()) << QVariant(!data->connection.isNull());
        return;
    }
    SocketCall call;
    call.connection = data->connection;
    call.queryId = data->queryId;
    call.wantsReturn = true;
    if (!data->adaptor->sendResult(call, data->result))
        CLOG(Error) << "returning result of" << data->signature << QString::number(data->queryId) << "to"
                    << data->connection->describe() << "failed";
}

void destroy(SocketPromiseData* data)
{
    // A placeholder that never belonged to a call is no loss.
    if (data->callDataSet && !data->resultSet) {
        CLOG(Error) << "SocketPromise being deleted before result is submitted!";
        if (data->adaptor && data->connection)
            data->adaptor->sendFailedReturnValue(data->connection, data->queryId);
    }
    delete data;
}

} // namespace

SocketPromise::SocketPromise() : d(new SocketPromiseData)
{
}

SocketPromise::SocketPromise(const SocketPromise& other) : d(other.d)
{
    ++d->referenceCount;
}

SocketPromise& SocketPromise::operator=(const SocketPromise& other)
{
    // Count first, so that assigning a handle to itself keeps the data alive.
    ++other.d->referenceCount;
    release();
    d = other.d;
    return *this;
}

SocketPromise::~SocketPromise()
{
    release();
}

void SocketPromise::release()
{
    if (--d->referenceCount == 0)
        destroy(d);
}

void SocketPromise::setCallData(SocketAdaptor* adaptor, const SocketCall& call)
{
    d->adaptor = adaptor;
    d->connection = call.connection;
    d->signature = call.signature;
    d->queryId = call.queryId;
    d->callDataSet = true;
    if (d->resultSet)
        sendResult(d);
}

void SocketPromise::setResult(const SocketArgument& result) const
{
    if (d->resultSet) {
        CLOG(Error) << "got multiple setResult calls for" << d->signature << QString::number(d->queryId);
        return;
    }
    d->resultSet = true;
    d->result = result;
    if (d->callDataSet)
        sendResult(d);
}
