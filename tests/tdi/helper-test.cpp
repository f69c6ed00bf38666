// What of the kernel sockets needs no transport, and what a provider says of itself.
#include "tdi-test.h"

#include <hostguard.h>

namespace
{

TEST(HelperTest, NumbersAddressesAndChecksums)
{
    EXPECT_EQ(KS_htonl(0x01020304), 0x04030201u);
    EXPECT_EQ(KS_ntohl(0x04030201), 0x01020304u);
    EXPECT_EQ(KS_htons(0x0102), 0x0201);
    EXPECT_EQ(KS_ntohs(0x0201), 0x0102);

    const UCHAR bytes[] = {0x01, 0xFF, 0xFF, 0x02};
    EXPECT_EQ(KS_in_cksum(bytes, 1), static_cast<USHORT>(~0x0100));
    EXPECT_EQ(KS_in_cksum(bytes + 1, 2), 0);
    EXPECT_EQ(KS_in_cksum(bytes + 1, 3), static_cast<USHORT>(~0x0200)); // 0xFFFF + 0x0200, folded
    const std::vector<UCHAR> many(0x10000, 0xFF);
    EXPECT_EQ(KS_in_cksum(many.data(), static_cast<ULONG>(many.size())), 0); // folded twice

    const TA_IP_ADDRESS one = echo::Loopback(80);
    EXPECT_EQ(KS_TransportAddressLength(reinterpret_cast<const TRANSPORT_ADDRESS*>(&one)), 22u);
    EXPECT_EQ(KS_TransportAddressLength(nullptr), 0u);
    const UCHAR two[] = {2, 0, 0, 0, 3, 0, 9, 0, 'a', 'b', 'c', 1, 0, 9, 0, 'd'};
    EXPECT_EQ(KS_TransportAddressLength(reinterpret_cast<const TRANSPORT_ADDRESS*>(two)), sizeof(two));

    PFILE_FULL_EA_INFORMATION ea = nullptr;
    ULONG length = 0;
    ASSERT_EQ(
        KS_BuildEaBuffer(TDI_TRANSPORT_ADDRESS_LENGTH, TdiTransportAddress, sizeof(one), &one, &ea, &length),
        STATUS_SUCCESS);
    EXPECT_EQ(length, 16u + 22u + 9u);
    EXPECT_EQ(std::memcmp(ea, "\0\0\0\0\0\x10\x16\0TransportAddress\0", 25), 0);
    EXPECT_EQ(std::memcmp(reinterpret_cast<UCHAR*>(ea) + 25, &one, sizeof(one)), 0);
    ExFreePool(ea);
    EXPECT_EQ(KS_BuildEaBuffer(256, two, 0, nullptr, &ea, &length), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(KS_BuildEaBuffer(0xFFFFFFF0, two, 0x20, two, &ea, &length), STATUS_INVALID_PARAMETER);
}

TEST(HelperTest, LinksNeedANameBehindTheDirectory)
{
    WCHAR text[] = L"\\Device\\Tcp";
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, text);
    const size_t links = machine::TakeCensus().links;
    for (const auto& [length, status] : {std::pair<size_t, NTSTATUS>{16, STATUS_UNSUCCESSFUL},
                                         {17, STATUS_UNSUCCESSFUL},
                                         {18, STATUS_SUCCESS},
                                         {22, STATUS_SUCCESS},
                                         {0xFFFE, STATUS_UNSUCCESSFUL}}) {
        name.Length = static_cast<USHORT>(length);
        EXPECT_EQ(KS_CreateSymbolicLink(&name, TRUE), status) << length;
        EXPECT_EQ(machine::TakeCensus().links, links + (status == STATUS_SUCCESS ? 1 : 0));
        EXPECT_EQ(KS_CreateSymbolicLink(&name, FALSE), status) << length;
    }
}

// Hung on a request as IoAllocateMdl does, and taken off when its pages cannot be locked.
TEST(HelperTest, MemoryThatCannotBeLockedLeavesNoDescription)
{
    static UCHAR data[100];
    static BOOLEAN secondary;
    static PIRP irp;
    const auto allocate = [](void* mdl) {
        *static_cast<PMDL*>(mdl) = KS_AllocateAndProbeMdl(data, sizeof(data), secondary, FALSE, irp);
    };
    const size_t before = machine::TakeCensus().mdls;
    PMDL mdls[2] = {};
    irp = IoAllocateIrp(1, FALSE);
    for (secondary = FALSE; secondary <= TRUE; ++secondary) {
        machine::FailCall(machine::Fault::LockPages, 1);
        EXPECT_EQ(HostCallGuarded(&mdls[secondary], allocate), STATUS_ACCESS_VIOLATION);
        machine::ClearFaults();
        EXPECT_EQ(machine::TakeCensus().mdls, before + secondary);
        EXPECT_EQ(irp->MdlAddress, mdls[0]);
        EXPECT_TRUE(mdls[0] == nullptr || mdls[0]->Next == nullptr);
        EXPECT_EQ(HostCallGuarded(&mdls[secondary], allocate), STATUS_SUCCESS);
        EXPECT_EQ(MmGetMdlVirtualAddress(mdls[secondary]), data);
        EXPECT_EQ(MmGetMdlByteCount(mdls[secondary]), sizeof(data));
    }
    EXPECT_EQ(mdls[0]->Next, mdls[1]);
    for (const PMDL mdl : mdls) {
        KS_UnlockAndFreeMdl(mdl);
    }
    IoFreeIrp(irp);
    EXPECT_EQ(machine::TakeCensus().mdls, before);
    EXPECT_THAT(machine::TakeViolations(), testing::IsEmpty());
}

TEST(HelperTest, PacketsGoWithTheirBuffers)
{
    NDIS_STATUS status;
    NDIS_HANDLE pool;
    PNDIS_PACKET packet;
    static UCHAR data[3][10];
    const size_t mdls = machine::TakeCensus().mdls;
    NdisAllocatePacketPool(&status, &pool, 1, 0);
    for (const size_t buffers : {0u, 3u}) {
        NdisAllocatePacket(&status, &packet, pool);
        for (size_t i = 0; i < buffers; ++i) {
            PMDL mdl = IoAllocateMdl(data[i], 10, FALSE, FALSE, nullptr);
            MmBuildMdlForNonPagedPool(mdl);
            NdisChainBufferAtBack(packet, mdl);
        }
        KS_FreePacketAndBuffers(packet);
        EXPECT_EQ(machine::TakeCensus().mdls, mdls);
    }
    KS_FreePacketAndBuffers(nullptr);
    NdisFreePacketPool(pool);
    EXPECT_THAT(machine::TakeViolations(), testing::IsEmpty());
}

// In this order: there is no way back to not knowing.
TEST(HelperTest, ProcessNamesAreKnownOnceTheSystemsWasFound)
{
    char name[KS_PROCESS_NAME_SIZE];
    EXPECT_FALSE(KS_GetCurrentProcessName(name));
    EXPECT_STREQ(name, "???");
    KS_InitProcessNameOffset();
    EXPECT_TRUE(KS_GetCurrentProcessName(name));
    EXPECT_STREQ(name, "System");
}

TEST_F(TdiTest, ProvidersTellWhatTheyOffer)
{
    TDI_PROVIDER_INFO tcp, udp;
    EXPECT_EQ(KS_QueryProviderInfo(L"\\Device\\Tcp", &tcp), STATUS_SUCCESS);
    EXPECT_EQ(KS_QueryProviderInfo(L"\\device\\UDP", &udp), STATUS_SUCCESS); // names have no case
    EXPECT_TRUE(tcp.ServiceFlags & TDI_SERVICE_CONNECTION_MODE);
    EXPECT_TRUE(udp.ServiceFlags & TDI_SERVICE_CONNECTIONLESS_MODE);
    EXPECT_EQ(udp.MaxDatagramSize, 65507u);
    KS_CONTROL_CHANNEL channel = {};
    ASSERT_EQ(KS_OpenControlChannel(L"\\Device\\Tcp", &channel), STATUS_SUCCESS);
    EXPECT_EQ(machine::TakeCensus().files, 1u);
    EXPECT_NE(channel.Handle, nullptr);
    EXPECT_NE(channel.FileObject, nullptr);
    EXPECT_EQ(KS_CloseControlChannel(&channel), STATUS_SUCCESS);
    EXPECT_EQ(machine::TakeCensus().files, 0u);
}

} // namespace
