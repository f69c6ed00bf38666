// The kernel sockets: addresses and connections that threads share, with an echo server of this machine as their peer.
// All data requests of a connection are told by callback or event; nobody waits for one that may never complete.
#include "stress.h"

#include <echo-client.h>

namespace stress
{

namespace
{

// What one data request needs until it has completed.
struct Block {
    Slot<Block> slot;
    std::unique_ptr<echo::Block> data;
    IO_STATUS_BLOCK result;
    KEVENT event;
    std::atomic<bool> awaited{false}; // held until the event is set
    TA_IP_ADDRESS peer;
    TDI_CONNECTION_INFORMATION information;
};

// A record is the library's until its count is 0: only then is its slot empty again.
struct Address {
    Slot<KS_TRANSPORT_ADDRESS> slot;
    std::atomic<bool> closing{false};
    KS_TRANSPORT_ADDRESS record;
};

struct Connection {
    Slot<KS_CONNECTION_ENDPOINT> slot;
    std::atomic<bool> closing{false};
    KS_TRANSPORT_ADDRESS address;
    KS_CONNECTION_ENDPOINT endpoint;
};

Address g_addresses[3];
Connection g_connections[3];
Block g_blocks[24];
KS_TRANSPORT_ADDRESS g_closedAddress;
KS_CONNECTION_ENDPOINT g_closedEndpoint;
std::unique_ptr<echo::Server> g_server;

ULONG CountOf(const volatile ULONG& count)
{
    return __atomic_load_n(&count, __ATOMIC_ACQUIRE);
}

// ---------------------------------------------------------------------------------------------------- requests

VOID NTAPI OnCompletion(PVOID context, PIO_STATUS_BLOCK, ULONG)
{
    auto* block = static_cast<Block*>(context);
    block->slot.Publish(block);
}

Block* TakeBlock(Caller& caller)
{
    auto hold = FirstOf(caller.Stream(), g_blocks, [](Block& block) {
        bool awaited = block.awaited.load(std::memory_order_acquire);
        if (awaited && KeReadStateEvent(&block.event) != 0 &&
            block.awaited.compare_exchange_strong(awaited, false, std::memory_order_acquire)) {
            block.slot.Publish(&block);
        }
        return Hold<Block>::Taken(block.slot);
    });
    Block* const block = hold ? hold.Get() : nullptr;
    hold.KeepHeld();
    return block;
}

constexpr std::initializer_list<int64_t> kRefusals = {
    STATUS_INVALID_CONNECTION, STATUS_CONNECTION_ACTIVE,  STATUS_CONNECTION_REFUSED,
    STATUS_CONNECTION_RESET,   STATUS_CONNECTION_ABORTED, STATUS_GRACEFUL_DISCONNECT,
    STATUS_DEVICE_BUSY,        STATUS_CANCELLED,          STATUS_ADDRESS_ALREADY_EXISTS};

Outcome JudgeRequest(Caller& caller, NTSTATUS status)
{
    return status == STATUS_PENDING ? Outcome::Success : caller.Judge(status, kRefusals);
}

enum class Mode { Callback, Event, Waiting };

// `send` gets event, callback, context, status block and block. Nothing was sent: the block is still ours.
template <class Send>
Outcome Request(Caller& caller, Mode mode, const Send& send)
{
    Block* const block = TakeBlock(caller);
    if (block == nullptr) {
        return Outcome::NothingToUse;
    }
    NTSTATUS status;
    if (mode == Mode::Callback) {
        status =
            send(nullptr, OnCompletion, block, caller.Stream().Chance(50) ? &block->result : nullptr, *block);
        if (status == STATUS_INSUFFICIENT_RESOURCES || status == STATUS_INVALID_HANDLE) {
            block->slot.Publish(block);
        }
    } else if (mode == Mode::Event) {
        status = send(&block->event, nullptr, nullptr, &block->result, *block);
        if (status == STATUS_PENDING) {
            block->awaited.store(true, std::memory_order_release);
        } else {
            block->slot.Publish(block);
        }
    } else {
        status = send(nullptr, nullptr, nullptr, nullptr, *block);
        block->slot.Publish(block);
    }
    return JudgeRequest(caller, status);
}

// Callbacks alone are allowed everywhere.
Mode AnyMode(Caller& caller, bool mayWait)
{
    return caller.IsRaised() || caller.Stream().Chance(50) ? Mode::Callback
           : mayWait && caller.Stream().Chance(50)         ? Mode::Waiting
                                                           : Mode::Event;
}

// --------------------------------------------------------------------------------------------------- addresses

bool IsGone(const Address& address)
{
    return CountOf(address.record.Count) == 0;
}

bool IsGone(const Connection& connection)
{
    return CountOf(connection.endpoint.Count) == 0 && CountOf(connection.address.Count) == 0;
}

// An empty place, or one that was closed and whose records the library has left; it is then held.
template <class Place>
Place* ReserveOne(Caller& caller, Place (&places)[3])
{
    return FirstOf(caller.Stream(), places, [](Place& place) {
        if (place.slot.Reserve()) {
            return &place;
        }
        if (place.closing.exchange(false, std::memory_order_acquire)) { // nobody else looks at it meanwhile
            if (IsGone(place)) {
                return &place;
            }
            place.closing.store(true, std::memory_order_release);
        }
        return static_cast<Place*>(nullptr);
    });
}

NTSTATUS Open(PCWSTR device, KS_TRANSPORT_ADDRESS* record)
{
    TA_IP_ADDRESS local = echo::Loopback(0);
    return KS_OpenTransportAddress(device, reinterpret_cast<PTRANSPORT_ADDRESS>(&local), record);
}

Outcome OpenAddress(Caller& caller)
{
    Address* const place = ReserveOne(caller, g_addresses);
    if (place == nullptr) {
        return Outcome::NothingToUse;
    }
    const NTSTATUS status = Open(L"\\Device\\Udp", &place->record);
    if (NT_SUCCESS(status)) {
        place->slot.Publish(&place->record);
    } else {
        place->slot.Empty();
    }
    return caller.Judge(status);
}

void OpenAddressWrongly(Caller& caller)
{
    KS_TRANSPORT_ADDRESS record;
    caller.Expect(Open(L"\\Device\\Nothing", &record), STATUS_OBJECT_NAME_NOT_FOUND);
    caller.Expect(record.Status, STATUS_OBJECT_NAME_NOT_FOUND);
}

auto BorrowAddress(Caller& caller)
{
    return FirstOf(caller.Stream(), g_addresses,
                   [](Address& address) { return Loan<KS_TRANSPORT_ADDRESS>(address.slot); });
}

NTSTATUS SwitchOff(KS_TRANSPORT_ADDRESS* record)
{
    return KS_SetEventHandlers(record, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
}

Outcome CloseAddress(Caller& caller)
{
    auto hold = FirstOf(caller.Stream(), g_addresses,
                        [](Address& address) { return Hold<KS_TRANSPORT_ADDRESS>::Taken(address.slot); });
    if (!hold) {
        return Outcome::NothingToUse;
    }
    auto* address = reinterpret_cast<Address*>(hold.Place()); // its first member
    hold.KeepHeld();
    caller.Expect(SwitchOff(&address->record), STATUS_SUCCESS);
    const NTSTATUS status = KS_CloseTransportAddress(&address->record);
    address->closing.store(true, std::memory_order_release);
    return caller.Judge(status);
}

void CloseAddressAgain(Caller& caller)
{
    caller.Expect(KS_CloseTransportAddress(&g_closedAddress), 0);
}

NTSTATUS OnDatagram(PVOID, LONG, PVOID, LONG, PVOID, ULONG, ULONG, ULONG, ULONG* taken, PVOID, PIRP*)
{
    *taken = 0;
    return STATUS_DATA_NOT_ACCEPTED;
}

Outcome SetHandlers(Caller& caller)
{
    const auto address = BorrowAddress(caller);
    return address
               ? caller.Judge(KS_SetEventHandlers(address.Get(), nullptr, nullptr, nullptr, nullptr, nullptr,
                                                  caller.Stream().Chance(30) ? OnDatagram : nullptr, nullptr),
                              {STATUS_DEVICE_BUSY})
               : Outcome::NothingToUse;
}

void SetHandlersWrongly(Caller& caller)
{
    caller.Expect(SwitchOff(&g_closedAddress), STATUS_INVALID_HANDLE);
}

NTSTATUS SendDatagram(KS_TRANSPORT_ADDRESS* record, PKEVENT event, KS_COMPLETION completion, PVOID context,
                      PIO_STATUS_BLOCK result, Block& block)
{
    block.peer = echo::Loopback(g_server->udpPort);
    block.information = {};
    block.information.RemoteAddress = &block.peer;
    block.information.RemoteAddressLength = sizeof(block.peer);
    return KS_SendDatagramOnAddress(record, event, completion, context, result, block.data->Mdl(),
                                    &block.information);
}

Outcome SendOnAddress(Caller& caller)
{
    const auto address = BorrowAddress(caller);
    return address ? Request(caller, AnyMode(caller, true),
                             [&](auto&&... arguments) { return SendDatagram(address.Get(), arguments...); })
                   : Outcome::NothingToUse;
}

// On a closed record: nothing is sent, and no callback comes.
template <class Send>
void OnClosed(Caller& caller, const Send& send)
{
    Block* const block = TakeBlock(caller);
    if (block != nullptr) {
        caller.Expect(send(*block), STATUS_INVALID_HANDLE);
        block->slot.Publish(block);
    }
}

void SendOnClosed(Caller& caller)
{
    OnClosed(caller, [](Block& block) {
        return KS_SendDatagramOnAddress(&g_closedAddress, nullptr, OnCompletion, &block, nullptr,
                                        block.data->Mdl(), &block.information);
    });
}

// Of the echo of what was sent just before. One that gets none ends with the unload of the framework.
Outcome ReceiveOnAddress(Caller& caller)
{
    const auto address = BorrowAddress(caller);
    if (!address) {
        return Outcome::NothingToUse;
    }
    const Outcome outcome = Request(
        caller, AnyMode(caller, false),
        [&](PKEVENT event, KS_COMPLETION completion, PVOID context, PIO_STATUS_BLOCK result, Block& block) {
            return KS_ReceiveDatagramOnAddress(address.Get(), event, completion, context, result,
                                               block.data->Mdl(), nullptr, nullptr, 0);
        });
    if (outcome == Outcome::Success) {
        Request(caller, Mode::Callback,
                [&](auto&&... arguments) { return SendDatagram(address.Get(), arguments...); });
    }
    return outcome;
}

void ReceiveOnClosed(Caller& caller)
{
    OnClosed(caller, [](Block& block) {
        return KS_ReceiveDatagramOnAddress(&g_closedAddress, nullptr, OnCompletion, &block, nullptr,
                                           block.data->Mdl(), nullptr, nullptr, 0);
    });
}

// ------------------------------------------------------------------------------------------------- connections

Outcome OpenEndpoint(Caller& caller)
{
    Connection* const place = ReserveOne(caller, g_connections);
    if (place == nullptr) {
        return Outcome::NothingToUse;
    }
    caller.Expect(Open(L"\\Device\\Tcp", &place->address), STATUS_SUCCESS);
    const NTSTATUS status =
        KS_OpenConnectionEndpoint(L"\\Device\\Tcp", &place->address, &place->endpoint, place);
    if (NT_SUCCESS(status)) {
        place->slot.Publish(&place->endpoint);
    } else {
        place->slot.Empty();
    }
    return caller.Judge(status);
}

void OpenEndpointWrongly(Caller& caller)
{
    KS_CONNECTION_ENDPOINT record;
    const auto address = BorrowAddress(caller);
    if (address) {
        caller.Expect(KS_OpenConnectionEndpoint(L"\\Device\\Nothing", address.Get(), &record, nullptr),
                      STATUS_OBJECT_NAME_NOT_FOUND);
    }
    caller.Expect(KS_OpenConnectionEndpoint(L"\\Device\\Tcp", &g_closedAddress, &record, nullptr),
                  STATUS_INVALID_HANDLE);
}

auto BorrowEndpoint(Caller& caller)
{
    return FirstOf(caller.Stream(), g_connections,
                   [](Connection& connection) { return Loan<KS_CONNECTION_ENDPOINT>(connection.slot); });
}

// What is under way ends with the connection.
Outcome CloseEndpoint(Caller& caller)
{
    auto hold = FirstOf(caller.Stream(), g_connections, [](Connection& connection) {
        return Hold<KS_CONNECTION_ENDPOINT>::Taken(connection.slot);
    });
    if (!hold) {
        return Outcome::NothingToUse;
    }
    auto* connection = reinterpret_cast<Connection*>(hold.Place()); // its first member
    hold.KeepHeld();
    KS_Disconnect(&connection->endpoint, nullptr, nullptr, nullptr, nullptr, TDI_DISCONNECT_ABORT);
    const NTSTATUS status = KS_CloseConnectionEndpoint(&connection->endpoint);
    caller.Expect(KS_CloseTransportAddress(&connection->address), 0);
    connection->closing.store(true, std::memory_order_release);
    return caller.Judge(status);
}

void CloseEndpointAgain(Caller& caller)
{
    caller.Expect(KS_CloseConnectionEndpoint(&g_closedEndpoint), 0);
}

Outcome Connect(Caller& caller)
{
    const auto endpoint = BorrowEndpoint(caller);
    TA_IP_ADDRESS peer = echo::Loopback(g_server->tcpPort);
    // The last: the same pair of ports has only just been in use.
    const std::initializer_list<int64_t> refusals = {
        STATUS_INVALID_CONNECTION, STATUS_CONNECTION_ACTIVE,        STATUS_CONNECTION_REFUSED,
        STATUS_CONNECTION_RESET,   STATUS_CONNECTION_ABORTED,       STATUS_DEVICE_BUSY,
        STATUS_CANCELLED,          STATUS_INVALID_ADDRESS_COMPONENT};
    return endpoint ? caller.Judge(KS_Connect(endpoint.Get(), &peer), refusals) : Outcome::NothingToUse;
}

void ConnectClosed(Caller& caller)
{
    TA_IP_ADDRESS peer = echo::Loopback(g_server->tcpPort);
    caller.Expect(KS_Connect(&g_closedEndpoint, &peer), STATUS_INVALID_HANDLE);
}

Outcome Disconnect(Caller& caller)
{
    const auto endpoint = BorrowEndpoint(caller);
    const ULONG flags = caller.Stream().OneOf<ULONG>({TDI_DISCONNECT_ABORT, TDI_DISCONNECT_RELEASE});
    if (!endpoint || caller.Stream().Chance(60)) {
        return Outcome::NothingToUse;
    }
    return Request(
        caller, AnyMode(caller, flags == TDI_DISCONNECT_ABORT),
        [&](PKEVENT event, KS_COMPLETION completion, PVOID context, PIO_STATUS_BLOCK result, Block&) {
            return KS_Disconnect(endpoint.Get(), event, completion, context, result, flags);
        });
}

void DisconnectClosed(Caller& caller)
{
    OnClosed(caller, [](Block& block) {
        return KS_Disconnect(&g_closedEndpoint, nullptr, OnCompletion, &block, nullptr, TDI_DISCONNECT_ABORT);
    });
}

template <auto kMove>
Outcome MoveData(Caller& caller)
{
    const auto endpoint = BorrowEndpoint(caller);
    if (!endpoint) {
        return Outcome::NothingToUse;
    }
    return Request(
        caller, AnyMode(caller, false),
        [&](PKEVENT event, KS_COMPLETION completion, PVOID context, PIO_STATUS_BLOCK result, Block& block) {
            return kMove(endpoint.Get(), event, completion, context, result, block.data->Mdl(), 0);
        });
}

template <auto kMove>
void MoveOnClosed(Caller& caller)
{
    OnClosed(caller, [](Block& block) {
        return kMove(&g_closedEndpoint, nullptr, OnCompletion, &block, nullptr, block.data->Mdl(), 0);
    });
}

Outcome SetInformation(Caller& caller)
{
    UCHAR information[KS_CONNECTION_INFO_SIZE];
    const auto endpoint = BorrowEndpoint(caller);
    return endpoint ? caller.Judge(KS_SetConnectionInfo(endpoint.Get(), information), kRefusals)
                    : Outcome::NothingToUse;
}

void SetInformationClosed(Caller& caller)
{
    UCHAR information[KS_CONNECTION_INFO_SIZE];
    caller.Expect(KS_SetConnectionInfo(&g_closedEndpoint, information), STATUS_INVALID_HANDLE);
}

// Asks for an address's port.
Outcome MakeRequest(Caller& caller)
{
    const auto address = BorrowAddress(caller);
    if (!address) {
        return Outcome::NothingToUse;
    }
    struct {
        ULONG activityCount;
        TA_IP_ADDRESS address;
    } info = {};
    const PDEVICE_OBJECT device = IoGetRelatedDeviceObject(address.Get()->FileObject);
    const PIRP irp = IoAllocateIrp(device->StackSize, FALSE);
    const PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    next->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    next->MinorFunction = TDI_QUERY_INFORMATION;
    next->FileObject = address.Get()->FileObject;
    reinterpret_cast<TDI_REQUEST_KERNEL_QUERY_INFORMATION&>(next->Parameters).QueryType =
        TDI_QUERY_ADDRESS_INFO;
    const PMDL mdl = KS_AllocateAndProbeMdl(&info, sizeof(info), FALSE, FALSE, irp);
    const Outcome outcome = caller.Judge(KS_MakeSimpleTdiRequest(device, irp));
    caller.Check(info.address.Address[0].Address[0].sin_port != 0, "an open address has a port");
    KS_UnlockAndFreeMdl(mdl);
    IoFreeIrp(irp);
    return outcome;
}

// ------------------------------------------------------------------------------------------------- the table

constexpr auto P = Level::Passive;
constexpr auto D = Level::Dispatch;

constexpr Call kCalls[] = {
    {"KS_OpenTransportAddress", Actor::Caller, P, 10, OpenAddress, OpenAddressWrongly},
    {"KS_CloseTransportAddress", Actor::Caller, P, 10, CloseAddress, CloseAddressAgain},
    {"KS_SetEventHandlers", Actor::Caller, P, 10, SetHandlers, SetHandlersWrongly},
    {"KS_SendDatagramOnAddress", Actor::Caller, D, 10, SendOnAddress, SendOnClosed},
    {"KS_ReceiveDatagramOnAddress", Actor::Caller, D, 2, ReceiveOnAddress, ReceiveOnClosed},
    {"KS_OpenConnectionEndpoint", Actor::Caller, P, 10, OpenEndpoint, OpenEndpointWrongly},
    {"KS_CloseConnectionEndpoint", Actor::Caller, P, 10, CloseEndpoint, CloseEndpointAgain},
    {"KS_Connect", Actor::Caller, P, 5, Connect, ConnectClosed},
    {"KS_Disconnect", Actor::Caller, D, 2, Disconnect, DisconnectClosed},
    {"KS_SendOnEndpoint", Actor::Caller, D, 2, MoveData<KS_SendOnEndpoint>, MoveOnClosed<KS_SendOnEndpoint>},
    {"KS_ReceiveOnEndpoint", Actor::Caller, D, 2, MoveData<KS_ReceiveOnEndpoint>,
     MoveOnClosed<KS_ReceiveOnEndpoint>},
    {"KS_SetConnectionInfo", Actor::Caller, P, 5, SetInformation, SetInformationClosed},
    {"KS_MakeSimpleTdiRequest", Actor::Caller, P, 10, MakeRequest, nullptr},
};

} // namespace

std::span<const Call> SocketCalls()
{
    return kCalls;
}

void StartSockets()
{
    g_server = std::make_unique<echo::Server>();
    if (g_server->tcpPort == 0) {
        Fail("the echo server did not start");
    }
    char name[KS_PROCESS_NAME_SIZE];
    if (KS_GetCurrentProcessName(name)) {
        Fail("a process's name is known before it was looked for");
    }
    KS_InitProcessNameOffset();
}

void EndSockets()
{
    g_server.reset();
}

void OpenSockets()
{
    for (Block& block : g_blocks) {
        block.data = std::make_unique<echo::Block>(512);
        KeInitializeEvent(&block.event, NotificationEvent, FALSE);
        block.slot.Reserve();
        block.slot.Publish(&block);
    }
    if (!NT_SUCCESS(Open(L"\\Device\\Tcp", &g_closedAddress)) ||
        !NT_SUCCESS(
            KS_OpenConnectionEndpoint(L"\\Device\\Tcp", &g_closedAddress, &g_closedEndpoint, nullptr))) {
        Fail("a connection cannot be opened");
    }
    KS_CloseConnectionEndpoint(&g_closedEndpoint);
    KS_CloseTransportAddress(&g_closedAddress);
}

// The unload of the framework ends the data requests that are still under way, and waits for that.
void CloseSockets()
{
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, L"\\Device\\Stress");
    KS_CreateSymbolicLink(&name, FALSE);
    for (Address& address : g_addresses) {
        if (address.slot.Take()) {
            SwitchOff(&address.record);
            KS_CloseTransportAddress(&address.record);
            address.closing = true;
        }
    }
    for (Connection& connection : g_connections) {
        if (connection.slot.Take()) {
            KS_Disconnect(&connection.endpoint, nullptr, nullptr, nullptr, nullptr, TDI_DISCONNECT_ABORT);
            KS_CloseConnectionEndpoint(&connection.endpoint);
            KS_CloseTransportAddress(&connection.address);
            connection.closing = true;
        }
    }
}

void CheckSockets()
{
    for (Address& address : g_addresses) {
        if (address.closing.exchange(false) && !IsGone(address)) {
            Fail("an address is not closed behind the unload");
        }
        address.slot.Empty();
    }
    for (Connection& connection : g_connections) {
        if (connection.closing.exchange(false) && !IsGone(connection)) {
            Fail("a connection is not closed behind the unload");
        }
        connection.slot.Empty();
    }
    for (Block& block : g_blocks) {
        const bool completed =
            block.awaited.exchange(false) ? KeReadStateEvent(&block.event) != 0 : block.slot.Take();
        if (!completed) {
            Fail("a data request has not completed behind the unload");
        }
        block.data.reset();
        block.slot.Empty();
    }
}

} // namespace stress
