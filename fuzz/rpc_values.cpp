// Fuzz target: the value decoders, nested variant maps and lists included.
//
// Input: a value tag, then a body. A decoder moves the position only when it
// is done, and no shorter prefix of a body is ever enough. The scanner that
// guards the stream parser, fed byte by byte, agrees on where the body ends,
// and on whether it is stuck or over the limits.
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
    SocketArgument value;
    int pos = 0, budget = SocketArgument::MaxDecodedElements;
    const int result = value.parseNextValue(body, pos, length, tag, budget);
    const bool done = result == SocketArgument::ParseDone;
    if (done ? value.getType() != tag || pos > length : pos != 0)
        std::abort();
    // Every shorter prefix of a small body, the longest of a large one.
    for (int cut = pos < 512 ? 0 : pos - 1; done && cut < pos; ++cut) {
        SocketArgument prefix;
        int p = 0;
        if (prefix.parseNextValue(body, p, cut, tag) != SocketArgument::ParseNeedMore || p != 0)
            std::abort();
    }
    if (SocketValueScanner::isNeededFor(tag)) {
        SocketValueScanner scanner;
        scanner.start(tag, std::numeric_limits<qint64>::max(), SocketArgument::MaxDecodedElements);
        SocketValueScanner::Result scanned = SocketValueScanner::NeedMore;
        int available = 0;
        while (available <= length && (scanned = scanner.scan(body, available)) == SocketValueScanner::NeedMore)
            ++available;
        if ((scanned == SocketValueScanner::Complete) != (done && available == pos)
            || (scanned == SocketValueScanner::OverLimit) != (result == SocketArgument::ParseOverLimit))
            std::abort();
    }
    QByteArray again;
    SocketConnection::appendParameter(again, value);
    return 0;
}
