// Fuzz target: the network configuration that comes with the system service's
// network events, as the module decodes it. Whatever decodes completely comes
// back the same through its own encoding.
#include "networkconfig.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    bool valid = false;
    const NetworkConfig config =
        NetworkConfig::fromByteArray(QByteArray::fromRawData(reinterpret_cast<const char*>(data), int(size)), &valid);
    if (!valid)
        return 0;
    bool again = false;
    const NetworkConfig copy = NetworkConfig::fromByteArray(config.toByteArray(), &again);
    if (!again || copy.version != config.version || copy.state != config.state || copy.flag != config.flag
        || copy.details != config.details || copy.interfaceName != config.interfaceName)
        std::abort();
    return 0;
}
