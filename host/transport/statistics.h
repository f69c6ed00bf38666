// What the transport counts for each of its devices.
#pragma once

#include "channel.h"

#include <atomic>
#include <cstdint>

namespace transport
{

struct Statistics {
    std::atomic<uint32_t> openConnections{0}, connections{0}, localDisconnects{0}, remoteDisconnects{0};
    std::atomic<uint32_t> connectFailures{0}, cancelledConnections{0};
    std::atomic<uint32_t> datagramsSent{0}, datagramsReceived{0}, sends{0}, receives{0};
    std::atomic<uint64_t> datagramBytesSent{0}, datagramBytesReceived{0}, bytesSent{0}, bytesReceived{0};
};

Statistics& StatisticsOf(Kind kind); // since the transport was loaded

// TDI_QUERY_INFORMATION of the device itself, which every file answers: provider information and statistics.
// Others are not supported.
Result QueryProvider(Kind kind, IRP* irp);

// Copies an answer into a query's memory: STATUS_BUFFER_OVERFLOW when it does not hold all of it.
Result Answer(IRP* irp, const void* data, size_t size);

} // namespace transport
