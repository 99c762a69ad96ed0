// Fuzz target: the value decoders, nested variant maps and lists included.
//
// Input: a value tag, then a body. A decoder moves the position only when it
// is done, fewer bytes than it took are never enough, and the scanner that
// guards the stream parser agrees on whether the body is complete or over the
// limits.
#include "socketconnection.h"

#include <cstdlib>
#include <limits>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    const quint8 tag = data[0];
    const char* body = reinterpret_cast<const char*>(data) + 1;
    const int length = int(size) - 1;
    SocketArgument value, prefix;
    int pos = 0, prefixPos = 0, budget = SocketArgument::MaxDecodedElements;
    const int result = value.parseNextValue(body, pos, length, tag, budget);
    const bool done = result == SocketArgument::ParseDone;
    if (done ? value.getType() != tag || pos > length : pos != 0)
        std::abort();
    if (done && pos > 0 && (prefix.parseNextValue(body, prefixPos, pos - 1, tag) != SocketArgument::ParseNeedMore || prefixPos))
        std::abort();
    if (SocketValueScanner::isNeededFor(tag)) {
        SocketValueScanner scanner;
        scanner.start(tag, std::numeric_limits<qint64>::max(), SocketArgument::MaxDecodedElements);
        const SocketValueScanner::Result scanned = scanner.scan(body, length);
        if (done != (scanned == SocketValueScanner::Complete)
            || (result == SocketArgument::ParseOverLimit) != (scanned == SocketValueScanner::OverLimit))
            std::abort();
    }
    QByteArray again;
    SocketConnection::appendParameter(again, value);
    return 0;
}
