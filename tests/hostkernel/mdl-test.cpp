// Memory descriptors, memory mapped into a process, and NDIS packets over them.
#include "probe-driver.h"

#include <hostguard.h>
#include <ndis.h>

#include <cstring>

using namespace probe;

namespace
{

constexpr ULONG kMap = CTL_CODE(0x8000, 0x801, METHOD_BUFFERED, FILE_ANY_ACCESS);
constexpr ULONG kUnmap = CTL_CODE(0x8000, 0x802, METHOD_BUFFERED, FILE_ANY_ACCESS);
constexpr ULONG kLarge = 3 * 65536 + 20;

class MdlTest : public DriverTest
{
  protected:
    void SetUp() override
    {
        DriverTest::SetUp();
        ASSERT_EQ(Load(), STATUS_SUCCESS);
        control = [this](IRP* irp) {
            if (IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl.IoControlCode == kUnmap) {
                MmUnmapLockedPages(user, mdl);
                return Complete(irp, STATUS_SUCCESS);
            }
            user = nullptr;
            const auto map = [](void* self) {
                auto* test = static_cast<MdlTest*>(self);
                test->user = static_cast<UCHAR*>(MmMapLockedPages(test->mdl, UserMode));
            };
            return Complete(irp, HostCallGuarded(map, this));
        };
        Describe(kLarge);
    }
    void TearDown() override
    {
        IoFreeMdl(mdl);
        ExFreePool(block);
        DriverTest::TearDown();
    }
    void Describe(ULONG size)
    {
        block = static_cast<UCHAR*>(ExAllocatePoolWithTag(NonPagedPool, size, 0x7473654D));
        mdl = IoAllocateMdl(block, size, FALSE, FALSE, nullptr);
        MmBuildMdlForNonPagedPool(mdl);
    }

    UCHAR* block = nullptr;
    UCHAR* user = nullptr;
    MDL* mdl = nullptr;
};

TEST_F(MdlTest, AUserViewShowsTheSamePagesAtAnotherAddress)
{
    machine::Process process;
    auto file = process.Open(kDevice);
    machine::FailCall(machine::Fault::MapPages, 1); // raises
    EXPECT_EQ(file->Control(kMap, {}, {}).status, STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(user, nullptr);
    EXPECT_EQ(file->Control(kMap, {}, {}).status, STATUS_SUCCESS);
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
    ExpectRule("view-not-mapped");
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
    EXPECT_EQ(file->Control(kMap, {}, {}).status, STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(machine::TakeCensus().views, 0u);

    answer = 0x1000; // nothing is there
    EXPECT_EQ(file->Control(kMap, {}, {}).status, STATUS_SUCCESS);
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
    EXPECT_THAT(BrokenRules(), testing::IsEmpty());
}

TEST_F(MdlTest, ViewsEndWithTheirProcessAndBeforeTheirMdl)
{
    {
        machine::Process process;
        process.Open(kDevice)->Control(kMap, {}, {});
        IoFreeMdl(mdl);
        ExpectRule("mdl-freed-mapped");
    }
    ExpectRule("view-left-in-process");
    EXPECT_EQ(machine::TakeCensus().views, 0u);
    ExFreePool(block);

    Describe(4096); // small blocks share their pages with others
    machine::Process process;
    auto file = process.Open(kDevice);
    EXPECT_EQ(file->Control(kMap, {}, {}).status, STATUS_INSUFFICIENT_RESOURCES);
    ExpectRule("view-of-shared-pages");
    IoFreeMdl(mdl);
    ExFreePool(block);

    Describe(kLarge);
    file->Control(kMap, {}, {});
    MmUnmapLockedPages(user, mdl); // from the system process
    ExpectRule("view-of-other-process");
}

TEST_F(MdlTest, LockedPagesAreMappedOnceUntilTheyAreUnlocked)
{
    UCHAR memory[64] = {};
    MDL* locked = IoAllocateMdl(memory + 1, 63, FALSE, FALSE, nullptr);
    const auto address = [&] { return MmGetSystemAddressForMdlSafe(locked, NormalPagePriority); };
    EXPECT_EQ(address(), nullptr);
    ExpectRule("mdl-not-locked");
    MmProbeAndLockPages(locked, KernelMode, IoModifyAccess);
    machine::FailCall(machine::Fault::MapPages, 1);
    EXPECT_EQ(address(), nullptr);
    EXPECT_EQ(address(), memory + 1);
    EXPECT_EQ(address(), memory + 1);
    EXPECT_EQ(machine::TakeCensus().views, 1u);
    MmMapLockedPages(locked, KernelMode);
    ExpectRule("mdl-mapped-twice");
    MmUnlockPages(locked);
    EXPECT_EQ(machine::TakeCensus().views, 0u);
    MmProbeAndLockPages(locked, KernelMode, IoModifyAccess);
    IoFreeMdl(locked);
    ExpectRule("mdl-freed-locked");
}

TEST_F(MdlTest, PacketsCountTheirBuffersOnceAndPoolsKnowWhatIsOut)
{
    NDIS_STATUS status = 0;
    NDIS_HANDLE packets = nullptr;
    NDIS_HANDLE buffers = nullptr;
    NDIS_PACKET* packet = nullptr;
    NDIS_PACKET* second = nullptr;
    NDIS_BUFFER* first = nullptr;
    NDIS_BUFFER* last = nullptr;
    NDIS_BUFFER* taken = nullptr;
    UINT pages = 0, count = 0, length = 0;
    NdisAllocatePacketPool(&status, &packets, 1, 16);
    NdisAllocateBufferPool(&status, &buffers, 4);
    NdisAllocatePacket(&status, &packet, packets);
    NdisAllocatePacket(&status, &second, packets);
    EXPECT_EQ(status, NDIS_STATUS_RESOURCES);
    EXPECT_EQ(second, nullptr);
    NdisAllocateBuffer(&status, &first, buffers, block, 14);
    NdisAllocateBuffer(&status, &last, buffers, block + 4090, 100); // lies on two pages
    NdisChainBufferAtBack(packet, last);
    NdisChainBufferAtFront(packet, first);
    NdisQueryPacket(packet, &pages, &count, &taken, &length);
    EXPECT_EQ(std::tuple(pages, count, taken, length), std::tuple(3u, 2u, first, 114u));
    first->ByteCount = 10; // not looked at again before the chain changes
    NdisQueryPacket(packet, nullptr, nullptr, nullptr, &length);
    EXPECT_EQ(length, 114u);
    NdisUnchainBufferAtBack(packet, &taken);
    EXPECT_EQ(taken, last);
    NdisQueryPacket(packet, nullptr, &count, nullptr, &length);
    EXPECT_EQ(std::pair(count, length), std::pair(1u, 10u));
    NdisChainBufferAtBack(packet, last);
    for (NDIS_BUFFER* expected : {first, last, static_cast<NDIS_BUFFER*>(nullptr)}) {
        NdisUnchainBufferAtFront(packet, &taken);
        EXPECT_EQ(taken, expected);
        if (taken != nullptr) {
            NdisFreeBuffer(taken);
        }
    }
    NdisFreePacketPool(packets);
    ExpectRule("packet-pool-busy");
    NdisFreeBufferPool(buffers);

    NdisAllocatePacketPoolEx(&status, &packets, 1, 1, 16);
    NdisAllocatePacket(&status, &packet, packets);
    std::memset(packet->ProtocolReserved, 0xFF, 16);
    NdisFreePacket(packet);
    NdisFreePacket(packet);
    ExpectRule("packet-freed-twice");
    NdisAllocatePacket(&status, &second, packets);
    EXPECT_EQ(second, packet);
    EXPECT_EQ(second->ProtocolReserved[15], 0);
    NdisFreePacket(second);
    NdisFreePacketPool(packets);
}

} // namespace
