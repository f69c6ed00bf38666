// The kernel sockets: addresses and connections that threads share, with an echo server of this machine as their peer.
// All data requests of a connection are told by callback; nobody waits for one that may never complete.
#include "row.h"

#include <support/tdi-request.h>

#include <echo-client.h>

namespace stress
{

namespace
{

// A record is the library's until its count is 0, so each is used once in a round. An address has no endpoint.
using Record = echo::Connection;
constexpr uint32_t kRecords = 1 << 14;
Record g_records[kRecords];
std::atomic<uint32_t> g_recordsUsed{0};
Record g_closed;

// What one data request needs until it has completed.
struct Data {
    Slot* slot = nullptr;
    echo::Block block{512};
    IO_STATUS_BLOCK result;
    TA_IP_ADDRESS peer;
    TDI_CONNECTION_INFORMATION information;
};
std::unique_ptr<Data[]> g_data;

const echo::Server& Server() // of the run
{
    static const echo::Server server;
    return server;
}

VOID NTAPI OnCompletion(PVOID context, PIO_STATUS_BLOCK, ULONG)
{
    static_cast<Data*>(context)->slot->Put(context);
}

// `send` gets the callback, its context and where the result goes.
template <class Send>
NTSTATUS Begin(Data* data, const Send& send)
{
    const NTSTATUS status = send(OnCompletion, data, Dice().Chance(50) ? &data->result : nullptr);
    if (status == STATUS_INSUFFICIENT_RESOURCES || status == STATUS_INVALID_HANDLE) { // nothing was sent
        data->slot->Put(data);
    }
    return status == STATUS_PENDING ? STATUS_SUCCESS : status;
}

NTSTATUS SendDatagram(Record* record, Data* data)
{
    data->peer = echo::Loopback(Server().udpPort);
    data->information = {};
    data->information.RemoteAddress = &data->peer;
    data->information.RemoteAddressLength = sizeof(data->peer);
    return Begin(data, [=](auto... how) {
        return KS_SendDatagramOnAddress(&record->address, nullptr, how..., data->block.Mdl(),
                                        &data->information);
    });
}

// One that gets no echo ends with the unload of the framework.
NTSTATUS ReceiveDatagram(Record* record, Data* data)
{
    return Begin(data, [=](auto... how) {
        return KS_ReceiveDatagramOnAddress(&record->address, nullptr, how..., data->block.Mdl(), nullptr,
                                           nullptr, 0);
    });
}

template <auto kMove>
NTSTATUS MoveData(Record* record, Data* data)
{
    return Begin(
        data, [=](auto... how) { return kMove(&record->endpoint, nullptr, how..., data->block.Mdl(), 0); });
}

NTSTATUS Disconnect(Record* record, Data* data)
{
    const ULONG flags = Dice().OneOf<ULONG>({TDI_DISCONNECT_ABORT, TDI_DISCONNECT_RELEASE});
    return Begin(data, [=](auto... how) { return KS_Disconnect(&record->endpoint, nullptr, how..., flags); });
}

template <bool kWithEndpoint>
NTSTATUS Open(Record** result)
{
    const uint32_t index = g_recordsUsed.fetch_add(1, std::memory_order_relaxed);
    Require(index < kRecords, "a round opens more than there is room for");
    Record* const record = *result = &g_records[index % kRecords];
    TA_IP_ADDRESS local = echo::Loopback(0);
    return kWithEndpoint
               ? record->Open()
               : KS_OpenTransportAddress(L"\\Device\\Udp", reinterpret_cast<PTRANSPORT_ADDRESS>(&local),
                                         &record->address);
}

NTSTATUS SwitchHandler(Record* record, PTDI_IND_RECEIVE_DATAGRAM handler)
{
    return KS_SetEventHandlers(&record->address, nullptr, nullptr, nullptr, nullptr, nullptr, handler,
                               nullptr);
}

NTSTATUS OnDatagram(PVOID, LONG, PVOID, LONG, PVOID, ULONG, ULONG, ULONG, ULONG* taken, PVOID, PIRP*)
{
    *taken = 0;
    return STATUS_DATA_NOT_ACCEPTED;
}

// What is under way ends with a connection.
template <bool kWithEndpoint>
NTSTATUS Close(Record* record)
{
    if (kWithEndpoint && record != &g_closed) {
        KS_Disconnect(&record->endpoint, nullptr, nullptr, nullptr, nullptr, TDI_DISCONNECT_ABORT);
    } else if (record != &g_closed) {
        RequireSuccess(SwitchHandler(record, nullptr), "switching handlers off");
    }
    record->Close(); // an endpoint with the count 0 is none
    return STATUS_SUCCESS;
}

NTSTATUS Connect(Record* record)
{
    return record->Connect(Server().tcpPort);
}

NTSTATUS SetInformation(Record* record, PVOID buffer)
{
    return KS_SetConnectionInfo(&record->endpoint, buffer);
}

VOID MakeRequest(Record* record)
{
    Require(support::AskPort(record->address) != 0, "an open address has a port, and tells it");
}

NTSTATUS UseControlChannel(PCWSTR device)
{
    KS_CONTROL_CHANNEL channel = {};
    const NTSTATUS status = KS_OpenControlChannel(device, &channel);
    return NT_SUCCESS(status) ? KS_CloseControlChannel(&channel) : status;
}

BOOLEAN UseMdl(ULONG length)
{
    static UCHAR memory[8192];
    const PMDL mdl = KS_AllocateAndProbeMdl(memory, length, FALSE, FALSE, nullptr);
    KS_UnlockAndFreeMdl(mdl);
    return mdl != nullptr;
}

// One link for all: another thread may have made or deleted it.
NTSTATUS UseLink(PCWSTR device, BOOLEAN create)
{
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, device);
    return KS_CreateSymbolicLink(&name, create);
}

VOID FreePacket()
{
    NDIS_STATUS status;
    NDIS_HANDLE pool;
    PNDIS_PACKET packet;
    NdisAllocatePacketPool(&status, &pool, 1, 0);
    NdisAllocatePacket(&status, &packet, pool);
    KS_FreePacketAndBuffers(packet);
    NdisFreePacketPool(pool);
}

} // namespace

std::vector<Call> SocketCalls()
{
    static TA_IP_ADDRESS loopback = echo::Loopback(0);
    const Argument device = OneOf({Word(L"\\Device\\Tcp"), Word(L"\\Device\\Udp"), Word(L"\\Device\\RawIp")},
                                  STATUS_OBJECT_NAME_NOT_FOUND, {Word(L"\\Device\\Nothing")});
    const Argument bytes = Noise(300);
    const Argument link = OneOf({Word(L"\\Device\\Stress")}, STATUS_UNSUCCESSFUL, {Word(L"\\Device\\")});
    const auto open = [](Form form, Kind kind) { // a closed record is refused, but may be closed again
        Argument argument = Handle(form, kind);
        argument.wrong = {Word(&g_closed)};
        argument.refusal = form == Form::Live ? STATUS_INVALID_HANDLE : STATUS_SUCCESS;
        return argument;
    };
    const Argument address = open(Form::Live, kAddress);
    const Argument connection = open(Form::Live, kEndpoint);
    const Argument data = Handle(Form::Lent, kData);
    const std::vector<int64_t> lost = {
        STATUS_INVALID_CONNECTION,
        STATUS_CONNECTION_ACTIVE,
        STATUS_CONNECTION_REFUSED,
        STATUS_CONNECTION_RESET,
        STATUS_CONNECTION_ABORTED,
        STATUS_GRACEFUL_DISCONNECT,
        STATUS_DEVICE_BUSY,
        STATUS_CANCELLED,
        STATUS_ADDRESS_ALREADY_EXISTS,
        STATUS_INVALID_ADDRESS_COMPONENT}; // the last: the same pair of ports has only just been in use
    const Options passive = {.level = kPassive};
    const Options request = {.may = lost};
    const Options waiting = {.may = lost, .level = kPassive};
    return {
        Line("KS_OpenTransportAddress", Open<false>, 50, {Handle(Form::New, kAddress)}, passive),
        Line("KS_CloseTransportAddress", Close<false>, 50, {open(Form::Ended, kAddress)}, passive),
        Line("KS_SetEventHandlers", SwitchHandler, 50, {address, OneOf({0, 0, Word(OnDatagram)})}, waiting),
        Line("KS_SendDatagramOnAddress", SendDatagram, 50, {address, data}, request),
        Line("KS_ReceiveDatagramOnAddress", ReceiveDatagram, 30, {address, data}, request),
        Line("KS_OpenConnectionEndpoint", Open<true>, 50, {Handle(Form::New, kEndpoint)}, passive),
        Line("KS_CloseConnectionEndpoint", Close<true>, 50, {open(Form::Ended, kEndpoint)}, passive),
        Line("KS_Connect", Connect, 20, {connection}, waiting),
        Line("KS_Disconnect", Disconnect, 8, {connection, data}, {.may = lost, .percent = 40}),
        Line("KS_SendOnEndpoint", MoveData<KS_SendOnEndpoint>, 20, {connection, data}, request),
        Line("KS_ReceiveOnEndpoint", MoveData<KS_ReceiveOnEndpoint>, 20, {connection, data}, request),
        Line("KS_SetConnectionInfo", SetInformation, 15, {connection, Output(KS_CONNECTION_INFO_SIZE)},
             waiting),
        Line("KS_MakeSimpleTdiRequest", MakeRequest, 50, {Handle(Form::Live, kAddress)}, passive),

        Line("KS_OpenControlChannel", UseControlChannel, 99, {device}, passive),
        Line("KS_CloseControlChannel", UseControlChannel, 99, {device}, passive),
        Line(NAMED(KS_QueryProviderInfo), 99, {device, Output(KS_PROVIDER_INFO_SIZE)}, passive),
        Line(NAMED(KS_QueryProviderStatistics), 99, {device, Output(KS_PROVIDER_STATISTICS_SIZE)}, passive),
        Line("KS_AllocateAndProbeMdl", UseMdl, 99, {Number(1, 8192)}),
        Line("KS_UnlockAndFreeMdl", UseMdl, 99, {Number(1, 8192)}),
        Line(NAMED(KS_BuildEaBuffer), 99,
             {Number(1, 255, STATUS_INVALID_PARAMETER, {256, 1000}), bytes,
              Number(0, 300, STATUS_INVALID_PARAMETER, {65536, 100'000}), bytes,
              Output(8, kNoMatter, [](uint64_t* ea) { ExFreePool(reinterpret_cast<PVOID>(*ea)); }),
              Output(4)},
             passive),
        Line(NAMED(KS_TransportAddressLength), 99, {Pointer(&loopback)}),
        Line(NAMED(KS_InitIPAddress), 99, {Output(sizeof(TA_IP_ADDRESS)), Any(), Any()}),
        Line("KS_CreateSymbolicLink", UseLink, 30, {link, Number(0, 2)},
             {.may = {STATUS_OBJECT_NAME_COLLISION, STATUS_OBJECT_NAME_NOT_FOUND}, .level = kPassive}),
        Line("KS_FreePacketAndBuffers", FreePacket, 99, {}),
        Line(NAMED(KS_htonl), 99, {Any()}),
        Line(NAMED(KS_ntohl), 99, {Any()}),
        Line(NAMED(KS_htons), 99, {Any()}),
        Line(NAMED(KS_ntohs), 99, {Any()}),
        Line(NAMED(KS_in_cksum), 99, {Noise(64), Number(0, 65)}),
        Line(NAMED(KS_GetCurrentProcessName), 99, {Output(KS_PROCESS_NAME_SIZE)}),
        {"KS_InitProcessNameOffset", kExportCaller, kPassive, 0, {}}, // when sockets are opened first
    };
}

void OpenSockets()
{
    [[maybe_unused]] static const bool once = [] {
        Require(Server().tcpPort != 0, "the echo server did not start");
        KS_InitProcessNameOffset();
        return true;
    }();
    g_data = std::make_unique<Data[]>(Pool(kData).size());
    g_recordsUsed = 0;
    for (Slot& slot : Pool(kData)) {
        g_data[slot.index].slot = &slot;
        Require(slot.Hold(false), "an empty slot");
        slot.Put(&g_data[slot.index]);
    }
    RequireSuccess(g_closed.Open(), "a connection");
    g_closed.Close();
}

// The unload of the framework ends the data requests that are still under way, and waits for that.
void CloseSockets()
{
    UseLink(L"\\Device\\Stress", FALSE);
    DropAll(kAddress, [](Use& use) { Close<false>(use.Get<Record>()); });
    DropAll(kEndpoint, [](Use& use) { Close<true>(use.Get<Record>()); });
}

void CheckSockets()
{
    const auto isOpen = [](const volatile ULONG& count) {
        return __atomic_load_n(&count, __ATOMIC_ACQUIRE) != 0;
    };
    for (Record& record : g_records) {
        Require(!isOpen(record.address.Count) && !isOpen(record.endpoint.Count), "a record is still open");
        record = {};
    }
    for (Slot& slot : Pool(kData)) {
        Require(slot.Hold(true), "a data request has not completed behind the unload");
    }
    g_data.reset();
}

} // namespace stress
