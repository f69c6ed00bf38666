// Virtual adapters: their records, their states and the table of them.
#include "hook-state.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace hook
{
namespace
{

constexpr char16_t kReplacement = 0xFFFD;

// UTF-8 to the record's text, with a terminating zero. Malformed bytes become U+FFFD.
std::vector<WCHAR> ToWide(const std::string& text)
{
    std::vector<WCHAR> wide;
    for (size_t i = 0; i < text.size();) {
        const auto first = static_cast<unsigned char>(text[i++]);
        const int following = first < 0x80         ? 0
                              : first >> 5 == 0x6  ? 1
                              : first >> 4 == 0xE  ? 2
                              : first >> 3 == 0x1E ? 3
                                                   : -1;
        char32_t code = following > 0 ? first & (0x3F >> following) : first;
        int found = 0;
        while (found < following && i < text.size() && (text[i] & 0xC0) == 0x80) {
            code = code << 6 | (text[i++] & 0x3F);
            ++found;
        }
        if (found != following || code > 0x10FFFF) {
            code = kReplacement;
        }
        if (code >= 0x10000) {
            wide.push_back(static_cast<WCHAR>(0xD800 + ((code - 0x10000) >> 10)));
            code = 0xDC00 + (code & 0x3FF);
        }
        wide.push_back(static_cast<WCHAR>(code));
    }
    wide.push_back(0);
    return wide;
}

// With the adapter lock held. Also closed adapters, but no removed ones.
VirtualAdapter* FindByAddress(HookState& state, const UCHAR* mac)
{
    for (LIST_ENTRY* entry = state.adapters.Flink; entry != &state.adapters; entry = entry->Flink) {
        VirtualAdapter* adapter = VirtualAdapterOf(entry);
        if (RtlEqualMemory(adapter->record.m_CurrentAddress, mac, 6)) {
            return adapter;
        }
    }
    return nullptr;
}

// Runs visit(VirtualAdapter&) for the adapter of the address. False when there is none.
template <class Visit>
bool WithAdapter(const UCHAR* mac, Visit visit)
{
    ProcessorScope scope;
    HookState* state = scope.State();
    if (state == nullptr) {
        return false;
    }
    KeAcquireSpinLockAtDpcLevel(&state->adapterLock);
    VirtualAdapter* adapter = FindByAddress(*state, mac);
    KeReleaseSpinLockFromDpcLevel(&state->adapterLock);
    if (adapter != nullptr) {
        visit(*adapter, *state);
    }
    return adapter != nullptr;
}

void StoreMediaState(VirtualAdapter& adapter, ULONG mediaState)
{
    __atomic_store_n(&adapter.record.m_nAdapterMediaState, mediaState, __ATOMIC_RELAXED);
}

ULONG LoadMediaState(VirtualAdapter& adapter)
{
    return __atomic_load_n(&adapter.record.m_nAdapterMediaState, __ATOMIC_RELAXED);
}

// The table belongs to the framework, which lets it be read while it is rewritten. This is the one place
// where both happen at once: byte by byte, and unseen by the thread sanitizer.
__attribute__((noinline, no_sanitize("thread"))) void WriteInPlace(volatile void* target, const void* source,
                                                                   size_t size)
{
    auto* to = static_cast<volatile UCHAR*>(target);
    const auto* from = static_cast<const UCHAR*>(source);
    for (size_t i = 0; i < size; ++i) {
        to[i] = from[i];
    }
}

AdapterInfo Describe(VirtualAdapter& adapter)
{
    AdapterInfo info = {};
    info.m_hAdapter = &adapter.record;
    info.m_nAdapterMedium = adapter.record.m_nAdapterMedium;
    info.m_usMTU = adapter.record.m_usMTU;
    info.m_dwAdapterState = LoadMediaState(adapter);
    RtlCopyMemory(info.m_PermanentAddress, adapter.record.m_PermanentAddress, 6);
    RtlCopyMemory(info.m_CurrentAddress, adapter.record.m_CurrentAddress, 6);
    adapter.options.name.copy(info.m_szAdapterName, sizeof(info.m_szAdapterName) - 1);
    return info;
}

void FillRecord(VirtualAdapter& adapter)
{
    const AdapterOptions& options = adapter.options;
    FilterAdapter& record = adapter.record;
    const MacAddress permanent = options.permanentAddress.value_or(options.address);
    std::copy(options.address.begin(), options.address.end(), record.m_CurrentAddress);
    std::copy(permanent.begin(), permanent.end(), record.m_PermanentAddress);
    record.m_usMTU = options.mtu;
    record.m_nAdapterMedium = options.medium;
    record.m_nAdapterMediaState = options.connected ? kMediaConnected : kMediaDisconnected;
    record.m_bNdisWanAdapter = options.ndisWan;
    record.m_AdapterName.Buffer = adapter.wideName.data();
    record.m_AdapterName.MaximumLength = static_cast<USHORT>(adapter.wideName.size() * sizeof(WCHAR));
    record.m_AdapterName.Length = static_cast<USHORT>(record.m_AdapterName.MaximumLength - sizeof(WCHAR));
    // By its own address in the record an adapter is told from whatever else a client may hand in.
    const FilterAdapter* self = &record;
    std::memcpy(record.m_HookReserved1, &self, sizeof(self));
}

void MoveToTail(HookState& state, VirtualAdapter& adapter, LIST_ENTRY& list)
{
    const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&state.adapterLock);
    RemoveEntryList(&adapter.link);
    InsertTailList(&list, &adapter.link);
    KeReleaseSpinLock(&state.adapterLock, irql);
}

void Open(HookState& state, VirtualAdapter& adapter)
{
    MoveToTail(state, adapter, state.adapters);
    adapter.open.store(true);
    if (const auto opened = state.callbacks.opened.load(); opened != nullptr) {
        opened(&adapter.record);
    }
}

// Deliveries under way end first; the framework hears of the close behind the last of them.
void Close(HookState& state, VirtualAdapter& adapter)
{
    if (adapter.open.exchange(false)) {
        WaitForProcessors();
        if (const auto closed = state.callbacks.closed.load(); closed != nullptr) {
            closed(&adapter.record);
        }
    }
}

void Indicate(HookState& state, VirtualAdapter& adapter, ULONG ndisStatus)
{
    if (const auto changed = state.callbacks.statusChanged.load(); changed != nullptr) {
        changed(&adapter.record, static_cast<NDIS_STATUS>(ndisStatus));
    }
}

} // namespace

VirtualAdapter* FindOurs(FilterAdapter* handle)
{
    if (handle == nullptr) {
        return nullptr;
    }
    const FilterAdapter* self;
    std::memcpy(&self, handle->m_HookReserved1, sizeof(self));
    return self == handle ? &Ours(handle) : nullptr;
}

bool IsAdapterOf(HookState& state, const FilterAdapter* handle)
{
    bool found = false;
    ForEachAdapter(state, [&](VirtualAdapter& adapter) { found |= &adapter.record == handle; });
    return found;
}

FilterAdapter* AddAdapter(const AdapterOptions& options)
{
    std::lock_guard control(ControlMutex());
    HookState* state = g_state.load();
    void* block = state != nullptr ? AllocateAligned(sizeof(VirtualAdapter), kAdapterTag) : nullptr;
    if (block == nullptr) {
        return nullptr;
    }
    auto* adapter = new (block) VirtualAdapter;
    adapter->options = options;
    adapter->wideName = ToWide(options.name);
    FillRecord(*adapter);
    const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&state->adapterLock);
    InsertTailList(&state->adapters, &adapter->link);
    KeReleaseSpinLock(&state->adapterLock, irql);
    return &adapter->record;
}

void OpenAdapter(FilterAdapter* adapter)
{
    std::lock_guard control(ControlMutex());
    HookState* state = g_state.load();
    if (state != nullptr && !Ours(adapter).open.load()) {
        Open(*state, Ours(adapter));
    }
}

void CloseAdapter(FilterAdapter* adapter)
{
    std::lock_guard control(ControlMutex());
    if (HookState* state = g_state.load(); state != nullptr) {
        Close(*state, Ours(adapter));
    }
}

void RemoveAdapter(FilterAdapter* adapter)
{
    std::lock_guard control(ControlMutex());
    if (HookState* state = g_state.load(); state != nullptr) {
        Close(*state, Ours(adapter));
        MoveToTail(*state, Ours(adapter), state->removed);
    }
}

void CloseAllAdapters(HookState& state)
{
    std::vector<VirtualAdapter*> open;
    ForEachAdapter(state, [&](VirtualAdapter& adapter) {
        if (adapter.open.load()) {
            open.push_back(&adapter);
        }
    });
    for (VirtualAdapter* adapter : open) {
        Close(state, *adapter);
    }
}

void FreeAllAdapters(HookState& state)
{
    for (LIST_ENTRY* list : {&state.adapters, &state.removed}) {
        while (!IsListEmpty(list)) {
            VirtualAdapter* adapter = VirtualAdapterOf(RemoveHeadList(list));
            for (AdapterSide& side : adapter->sides) {
                delete side.sink.load();
            }
            adapter->~VirtualAdapter();
            FreeAligned(adapter, kAdapterTag);
        }
    }
}

void IndicateStatus(FilterAdapter* adapter, uint32_t ndisStatus)
{
    ProcessorScope scope;
    HookState* state = scope.State();
    if (state == nullptr) {
        return;
    }
    if (ndisStatus == static_cast<ULONG>(NDIS_STATUS_MEDIA_CONNECT)) {
        StoreMediaState(Ours(adapter), kMediaConnected);
    } else if (ndisStatus == static_cast<ULONG>(NDIS_STATUS_MEDIA_DISCONNECT)) {
        StoreMediaState(Ours(adapter), kMediaDisconnected);
    }
    Indicate(*state, Ours(adapter), ndisStatus);
}

uint32_t MediaState(FilterAdapter* adapter)
{
    return LoadMediaState(Ours(adapter));
}

FilterAdapter* FindAdapter(const MacAddress& address)
{
    FilterAdapter* found = nullptr;
    WithAdapter(address.data(), [&](VirtualAdapter& adapter, HookState&) { found = &adapter.record; });
    return found;
}

AdapterCounters CountersOf(FilterAdapter* adapter)
{
    AdapterCounters sum;
    for (const AdapterCounts& counts : Ours(adapter).counts) {
        const auto add = [](Traffic& traffic, const std::atomic<uint64_t>& frames,
                            const std::atomic<uint64_t>& bytes) {
            traffic.frames += frames.load(std::memory_order_relaxed);
            traffic.bytes += bytes.load(std::memory_order_relaxed);
        };
        add(sum.received, counts.receivedFrames, counts.receivedBytes);
        add(sum.sent, counts.sentFrames, counts.sentBytes);
        add(sum.toAdapter, counts.deliveredFrames[0], counts.deliveredBytes[0]);
        add(sum.toProtocols, counts.deliveredFrames[1], counts.deliveredBytes[1]);
    }
    return sum;
}

void IndicateForcedStates(HookState& state)
{
    ProcessorScope scope;
    std::vector<std::pair<VirtualAdapter*, ULONG>> forced;
    ForEachAdapter(state, [&](VirtualAdapter& adapter) {
        if (const ULONG status = adapter.forcedStatus.exchange(0); status != 0) {
            forced.emplace_back(&adapter, status);
        }
    });
    for (const auto& [adapter, status] : forced) {
        Indicate(state, *adapter, status);
    }
}

// The framework calls from wherever its caller is, maybe with a lock of its own held: the driver's thread
// indicates.
NTSTATUS HookSetAdapterStatus(const UCHAR* mac, ULONG mediaState)
{
    const bool found = WithAdapter(mac, [=](VirtualAdapter& adapter, HookState& state) {
        const ULONG before = LoadMediaState(adapter);
        StoreMediaState(adapter, mediaState);
        if (mediaState != before && mediaState <= kMediaDisconnected) {
            adapter.forcedStatus.store(static_cast<ULONG>(
                mediaState == kMediaConnected ? NDIS_STATUS_MEDIA_CONNECT : NDIS_STATUS_MEDIA_DISCONNECT));
            KeSetEvent(&state.worker.wake, IO_NO_INCREMENT, FALSE);
        }
    });
    return found ? STATUS_SUCCESS : NDIS_STATUS_ADAPTER_NOT_FOUND;
}

// One byte: the control request hands in the last byte of its buffer.
NTSTATUS HookGetAdapterStatus(const UCHAR* mac, PVOID mediaState)
{
    UCHAR value = 0;
    const bool found = WithAdapter(mac, [&](VirtualAdapter& adapter, HookState&) {
        value = static_cast<UCHAR>(LoadMediaState(adapter));
    });
    if (!found) {
        return NDIS_STATUS_ADAPTER_NOT_FOUND;
    }
    *static_cast<PUCHAR>(mediaState) = value;
    return STATUS_SUCCESS;
}

VOID HookGetTcpIpBoundAdapters(PVOID list)
{
    ProcessorScope scope;
    HookState* state = scope.State();
    if (state == nullptr) {
        return;
    }
    auto* target = static_cast<AdapterList*>(list);
    ULONG count = 0;
    KeAcquireSpinLockAtDpcLevel(&state->adapterLock);
    for (LIST_ENTRY* entry = state->adapters.Flink; entry != &state->adapters; entry = entry->Flink) {
        VirtualAdapter* adapter = VirtualAdapterOf(entry);
        if (adapter->open.load() && adapter->options.boundToTcpIp && count < NDIS_FILTER_MAX_ADAPTERS) {
            const AdapterInfo info = Describe(*adapter);
            WriteInPlace(&target->m_Adapters[count++], &info, sizeof(info));
        }
    }
    KeReleaseSpinLockFromDpcLevel(&state->adapterLock);
    WriteInPlace(&target->m_nAdapterCount, &count, sizeof(count)); // behind the entries that it covers
}

} // namespace hook
