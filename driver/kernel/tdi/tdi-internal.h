// What the files of the kernel-socket library share.
#pragma once

#include "tdi-client.h"

#include "tdi-unload.h"

static_assert(sizeof(KS_TRANSPORT_ADDRESS) == 48 && offsetof(KS_TRANSPORT_ADDRESS, Count) == 4 &&
              offsetof(KS_TRANSPORT_ADDRESS, Handle) == 8 &&
              offsetof(KS_TRANSPORT_ADDRESS, FileObject) == 16 && offsetof(KS_TRANSPORT_ADDRESS, Irp) == 24 &&
              offsetof(KS_TRANSPORT_ADDRESS, Endpoints) == 32);
static_assert(sizeof(KS_CONNECTION_ENDPOINT) == 56 &&
              offsetof(KS_CONNECTION_ENDPOINT, AssociateStatus) == 16 &&
              offsetof(KS_CONNECTION_ENDPOINT, Count) == 20 &&
              offsetof(KS_CONNECTION_ENDPOINT, Address) == 24 &&
              offsetof(KS_CONNECTION_ENDPOINT, Status) == 32 &&
              offsetof(KS_CONNECTION_ENDPOINT, Handle) == 40 &&
              offsetof(KS_CONNECTION_ENDPOINT, FileObject) == 48);
static_assert(sizeof(KS_CONTROL_CHANNEL) == 16);
static_assert(sizeof(TDI_CONNECTION_INFO) == KS_CONNECTION_INFO_SIZE);
static_assert(sizeof(TDI_PROVIDER_INFO) == KS_PROVIDER_INFO_SIZE);
static_assert(sizeof(TDI_PROVIDER_STATISTICS) == KS_PROVIDER_STATISTICS_SIZE);
static_assert(sizeof(TA_IP_ADDRESS) == 22);

namespace tdi
{

constexpr ULONG PoolTag = 0x636F534B; // "KSoc"

// The device that requests on a file go to.
inline PDEVICE_OBJECT DeviceOf(PFILE_OBJECT file)
{
    return IoGetRelatedDeviceObject(file);
}

// A request with the stack of the file's device. Null without memory.
inline PIRP AllocateRequest(PFILE_OBJECT file)
{
    return IoAllocateIrp(DeviceOf(file)->StackSize, FALSE);
}

// Makes the request one for the file; answers the parameters, zeroed, for the caller to fill in.
template <class Parameters>
Parameters* PrepareRequest(PIRP irp, PFILE_OBJECT file, UCHAR minor)
{
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    static_assert(sizeof(Parameters) <= sizeof(next->Parameters));
    next->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    next->MinorFunction = minor;
    next->DeviceObject = DeviceOf(file);
    next->FileObject = file;
    Parameters* parameters = reinterpret_cast<Parameters*>(&next->Parameters);
    RtlZeroMemory(parameters, sizeof(*parameters));
    return parameters;
}

// -------------------------------------------------------------------------------------------------
// references

// The handles of records that have lost their last reference: at most those of an endpoint and its address.
struct Closings {
    HANDLE Handles[2];
    ULONG Count;
};

VOID Reference(PKS_TRANSPORT_ADDRESS address);
VOID Reference(PKS_CONNECTION_ENDPOINT endpoint);

// Drops a reference. With the last one everything is undone but the handles, which are added to `closings`;
// the record is not touched any more then. IRQL <= DISPATCH.
VOID Release(PKS_TRANSPORT_ADDRESS address, Closings* closings);
VOID Release(PKS_CONNECTION_ENDPOINT endpoint, Closings* closings);

// Appends the endpoint to the list of its address, which it leaves with its last reference.
VOID Append(PKS_CONNECTION_ENDPOINT endpoint);

// PASSIVE_LEVEL.
VOID Close(const Closings* closings);

// The size of a block that CloseLater can use.
constexpr UINT RequestSize = 64;

// Has them closed by a work item, and the block freed. The block, of NdisAllocateMemoryWithTag, is free for
// use.
VOID CloseLater(const Closings* closings, PVOID block);

// --------------------------------------------------------------------------------------- synchronous
// requests

// The address's one request, taken by who uses it, with a reference on the address.
class AddressRequest
{
  public:
    explicit AddressRequest(PKS_TRANSPORT_ADDRESS address);
    ~AddressRequest();
    AddressRequest(const AddressRequest&) = delete;
    AddressRequest& operator=(const AddressRequest&) = delete;

    // Null: somebody else uses it.
    PIRP Irp() const { return irp_; }

  private:
    PKS_TRANSPORT_ADDRESS address_;
    PIRP irp_;
};

} // namespace tdi
