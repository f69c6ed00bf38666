// The kernel sockets' small services: providers, memory, links, numbers.
#include "stress.h"

#include <tdi-client.h>

namespace stress
{

namespace
{

// ---------------------------------------------------------------------------------------------------- provider

PCWSTR AnyDevice(Caller& caller)
{
    return caller.Stream().OneOf<PCWSTR>({L"\\Device\\Tcp", L"\\Device\\Udp", L"\\Device\\RawIp"});
}

Outcome UseControlChannel(Caller& caller)
{
    KS_CONTROL_CHANNEL channel = {};
    const Outcome outcome = caller.Judge(KS_OpenControlChannel(AnyDevice(caller), &channel));
    if (outcome == Outcome::Success) {
        caller.Expect(KS_CloseControlChannel(&channel), 0);
    }
    return outcome;
}

void OpenControlChannelWrongly(Caller& caller)
{
    KS_CONTROL_CHANNEL channel;
    caller.Expect(KS_OpenControlChannel(L"\\Device\\Nothing", &channel), STATUS_OBJECT_NAME_NOT_FOUND);
}

template <auto kQuery, size_t kSize>
struct Provider {
    static Outcome Legal(Caller& caller)
    {
        alignas(8) UCHAR buffer[kSize];
        return caller.Judge(kQuery(AnyDevice(caller), buffer));
    }
    static void Illegal(Caller& caller)
    {
        alignas(8) UCHAR buffer[kSize];
        caller.Expect(kQuery(L"\\Device\\Nothing", buffer), STATUS_OBJECT_NAME_NOT_FOUND);
    }
};

// ----------------------------------------------------------------------------------------------------- helpers

Outcome UseMdl(Caller& caller)
{
    static UCHAR memory[8192];
    const ULONG length = 1 + caller.Stream().Below(sizeof(memory));
    const PMDL mdl = KS_AllocateAndProbeMdl(memory, length, FALSE, FALSE, nullptr);
    const Outcome outcome =
        caller.Check(mdl != nullptr && MmGetMdlByteCount(mdl) == length, "memory is described and locked");
    KS_UnlockAndFreeMdl(mdl);
    return outcome;
}

Outcome BuildEa(Caller& caller)
{
    const char name[] = "TransportAddress";
    UCHAR value[300] = {};
    PFILE_FULL_EA_INFORMATION ea = nullptr;
    ULONG length = 0;
    const ULONG valueLength = caller.Stream().Below(sizeof(value));
    const NTSTATUS status = KS_BuildEaBuffer(sizeof(name) - 1, name, valueLength, value, &ea, &length);
    caller.Check(length == sizeof(name) - 1 + valueLength + 9, "an attribute has its length");
    ExFreePool(ea);
    return caller.Judge(status);
}

void BuildEaWrongly(Caller& caller)
{
    const UCHAR bytes[2] = {};
    PFILE_FULL_EA_INFORMATION ea = nullptr;
    ULONG length = 0;
    caller.Expect(KS_BuildEaBuffer(256 + caller.Stream().Below(1000), bytes, 0, nullptr, &ea, &length),
                  STATUS_INVALID_PARAMETER);
    caller.Expect(KS_BuildEaBuffer(1, bytes, 65536 + caller.Stream().Below(1000), bytes, &ea, &length),
                  STATUS_INVALID_PARAMETER);
}

Outcome AddressHelpers(Caller& caller)
{
    const auto port = static_cast<USHORT>(caller.Stream().Next());
    TA_IP_ADDRESS address;
    KS_InitIPAddress(&address, 0x0100007F, port);
    return caller.Check(KS_TransportAddressLength(reinterpret_cast<const TRANSPORT_ADDRESS*>(&address)) ==
                                22 &&
                            address.Address[0].Address[0].sin_port == port,
                        "an IP address is filled in");
}

void NoAddress(Caller& caller)
{
    caller.Check(KS_TransportAddressLength(nullptr) == 0, "no address has no length");
}

// One link for all: another thread may have made or deleted it.
Outcome UseLink(Caller& caller)
{
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, L"\\Device\\Stress");
    return caller.Judge(KS_CreateSymbolicLink(&name, caller.Stream().Chance(50)),
                        {STATUS_OBJECT_NAME_COLLISION, STATUS_OBJECT_NAME_NOT_FOUND});
}

void UseLinkWrongly(Caller& caller)
{
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, L"\\Device\\");
    caller.Expect(KS_CreateSymbolicLink(&name, caller.Stream().Chance(50)), STATUS_UNSUCCESSFUL);
}

Outcome FreePacket(Caller& caller)
{
    static UCHAR data[3][10];
    NDIS_STATUS status;
    NDIS_HANDLE pool;
    PNDIS_PACKET packet;
    NdisAllocatePacketPool(&status, &pool, 1, 0);
    NdisAllocatePacket(&status, &packet, pool);
    for (uint32_t i = caller.Stream().Below(4); i > 0; --i) {
        const PMDL mdl = IoAllocateMdl(data[i - 1], 10, FALSE, FALSE, nullptr);
        MmBuildMdlForNonPagedPool(mdl);
        NdisChainBufferAtBack(packet, mdl);
    }
    KS_FreePacketAndBuffers(packet);
    NdisFreePacketPool(pool);
    return Outcome::Success;
}

void FreeNoPacket(Caller&)
{
    KS_FreePacketAndBuffers(nullptr);
}

Outcome SwapBytes(Caller& caller)
{
    const auto value = static_cast<ULONG>(caller.Stream().Next());
    const auto half = static_cast<USHORT>(value);
    return caller.Check(KS_ntohl(KS_htonl(value)) == value && KS_ntohs(KS_htons(half)) == half,
                        "bytes are swapped");
}

Outcome Checksum(Caller& caller)
{
    UCHAR bytes[2] = {};
    caller.Stream().Fill(bytes, sizeof(bytes));
    const auto word = static_cast<USHORT>(bytes[0] | bytes[1] << 8);
    return caller.Check(KS_in_cksum(bytes, 2) == static_cast<USHORT>(~word),
                        "a word's checksum is its complement");
}

// It is called once; that is at the start of the run.
Outcome FindProcessName(Caller&)
{
    return Outcome::NothingToUse;
}

Outcome ProcessName(Caller& caller)
{
    char name[KS_PROCESS_NAME_SIZE];
    return caller.Check(KS_GetCurrentProcessName(name) && name[0] != 0, "the process has a name");
}

// ------------------------------------------------------------------------------------------------- the table

constexpr auto P = Level::Passive;
constexpr auto D = Level::Dispatch;

constexpr Call kCalls[] = {
    {"KS_OpenControlChannel", Actor::Caller, P, 99, UseControlChannel, OpenControlChannelWrongly},
    {"KS_CloseControlChannel", Actor::Caller, P, 99, UseControlChannel, nullptr},
    {"KS_QueryProviderInfo", Actor::Caller, P, 99,
     Provider<KS_QueryProviderInfo, KS_PROVIDER_INFO_SIZE>::Legal,
     Provider<KS_QueryProviderInfo, KS_PROVIDER_INFO_SIZE>::Illegal},
    {"KS_QueryProviderStatistics", Actor::Caller, P, 99,
     Provider<KS_QueryProviderStatistics, KS_PROVIDER_STATISTICS_SIZE>::Legal,
     Provider<KS_QueryProviderStatistics, KS_PROVIDER_STATISTICS_SIZE>::Illegal},
    {"KS_AllocateAndProbeMdl", Actor::Caller, D, 99, UseMdl, nullptr},
    {"KS_UnlockAndFreeMdl", Actor::Caller, D, 99, UseMdl, nullptr},
    {"KS_BuildEaBuffer", Actor::Caller, P, 99, BuildEa, BuildEaWrongly},
    {"KS_TransportAddressLength", Actor::Caller, D, 99, AddressHelpers, NoAddress},
    {"KS_InitIPAddress", Actor::Caller, D, 99, AddressHelpers, nullptr},
    {"KS_CreateSymbolicLink", Actor::Caller, P, 10, UseLink, UseLinkWrongly},
    {"KS_FreePacketAndBuffers", Actor::Caller, D, 99, FreePacket, FreeNoPacket},
    {"KS_htonl", Actor::Caller, D, 99, SwapBytes, nullptr},
    {"KS_ntohl", Actor::Caller, D, 99, SwapBytes, nullptr},
    {"KS_htons", Actor::Caller, D, 99, SwapBytes, nullptr},
    {"KS_ntohs", Actor::Caller, D, 99, SwapBytes, nullptr},
    {"KS_in_cksum", Actor::Caller, D, 99, Checksum, nullptr},
    {"KS_InitProcessNameOffset", Actor::Caller, P, 0, FindProcessName, nullptr},
    {"KS_GetCurrentProcessName", Actor::Caller, D, 99, ProcessName, nullptr},
};

} // namespace

std::span<const Call> TransportCalls()
{
    return kCalls;
}

} // namespace stress
