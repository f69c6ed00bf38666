// A client filter driver that makes an adapter as slow and lossy as a long line: frames are held for a while, and some
// are lost.
//
// Configuration, read once at start from the driver's registry key:
//   DelayMs       REG_DWORD  milliseconds that a frame is held, each way (default 50)
//   LossPerMille  REG_DWORD  frames of a thousand that are lost (default 0)
//   Seed          REG_DWORD  of the losses; the same seed loses the same frames (default 1)
#include "../support/sample.h"

using namespace sample;

namespace
{

constexpr char kName[] = "wan";
constexpr ULONG kMaxHeld = 8192; // frames of each way; a longer queue loses its newest, as a router's does

struct HeldPacket {
    FilterPacket* Packet;
    LONGLONG Due; // Filter_GetSystemTimeMs
};

// One way: what it holds is a ring in the order of arrival, which is that of release, as the delay is one for all.
struct Way {
    PCSTR Name;
    PacketFilter* Filter;
    FilterTimer* Timer; // runs while frames are held
    FilterLock Lock;
    BOOLEAN Closing; // frames pass
    ULONG First;
    ULONG Count;
    HeldPacket Held[kMaxHeld];
    ULONG Random;
    volatile LONG Delayed;
    volatile LONG Lost;
    volatile LONG Overflown;
};

struct Wan {
    FilterDriver* Driver;
    ULONG DelayMs;
    ULONG LossPerMille;
    Way Ways[2]; // incoming, outgoing
};

Wan wan;

// A linear congruential generator: ISO C's example; its upper bits are good enough for losses.
BOOLEAN IsLost(Way* way)
{
    way->Random = way->Random * 1103515245 + 12345;
    return (way->Random >> 16) % 1000 < wan.LossPerMille;
}

enum class Fate { Passes, IsHeld, IsLost };

// Under the way's lock.
Fate Decide(Way* way, FilterPacket* pPacket)
{
    if (way->Closing) {
        return Fate::Passes;
    }
    if (IsLost(way)) {
        InterlockedIncrement(&way->Lost);
        return Fate::IsLost;
    }
    if (way->Count == kMaxHeld) {
        InterlockedIncrement(&way->Overflown);
        return Fate::IsLost;
    }
    way->Held[(way->First + way->Count) % kMaxHeld] = {pPacket, Filter_GetSystemTimeMs() + wan.DelayMs};
    if (way->Count++ == 0) {
        Filter_StartTimer(way->Timer, wan.DelayMs);
    }
    InterlockedIncrement(&way->Delayed);
    return Fate::IsHeld;
}

// A packet that is held belongs to this driver: the verdict is to consume it.
FILTER_RESULT DelayPacket(FilterDriver*, PVOID, PacketFilter*, PVOID pWay, FilterPacket* pPacket)
{
    Way* const way = static_cast<Way*>(pWay);
    Filter_AcquireLock(&way->Lock);
    const Fate fate = Decide(way, pPacket);
    Filter_ReleaseLock(&way->Lock);
    return fate == Fate::IsHeld  ? FILTER_RESULT_CONSUME
           : fate == Fate::IsLost ? FILTER_RESULT_DISCARD
                                  : FILTER_RESULT_BYPASS;
}

// The oldest packet when its time has come; nullptr otherwise. While packets are left the timer is started for the
// next one.
FilterPacket* TakeDue(Way* way)
{
    FilterPacket* pPacket = nullptr;
    Filter_AcquireLock(&way->Lock);
    if (way->Count != 0) {
        const LONGLONG left = way->Held[way->First].Due - Filter_GetSystemTimeMs();
        if (left <= 0) {
            pPacket = way->Held[way->First].Packet;
            way->First = (way->First + 1) % kMaxHeld;
            --way->Count;
        } else {
            // Never more than the delay, should the system's clock have been set back.
            Filter_StartTimer(way->Timer, left < wan.DelayMs ? static_cast<ULONG>(left) : wan.DelayMs);
        }
    }
    Filter_ReleaseLock(&way->Lock);
    return pPacket;
}

// The packet goes on behind this filter, on the framework's thread for queued packets.
VOID OnTimer(FilterDriver*, PVOID, FilterTimer*, PVOID pWay)
{
    Way* const way = static_cast<Way*>(pWay);
    while (FilterPacket* const pPacket = TakeDue(way)) {
        Filter_InjectPacketFromFilter(FILTER_METHOD_START_AFTER_THIS_FILTER, way->Filter, pPacket);
    }
}

// -------------------------------------------------------------------------------------------- start and stop

char driverName[] = "wan";
char incomingName[] = "wan-incoming";
char outgoingName[] = "wan-outgoing";

// The timer is there before the filter, which starts it.
BOOLEAN OpenWay(Way* way, STRING name, FILTER_TYPE nType, ULONG seed)
{
    way->Name = name.Buffer;
    way->Random = seed;
    Filter_InitializeLock(&way->Lock);
    FILTER_STATUS status = Filter_InitializeTimer(wan.Driver, OnTimer, way, FALSE, &way->Timer);
    if (!IsRegistered(kName, "a timer", status, way->Timer)) {
        return FALSE;
    }
    status = Filter_RegisterFilter(wan.Driver, &name, DelayPacket, way, nType, FILTER_ORDER_LAST, &way->Filter);
    return IsRegistered(kName, name.Buffer, status, way->Filter);
}

// Packets that are queued for the filter are released when it is gone before their turn comes: waits for them, not for
// ever, as others use the queues, too.
VOID WaitForQueues()
{
    LARGE_INTEGER interval;
    interval.QuadPart = -10000LL * 10;
    for (ULONG i = 0; i < 100 && Filter_GetInjectPacketCount() != 0; ++i) {
        KeDelayExecutionThread(KernelMode, FALSE, &interval);
    }
}

// What is still held is let go at once, while the filter is there to go on behind.
VOID CloseWay(Way* way)
{
    Filter_AcquireLock(&way->Lock);
    way->Closing = TRUE;
    Filter_ReleaseLock(&way->Lock);
    if (way->Timer != nullptr) {
        Filter_FreeTimer(wan.Driver, way->Timer);
    }
    for (; way->Count != 0; --way->Count) {
        Filter_InvokeFiltersEx(FILTER_METHOD_START_AFTER_THIS_FILTER, way->Filter, way->Held[way->First].Packet);
        way->First = (way->First + 1) % kMaxHeld;
    }
    WaitForQueues();
    if (way->Filter != nullptr) {
        Filter_DeregisterFilter(wan.Driver, way->Filter);
    }
}

VOID Stop()
{
    if (wan.Driver != nullptr) {
        for (Way& way : wan.Ways) {
            CloseWay(&way);
        }
        Filter_DeregisterDriver(wan.Driver);
    }
}

BOOLEAN Start(ULONG seed)
{
    STRING name = CountedName(driverName);
    const FILTER_STATUS status = Filter_RegisterDriver(&name, &wan, 1, 0, &wan.Driver);
    return IsRegistered(kName, "as a client driver", status, wan.Driver) &&
           OpenWay(&wan.Ways[0], CountedName(incomingName), FILTER_TYPE_INCOMING_PACKET, seed) &&
           OpenWay(&wan.Ways[1], CountedName(outgoingName), FILTER_TYPE_OUTGOING_PACKET, ~seed);
}

VOID DriverUnload(PDRIVER_OBJECT)
{
    Stop();
    for (const Way& way : wan.Ways) {
        DbgPrint("wan: %s: %u frames delayed, %u lost, %u too many\n", way.Name, Read(&way.Delayed), Read(&way.Lost),
                 Read(&way.Overflown));
    }
}

} // namespace

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath)
{
    RtlZeroMemory(&wan, sizeof(wan));
    wan.DelayMs = Filter_RegGetDwordValue(RegistryPath, L"DelayMs", 50);
    wan.LossPerMille = Filter_RegGetDwordValue(RegistryPath, L"LossPerMille", 0);
    DriverObject->DriverUnload = DriverUnload;
    if (!Start(Filter_RegGetDwordValue(RegistryPath, L"Seed", 1))) {
        Stop();
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return STATUS_SUCCESS;
}
