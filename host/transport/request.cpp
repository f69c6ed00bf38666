#include "request.h"

#include "engine.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace transport
{

NTSTATUS Complete(IRP* irp, Result result)
{
    const Raised raised;
    irp->IoStatus.Status = result.status;
    irp->IoStatus.Information = result.information;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return result.status;
}

size_t& ProgressOf(IRP* irp)
{
    return reinterpret_cast<size_t&>(irp->Tail.Overlay.DriverContext[1]);
}

Memory::Memory(IRP* irp, size_t skip, size_t limit)
{
    for (MDL* mdl = irp->MdlAddress; mdl != nullptr && size_ < limit && count_ < kParts; mdl = mdl->Next) {
        const size_t bytes = MmGetMdlByteCount(mdl);
        if (skip >= bytes) {
            skip -= bytes;
            continue;
        }
        auto* address = static_cast<UCHAR*>(MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority));
        if (address == nullptr) {
            mapped_ = false;
            return;
        }
        const size_t part = std::min(bytes - skip, limit - size_);
        parts_[count_++] = {address + skip, part};
        size_ += part;
        skip = 0;
    }
}

size_t Memory::CopyIn(const void* from, size_t bytes)
{
    size_t copied = 0;
    for (size_t i = 0; i < count_ && copied < bytes; ++i) {
        const size_t part = std::min(parts_[i].iov_len, bytes - copied);
        std::memcpy(parts_[i].iov_base, static_cast<const UCHAR*>(from) + copied, part);
        copied += part;
    }
    return copied;
}

// The first entry that is an IPv4 address.
std::optional<sockaddr_in> ToSocketAddress(const void* transportAddress, size_t length)
{
    const auto* bytes = static_cast<const UCHAR*>(transportAddress);
    LONG count = 0;
    if (bytes == nullptr || length < sizeof(count)) {
        return std::nullopt;
    }
    std::memcpy(&count, bytes, sizeof(count));
    size_t at = sizeof(count);
    for (LONG i = 0; i < count; ++i) {
        USHORT header[2]; // length and type
        if (length - at < sizeof(header)) {
            return std::nullopt;
        }
        std::memcpy(header, bytes + at, sizeof(header));
        at += sizeof(header);
        if (length - at < header[0]) {
            return std::nullopt;
        }
        if (header[1] == TDI_ADDRESS_TYPE_IP && header[0] >= sizeof(TDI_ADDRESS_IP)) {
            TDI_ADDRESS_IP ip;
            std::memcpy(&ip, bytes + at, sizeof(ip));
            sockaddr_in address = {};
            address.sin_family = AF_INET;
            address.sin_port = ip.sin_port;
            address.sin_addr.s_addr = ip.in_addr;
            return address;
        }
        at += header[0];
    }
    return std::nullopt;
}

TA_IP_ADDRESS ToTransportAddress(const sockaddr_in& address)
{
    TA_IP_ADDRESS result = {};
    result.TAAddressCount = 1;
    result.Address[0].AddressLength = sizeof(TDI_ADDRESS_IP);
    result.Address[0].AddressType = TDI_ADDRESS_TYPE_IP;
    result.Address[0].Address[0].sin_port = address.sin_port;
    result.Address[0].Address[0].in_addr = address.sin_addr.s_addr;
    return result;
}

NTSTATUS CheckLoopback(sockaddr_in* address)
{
    constexpr in_addr_t kLoopbackNet = 127;
    if (address->sin_addr.s_addr == htonl(INADDR_ANY)) {
        address->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    }
    return ntohl(address->sin_addr.s_addr) >> 24 == kLoopbackNet ? STATUS_SUCCESS
                                                                 : STATUS_NETWORK_UNREACHABLE;
}

NTSTATUS StatusOfError(int error)
{
    switch (error) {
    case ECONNREFUSED:
        return STATUS_CONNECTION_REFUSED;
    case ECONNRESET:
    case EPIPE:
        return STATUS_CONNECTION_RESET;
    case ECONNABORTED:
        return STATUS_CONNECTION_ABORTED;
    case ETIMEDOUT:
        return STATUS_IO_TIMEOUT;
    case ENETUNREACH:
    case EHOSTUNREACH:
        return STATUS_NETWORK_UNREACHABLE;
    case EADDRINUSE:
        return STATUS_ADDRESS_ALREADY_EXISTS;
    case EADDRNOTAVAIL:
        return STATUS_INVALID_ADDRESS_COMPONENT;
    case EACCES:
    case EPERM:
        return STATUS_ACCESS_DENIED;
    case EMSGSIZE:
        return STATUS_INVALID_PARAMETER;
    case EMFILE:
    case ENFILE:
    case ENOBUFS:
    case ENOMEM:
        return STATUS_INSUFFICIENT_RESOURCES;
    case ENOTCONN:
        return STATUS_INVALID_CONNECTION;
    default:
        return STATUS_UNSUCCESSFUL;
    }
}

} // namespace transport
