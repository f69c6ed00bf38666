// Client drivers and what they register: filters, handlers, timers, interfaces.
#include "world.h"

#include <cstring>

namespace stress
{

namespace
{

constinit thread_local uint32_t t_walks = 0; // chains that this thread is in

// What a filter may do with a packet, and now and then does. It injects at once only into chains that come behind its
// own, or two walks could wait for one another.
void Meddle(PacketFilter* filter, FilterPacket* packet)
{
    const uint32_t act = Dice().Below(60);
    if (act == 1) {
        Filter_ModifyPacket(packet);
        packet->m_Data[Dice().Below(64)] ^= 1;
        Filter_InitPacketHeader(packet, nullptr);
    } else if (act == 2) {
        Filter_IndicatePacketToApplication(packet, 7, 8);
    } else if (act == 3) {
        Filter_ReportEvent(3, 4, "packet of %d bytes", packet->m_nPacketSize);
    } else if (act == 4) {
        STRING* name = nullptr;
        RequireSuccess(Filter_GetFilterName(filter, &name), "the name of a filter that runs");
        Filter_FreeMemory(name);
    } else if (act == 5) {
        FilterPacket* clone = nullptr;
        FILTER_TYPE type = FILTER_TYPE_INVALID;
        Filter_GetFilterType(filter, &type);
        if (Filter_ClonePacket(packet, &clone) == FILTER_STATUS_SUCCESS) {
            if (type > FILTER_TYPE_OUTGOING_PACKET || t_walks != 1) {
                KeepPacket(clone);
            } else if (Dice().Chance(50)) {
                Filter_InjectPacketToAdapter(AnyAdapter(), clone);
            } else {
                Filter_IndicatePacketToProtocol(AnyAdapter(), clone);
            }
        }
    } else if (act == 6) {
        Filter_TransferPacketData(packet);
        Filter_VerifyPacketCheckSum(packet);
    }
}

FILTER_RESULT FilterProcedure(FilterDriver* driver, PVOID, PacketFilter* filter, PVOID context,
                              FilterPacket* packet)
{
    static_cast<const Registration*>(context)->CheckStands();
    Require(Filter_IsValidDriver(driver), "the driver of a filter that runs is not valid");
    if (Dice().Below(300) == 0) {
        support::FaultOnRead(); // contained: counts as no verdict
    }
    ++t_walks;
    Meddle(filter, packet);
    --t_walks;
    const uint32_t verdict = Dice().Below(20);
    if (verdict == FILTER_RESULT_CONSUME && Dice().Chance(30)) {
        Filter_InjectPacketFromFilter(FILTER_METHOD_START_AFTER_THIS_FILTER, filter, packet);
    } else if (verdict == FILTER_RESULT_CONSUME) {
        KeepPacket(packet);
    }
    return verdict < 5 ? verdict : FILTER_RESULT_BYPASS; // one of them is no verdict
}

BOOLEAN LookAtFilter(PVOID, PacketFilter* filter)
{
    PVOID context = nullptr;
    Require(Filter_GetFilterContext(filter, &context) == FILTER_STATUS_SUCCESS,
            "a filter of the enumeration is not valid");
    return TRUE;
}

VOID OnAdapterEvent(FilterDriver*, PVOID, ULONG nEvent, PVOID context, FilterAdapter* adapter)
{
    static_cast<const Registration*>(context)->CheckStands();
    Require(nEvent <= FILTER_EVENT_IPCONFIG_CHANGED && Filter_IsValidAdapter(adapter),
            "no event of an adapter");
    if (Dice().Chance(10)) {
        USHORT mtu = 0;
        Filter_GetAdapterMtu(adapter, &mtu);
        Filter_ReportEvent(nEvent, mtu, "adapter %p", adapter);
    }
}

VOID OnInterfaceEvent(FilterDriver* driver, PVOID, ULONG nEvent, PVOID context, const STRING* name)
{
    static_cast<const Registration*>(context)->CheckStands();
    Require(nEvent <= FILTER_IF_EVENT_DEREGISTERED && name->Length != 0, "no event of an interface");
    PVOID copy = nullptr;
    if (Dice().Chance(20) && Filter_QueryInterface(driver, name, &copy) == FILTER_STATUS_SUCCESS) {
        Filter_ReleaseInterface(driver, copy); // its owner may have gone
    }
}

VOID OnTimer(FilterDriver*, PVOID, FilterTimer* timer, PVOID context)
{
    static_cast<const Registration*>(context)->CheckStands();
    const uint32_t act = Dice().Below(16);
    if (act == 0) {
        support::FaultOnRead(); // contained, and all that is lost is the rest of this
    } else if (act == 1) {
        Filter_StopTimer(timer);
    } else if (act == 2) {
        Filter_StartTimer(timer, Dice().Below(30));
    }
}

// Answers diagnostics for its driver, and the code that all of them own.
NTSTATUS OnControl(PVOID context, PIRP irp, ULONG code, PVOID input, ULONG inputLength, PVOID output,
                   ULONG outputLength, ULONG_PTR* returned)
{
    const auto& registration = *static_cast<const Registration*>(context);
    registration.CheckStands();
    if (code == kOwnCode) {
        return STATUS_SUCCESS;
    }
    Diag* diag = nullptr;
    if (code == IOCTL_NDIS_FILTER_DIAG &&
        Filter_BeginDiag(input, inputLength, output, outputLength, &diag) == 0) {
        Filter_DiagPrint(diag, "%s: %d arguments\n", registration.name, diag->m_nArgumentCount);
        if (std::strcmp(diag->m_pszDriverName, registration.name) == 0) {
            Filter_DiagFilter(diag, static_cast<FILTER_TYPE>(Dice().Below(FILTER_TYPE_COUNT)));
            return STATUS_SUCCESS;
        }
    }
    return Filter_DefaultIoCtrlHandler(context, irp, code, input, inputLength, output, outputLength,
                                       returned);
}

// What the framework would not take along goes first; of the rest now and then some. Nobody has borrowed anything of
// the client, as its driver is held. What is no driver any more has nothing.
FILTER_STATUS Depart(FilterDriver* driver)
{
    const auto drop = [&](Kind kind, const std::function<void(void*)>& end) {
        for (Slot& slot : Pool(kind)) {
            if (slot.owner->Value() == driver && slot.Hold(true)) {
                end(slot.Value());
                // Callbacks of a timer are not waited for.
                slot.registration->live.store(kind == kTimer, std::memory_order_relaxed);
                slot.Put(nullptr);
            }
        }
    };
    ULONG contextSlot = 0;
    Filter_AcquireAdapterContext(driver, &contextSlot);
    Filter_ReleaseAdapterContext(driver, contextSlot);
    drop(kIfEventHandler, [=](void* handler) {
        Filter_DeregisterIfEventHandler(driver, static_cast<IfEventHandler*>(handler));
    });
    drop(kReference, [=](void* copy) { Filter_ReleaseInterface(driver, copy); });
    if (Dice().Chance(70)) {
        drop(kInterface,
             [=](void* entry) { Filter_DeregisterInterface(driver, static_cast<FilterInterface*>(entry)); });
    }
    const FILTER_STATUS status = Filter_DeregisterDriver(driver);
    for (const Kind kind : {kInterface, kFilter, kEventHandler, kIoCtrlHandler, kTimer}) {
        drop(kind, [](void*) {});
    }
    return status;
}

uint64_t MakeBlock(Words& memory) // its first word is its length
{
    memory.assign(8, 2 + Dice().Below(63));
    return reinterpret_cast<uint64_t>(memory.data());
}

// It declines whatever it gets.
NTSTATUS Decline(ULONG code)
{
    const NTSTATUS status =
        Filter_DefaultIoCtrlHandler(nullptr, nullptr, code, nullptr, 0, nullptr, 0, nullptr);
    return status == STATUS_NOT_SUPPORTED ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
}

// Each copy is its holder's alone.
FILTER_STATUS QueryInterface(FilterDriver* driver, const STRING* name, PVOID* copy)
{
    const FILTER_STATUS status = Filter_QueryInterface(driver, name, copy);
    if (status == FILTER_STATUS_SUCCESS) {
        USHORT length = 0;
        std::memcpy(&length, *copy, sizeof(length));
        Require(length >= 2 && length <= 64, "the copy of an interface tells its length");
        Dice().Fill(static_cast<uint8_t*>(*copy) + 2, length - 2u);
    }
    return status;
}

const Argument kChain = Number(0, FILTER_TYPE_COUNT, FILTER_ERROR_INVALID_FILTER_TYPE, {4, 0x7FFFFFFF});

} // namespace

std::vector<Call> ClientCalls()
{
    const Argument interfaceName = Handle(Form::NameOf, kInterface, kNull);
    return {
        Line(NAMED(Filter_RegisterDriver), 10,
             {Name(), Pointer(&t_walks), Number(1, 1, FILTER_ERROR_UNSUPPORTED_API_VERSION, {2, 3}),
              Number(0, 1), New(kDriver)}),
        Line(NAMED(Filter_IsValidDriver), 50, {Live(kDriver)}),
        Line(NAMED(Filter_GetDriverName), 50, {Live(kDriver), Text()}),
        Line(NAMED(Filter_GetDriverContext), 50, {Live(kDriver), Out(8)}),
        // Not as often as the other calls: a client is to have a life.
        Line("Filter_DeregisterDriver", Depart, 5, {Ended(kDriver)}, {.percent = 10}),

        Line(NAMED(Filter_RegisterFilter), 50,
             {Owner(), Name(), Pointer(FilterProcedure, kNull), Context(), kChain,
              OneOf({FILTER_ORDER_FIRST, FILTER_ORDER_NEXT, FILTER_ORDER_LAST, 7, 1000}), New(kFilter)}),
        Line(NAMED(Filter_IsValidFilter), 50, {Live(kFilter)}),
        Line(NAMED(Filter_DeregisterFilter), 50, {Owner(), Ended(kFilter)}),
        Line(NAMED(Filter_GetFilterName), 50, {Live(kFilter), Text()}),
        Line(NAMED(Filter_GetFilterContext), 50, {Live(kFilter), Out(8)}),
        Line(NAMED(Filter_GetFilterType), 50, {Live(kFilter), Out(4)}),
        Line(NAMED(Filter_GetFilterOrder), 50, {Live(kFilter), Out(4)}),
        Line(NAMED(Filter_EnumFilter), 50, {Live(kDriver), Pointer(LookAtFilter, kNull), Null(), kChain}),
        Line(NAMED(Filter_DumpFilter), 99, {kChain}),
        Line(NAMED(Filter_ShowFilter), 50, {Handle(Form::Live, kFilter), Number(0, 100)}),

        Line(NAMED(Filter_RegisterEventHandler), 50,
             {Owner(), Pointer(OnAdapterEvent, kNull), Context(), New(kEventHandler)}),
        Line(NAMED(Filter_IsValidEventHandler), 50, {Live(kEventHandler)}),
        Line(NAMED(Filter_DeregisterEventHandler), 50, {Owner(), Ended(kEventHandler)}),
        Line(NAMED(Filter_RegisterIfEventHandler), 50,
             {Owner(), Pointer(OnInterfaceEvent, kNull), Context(), New(kIfEventHandler)}),
        Line(NAMED(Filter_IsValidIfEventHandler), 50, {Live(kIfEventHandler)}),
        Line(NAMED(Filter_DeregisterIfEventHandler), 50, {Owner(), Ended(kIfEventHandler)}),
        Line(NAMED(Filter_RegisterIoControl), 50,
             {Owner(), Pointer(OnControl, kNull), Context(), New(kIoCtrlHandler)}),
        Line(NAMED(Filter_IsValidIoCtrlHandler), 50, {Live(kIoCtrlHandler)}),
        Line(NAMED(Filter_DeregisterIoControl), 50, {Owner(), Ended(kIoCtrlHandler)}),
        Line("Filter_DefaultIoCtrlHandler", Decline, 99, {Any()}),

        Line(NAMED(Filter_InitializeTimer), 50,
             {Owner(), Pointer(OnTimer, kNull), Context(), Number(0, 2), New(kTimer)}),
        Line(NAMED(Filter_IsValidTimer), 50, {Live(kTimer)}),
        Line(NAMED(Filter_StartTimer), 50, {Live(kTimer), Number(0, 20)}),
        Line(NAMED(Filter_StopTimer), 50, {Live(kTimer)}),
        Line(NAMED(Filter_FreeTimer), 50, {Owner(), Ended(kTimer)}, {.level = kPassive}),

        Line(NAMED(Filter_RegisterInterface), 50, {Owner(), Name(), Made(MakeBlock, kNull), New(kInterface)}),
        Line("Filter_QueryInterface", QueryInterface, 30, {Owner(), interfaceName, New(kReference)}),
        // The owner of the interface may have left meanwhile.
        Line(NAMED(Filter_IsValidInterface), 30, {Live(kReference)}, {.may = {kNo}}),
        Line(NAMED(Filter_IsValidInterfaceObject), 50, {Live(kInterface)}),
        Line(NAMED(Filter_ReleaseInterface), 30, {Owner(), Ended(kReference)},
             {.may = {FILTER_ERROR_INVALID_FILTER_INTERFACE}}),
        // One that is referenced is withdrawn all the same, and goes with the last reference.
        Line(NAMED(Filter_DeregisterInterface), 30, {Owner(), Ended(kInterface)},
             {.may = {FILTER_ERROR_INTERFACE_ARE_REFERENCED}}),
    };
}

} // namespace stress
