// Fuzz target: an SSDP datagram as an endpoint reads it: the classifier and
// header parser, the lean search reader the daemon uses (which must agree with
// the parser on every input), and the search responder behind them. Input: one
// byte of choices (bit 0: the searcher is off the link), then the datagram.
//
// The endpoint lives in a network namespace of its own when the process may
// make one, so that its socket meets nothing; its event loop never runs, so
// no answer leaves and the schedule fills up to its budget.
#include "upnpcoordinator.h"

#include <cstdlib>
#include <sched.h>

namespace {

UpnpInterfaceHandler* endpoint()
{
    static UpnpInterfaceHandler* instance = [] () -> UpnpInterfaceHandler* {
        if (::unshare(CLONE_NEWNET) != 0)
            return nullptr;
        auto* coordinator = new UpnpCoordinator("33221100-5511-4433-0011-443311332211", "http://%1:80/quarn.upnp", false);
        coordinator->addDeviceType("urn:tessaline:device:Quarn:1");
        QNetworkAddressEntry entry;
        entry.setIp(QHostAddress("192.0.2.2"));
        entry.setPrefixLength(24);
        return new UpnpInterfaceHandler(QNetworkInterface::interfaceFromName("lo"), entry,
                                        QHostAddress("239.255.255.250"), "http://192.0.2.2:80/quarn.upnp", coordinator);
    }();
    return instance;
}

bool same(const std::optional<std::string_view>& view, const Ssdp::Headers& headers, const char* key)
{
    return view ? headers.contains(key) && headers.value(key) == QByteArray(view->data(), int(view->size()))
                : !headers.contains(key);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1)
        return 0;
    const QByteArray text(reinterpret_cast<const char*>(data) + 1, int(size) - 1);
    const Ssdp::Message message = Ssdp::parse(text);
    const Ssdp::SearchHeaders search = Ssdp::parseSearch(text);
    if (search.isSearch != (message.kind == Ssdp::Message::Search)
        || (search.isSearch && !(same(search.man, message.headers, "man") && same(search.mx, message.headers, "mx")
                                 && same(search.st, message.headers, "st"))))
        std::abort();
    UpnpInterfaceHandler* handler = endpoint();
    if (!handler || !search.isSearch)
        return 0;
    QNetworkDatagram datagram(text, QHostAddress("239.255.255.250"), 1900);
    datagram.setSender(QHostAddress(data[0] & 1 ? "203.0.113.7" : "192.0.2.7"), 50000);
    handler->handleMSearch(datagram, message.headers);
    if (handler->answerSchedule().pendingCount() > SsdpAnswerSchedule::DefaultBudget)
        std::abort();
    return 0;
}
