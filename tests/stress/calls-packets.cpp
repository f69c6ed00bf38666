// Adapters as client drivers see them, and packets: made, changed, run through chains, injected, queued, indicated.
#include "world.h"

#include <cstring>

namespace stress
{

namespace
{

constexpr UCHAR kNobodysAddress[6] = {0x02, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

uint64_t Copied(Words& memory, const void* bytes, size_t size)
{
    memory.assign(size / 8 + 1, 0);
    std::memcpy(memory.data(), bytes, size);
    return reinterpret_cast<uint64_t>(memory.data());
}

uint64_t MakeAddress(Words& memory)
{
    return Copied(memory, AdapterOptionsOf(Dice().Below(kAdapters)).address.data(), 6);
}

uint64_t MakeName(Words& memory)
{
    const std::string name = AdapterOptionsOf(Dice().Below(kAdapters)).name;
    return Copied(memory, name.data(), name.size());
}

uint64_t MakeConfig(Words& memory)
{
    IPConfig config;
    Dice().Fill(&config, sizeof(config));
    config.hAdapter = AnyAdapter();
    for (auto* const count : {&config.m_nIP, &config.m_nGW, &config.m_nDHCP, &config.m_nDNS}) {
        *count = Dice().Below(9);
    }
    return Copied(memory, &config, sizeof(config));
}

BOOLEAN LookAtAdapter(PVOID, FilterAdapter* adapter)
{
    Require(Filter_IsValidAdapter(adapter), "an adapter of the table is not valid");
    return Dice().Chance(80);
}

FILTER_STATUS Modify(FilterPacket* packet)
{
    const FILTER_STATUS status = Filter_ModifyPacket(packet);
    if (packet != nullptr) {
        packet->m_Data[Dice().Below(FILTER_PACKET_DATA_SIZE)] ^= 1;
        Filter_InitPacketHeader(packet, nullptr);
    }
    return status;
}

VOID OnRelease(FilterPacket* packet, PVOID context)
{
    Require(context == packet, "a release callback got another packet");
}

VOID SetReleaseCallback(FilterPacket* packet)
{
    Filter_SetPacketReleaseCallback(packet, OnRelease, packet);
}

// The total length is compared with the frame first, as the header asks; without an IP packet there is one of 60 bytes.
FILTER_STATUS Mend(FilterPacket* packet, ULONG protocol)
{
    UCHAR other[60] = {0x45, 0, 0, sizeof(other)};
    if (packet == nullptr) {
        return Filter_CalculatePacketCheckSum(nullptr, protocol);
    }
    const size_t total = packet->m_pIp == nullptr ? 0 : packet->m_pIp[2] << 8 | packet->m_pIp[3];
    const bool whole =
        total != 0 && 14 + total <= packet->m_nPacketSize && packet->m_nBytesRead >= packet->m_nPacketSize;
    return Filter_CalculatePacketCheckSum(whole ? packet->m_pIp : other, protocol);
}

BOOLEAN MendAndVerify(FilterPacket* packet)
{
    Filter_VerifyPacketCheckSum(packet);
    return Filter_VerifyPacketCheckSum(packet);
}

// Queues are worked off by threads of the framework; without a bound a caller has to see to one.
bool QueuesHaveRoom()
{
    return Filter_GetInjectPacketCount() <= 1000;
}

} // namespace

std::vector<Call> AdapterCalls()
{
    const Argument adapter = Live(kAdapter);
    const Argument askedAddress = Made(MakeAddress, kNull); // the hook driver is asked, while there is one
    Argument address = askedAddress;
    address.wrong = {Word(kNobodysAddress)};
    address.refusal = FILTER_ERROR_ADAPTER_NOT_FOUND;
    const Argument flag = Number(0, 2);
    // Clients have as many slots of the sixteen; another thread may have released one.
    const Argument slot = Number(0, 6, FILTER_ERROR_INVALID_ADAPTER_CONTEXT, {16, 0xFFFFFFFF});
    const Options lost = {.may = {FILTER_ERROR_INVALID_CONTEXT_OWNER}};
    const Options found = {.may = {FILTER_ERROR_ADAPTER_NOT_FOUND}};
    const Options asked = {.may = {FILTER_ERROR_ADAPTER_NOT_FOUND, FILTER_ERROR_INTERFACE_NOT_ACTIVE},
                           .level = kPassive};
    const Options zeroUntilSet = {.may = {FILTER_ERROR_ADAPTER_NOT_OPEN}};
    return {
        Line(NAMED(Filter_IsValidAdapter), 99, {Checked(Form::Live, kAdapter, kNoMatter)}),
        // There are 32 identifiers, and adapters that come and go use them up.
        Line(NAMED(Filter_AdapterToId), 50, {Handle(Form::Live, kAdapter), Output(4)},
             {.may = {FILTER_ERROR_INTERNAL_ERROR}}),
        Line(NAMED(Filter_IdToAdapter), 99,
             {Number(1, kAdapters, kNull, {0, 33, 0x80000000, 0xFFFFFFFF}), Output(8)}),
        Line(NAMED(Filter_GetFirstAdapter), 50, {}, {.may = {kNo}}),
        Line(NAMED(Filter_EnumAdapter), 90, {Live(kDriver), Pointer(LookAtAdapter, kNull), Null()}),
        Line(NAMED(Filter_FindAdapterByMacAddress), 50, {address, Out(8)}, found),
        Line(NAMED(Filter_FindAdapterByNetCfgInstanceId), 50, {Made(MakeName, kNull), Out(8)}, found),
        Line(NAMED(Filter_EnumOpenedAdapter), 99, {}),

        Line(NAMED(Filter_GetAdapterCurrentAddress), 99, {adapter, Out(6)}),
        Line(NAMED(Filter_GetAdapterPermentAddress), 99, {adapter, Out(6)}),
        Line(NAMED(Filter_GetAdapterMediaState), 99, {adapter, Out(4)}),
        Line(NAMED(Filter_GetAdapterMediumType), 99, {adapter, Out(4)}),
        Line(NAMED(Filter_IsNdisWanAdapter), 99, {adapter, Out(1)}),
        Line(NAMED(Filter_GetAdapterMtu), 99,
             {Checked(Form::Live, kAdapter, FILTER_ERROR_INVALID_ADAPTER_HANDLE), Out(2)}),
        Line(NAMED(Filter_GetAdapterName), 99, {adapter, Text()}),
        Line(NAMED(Filter_GetAdapterPPPSrcMacAddress), 50, {adapter, Out(6)}, zeroUntilSet),
        Line(NAMED(Filter_GetAdapterPPPDstMacAddress), 50, {adapter, Out(6)}, zeroUntilSet),
        Line(NAMED(Filter_SetAdapterPPPSrcMacAddress), 99, {adapter, Noise(6, kNull)}),
        Line(NAMED(Filter_SetAdapterPPPDstMacAddress), 99, {adapter, Noise(6, kNull)}),
        Line(NAMED(Filter_SetAdapterCongestionControl), 99, {adapter, flag}),
        Line(NAMED(Filter_GetAdapterPacketDump), 50, {address, Out(1)}, found),
        Line(NAMED(Filter_SetAdapterPacketDump), 50, {address, flag}, found),
        Line(NAMED(Filter_GetTcpIpBoundAdapters), 50, {Out(sizeof(AdapterList))},
             {.may = {FILTER_ERROR_INTERFACE_NOT_ACTIVE}}),
        Line(NAMED(Filter_SetIPConfig), 99, {Made(MakeConfig, kNull)}),
        Line(NAMED(Filter_GetIPConfig), 99, {adapter, Output(sizeof(IPConfig))}),
        Line(NAMED(Filter_GetAdapterMediaStateByMac), 50, {askedAddress, Out(8)}, asked),
        Line(NAMED(Filter_SetAdapterMediaStateByMac), 50, {askedAddress, flag}, asked),

        Line(NAMED(Filter_AcquireAdapterContext), 90, {Live(kDriver), Out(4)}),
        Line(NAMED(Filter_SetAdapterContext), 5, {Live(kDriver), adapter, slot, Null()}, lost),
        Line(NAMED(Filter_GetAdapterContext), 99, {adapter, slot, Out(8)}),
        Line(NAMED(Filter_ReleaseAdapterContext), 5, {Live(kDriver), slot}, lost),
    };
}

std::vector<Call> PacketCalls()
{
    const Argument packet = Own(kPacket);
    const Argument unchecked = Handle(Form::Own, kPacket);
    const Argument given = Given(kPacket);
    const Argument adapter = Handle(Form::Live, kAdapter, kNull);
    const Argument method = Number(0, 6); // one more than there are: any other value is FROM_THIS
    const Argument chain = Number(0, FILTER_TYPE_COUNT, 0, {FILTER_TYPE_INVALID, 4, 0x7FFFFFFF});
    // Straight to the hook driver, which may refuse, and faults now and then when the round says so.
    const Options straight = {
        .may = {FILTER_ERROR_INTERFACE_NOT_ACTIVE, FILTER_ERROR_INTERNAL_ERROR, FILTER_ERROR_EXCEPTION}};
    const Options queued = {.ready = QueuesHaveRoom};
    const Options dropped = {.may = {FILTER_ERROR_OUT_OF_MEMORY}};
    Argument filter = Live(kFilter);
    filter.refusal = FILTER_STATUS_SUCCESS; // the worker finds none such, and releases the packet
    return {
        Line("Filter_AllocatePacketp", MakePacket, 30,
             {Handle(Form::Live, kAdapter, kNoMatter, kNo), Result(kPacket)}, {.may = {kNo}}),
        Line(NAMED(Filter_ReleasePacketp), 50, {given, Pointer("stress"), Number(1, 1)}),
        Line(NAMED(Filter_TransferPacketData), 50, {packet}),
        Line("Filter_ModifyPacket", Modify, 50, {packet}),
        Line("Filter_SetPacketReleaseCallback", SetReleaseCallback, 50, {unchecked}),
        Line(NAMED(Filter_ClearPacketReleaseCallback), 50, {unchecked}),
        Line(NAMED(Filter_InitPacketHeader), 50, {packet, Null()}),
        Line("Filter_CalculatePacketCheckSum", Mend, 50,
             {packet, OneOf({0, 1, 6, 17}, FILTER_ERROR_UNSUPPORTED_PROTOCOL, {2, 7, 255, 0x80000001})}),
        Line("Filter_VerifyPacketCheckSum", MendAndVerify, 50, {unchecked}),
        Line(NAMED(Filter_ClonePacket), 50, {packet, New(kPacket)}, dropped),
        Line(NAMED(Filter_DumpPacket), 50, {Pointer("stress"), unchecked}),

        Line(NAMED(Filter_InvokeFilters), 50, {chain, given}),
        Line(NAMED(Filter_InvokeFiltersEx), 30, {method, Live(kFilter), given}),
        Line(NAMED(Filter_InjectPacketToAdapterEx), 30, {adapter, given}, straight),
        Line(NAMED(Filter_IndicatePacketToProtocolEx), 30, {adapter, given}, straight),
        Line(NAMED(Filter_InjectPacketToAdapter), 50, {adapter, given}),
        Line(NAMED(Filter_IndicatePacketToProtocol), 50, {adapter, given}),
        Line(NAMED(Filter_IndicatePacketFromAdapter), 50, {adapter, given}, queued),
        Line(NAMED(Filter_InjectPacketFromProtocol), 50, {adapter, given}, queued),
        Line(NAMED(Filter_InjectPacketFromApplication), 50, {adapter, given, Number(0, 5)}, queued),
        Line(NAMED(Filter_InjectPacketFromFilter), 30, {method, filter, given}, queued),
        Line(NAMED(Filter_IndicatePacketToApplication), 50, {packet, Number(1, 1), Any()}),
        Line(NAMED(Filter_IndicateSignalToApplication), 20, {Noise(NDIS_FILTER_SIGNAL_SIZE, kNull)}, dropped),
        Line(NAMED(Filter_GetInjectPacketCount), 99, {}),
        Line(NAMED(Filter_SetPendingPacketLimit), 99, {Any()}),
    };
}

} // namespace stress
