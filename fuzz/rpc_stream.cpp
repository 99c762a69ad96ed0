// Fuzz target: one side's RPC stream parser (RPC_SIDE: ServerSide as a
// service reads its clients, ClientSide as a client reads its service).
//
// Input: one byte that chooses how the stream is cut, then the stream. It is
// parsed whole, byte by byte and in pieces of pseudo-random sizes; all three
// must hand out the same messages and leave the same bytes unparsed.
#include "rpcrecorder.h"

#include <cstdlib>

namespace {

// cut 0: whole; 1: byte by byte; otherwise the seed of the pieces' sizes.
QByteArray parse(const QByteArray& stream, quint32 cut)
{
    SocketConnection connection(static_cast<Socket*>(nullptr));
    Recorder recorder;
    for (int from = 0, piece = stream.size(); from < stream.size(); from += piece) {
        if (cut > 0)
            piece = cut == 1 ? 1 : 1 + int(((cut = cut * 1103515245u + 12345u) >> 16) % 97);
        connection.appendReceivedData(stream.mid(from, piece));
        connection.parseReceivedData(SocketConnection::RPC_SIDE, &recorder);
    }
    return recorder.events.join('\n').toUtf8() + connection.getClientName() + char(connection.isDropped())
           + connection.unparsedData();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    const QByteArray stream(reinterpret_cast<const char*>(data) + 1, int(size) - 1);
    const QByteArray whole = parse(stream, 0);
    if (parse(stream, 1) != whole || parse(stream, 2u + data[0]) != whole)
        std::abort();
    return 0;
}
