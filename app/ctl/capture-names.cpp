#include "capture-names.h"

#include <fmt/format.h>

namespace ctl
{

std::vector<std::string> CaptureLogNames(const std::vector<UserAdapterInfo>& adapters)
{
    std::vector<std::string> names;
    for (const UserAdapterInfo& adapter : adapters) {
        const uint8_t* const mac = adapter.m_CurrentAddress;
        for (const char* edge : {"NdisUpper", "NdisLower", "NdisInject"}) {
            names.push_back(fmt::format("Adapter({:02X}-{:02X}-{:02X}-{:02X}-{:02X}-{:02X}){}.eth", mac[0],
                                        mac[1], mac[2], mac[3], mac[4], mac[5], edge));
        }
    }
    if (!names.empty()) {
        names.insert(names.end(), {"Application-to-Driver-Io.eth", "Driver-to-Application-Io.eth"});
    }
    return names;
}

} // namespace ctl
