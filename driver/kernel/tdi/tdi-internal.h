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

// A request with the device's stack. Null without memory.
inline PIRP AllocateRequest(PDEVICE_OBJECT device)
{
    return IoAllocateIrp(device->StackSize, FALSE);
}

// Makes the request one for the file; answers the parameters, zeroed, for the caller to fill in.
template <class Parameters>
Parameters* PrepareRequest(PIRP irp, PFILE_OBJECT file, UCHAR minor)
{
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    static_assert(sizeof(Parameters) <= sizeof(next->Parameters));
    next->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    next->MinorFunction = minor;
    next->FileObject = file;
    Parameters* parameters = reinterpret_cast<Parameters*>(&next->Parameters);
    RtlZeroMemory(parameters, sizeof(*parameters));
    return parameters;
}

// ------------------------------------------------------------------------------------------------- references

// Records that have lost their last reference and are still open: at most an endpoint and its address.
struct Closings {
    PKS_TRANSPORT_ADDRESS Address;
    PKS_CONNECTION_ENDPOINT Endpoint;

    bool IsEmpty() const { return Address == nullptr && Endpoint == nullptr; }
};

// Takes a reference. FALSE: the record is closed or being closed.
BOOLEAN Reference(PKS_TRANSPORT_ADDRESS address);
BOOLEAN Reference(PKS_CONNECTION_ENDPOINT endpoint);

// Drops a reference. With the last one everything is undone but the handle; the record is added to `closings`
// and stays the library's until these are closed. IRQL <= DISPATCH.
VOID Release(PKS_TRANSPORT_ADDRESS address, Closings* closings);
VOID Release(PKS_CONNECTION_ENDPOINT endpoint, Closings* closings);

// Appends the endpoint to the list of its address, which it leaves with its last reference.
VOID Append(PKS_CONNECTION_ENDPOINT endpoint);

// Closes the handles; the records are the client's again. PASSIVE_LEVEL.
VOID Close(const Closings* closings);

// The size of a block that CloseLater can use.
constexpr UINT RequestSize = 64;

// Has them closed by a work item, and the block freed. The block, of NdisAllocateMemoryWithTag, is free for use.
VOID CloseLater(const Closings* closings, PVOID block);

// Work items are queued or running.
BOOLEAN AreClosingsUnderWay();

// A reference for the time of a function at PASSIVE_LEVEL.
template <class Record>
class Held
{
  public:
    explicit Held(Record* record) : record_(Reference(record) ? record : nullptr) {}
    ~Held()
    {
        if (record_ != nullptr) {
            Closings closings = {};
            Release(record_, &closings);
            Close(&closings);
        }
    }
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;

    // Null: the record is closed or being closed.
    Record* Get() const { return record_; }

  private:
    Record* record_;
};

// --------------------------------------------------------------------------------------- synchronous requests

// The address's one request, taken by who uses it, with a reference on the address.
class AddressRequest
{
  public:
    // For requests on `file`, whose device's stack may have become deeper than it was when the address was opened: the
    // request is then made anew.
    AddressRequest(PKS_TRANSPORT_ADDRESS address, PFILE_OBJECT file);
    ~AddressRequest();
    AddressRequest(const AddressRequest&) = delete;
    AddressRequest& operator=(const AddressRequest&) = delete;

    // STATUS_DEVICE_BUSY: somebody else uses it. STATUS_INVALID_HANDLE: the address is closed.
    // STATUS_INSUFFICIENT_RESOURCES: no memory.
    NTSTATUS Status() const { return status_; }
    // Makes it ready to be sent once; with a good status only.
    template <class Parameters>
    Parameters* Prepare(UCHAR minor) const
    {
        IoReuseIrp(irp_, STATUS_SUCCESS);
        return PrepareRequest<Parameters>(irp_, file_, minor);
    }
    NTSTATUS Send() const { return KS_MakeSimpleTdiRequest(device_, irp_); }

  private:
    PIRP volatile& Place() const { return address_.Get()->Irp; }

    const Held<KS_TRANSPORT_ADDRESS> address_;
    const PFILE_OBJECT file_;
    PDEVICE_OBJECT device_ = nullptr;
    PIRP irp_ = nullptr;
    NTSTATUS status_ = STATUS_SUCCESS;
};

// ---------------------------------------------------------------------------------------------- data requests

// A request (IRP) that a transport has. Lies in a stack location of its own, above those of the transport's device.
struct SentRequest {
    LIST_ENTRY Link;
    PIRP Irp;
    volatile LONG Users; // its sender or its completion, and who cancels it
    ULONG Cancelled;
};
static_assert(sizeof(SentRequest) <= sizeof(IO_STACK_LOCATION::Parameters));

// Before it is sent, and in its completion until CompleteRequest: while the current stack location is the library's.
inline SentRequest* SentRequestOf(PIRP irp)
{
    return reinterpret_cast<SentRequest*>(&IoGetCurrentIrpStackLocation(irp)->Parameters);
}

// A request for the device. Null without memory.
SentRequest* AllocateSentRequest(PDEVICE_OBJECT device);

// Just before it is sent. From now on the unload waits for EndRequest. FALSE: the unload has begun, and nothing is sent.
BOOLEAN BeginRequest(SentRequest* request);

// First step of its completion: it is cancelled no more, unless that has begun.
VOID CompleteRequest(SentRequest* request);

// Frees it behind its completion, or leaves that to who is just cancelling it.
VOID Free(SentRequest* request);

// Last step of its completion, or of its sender where that waits for it.
VOID EndRequest();

} // namespace tdi
