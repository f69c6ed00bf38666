// Memory descriptors, memory mapped into a process, and NDIS packets over them.
#include "probe-driver.h"

#include <hostguard.h>
#include <ndis.h>

#include <cstring>

using namespace probe;
using testing::ElementsAre;

namespace
{

constexpr ULONG kMap = CTL_CODE(0x8000, 0x801, METHOD_BUFFERED, FILE_ANY_ACCESS);
constexpr ULONG kUnmap = CTL_CODE(0x8000, 0x802, METHOD_BUFFERED, FILE_ANY_ACCESS);
constexpr ULONG kLarge = 3 * 65536 + 20;

// Maps into the current process; null and *code when an exception was raised.
void* MapForUser(MDL* mdl, NTSTATUS* code)
{
    struct Call {
        MDL* mdl;
        void* address;
    } call{mdl, nullptr};
    *code = HostCallGuarded(
        [](void* context) {
            auto* self = static_cast<Call*>(context);
            self->address = MmMapLockedPages(self->mdl, UserMode);
        },
        &call);
    return call.address;
}

class MdlTest : public DriverTest
{
  protected:
    void SetUp() override
    {
        DriverTest::SetUp();
        ASSERT_EQ(Load(), STATUS_SUCCESS);
        control = [this](IRP* irp) {
            if (IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl.IoControlCode == kMap) {
                user = static_cast<UCHAR*>(MapForUser(mdl, &raised));
            } else {
                MmUnmapLockedPages(user, mdl);
            }
            return Complete(irp, STATUS_SUCCESS);
        };
        Describe(kLarge);
    }

    void TearDown() override
    {
        Release();
        DriverTest::TearDown();
    }

    void Describe(ULONG size)
    {
        block = static_cast<UCHAR*>(ExAllocatePoolWithTag(NonPagedPool, size, 0x7473654D));
        mdl = IoAllocateMdl(block, size, FALSE, FALSE, nullptr);
        MmBuildMdlForNonPagedPool(mdl);
    }

    void Release()
    {
        if (block != nullptr) {
            IoFreeMdl(mdl);
            ExFreePool(std::exchange(block, nullptr));
        }
    }

    UCHAR* block = nullptr;
    UCHAR* user = nullptr;
    MDL* mdl = nullptr;
    NTSTATUS raised = 0;
};

TEST_F(MdlTest, AUserViewShowsTheSamePagesAtAnotherAddress)
{
    machine::Process process;
    auto file = process.Open(kDevice);
    file->Control(kMap, {}, {});
    ASSERT_EQ(raised, 0);
    ASSERT_NE(user, nullptr);
    EXPECT_NE(user, block);
    block[kLarge - 1] = 0x5A;
    EXPECT_EQ(user[kLarge - 1], 0x5A);
    user[0] = 0xA5;
    EXPECT_EQ(block[0], 0xA5);
    EXPECT_EQ(machine::TakeCensus().views, 1u);
    file->Control(kUnmap, {}, {});
    EXPECT_EQ(machine::TakeCensus().views, 0u);
    file->Control(kUnmap, {}, {});
    EXPECT_THAT(BrokenRules(), ElementsAre("view-not-mapped"));
}

TEST_F(MdlTest, AProcessInAnotherProgramMapsForItself)
{
    uint64_t answer = 0;
    const auto map = [&](int pages, uint64_t offset, size_t length) -> uint64_t {
        EXPECT_GE(pages, 0);
        EXPECT_EQ(offset % 4096, 0u);
        EXPECT_EQ(length, (kLarge + 4095) / 4096 * 4096u);
        return answer;
    };
    machine::Process process(map);
    auto file = process.Open(kDevice);
    file->Control(kMap, {}, {});
    EXPECT_EQ(raised, STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(machine::TakeCensus().views, 0u);

    answer = 0x1000; // nothing is there
    raised = 0;
    file->Control(kMap, {}, {});
    EXPECT_EQ(raised, 0);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(user), answer);
    EXPECT_EQ(machine::TakeCensus().views, 1u);
    file->Control(kUnmap, {}, {});
    EXPECT_EQ(machine::TakeCensus().views, 0u);
}

TEST_F(MdlTest, WhatAProgramWritesBehindABlockIsNotTheDriversFault)
{
    machine::Process process;
    auto file = process.Open(kDevice);
    file->Control(kMap, {}, {});
    ASSERT_NE(user, nullptr);
    user[kLarge] = 0; // the rest of the last page
    file->Control(kUnmap, {}, {});
    Release();
    EXPECT_THAT(BrokenRules(), ElementsAre());
}

TEST_F(MdlTest, ViewsEndWithTheirProcessAndBeforeTheirMdl)
{
    {
        machine::Process process;
        process.Open(kDevice)->Control(kMap, {}, {});
        IoFreeMdl(mdl);
        EXPECT_THAT(BrokenRules(), ElementsAre("mdl-freed-mapped"));
    }
    EXPECT_THAT(BrokenRules(), ElementsAre("view-left-in-process"));
    EXPECT_EQ(machine::TakeCensus().views, 0u);
    ExFreePool(std::exchange(block, nullptr));

    Describe(kLarge);
    machine::Process process;
    process.Open(kDevice)->Control(kMap, {}, {});
    MmUnmapLockedPages(user, mdl); // from the system process
    EXPECT_THAT(BrokenRules(), ElementsAre("view-of-other-process"));
}

TEST_F(MdlTest, AFailedUserMappingRaises)
{
    machine::Process process;
    auto file = process.Open(kDevice);
    machine::FailCall(machine::Fault::MapPages, 1);
    file->Control(kMap, {}, {});
    EXPECT_EQ(raised, STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(user, nullptr);

    Release();
    Describe(4096);
    file->Control(kMap, {}, {});
    EXPECT_EQ(raised, STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_THAT(BrokenRules(), ElementsAre("view-of-shared-pages"));
}

TEST_F(MdlTest, LockedPagesAreMappedOnceUntilTheyAreUnlocked)
{
    UCHAR memory[64] = {};
    MDL* locked = IoAllocateMdl(memory + 1, 63, FALSE, FALSE, nullptr);
    EXPECT_EQ(MmGetMdlByteCount(locked), 63u);
    EXPECT_EQ(MmGetMdlVirtualAddress(locked), memory + 1);
    EXPECT_EQ(MmGetSystemAddressForMdlSafe(locked, NormalPagePriority), nullptr);
    EXPECT_THAT(BrokenRules(), ElementsAre("mdl-not-locked"));

    MmProbeAndLockPages(locked, KernelMode, IoModifyAccess);
    machine::FailCall(machine::Fault::MapPages, 1);
    EXPECT_EQ(MmGetSystemAddressForMdlSafe(locked, NormalPagePriority), nullptr);
    EXPECT_EQ(MmGetSystemAddressForMdlSafe(locked, NormalPagePriority), memory + 1);
    EXPECT_EQ(MmGetSystemAddressForMdlSafe(locked, NormalPagePriority), memory + 1);
    EXPECT_EQ(machine::TakeCensus().views, 1u);
    MmMapLockedPages(locked, KernelMode);
    EXPECT_THAT(BrokenRules(), ElementsAre("mdl-mapped-twice"));
    MmUnlockPages(locked);
    EXPECT_EQ(machine::TakeCensus().views, 0u);

    MmProbeAndLockPages(locked, KernelMode, IoModifyAccess);
    IoFreeMdl(locked);
    EXPECT_THAT(BrokenRules(), ElementsAre("mdl-freed-locked"));

    machine::FailCall(machine::Fault::Mdl, 1);
    EXPECT_EQ(IoAllocateMdl(memory, 64, FALSE, FALSE, nullptr), nullptr);
}

class PacketTest : public MdlTest
{
  protected:
    void SetUp() override
    {
        MdlTest::SetUp();
        NdisAllocatePacketPool(&status, &packets, 2, 16);
        NdisAllocateBufferPool(&status, &buffers, 4);
        NdisAllocatePacket(&status, &packet, packets);
        ASSERT_EQ(status, NDIS_STATUS_SUCCESS);
    }

    void TearDown() override
    {
        NdisFreeBufferPool(buffers);
        NdisFreePacketPool(packets);
        MdlTest::TearDown();
    }

    NDIS_BUFFER* NewBuffer(void* address, UINT length)
    {
        NDIS_BUFFER* buffer = nullptr;
        NdisAllocateBuffer(&status, &buffer, buffers, address, length);
        return buffer;
    }

    NDIS_STATUS status = 0;
    NDIS_HANDLE packets = nullptr;
    NDIS_HANDLE buffers = nullptr;
    NDIS_PACKET* packet = nullptr;
};

TEST_F(PacketTest, CountsAreComputedOnceAndDroppedByEveryChange)
{
    NDIS_BUFFER* first = NewBuffer(block, 14);
    NDIS_BUFFER* last = NewBuffer(block + 4090, 100); // lies on two pages
    NdisChainBufferAtBack(packet, last);
    NdisChainBufferAtFront(packet, first);

    UINT pages = 0, count = 0, length = 0;
    NDIS_BUFFER* head = nullptr;
    NdisQueryPacket(packet, &pages, &count, &head, &length);
    EXPECT_EQ(pages, 3u);
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(head, first);
    EXPECT_EQ(length, 114u);
    first->ByteCount = 10;
    NdisQueryPacket(packet, nullptr, nullptr, nullptr, &length);
    EXPECT_EQ(length, 114u);
    EXPECT_EQ(MmGetSystemAddressForMdlSafe(last, NormalPagePriority), block + 4090);

    NDIS_BUFFER* taken = nullptr;
    NdisUnchainBufferAtBack(packet, &taken);
    EXPECT_EQ(taken, last);
    NdisQueryPacket(packet, nullptr, &count, nullptr, &length);
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(length, 10u);
    NdisChainBufferAtBack(packet, last);
    NdisQueryPacket(packet, nullptr, nullptr, nullptr, &length);
    for (NDIS_BUFFER* expected : {first, last}) {
        NdisUnchainBufferAtFront(packet, &taken);
        EXPECT_EQ(taken, expected);
        const UINT before = length;
        NdisQueryPacket(packet, nullptr, nullptr, nullptr, &length);
        EXPECT_EQ(length, before - MmGetMdlByteCount(taken));
        NdisFreeBuffer(taken);
    }
    NdisUnchainBufferAtFront(packet, &taken);
    EXPECT_EQ(taken, nullptr);
    NdisFreePacket(packet);
}

TEST_F(PacketTest, APoolGivesWhatItHasAndKnowsWhatIsOut)
{
    NDIS_PACKET* second = nullptr;
    NDIS_PACKET* third = nullptr;
    NdisAllocatePacket(&status, &second, packets);
    std::memset(second->ProtocolReserved, 0xFF, 16);
    NdisAllocatePacket(&status, &third, packets);
    EXPECT_EQ(status, NDIS_STATUS_RESOURCES);
    EXPECT_EQ(third, nullptr);

    NdisFreePacket(second);
    NdisFreePacket(second);
    EXPECT_THAT(BrokenRules(), ElementsAre("packet-freed-twice"));
    NdisAllocatePacket(&status, &third, packets);
    EXPECT_EQ(third, second);
    EXPECT_EQ(third->ProtocolReserved[15], 0);
    NdisFreePacket(third);

    NdisFreePacketPool(packets);
    EXPECT_THAT(BrokenRules(), ElementsAre("packet-pool-busy"));
    NdisAllocatePacketPoolEx(&status, &packets, 1, 1, 0);
    EXPECT_EQ(status, NDIS_STATUS_SUCCESS);
}

} // namespace
