// Recording into capture logs, on the packet paths: a frame is cloned and queued, never written.
#include "ndisfilter-ethrlog.h"

namespace
{

// The log of a slot if it takes frames, referenced.
EthrLog* EnterLog(const PVOID& slot)
{
    const ReadLock lock(g_EthrLogLock);
    EthrLog* const log = FindLog(slot);
    if (log == nullptr || LoadAcquire(log->m_hFile) == nullptr) {
        return nullptr;
    }
    InterlockedIncrement(&log->m_nReferences);
    return log;
}

// Where the clone has its frame: what its headers were parsed from if that is in its buffer, else all of the buffer.
UCHAR* FrameOf(FilterPacket& clone)
{
    const ULONG_PTR offset =
        reinterpret_cast<ULONG_PTR>(clone.m_pEthernet) - reinterpret_cast<ULONG_PTR>(clone.m_Data);
    return offset <= FILTER_PACKET_DATA_SIZE - ETHERNET_HEADER_SIZE ? clone.m_pEthernet : clone.m_Data;
}

VOID FillRecord(CaptureRecord& record, FilterPacket* clone)
{
    UCHAR* const frame = FrameOf(*clone);
    const ULONG room = static_cast<ULONG>(clone->m_Data + FILTER_PACKET_DATA_SIZE - frame);
    const ULONG size = clone->m_nPacketSize < room ? clone->m_nPacketSize : room;
    if (size < ETHERNET_HEADER_SIZE) {
        RtlZeroMemory(frame + size, ETHERNET_HEADER_SIZE - size);
    }
    record.m_pHeader = frame;
    record.m_nHeaderLength = ETHERNET_HEADER_SIZE;
    record.m_pData = frame + ETHERNET_HEADER_SIZE;
    record.m_nDataLength = size > ETHERNET_HEADER_SIZE ? size - ETHERNET_HEADER_SIZE : 0;
    record.m_pClone = clone;
}

// nullptr: no memory or no packet was left.
CaptureRecord* MakeRecord(FilterPacket* packet)
{
    CaptureRecord* const record =
        static_cast<CaptureRecord*>(AllocateZeroed(sizeof(CaptureRecord), POOL_TAG_ETHRLOG));
    if (record == nullptr) {
        return nullptr;
    }
    KeQuerySystemTime(&record->m_Time);
    FilterPacket* clone = nullptr;
    if (Filter_ClonePacket(packet, &clone) != FILTER_STATUS_SUCCESS) {
        if (clone != nullptr) {
            Filter_ReleasePacket(clone);
        }
        Filter_FreeMemory(record);
        return nullptr;
    }
    clone->m_hAdapter = nullptr;
    FillRecord(*record, clone);
    return record;
}

VOID QueueRecord(EthrLog& log, CaptureRecord& record)
{
    BOOLEAN first;
    {
        const SpinLock lock(log.m_QueueLock);
        first = log.m_Queue.IsEmpty();
        log.m_Queue.Append(record);
    }
    if (first) { // else the writer has not found the queue empty yet, or is about to be woken
        KeSetEvent(&log.m_WorkAvailable, IO_NO_INCREMENT, FALSE);
    }
}

} // namespace

VOID RecordToLog(const PVOID& slot, FilterPacket* pPacket)
{
    EthrLog* const log = EnterLog(slot);
    if (log == nullptr) {
        return;
    }
    CaptureRecord* const record = MakeRecord(pPacket);
    if (record != nullptr) {
        QueueRecord(*log, *record);
    }
    LeaveLog(*log);
}
