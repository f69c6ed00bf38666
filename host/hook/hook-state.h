// The state of the hook driver, and what its files call of one another.
#pragma once

#include "packet-pool.h"

#include <memory>
#include <mutex>

namespace hook
{

constexpr ULONG kAdapterTag = 0x64416856; // "VhAd"
constexpr ULONG kPacketTag = 0x6B506856;  // "VhPk"
constexpr ULONG kFrameTag = 0x72466856;   // "VhFr"
constexpr ULONG kRequestTag = 0x71526856; // "VhRq"

// m_nAdapterMediaState, as NDIS numbers it.
constexpr ULONG kMediaConnected = 0;
constexpr ULONG kMediaDisconnected = 1;

// Written by the processor that the entry belongs to.
struct alignas(64) AdapterCounts {
    std::atomic<uint64_t> receivedFrames{0}, receivedBytes{0}, sentFrames{0}, sentBytes{0};
    std::atomic<uint64_t> deliveredFrames[2] = {}, deliveredBytes[2] = {}; // by Side
};

struct alignas(64) PacketCounts {
    std::atomic<uint64_t> allocated{0}, freed{0}, refused{0};
};

struct AdapterSide {
    std::atomic<Sink*> sink{nullptr};
    std::atomic<Behaviour> behaviour{Behaviour::Accept};
};

struct AdapterRecord {
    FilterAdapter record = {}; // first: its address is the adapter handle
    LIST_ENTRY link = {};      // in HookState::adapters or removed
};

struct VirtualAdapter : AdapterRecord {
    AdapterOptions options;
    std::vector<WCHAR> wideName;
    std::atomic<bool> open{false};
    std::atomic<ULONG> forcedStatus{0}; // an NDIS status that the driver's thread has to indicate
    std::atomic<ULONG> packetFilter{0};
    AdapterSide sides[2]; // by Side
    AdapterCounts counts[MAXIMUM_PROCESSORS];
};

inline VirtualAdapter* VirtualAdapterOf(LIST_ENTRY* link)
{
    return static_cast<VirtualAdapter*>(CONTAINING_RECORD(link, AdapterRecord, link));
}

// For a handle that is known to be one of ours; FindOurs is for the others.
inline VirtualAdapter& Ours(FilterAdapter* handle)
{
    return *static_cast<VirtualAdapter*>(reinterpret_cast<AdapterRecord*>(handle));
}

struct Callbacks {
    std::atomic<FILTER_ADAPTER_OPENED> opened{nullptr};
    std::atomic<FILTER_ADAPTER_STATUS_CHANGED> statusChanged{nullptr};
    std::atomic<FILTER_ADAPTER_CLOSED> closed{nullptr};
    std::atomic<FILTER_RECEIVED_PACKET> received{nullptr};
    std::atomic<FILTER_SEND_PACKET> send{nullptr};

    void Set(const NdisHookAPI& api);
};

struct Request; // requests.cpp

// Answers requests and indicates forced media states.
struct Worker {
    PVOID thread = nullptr; // the thread object
    KEVENT wake;
    KEVENT ended; // the thread touches the state no more
    std::atomic<bool> stop{false};
    KSPIN_LOCK lock = 0; // of the rest
    LIST_ENTRY requests; // all that are allocated
    LIST_ENTRY pending;  // those to be answered
    std::atomic<Answering> answering{Answering::Later};
};

struct HookState {
    explicit HookState(uint32_t packetLimit);
    ~HookState();

    PacketPool pool;
    Callbacks callbacks;
    PFILE_OBJECT frameworkFile = nullptr; // keeps the framework loaded while bound
    PDEVICE_OBJECT frameworkDevice = nullptr;

    KSPIN_LOCK adapterLock = 0;
    LIST_ENTRY adapters; // open ones in the order of their opening
    LIST_ENTRY removed;

    KSPIN_LOCK ndisLock = 0;
    NDIS_HANDLE ndisPackets = nullptr; // made when first needed
    NDIS_HANDLE ndisBuffers = nullptr;

    Worker worker;
    PacketCounts counts[MAXIMUM_PROCESSORS];
};

// Held by everything that loads, binds, opens or closes. Framework callbacks made under it may not lead back
// there.
std::mutex& ControlMutex();
void ReportMisuse(const char* format, ...) __attribute__((format(printf, 1, 2)));
// The text "file:line"; the file's name may belong to a module that is gone.
std::string DescribePlace(PCSTR file, ULONG line);

// faults.cpp
void Watch(NdisHookAPI& api); // puts what counts, and fails when it is to, before each function

// adapter.cpp
VirtualAdapter* FindOurs(FilterAdapter* handle); // null when it is none of ours; for memory of an adapter
bool IsAdapterOf(HookState& state, const FilterAdapter* handle); // for any value; removed ones count, too
void IndicateForcedStates(HookState& state);
void CloseAllAdapters(HookState& state);
void FreeAllAdapters(HookState& state);
NTSTATUS HookSetAdapterStatus(const UCHAR* mac, ULONG mediaState);
NTSTATUS HookGetAdapterStatus(const UCHAR* mac, PVOID mediaState);
VOID HookGetTcpIpBoundAdapters(PVOID list);
template <class Visit>
void ForEachAdapter(HookState& state, Visit visit); // visit(VirtualAdapter&), at DISPATCH_LEVEL

// ndis-packet.cpp
bool AttachNdisPacket(HookState& state, FilterPacket* packet, std::span<const uint8_t> frame,
                      const FrameOptions& options);
void DetachNdisPacket(FilterPacket* packet);
// The bytes of the NDIS packet, at most `size` of them.
size_t GatherNdisPacket(PNDIS_PACKET packet, uint8_t* target, size_t size);

// traffic.cpp
FilterPacket* HookAllocatePacket(FilterAdapter* adapter, PCSTR file, ULONG line);
VOID HookFreePacket(FilterPacket* packet, PCSTR file, ULONG line);
ULONG HookInjectPacketToAdapter(FilterAdapter* adapter, FilterPacket* packet);
ULONG HookInjectPacketToProtocol(FilterAdapter* adapter, FilterPacket* packet);
// Takes a delivery over without looking at it.
void RefusePacket(FilterAdapter* adapter, FilterPacket* packet);

// requests.cpp
bool StartWorker(HookState& state);
void StopWorker(HookState& state); // answers what is pending first
void FreeLeftRequests(HookState& state);
PVOID HookAllocateRequest();
NTSTATUS HookMakeNdisRequest(FilterAdapter* adapter, PVOID request, PVOID context);
VOID HookFreeRequest(PVOID request);

template <class Visit>
void ForEachAdapter(HookState& state, Visit visit)
{
    const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&state.adapterLock);
    for (LIST_ENTRY* list : {&state.adapters, &state.removed}) {
        for (LIST_ENTRY* entry = list->Flink; entry != list; entry = entry->Flink) {
            visit(*VirtualAdapterOf(entry));
        }
    }
    KeReleaseSpinLock(&state.adapterLock, irql);
}

} // namespace hook
