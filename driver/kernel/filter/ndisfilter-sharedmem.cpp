// The memory shared with the user program, and its two rings of blocks.
//
// The program may write anything into the mapping at any moment. So the framework's own figures stand outside it: the
// MDL, the user address, the number of blocks written, and the places and counts of blocks, which are constants; the
// hook driver stores the address it maps outside, too.
// Mapped fields are written for the program to read; ring indexes and input blocks are read from the mapping, each
// once, checked, then used.
#include "ndisfilter-internal.h"
#include "ndisfilter-shared-fields.h"
#include "ndisfilter-sharedmem-process.h"

#include <stddef.h>

namespace
{

PMDL s_pMdl;                // of the whole mapping
PVOID s_pUserModeAddress;   // of the present user mapping, nullptr when there is none
MappingProcess s_Process;   // where that is
ULONG s_nOutputCount;       // what m_nCount of the output ring shows
KEVENT s_ShareGate;         // serialises starting and stopping the share
MappedMemoryHead s_HookRecord; // what the hook driver gets as the MappedMemory to store the address into

// Holds the share's gate; PASSIVE_LEVEL. Inside it the thread cannot be suspended by its program, which would hang
// all others.
class ShareGate
{
  public:
    ShareGate()
    {
        KeEnterCriticalRegion();
        KeWaitForSingleObject(&s_ShareGate, Executive, KernelMode, FALSE, nullptr);
    }
    ~ShareGate()
    {
        KeSetEvent(&s_ShareGate, IO_NO_INCREMENT, FALSE);
        KeLeaveCriticalRegion();
    }
    ShareGate(const ShareGate&) = delete;
    ShareGate& operator=(const ShareGate&) = delete;
};

ULONG Irql()
{
    return KeGetCurrentIrql();
}

BOOLEAN IsRingTrafficStopped()
{
    return Global().m_pSharedMemory == nullptr || LoadRelaxed(Global().m_bStopShare);
}

constexpr ULONG NextIndex(ULONG index)
{
    return (index + 1) % NDIS_FILTER_BLOCK_COUNT;
}

// The two indexes of a ring, each read once. The program's one may hold anything.
struct RingIndexes {
    explicit RingIndexes(const SharedRing& ring)
        : Read(FetchField(ring.m_iRead)), Write(FetchField(ring.m_iWrite))
    {
    }
    BOOLEAN AreValid() const
    {
        return Read < NDIS_FILTER_BLOCK_COUNT && Write < NDIS_FILTER_BLOCK_COUNT;
    }
    BOOLEAN AreEqual() const
    {
        return Read == Write;
    }

    const ULONG Read;
    const ULONG Write;
};

VOID InitializeRing(SharedRing& ring, LONG baseOffset, const SharedBlock* firstBlock)
{
    ring.m_iBlockSize = NDIS_FILTER_BLOCK_SIZE;
    ring.m_iBlockCount = NDIS_FILTER_BLOCK_COUNT;
    ring.m_iBaseOffset = baseOffset;
    ring.m_puBlockBase = 0;
    ring.m_pkBlockBase = reinterpret_cast<ULONG_PTR>(firstBlock);
    ring.m_iRead = 0;
    ring.m_iWrite = 0;
    ring.m_nCount = NDIS_FILTER_BLOCK_COUNT;
}

// Of a block: what a short frame takes. The blocks of a ring go from one processor to another, so each side asks for the
// next one while it works on the present one.
constexpr SIZE_T FETCHED_AHEAD = offsetof(SharedBlock, m_Data) + CACHE_LINE;

// Reads what a caller gave before a lock is taken for it, so that bad memory faults without the lock.
VOID ReadAhead(const VOID* memory, SIZE_T size)
{
    const volatile UCHAR* const bytes = static_cast<const volatile UCHAR*>(memory);
    for (SIZE_T offset = 0; offset < size; offset += PAGE_SIZE) {
        (void)bytes[offset];
    }
    (void)bytes[size - 1];
}

// Bytes from a place in the shared area to its end.
ULONG BytesToEnd(const UCHAR* place)
{
    const UCHAR* const end = reinterpret_cast<const UCHAR*>(Global().m_pSharedMemory) + sizeof(SharedMemory);
    return static_cast<ULONG>(end - place);
}

// Copies an input block into a packet; `size` is what its m_nPacketSize read, at most FILTER_PACKET_DATA_SIZE.
VOID CopyFromBlock(const SharedBlock& block, ULONG size, FilterPacket& packet)
{
    packet.m_nDirection = FetchField(block.m_nDirection);
    packet.m_nPacketSize = size;
    packet.m_nCarried[0] = FetchField(block.m_nCarried[0]);
    packet.m_nCarried[1] = FetchField(block.m_nCarried[1]);
    packet.m_nIndicateCode = FetchField(block.m_nIndicateCode);
    FetchBytes(&packet.m_nIndicateValue, &block.m_nIndicateValue, sizeof(packet.m_nIndicateValue));
    FetchBytes(packet.m_ApplicationData, block.m_ApplicationData, sizeof(packet.m_ApplicationData));
    // A frame longer than a block goes on in the next one, as it is laid out; behind the last block there is none.
    const UCHAR* const data = reinterpret_cast<const UCHAR*>(&block) + offsetof(SharedBlock, m_Data);
    const ULONG present = size < BytesToEnd(data) ? size : BytesToEnd(data);
    FetchBytes(packet.m_Data, data, present);
    RtlZeroMemory(packet.m_Data + present, size - present);
}

enum class ReadOutcome { Read, Empty, UnknownAdapter, NoPacket };

// The next input block as a new packet. A block that is refused stays where it is.
ReadOutcome TakeInputBlock(FilterPacket*& packet)
{
    const WriteLock lock(Global().m_InputBlockLock);
    SharedMemory& shared = *Global().m_pSharedMemory;
    const RingIndexes indexes(shared.KernelModeInput);
    if (!indexes.AreValid() || indexes.AreEqual()) {
        return ReadOutcome::Empty;
    }
    Trace(TRACE_SHARE, "  IRQL=%d, input shared blocks are not empty\n", Irql());
    const SharedBlock& block = shared.m_InputBlocks[indexes.Read];
    const ULONG size = FetchField(block.m_nPacketSize);
    FilterAdapter* adapter = nullptr;
    if (Filter_IdToAdapter(FetchField(block.m_nAdapterId), &adapter) != FILTER_STATUS_SUCCESS ||
        size > FILTER_PACKET_DATA_SIZE) {
        return ReadOutcome::UnknownAdapter;
    }
    packet = Filter_AllocatePacket(adapter);
    if (packet == nullptr) {
        return ReadOutcome::NoPacket;
    }
    Trace(TRACE_SHARE, "  IRQL=%d, copy packets from I/O shared memory\n", Irql());
    packet->m_hAdapter = adapter;
    CopyFromBlock(block, size, *packet);
    Trace(TRACE_SHARE, "  IRQL=%d, update read pointer to next block\n", Irql());
    const ULONG next = NextIndex(indexes.Read);
    if (next != indexes.Write) {
        FetchAhead(&shared.m_InputBlocks[next], FETCHED_AHEAD);
    }
    PublishField(shared.KernelModeInput.m_iRead, next);
    return ReadOutcome::Read;
}

VOID TraceNotRead(ReadOutcome outcome)
{
    switch (outcome) {
    case ReadOutcome::Empty:
        Trace(TRACE_SHARE, "  IRQL=%d, input shared blocks are empty\n", Irql());
        break;
    case ReadOutcome::UnknownAdapter:
        Trace(TRACE_SHARE, "  IRQL=%d, packet buffer adapter error, func Filter_IdToAdapter ret fails\n", Irql());
        break;
    case ReadOutcome::NoPacket:
        Trace(TRACE_SHARE, "  IRQL=%d, allocate packet buffer fails\n", Irql());
        break;
    case ReadOutcome::Read:
        break;
    }
}

// The size is stored as the packet has it; its frame bytes may reach into the next block, never out of the area.
VOID CopyToBlock(const FilterPacket& packet, ULONG adapterId, SharedBlock& block)
{
    const ULONG size = packet.m_nPacketSize;
    block.m_nAdapterId = adapterId;
    block.m_nDirection = packet.m_nDirection;
    block.m_nPacketSize = size;
    block.m_nCarried[0] = packet.m_nCarried[0];
    block.m_nCarried[1] = packet.m_nCarried[1];
    block.m_nIndicateCode = packet.m_nIndicateCode;
    block.m_nIndicateValue = packet.m_nIndicateValue;
    RtlCopyMemory(block.m_ApplicationData, packet.m_ApplicationData, sizeof(block.m_ApplicationData));
    UCHAR* const data = reinterpret_cast<UCHAR*>(&block) + offsetof(SharedBlock, m_Data);
    RtlCopyMemory(data, packet.m_Data, size < FILTER_PACKET_DATA_SIZE ? size : FILTER_PACKET_DATA_SIZE);
}

// Finds the block to write; nullptr when the output ring is full, or its indexes are spoilt. The caller holds
// m_OutputBlockLock.
SharedBlock* FreeOutputBlock(ULONG& index)
{
    SharedMemory& shared = *Global().m_pSharedMemory;
    const RingIndexes indexes(shared.KernelModeOutput);
    if (!indexes.AreValid() || NextIndex(indexes.Write) == indexes.Read) {
        return nullptr;
    }
    index = indexes.Write;
    return &shared.m_OutputBlocks[index];
}

VOID PublishOutputBlock(ULONG index)
{
    SharedRing& ring = Global().m_pSharedMemory->KernelModeOutput;
    Trace(TRACE_SHARE, "  IRQL=%d, update write pointer to next block\n", Irql());
    StoreRelaxed(ring.m_nCount, static_cast<LONG>(++s_nOutputCount));
    PublishField(ring.m_iWrite, NextIndex(index)); // the block before the index, for the program
    FetchAheadForWriting(&Global().m_pSharedMemory->m_OutputBlocks[NextIndex(index)], FETCHED_AHEAD);
}

VOID TraceCopyToRing()
{
    Trace(TRACE_SHARE, "  IRQL=%d, output shared blocks are not full\n", Irql());
    Trace(TRACE_SHARE, "  IRQL=%d, copy packets to I/O shared memory\n", Irql());
}

enum class WriteOutcome { Written, Full, UnknownAdapter };

WriteOutcome WritePacketBlock(const FilterPacket& packet)
{
    const WriteLock lock(Global().m_OutputBlockLock);
    ULONG index = 0;
    SharedBlock* const block = FreeOutputBlock(index);
    if (block == nullptr) {
        return WriteOutcome::Full;
    }
    TraceCopyToRing();
    ULONG adapterId = 0;
    if (Filter_AdapterToId(packet.m_hAdapter, &adapterId) != FILTER_STATUS_SUCCESS) {
        Trace(TRACE_SHARE, "Err: Filter_AdapterToId return failure.\n");
        return WriteOutcome::UnknownAdapter;
    }
    CopyToBlock(packet, adapterId, *block);
    PublishOutputBlock(index);
    return WriteOutcome::Written;
}

WriteOutcome WriteSignalBlock(const VOID* signal)
{
    const WriteLock lock(Global().m_OutputBlockLock);
    ULONG index = 0;
    SharedBlock* const block = FreeOutputBlock(index);
    if (block == nullptr) {
        return WriteOutcome::Full;
    }
    TraceCopyToRing();
    // A signal is longer than a block: its end lies in the block that follows, behind the last in the first input
    // block.
    UCHAR* const area = reinterpret_cast<PUCHAR>(Global().m_pSharedMemory);
    RtlCopyMemory(area + (reinterpret_cast<PUCHAR>(block) - area), signal, NDIS_FILTER_SIGNAL_SIZE);
    PublishOutputBlock(index);
    return WriteOutcome::Written;
}

VOID TraceWriteRefused()
{
    Trace(TRACE_SHARE, "  IRQL=%d, I/O shared memory is not initialized\n", Irql());
    Trace(TRACE_SHARE, "Leave NdisFilter_WriteShareMemory(), fails, IRQL=%d\n", Irql());
}

// The mapped field is written for the program only: it may write there as soon as the memory is mapped.
PVOID MapThroughHook(HOOK_MM_MAP_LOCKED_PAGES map, MappedMemory* mapped)
{
    s_HookRecord = {0, reinterpret_cast<ULONG_PTR>(s_pMdl), NDIS_FILTER_SHARED_MEMORY_SIZE};
    const NTSTATUS code = Guarded([&] {
        map(s_pMdl, LoadRelaxed(g_nStartShareValue), reinterpret_cast<MappedMemory*>(&s_HookRecord));
    });
    const ULONGLONG address = code == 0 ? s_HookRecord.m_pUserModeVirtualAddress : 0;
    StoreRelaxed(mapped->m_pUserModeVirtualAddress, address);
    Trace(TRACE_SHARE, "  Hook_MmMapLockedPages() return 0x%p\n", reinterpret_cast<PVOID>(address));
    return reinterpret_cast<PVOID>(address);
}

// MmMapLockedPages raises when a user mapping fails: that counts as no address.
PVOID MapIntoCurrentProcess(MappedMemory* mapped)
{
    PVOID address = nullptr;
    if (Guarded([&] { address = MmMapLockedPages(s_pMdl, UserMode); }) != 0) {
        address = nullptr;
    }
    StoreRelaxed(mapped->m_pUserModeVirtualAddress, reinterpret_cast<ULONG_PTR>(address));
    Trace(TRACE_SHARE, "  MmMapLockedPages() return 0x%p\n", address);
    return address;
}

} // namespace

MappedMemory* NdisFilter_AllocateMappedMemory()
{
    s_pMdl = nullptr;
    s_pUserModeAddress = nullptr;
    s_nOutputCount = NDIS_FILTER_BLOCK_COUNT;
    KeInitializeEvent(&s_ShareGate, SynchronizationEvent, TRUE);

    Trace(TRACE_CORE, "Enter NdisFilter_AllocateMappedMemory\n");
    MappedMemory* mapped = static_cast<MappedMemory*>(
        ExAllocatePoolWithTag(NonPagedPool, NDIS_FILTER_MAPPED_MEMORY_SIZE, POOL_TAG_MAPPED));
    if (mapped == nullptr) {
        Trace(TRACE_CORE, "  ExAllocatePoolWithTag fails\n");
    } else {
        Trace(TRACE_CORE, "  ExAllocatePoolWithTag(NonPagedPool, Size=%d) success\n", NDIS_FILTER_MAPPED_MEMORY_SIZE);
        RtlZeroMemory(mapped, NDIS_FILTER_MAPPED_MEMORY_SIZE); // to the last byte: the program sees it
        mapped->m_nSize = NDIS_FILTER_SHARED_MEMORY_SIZE;
        s_pMdl = IoAllocateMdl(mapped, NDIS_FILTER_MAPPED_MEMORY_SIZE, FALSE, FALSE, nullptr);
        if (s_pMdl == nullptr) {
            ExFreePoolWithTag(mapped, POOL_TAG_MAPPED);
            mapped = nullptr;
            Trace(TRACE_CORE, "  IoAllocateMdl() fails\n");
        } else {
            Trace(TRACE_CORE, "  IoAllocateMdl() success\n");
            mapped->m_pMdl = reinterpret_cast<ULONG_PTR>(s_pMdl);
            MmBuildMdlForNonPagedPool(s_pMdl);
            Trace(TRACE_CORE, "  MmBuildMdlForNonPagedPool() complete\n");
        }
    }
    Trace(TRACE_CORE, "Leave NdisFilter_AllocateMappedMemory\n");
    return mapped;
}

VOID InitializeSharedMemory(MappedMemory* pMappedMemory)
{
    SharedMemory& shared = pMappedMemory->m_SharedMemory;
    InitializeRing(shared.KernelModeOutput, 0, shared.m_OutputBlocks);
    InitializeRing(shared.KernelModeInput, sizeof(shared.m_OutputBlocks), shared.m_InputBlocks);
    Global().m_pSharedMemory = &shared;
}

VOID NdisFilter_FreeMappedMemory(MappedMemory* pMappedMemory)
{
    if (pMappedMemory == nullptr) {
        Trace(TRACE_CORE, "  pMappedMemory == NULL\n");
        return;
    }
    NdisFilter_UnmapMemoryToUserSpace(pMappedMemory);
    Global().m_pSharedMemory = nullptr;
    Global().m_pMappedMemory = nullptr;
    IoFreeMdl(s_pMdl);
    s_pMdl = nullptr;
    Trace(TRACE_CORE, "  IoFreeMdl() complete\n");
    ExFreePoolWithTag(pMappedMemory, POOL_TAG_MAPPED);
    Trace(TRACE_CORE, "  ExFreePool complete\n");
}

PVOID NdisFilter_MapMemoryToUserSpace(MappedMemory* pMappedMemory)
{
    Trace(TRACE_SHARE, "Enter NdisFilter_MapMemoryToUserSpace\n");
    const HOOK_MM_MAP_LOCKED_PAGES map = LoadAcquire(Global().m_NdisHookAPI.Hook_MmMapLockedPages);
    s_pUserModeAddress = map != nullptr ? MapThroughHook(map, pMappedMemory) : MapIntoCurrentProcess(pMappedMemory);
    if (s_pUserModeAddress == nullptr) {
        Trace(TRACE_SHARE, "  MmMapLockedPages fails\n");
    } else {
        s_Process.Remember();
    }
    Trace(TRACE_SHARE, "Leave NdisFilter_MapMemoryToUserSpace\n");
    return s_pUserModeAddress;
}

VOID NdisFilter_UnmapMemoryToUserSpace(MappedMemory* pMappedMemory)
{
    if (pMappedMemory == nullptr) {
        Trace(TRACE_SHARE, "  pMappedMemory == NULL\n");
        return;
    }
    if (s_pUserModeAddress == nullptr) {
        Trace(TRACE_SHARE, "  pMappedMemory->m_pUserModeVirtualAddress == NULL\n");
        return;
    }
    const HOOK_MM_UNMAP_LOCKED_PAGES unmap = LoadAcquire(Global().m_NdisHookAPI.Hook_MmUnmapLockedPages);
    if (unmap != nullptr) {
        s_Process.Run([unmap] { unmap(s_pMdl, s_pUserModeAddress); });
        Trace(TRACE_SHARE, "  Hook_MmUnmapLockedPages() complete\n");
    } else {
        s_Process.Run([] { MmUnmapLockedPages(s_pUserModeAddress, s_pMdl); });
        Trace(TRACE_SHARE, "  MmUnmapLockedPages() complete\n");
    }
    s_Process.Forget();
    s_pUserModeAddress = nullptr;
    StoreRelaxed(pMappedMemory->m_pUserModeVirtualAddress, 0);
}

namespace
{

// Gives the share up. A read that was parked for the owner meanwhile is completed: its parker looks at the owner
// behind the parking, so one of the two sees the other.
VOID ClearShareOwner()
{
    InterlockedExchangePointer(reinterpret_cast<PVOID*>(&Global().m_FileObject), nullptr);
    CompleteParkedRead();
}

// Claims the share for a file object and maps the memory; nullptr when it is taken or cannot be mapped.
PVOID ClaimShare(PFILE_OBJECT file)
{
    NdisFilterDeviceExtension& global = Global();
    const ShareGate gate;
    PVOID* const ownerSlot = reinterpret_cast<PVOID*>(&global.m_FileObject);
    const PVOID owner = InterlockedCompareExchangePointer(ownerSlot, file, nullptr);
    if (owner != nullptr || file == nullptr) {
        Trace(TRACE_SHARE, "SharedMemory is opened by another FileObject 0x%X\n",
              static_cast<ULONG>(reinterpret_cast<ULONG_PTR>(owner)));
        return nullptr;
    }
    const PVOID userAddress = NdisFilter_MapMemoryToUserSpace(global.m_pMappedMemory);
    Trace(TRACE_SHARE, "  UserMode SharedMemory = 0x%p\n", userAddress);
    if (userAddress == nullptr) {
        ClearShareOwner();
        return nullptr;
    }
    Trace(TRACE_SHARE, "MappedMemory mapped to FileObject 0x%p as 0x%p\n", file, userAddress);
    return userAddress;
}

} // namespace

BOOLEAN IsShareOwner(PFILE_OBJECT file)
{
    return file != nullptr && LoadAcquire(Global().m_FileObject) == file;
}

ULONG_PTR NdisFilter_StartShare(PIRP pIrp)
{
    PVOID userAddress = nullptr;

    Trace(TRACE_SHARE, "Enter NdisFilter_StartShare\n");
    if (Global().m_pMappedMemory == nullptr) {
        Trace(TRACE_SHARE, "MappedMemory is not allocated\n");
    } else {
        userAddress = ClaimShare(FileObjectOf(pIrp));
    }
    Trace(TRACE_SHARE, "Leave NdisFilter_StartShare\n");
    return reinterpret_cast<ULONG_PTR>(userAddress) + offsetof(MappedMemory, m_SharedMemory);
}

VOID NdisFilter_StopShare(PIRP pIrp)
{
    NdisFilterDeviceExtension& global = Global();
    const PFILE_OBJECT file = FileObjectOf(pIrp);

    if (global.m_pMappedMemory == nullptr) {
        Trace(TRACE_SHARE, "MappedMemory is not allocated\n");
        return;
    }
    const ShareGate gate;
    if (!IsShareOwner(file)) {
        Trace(TRACE_SHARE, "SharedMemory is not opened by FileObject 0x%p\n", file);
        return;
    }
    NdisFilter_CompleteRead();
    Trace(TRACE_SHARE, "SharedMemory is released by FileObject 0x%p\n", file);
    NdisFilter_UnmapMemoryToUserSpace(global.m_pMappedMemory);
    ClearShareOwner();
}

VOID NdisFilter_TerminateShare()
{
    NdisFilterDeviceExtension& global = Global();

    Trace(TRACE_SHARE, "Enter NdisFilter_TerminateShare\n");
    if (global.m_pMappedMemory == nullptr) {
        Trace(TRACE_SHARE, "MappedMemory is not allocated\n");
    } else {
        StoreRelease(global.m_bStopShare, TRUE);
        NdisSetEvent(&global.m_ShareMemoryEvent);
        if (global.m_hShareMemoryThread[0] != nullptr || global.m_hInjectPacketThread[0] != nullptr ||
            global.m_hInjectPacketThread[1] != nullptr) {
            NdisWaitEvent(&global.m_WorkThreadExitEvent, SHARE_WAIT_MS); // without a thread nobody sets it
        }
        NdisFilter_CompleteRead();
        NdisFilter_UnmapMemoryToUserSpace(global.m_pMappedMemory);
    }
    Trace(TRACE_SHARE, "Leave NdisFilter_TerminateShare\n");
}

FilterPacket* NdisFilter_ReadShareMemory()
{
    FilterPacket* packet = nullptr;

    Trace(TRACE_SHARE, "Enter NdisFilter_ReadShareMemory, IRQL=%d\n", Irql());
    if (IsRingTrafficStopped()) {
        Trace(TRACE_SHARE, "  IRQL=%d, I/O shared memory is not initialized\n", Irql());
    } else {
        Trace(TRACE_SHARE, "  IRQL=%d, I/O shared memory is initialized\n", Irql());
        TraceNotRead(TakeInputBlock(packet));
        if (packet != nullptr) {
            RecordFrame(Global().m_pAppToDriverEthrLog, packet);
        }
    }
    Trace(TRACE_SHARE, "Leave NdisFilter_ReadShareMemory(), IRQL=%d, return 0x%p\n", Irql(), packet);
    return packet;
}

BOOLEAN NdisFilter_WriteShareMemory(FilterPacket* pPacket)
{
    Trace(TRACE_SHARE, "Enter NdisFilter_WriteShareMemory (pBlock=0x%p,Complete=%s), IRQL=%d\n", pPacket, "TRUE",
          Irql());
    if (IsRingTrafficStopped()) {
        TraceWriteRefused();
        return FALSE;
    }
    Trace(TRACE_SHARE, "  IRQL=%d, I/O shared memory is initialized\n", Irql());
    ReadAhead(pPacket, sizeof(*pPacket));
    const WriteOutcome outcome = WritePacketBlock(*pPacket);
    if (outcome == WriteOutcome::UnknownAdapter) {
        return FALSE;
    }
    if (outcome == WriteOutcome::Written) {
        RecordFrame(Global().m_pDriverToAppEthrLog, pPacket);
    }
    NdisFilter_CompleteRead(); // also for a full ring, so that the program drains it
    Trace(TRACE_SHARE, "Leave NdisFilter_WriteShareMemory(), success, IRQL=%d\n", Irql());
    return outcome == WriteOutcome::Written;
}

BOOLEAN NdisFilter_WriteSignalPacket(PVOID pSignal)
{
    Trace(TRACE_SHARE, "Enter NdisFilter_WriteSignalPacket(pSignal=0x%p), IRQL=%d\n", pSignal, Irql());
    if (IsRingTrafficStopped()) {
        TraceWriteRefused();
        return FALSE;
    }
    Trace(TRACE_SHARE, "  IRQL=%d, I/O shared memory is initialized\n", Irql());
    ReadAhead(pSignal, NDIS_FILTER_SIGNAL_SIZE);
    const WriteOutcome outcome = WriteSignalBlock(pSignal);
    NdisFilter_CompleteRead();
    Trace(TRACE_SHARE, "Leave NdisFilter_WriteSignalPacket(), success, IRQL=%d\n", Irql());
    return outcome == WriteOutcome::Written;
}

BOOLEAN IsOutputRingEmpty()
{
    const RingIndexes indexes(Global().m_pSharedMemory->KernelModeOutput);
    return indexes.AreValid() && indexes.AreEqual();
}
