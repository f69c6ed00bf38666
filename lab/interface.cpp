#include "interface.h"

#include "lab-error.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fmt/format.h>
#include <hook/virtual-adapters.h>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace lab
{
namespace
{

constexpr int kFrameOverhead = 18; // Ethernet header and one VLAN tag

struct Offload {
    const char* name; // as ethtool -k has it
    uint32_t get;
    uint32_t set;
};

// In an order in which each can go: segmentation needs checksums.
constexpr Offload kOffloads[] = {
    {"tcp-segmentation-offload", ETHTOOL_GTSO, ETHTOOL_STSO},
    {"generic-segmentation-offload", ETHTOOL_GGSO, ETHTOOL_SGSO},
    {"generic-receive-offload", ETHTOOL_GGRO, ETHTOOL_SGRO},
    {"tx-checksumming", ETHTOOL_GTXCSUM, ETHTOOL_STXCSUM},
    {"rx-checksumming", ETHTOOL_GRXCSUM, ETHTOOL_SRXCSUM},
};

[[noreturn]] void Throw(const std::string& message)
{
    throw LabError(ExitCode::Interface, message);
}

ifreq NamedRequest(const std::string& name)
{
    ifreq request = {};
    name.copy(request.ifr_name, sizeof(request.ifr_name) - 1);
    return request;
}

} // namespace

std::string DescribeSystemError()
{
    const char* const hint =
        errno == EPERM ? "; live traffic needs CAP_NET_RAW and CAP_NET_ADMIN, which root has" : "";
    return std::string(std::strerror(errno)) + hint;
}

Interface::Interface(std::string name) : name_(std::move(name)), control_(socket(AF_INET, SOCK_DGRAM, 0))
{
    if (name_.empty() || name_.size() >= IFNAMSIZ) {
        Throw(fmt::format("{}: not the name of a network interface", name_));
    }
    ifreq request = NamedRequest(name_);
    Ask(SIOCGIFINDEX, request, "look up its index");
    index_ = request.ifr_ifindex;
    Ask(SIOCGIFHWADDR, request, "read its address");
    if (request.ifr_hwaddr.sa_family != ARPHRD_ETHER) {
        Throw(fmt::format("{}: not an Ethernet interface", name_));
    }
    std::copy_n(reinterpret_cast<const uint8_t*>(request.ifr_hwaddr.sa_data), address_.size(),
                address_.begin());
    Ask(SIOCGIFFLAGS, request, "read its flags");
    if ((request.ifr_flags & IFF_UP) == 0) {
        Throw(fmt::format("{0}: the interface is down; bring it up with: ip link set {0} up", name_));
    }
}

Interface::~Interface()
{
    // In the opposite order: checksums first.
    for (auto place = switchedOff_.rbegin(); place != switchedOff_.rend(); ++place) {
        WriteOffload(kOffloads[*place].set, true);
    }
}

void Interface::Ask(unsigned long request, ifreq& answer, const char* what) const
{
    if (ioctl(control_.Get(), request, &answer) < 0) {
        Throw(fmt::format("{}: cannot {}: {}", name_, what, DescribeSystemError()));
    }
}

void Interface::CheckMtu() const
{
    ifreq request = NamedRequest(name_);
    Ask(SIOCGIFMTU, request, "read its MTU");
    constexpr int kLargest = int{hook::kLongestFrame} - kFrameOverhead;
    if (request.ifr_mtu > kLargest) {
        Throw(fmt::format(
            "{0}: an MTU of {1} gives frames longer than a packet's {2} bytes; set at most {3}, for "
            "instance with: ip link set {0} mtu 1500",
            name_, request.ifr_mtu, hook::kLongestFrame, kLargest));
    }
}

bool Interface::ReadOffload(uint32_t command) const
{
    ethtool_value value = {command, 0};
    ifreq request = NamedRequest(name_);
    request.ifr_data = reinterpret_cast<char*>(&value);
    // An interface that knows nothing of an offload has none.
    return ioctl(control_.Get(), SIOCETHTOOL, &request) == 0 && value.data != 0;
}

bool Interface::WriteOffload(uint32_t command, bool on) const
{
    ethtool_value value = {command, on ? 1u : 0u};
    ifreq request = NamedRequest(name_);
    request.ifr_data = reinterpret_cast<char*>(&value);
    return ioctl(control_.Get(), SIOCETHTOOL, &request) == 0;
}

std::vector<std::string> Interface::SwitchOffloadsOff()
{
    std::vector<std::string> names;
    for (size_t place = 0; place < std::size(kOffloads); ++place) {
        const Offload& offload = kOffloads[place];
        if (!ReadOffload(offload.get)) {
            continue;
        }
        if (!WriteOffload(offload.set, false)) {
            Throw(fmt::format("{}: cannot switch {} off: {}", name_, offload.name, DescribeSystemError()));
        }
        if (ReadOffload(offload.get)) {
            Throw(fmt::format("{}: {} stays on; the interface cannot be used", name_, offload.name));
        }
        switchedOff_.push_back(place);
        names.emplace_back(offload.name);
    }
    return names;
}

} // namespace lab
