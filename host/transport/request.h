// Requests of TDI clients: their parameters, the memory they describe, their completion.
#pragma once

#include <tdikrnl.h>

#include <cstddef>
#include <optional>

#include <netinet/in.h>
#include <sys/uio.h>

namespace transport
{

struct Result {
    NTSTATUS status = STATUS_SUCCESS;
    ULONG_PTR information = 0;
};

// The TDI_REQUEST_KERNEL_... record of a request that has been sent.
template <class Record>
Record& ParametersOf(IRP* irp)
{
    return reinterpret_cast<Record&>(IoGetCurrentIrpStackLocation(irp)->Parameters);
}

inline UCHAR MinorOf(IRP* irp)
{
    return IoGetCurrentIrpStackLocation(irp)->MinorFunction;
}

// Completes at DISPATCH_LEVEL, whoever calls; the request is gone afterwards. Answers the status.
NTSTATUS Complete(IRP* irp, Result result);

// Bytes of a request that are done already.
size_t& ProgressOf(IRP* irp);

// The request's memory from `skip` on, at most `limit` bytes of it, in kernel addresses.
class Memory
{
  public:
    Memory(IRP* irp, size_t skip, size_t limit);
    bool IsMapped() const { return mapped_; } // no: the system could not map a part of it
    size_t Size() const { return size_; }
    iovec* Parts() { return parts_; }
    size_t Count() const { return count_; }
    size_t CopyIn(const void* from, size_t bytes); // answers how many there was room for

  private:
    static constexpr size_t kParts = 64; // more are left to the next call
    iovec parts_[kParts];
    size_t count_ = 0;
    size_t size_ = 0;
    bool mapped_ = true;
};

// IPv4 addresses in both shapes. Only this computer's: any address of it means 127.0.0.1, others are
// unreachable.
std::optional<sockaddr_in> ToSocketAddress(const void* transportAddress, size_t length);
TA_IP_ADDRESS ToTransportAddress(const sockaddr_in& address);
NTSTATUS CheckLoopback(sockaddr_in* address);

// What a failed call of the host comes to, by errno.
NTSTATUS StatusOfError(int error);

} // namespace transport
