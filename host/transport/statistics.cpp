#include "statistics.h"

#include <array>
#include <cstring>

namespace transport
{
namespace
{

constexpr ULONG kTdiVersion = 0x0103;
constexpr ULONG kMaxDatagram = 65507; // 65,535 less the headers of IPv4 and UDP
constexpr ULONG kLookahead = 65536;

TDI_PROVIDER_INFO Information(Kind kind)
{
    TDI_PROVIDER_INFO info = {};
    info.Version = kTdiVersion;
    if (kind == Kind::Tcp) {
        info.MaxSendSize = MAXULONG;
        info.ServiceFlags =
            TDI_SERVICE_CONNECTION_MODE | TDI_SERVICE_ORDERLY_RELEASE | TDI_SERVICE_ERROR_FREE_DELIVERY;
    } else {
        info.MaxDatagramSize = kMaxDatagram;
        info.ServiceFlags = TDI_SERVICE_CONNECTIONLESS_MODE;
    }
    info.MinimumLookaheadData = 1;
    info.MaximumLookaheadData = kLookahead;
    KeQuerySystemTime(&info.StartTime);
    return info;
}

const TDI_PROVIDER_INFO& InformationOf(Kind kind)
{
    static const std::array<TDI_PROVIDER_INFO, 3> all = {Information(Kind::Tcp), Information(Kind::Udp),
                                                         Information(Kind::RawIp)};
    return all[static_cast<size_t>(kind)];
}

LARGE_INTEGER Large(uint64_t value)
{
    LARGE_INTEGER large;
    large.QuadPart = static_cast<LONGLONG>(value);
    return large;
}

TDI_PROVIDER_STATISTICS Snapshot(const Statistics& counted)
{
    TDI_PROVIDER_STATISTICS result = {};
    result.Version = kTdiVersion;
    result.OpenConnections = counted.openConnections;
    result.ConnectionsAfterNoRetry = counted.connections;
    result.LocalDisconnects = counted.localDisconnects;
    result.RemoteDisconnects = counted.remoteDisconnects;
    result.CancelledConnections = counted.cancelledConnections;
    result.NoListenFailures = counted.connectFailures;
    result.DatagramsSent = counted.datagramsSent;
    result.DatagramBytesSent = Large(counted.datagramBytesSent);
    result.DatagramsReceived = counted.datagramsReceived;
    result.DatagramBytesReceived = Large(counted.datagramBytesReceived);
    result.DataFramesSent = counted.sends;
    result.DataFrameBytesSent = Large(counted.bytesSent);
    result.DataFramesReceived = counted.receives;
    result.DataFrameBytesReceived = Large(counted.bytesReceived);
    return result;
}

} // namespace

Statistics& StatisticsOf(Kind kind)
{
    static std::array<Statistics, 3> all;
    return all[static_cast<size_t>(kind)];
}

Result Answer(IRP* irp, const void* data, size_t size)
{
    Memory memory(irp, 0, size);
    if (!memory.IsMapped()) {
        return {STATUS_INSUFFICIENT_RESOURCES, 0};
    }
    const size_t copied = memory.CopyIn(data, size);
    return {copied < size ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS, copied};
}

Result QueryProvider(Kind kind, IRP* irp)
{
    switch (ParametersOf<TDI_REQUEST_KERNEL_QUERY_INFORMATION>(irp).QueryType) {
    case TDI_QUERY_PROVIDER_INFO:
        return Answer(irp, &InformationOf(kind), sizeof(TDI_PROVIDER_INFO));
    case TDI_QUERY_PROVIDER_STATISTICS: {
        const TDI_PROVIDER_STATISTICS statistics = Snapshot(StatisticsOf(kind));
        return Answer(irp, &statistics, sizeof(statistics));
    }
    default:
        return {STATUS_NOT_SUPPORTED, 0};
    }
}

} // namespace transport
