// NDIS requests, and the driver's own thread, which answers them.
#include "hook-state.h"

#include <algorithm>
#include <cstring>

namespace hook
{

enum class Phase : ULONG { Idle, Pending, Answering, FreedWhileAnswering };

// The record that the framework sees; the client's handle is the address of `request`.
struct Request {
    LIST_ENTRY all;      //  0  in Worker::requests
    ULONG m_Tag;         // 16  the framework's
    Phase phase;         // 20
    NdisRequest request; // 24
    LIST_ENTRY pending;  //     in Worker::pending
    FilterAdapter* adapter;
    PVOID context;
};
static_assert(offsetof(Request, m_Tag) == 16 && offsetof(Request, request) == 24);
static_assert(offsetof(NdisRequest, reserved) == 40);

namespace
{

constexpr uint32_t kQuery = 0;

constexpr ULONG OID_GEN_MAXIMUM_FRAME_SIZE = 0x00010106;
constexpr ULONG OID_GEN_CURRENT_PACKET_FILTER = 0x0001010E;
constexpr ULONG OID_GEN_MEDIA_CONNECT_STATUS = 0x00010114;
constexpr ULONG OID_GEN_XMIT_OK = 0x00020101;
constexpr ULONG OID_GEN_RCV_OK = 0x00020102;
constexpr ULONG OID_802_3_PERMANENT_ADDRESS = 0x01010101;
constexpr ULONG OID_802_3_CURRENT_ADDRESS = 0x01010102;

constexpr auto NDIS_STATUS_INVALID_LENGTH = static_cast<NDIS_STATUS>(0xC0010014);
constexpr auto NDIS_STATUS_INVALID_OID = static_cast<NDIS_STATUS>(0xC0010017);

NDIS_STATUS Answer(NdisRequest& request, const void* value, uint32_t length)
{
    if (request.informationLength < length || request.information == nullptr) {
        request.bytesNeeded = length;
        return NDIS_STATUS_INVALID_LENGTH;
    }
    std::memcpy(request.information, value, length);
    request.bytesDone = length;
    return NDIS_STATUS_SUCCESS;
}

NDIS_STATUS AnswerNumber(NdisRequest& request, ULONG value)
{
    return Answer(request, &value, sizeof(value));
}

// NDIS statistics are 4 bytes long, or 8 where the caller has room.
NDIS_STATUS AnswerStatistic(NdisRequest& request, uint64_t value)
{
    return Answer(request, &value, request.informationLength >= 8 ? 8 : 4);
}

NDIS_STATUS Query(VirtualAdapter& adapter, NdisRequest& request)
{
    switch (request.oid) {
    case OID_GEN_MAXIMUM_FRAME_SIZE:
        return AnswerNumber(request, adapter.record.m_usMTU);
    case OID_GEN_CURRENT_PACKET_FILTER:
        return AnswerNumber(request, adapter.packetFilter.load());
    case OID_GEN_MEDIA_CONNECT_STATUS:
        return AnswerNumber(request, MediaState(&adapter.record));
    case OID_GEN_XMIT_OK:
        return AnswerStatistic(request, CountersOf(&adapter.record).toAdapter.frames);
    case OID_GEN_RCV_OK:
        return AnswerStatistic(request, CountersOf(&adapter.record).received.frames);
    case OID_802_3_PERMANENT_ADDRESS:
        return Answer(request, adapter.record.m_PermanentAddress, 6);
    case OID_802_3_CURRENT_ADDRESS:
        return Answer(request, adapter.record.m_CurrentAddress, 6);
    default:
        return NDIS_STATUS_INVALID_OID;
    }
}

NDIS_STATUS Set(VirtualAdapter& adapter, NdisRequest& request)
{
    if (request.oid != OID_GEN_CURRENT_PACKET_FILTER) {
        return NDIS_STATUS_INVALID_OID;
    }
    ULONG value = 0;
    if (request.informationLength < sizeof(value) || request.information == nullptr) {
        request.bytesNeeded = sizeof(value);
        return NDIS_STATUS_INVALID_LENGTH;
    }
    std::memcpy(&value, request.information, sizeof(value));
    adapter.packetFilter.store(value);
    request.bytesDone = sizeof(value);
    return NDIS_STATUS_SUCCESS;
}

NDIS_STATUS Carry(Request& record, Answering how)
{
    NdisRequest& request = record.request;
    request.bytesDone = 0;
    request.bytesNeeded = 0;
    if (how == Answering::Failing) {
        return NDIS_STATUS_FAILURE;
    }
    VirtualAdapter* adapter = FindOurs(record.adapter);
    if (adapter == nullptr || !adapter->open.load()) {
        return NDIS_STATUS_ADAPTER_NOT_FOUND;
    }
    return request.type == kQuery ? Query(*adapter, request) : Set(*adapter, request);
}

Request* TakePending(Worker& worker)
{
    Request* record = nullptr;
    const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&worker.lock);
    if (!IsListEmpty(&worker.pending) && worker.answering.load() != Answering::Never) {
        record = CONTAINING_RECORD(RemoveHeadList(&worker.pending), Request, pending);
        record->phase = Phase::Answering;
    }
    KeReleaseSpinLock(&worker.lock, irql);
    return record;
}

void AnswerRequest(Worker& worker, Request* record)
{
    const NDIS_STATUS status = Carry(*record, worker.answering.load());
    const auto completed = record->request.completed;
    PVOID context = record->context;

    // Idle first: as soon as it sees the status or is called, the client may free the request or make it
    // again.
    const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&worker.lock);
    const bool freed = record->phase == Phase::FreedWhileAnswering;
    record->phase = Phase::Idle;
    KeReleaseSpinLock(&worker.lock, irql);
    if (freed) {
        ExFreePoolWithTag(record, kRequestTag);
        return;
    }
    NdisRequest* request = &record->request;
    __atomic_store_n(&request->status, status, __ATOMIC_RELEASE);
    if (completed != nullptr) {
        completed(request, context);
    }
}

VOID WorkerThread(PVOID context)
{
    HookState& state = *static_cast<HookState*>(context);
    Worker& worker = state.worker;
    bool stop = false;
    while (!stop) {
        KeWaitForSingleObject(&worker.wake, Executive, KernelMode, FALSE, nullptr);
        stop = worker.stop.load(); // before the last look at the list
        while (Request* record = TakePending(worker)) {
            AnswerRequest(worker, record);
        }
        IndicateForcedStates(state);
    }
    KeSetEvent(&worker.ended, IO_NO_INCREMENT, FALSE);
    PsTerminateSystemThread(STATUS_SUCCESS);
}

} // namespace

bool StartWorker(HookState& state)
{
    Worker& worker = state.worker;
    KeInitializeEvent(&worker.wake, SynchronizationEvent, FALSE);
    KeInitializeEvent(&worker.ended, NotificationEvent, FALSE);
    InitializeListHead(&worker.requests);
    InitializeListHead(&worker.pending);
    HANDLE handle = nullptr;
    if (!NT_SUCCESS(PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, WorkerThread,
                                         &state))) {
        return false;
    }
    const NTSTATUS status = ObReferenceObjectByHandle(handle, THREAD_ALL_ACCESS, *PsThreadType, KernelMode,
                                                      &worker.thread, nullptr);
    ZwClose(handle);
    if (!NT_SUCCESS(status)) {
        worker.stop.store(true);
        KeSetEvent(&worker.wake, IO_NO_INCREMENT, FALSE);
        KeWaitForSingleObject(&worker.ended, Executive, KernelMode, FALSE, nullptr);
    }
    return NT_SUCCESS(status);
}

void StopWorker(HookState& state)
{
    Worker& worker = state.worker;
    worker.stop.store(true);
    KeSetEvent(&worker.wake, IO_NO_INCREMENT, FALSE);
    KeWaitForSingleObject(worker.thread, Executive, KernelMode, FALSE, nullptr);
    ObDereferenceObject(worker.thread);
}

void FreeLeftRequests(HookState& state)
{
    while (!IsListEmpty(&state.worker.requests)) {
        Request* record = CONTAINING_RECORD(RemoveHeadList(&state.worker.requests), Request, all);
        ReportMisuse("NDIS request %p has not been freed by its client",
                     static_cast<void*>(&record->request));
        ExFreePoolWithTag(record, kRequestTag);
    }
}

void SetAnswering(Answering how)
{
    ProcessorScope scope;
    if (HookState* state = scope.State(); state != nullptr) {
        state->worker.answering.store(how);
        KeSetEvent(&state->worker.wake, IO_NO_INCREMENT, FALSE);
    }
}

PVOID HookAllocateRequest()
{
    ProcessorScope scope;
    HookState* state = scope.State();
    auto* record =
        state != nullptr
            ? static_cast<Request*>(ExAllocatePoolWithTag(NonPagedPool, sizeof(Request), kRequestTag))
            : nullptr;
    if (record != nullptr) {
        RtlZeroMemory(record, sizeof(Request));
        KeAcquireSpinLockAtDpcLevel(&state->worker.lock);
        InsertTailList(&state->worker.requests, &record->all);
        KeReleaseSpinLockFromDpcLevel(&state->worker.lock);
    }
    return record;
}

NTSTATUS HookMakeNdisRequest(FilterAdapter* adapter, PVOID request, PVOID context)
{
    ProcessorScope scope;
    HookState* state = scope.State();
    if (state == nullptr) {
        return NDIS_STATUS_FAILURE;
    }
    Worker& worker = state->worker;
    auto* record = static_cast<Request*>(request);
    const bool atOnce = worker.answering.load() == Answering::AtOnce;
    KeAcquireSpinLockAtDpcLevel(&worker.lock);
    const bool idle = record->phase == Phase::Idle;
    if (idle) {
        record->phase = atOnce ? Phase::Answering : Phase::Pending;
        record->adapter = adapter;
        record->context = context;
        __atomic_store_n(&record->request.status, NDIS_STATUS_PENDING, __ATOMIC_RELAXED);
    }
    if (idle && !atOnce) {
        InsertTailList(&worker.pending, &record->pending);
    }
    KeReleaseSpinLockFromDpcLevel(&worker.lock);
    if (!idle) {
        ReportMisuse("NDIS request %p is made again while it is pending",
                     static_cast<void*>(&record->request));
        return NDIS_STATUS_FAILURE;
    }
    if (atOnce) {
        AnswerRequest(worker, record);
        return NDIS_STATUS_SUCCESS;
    }
    KeSetEvent(&worker.wake, IO_NO_INCREMENT, FALSE);
    return NDIS_STATUS_PENDING;
}

VOID HookFreeRequest(PVOID request)
{
    ProcessorScope scope;
    HookState* state = scope.State();
    if (state == nullptr) {
        return;
    }
    Worker& worker = state->worker;
    auto* record = static_cast<Request*>(request);
    KeAcquireSpinLockAtDpcLevel(&worker.lock);
    const Phase phase = record->phase;
    if (phase == Phase::Pending) {
        RemoveEntryList(&record->pending);
    } else if (phase == Phase::Answering) {
        record->phase = Phase::FreedWhileAnswering;
    }
    RemoveEntryList(&record->all);
    KeReleaseSpinLockFromDpcLevel(&worker.lock);
    if (phase != Phase::Idle) {
        ReportMisuse("NDIS request %p is freed while it is pending", static_cast<void*>(&record->request));
    }
    if (phase != Phase::Answering) {
        ExFreePoolWithTag(record, kRequestTag);
    }
}

} // namespace hook
