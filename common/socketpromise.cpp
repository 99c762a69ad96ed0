#include "socketpromise.h"

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
        delete d;
}
