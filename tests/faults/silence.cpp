// Calls that are documented not to tell a failure by what they answer.
#include "report.h"

#include <algorithm>

#include <fnmatch.h>

namespace faults
{
namespace
{

struct Silence {
    std::string calls; // patterns of the shell
    std::string kinds;
};

const Silence kSilences[] = {
    // What a registration or a name getter was to give stays null.
    {"Filter_Register*|Filter_GetAdapterName|Filter_GetDriverName|Filter_GetFilterName|"
     "Filter_InitializeTimer",
     "pool"},
    // The value stays what it is, a tick is lost.
    {"Filter_SafeGetGlobalDebugFlag|IOCTL_NDIS_FILTER_GET_DBGFLAG", "pool|registry"},
    {"a timer expires", "pool"},
    // It starts without settings, mapped memory and threads.
    {"DriverEntry", "pool|registry|mdl|thread"},
    {"HookDriverEntry", "registry"},
    // Asked for again.
    {"DriverUnload|IOCTL_NDIS_FILTER_STOP_ETHRLOG", "object"},
    // Told otherwise than by the status: a value of 20, an empty reply, the request's record, its completion.
    {"IOCTL_NDIS_FILTER_START_SHARE", "map-pages|hook-MmMapLockedPages*"},
    {"IOCTL_NDIS_FILTER_DIAG|a request of nobody", "hook-HandleIoControl*"},
    {"IOCTL_NDIS_FILTER_DIAG", "pool"},
    {"Filter_MakeNdisRequest", "hook-MakeNdisRequest"},
    {"KS_ReceiveDatagramOnAddress", "transport-ReceiveDatagram-later"},
    {"NdisAllocatePacket*", "pool|ndis-packet"},
    // A success in any case; logs are started and written behind it.
    {"IOCTL_NDIS_FILTER_START_ETHRLOG", "pool|thread|file"},
    // A capture log that misses the frame does not hold it up, nor does who injects or announces it hear what became
    // of it. A block that got no packet stays in the ring.
    {"a received frame*|a sent frame|a frame that a filter keeps|Filter_Invoke*|Filter_Inject*|"
     "Filter_Indicate*|IOCTL_NDIS_FILTER_WRITE_SHARE",
     "pool|file|map-pages|hook-AllocatePacket*|hook-FreePacket*|hook-InjectPacketTo*"},
    // Functions that answer nothing.
    {"*", "hook-FreePacket|hook-FreeRequest|hook-MmUnmapLockedPages|hook-GetTcpIpBoundAdapters"},
    {"Filter_EnumOpenedAdapter|IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK|a second adapter|an adapter closes",
     "hook-GetTcpIpBoundAdapters-raised"},
};

bool Matches(const std::string& patterns, const std::string& name)
{
    return fnmatch(("@(" + patterns + ")").c_str(), name.c_str(), FNM_EXTMATCH) == 0;
}

} // namespace

bool MayStaySilent(const std::string& call, const std::string& kind)
{
    return std::any_of(std::begin(kSilences), std::end(kSilences), [&](const Silence& silence) {
        return Matches(silence.calls, call) && Matches(silence.kinds, kind);
    });
}

} // namespace faults
