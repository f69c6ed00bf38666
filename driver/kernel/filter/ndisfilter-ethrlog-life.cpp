// The life of capture logs: allocated, opened, closed and freed. Opening and closing touch files and threads, so queued
// work does them.
#include "ndisfilter-ethrlog.h"

NDIS_RW_LOCK g_EthrLogLock;

namespace
{

constexpr CHAR SIGNATURE[ETHRLOG_SIGNATURE_SIZE] = {'E', 'T', 'H', 'R'};

RecordList<EthrLog> s_Logs; // those that are not to be closed

// Operations run one after the other, in the order they were asked for: a log that is started again finds the file of
// its predecessor closed.
KSPIN_LOCK s_OperationLock;
RecordList<LogOperation> s_Operations;
BOOLEAN s_bOperationsRunning;
WORK_QUEUE_ITEM s_OperationItem;

VOID CloseLog(EthrLog& log)
{
    LeaveLog(log);
    KeWaitForSingleObject(&log.m_Unreferenced, Executive, KernelMode, FALSE, nullptr);
    StopWriter(log);
    Filter_FreeMemory(&log);
}

LogOperation* TakeOperation()
{
    const SpinLock lock(s_OperationLock);
    LogOperation* const operation = s_Operations.TakeFirst();
    s_bOperationsRunning = operation != nullptr;
    return operation;
}

VOID RunOperations(PVOID)
{
    while (LogOperation* const operation = TakeOperation()) {
        operation->m_pfRoutine(*operation->m_pLog);
    }
    LeaveQueuedWork();
}

VOID QueueOperation(EthrLog& log, LogOperation& operation, VOID (*routine)(EthrLog& log))
{
    operation.m_pLog = &log;
    operation.m_pfRoutine = routine;
    BOOLEAN running;
    {
        const SpinLock lock(s_OperationLock);
        s_Operations.Append(operation);
        running = s_bOperationsRunning;
        s_bOperationsRunning = TRUE;
    }
    if (!running) {
        QueueWork(&s_OperationItem, RunOperations, nullptr);
    }
}

VOID AppendWidened(UNICODE_STRING& name, PCSTR text)
{
    for (; *text != 0 && name.Length < name.MaximumLength; text++) {
        name.Buffer[name.Length / sizeof(WCHAR)] = static_cast<UCHAR>(*text);
        name.Length += sizeof(WCHAR);
    }
}

} // namespace

EthrLog* AllocateLog(PCSTR nameStart, PCSTR nameMiddle, PCSTR nameEnd)
{
    EthrLog* const log = static_cast<EthrLog*>(AllocateZeroed(sizeof(EthrLog), POOL_TAG_ETHRLOG));
    if (log != nullptr) {
        RtlCopyMemory(log->m_Signature, SIGNATURE, sizeof(SIGNATURE));
        log->m_FileName.Buffer = log->m_FileNameBuffer;
        log->m_FileName.MaximumLength = sizeof(log->m_FileNameBuffer);
        AppendWidened(log->m_FileName, nameStart);
        AppendWidened(log->m_FileName, nameMiddle);
        AppendWidened(log->m_FileName, nameEnd);
        log->m_nMaximumSize = ETHRLOG_NO_SIZE_LIMIT;
        KeInitializeSpinLock(&log->m_QueueLock);
        log->m_Queue.Initialize();
        KeInitializeEvent(&log->m_WorkAvailable, SynchronizationEvent, FALSE);
        log->m_nReferences = 1;
        KeInitializeEvent(&log->m_Unreferenced, NotificationEvent, FALSE);
    }
    return log;
}

EthrLog* FindLog(const PVOID& slot)
{
    for (EthrLog& log : s_Logs) {
        if (log.m_pSlot == &slot) {
            return &log;
        }
    }
    return nullptr;
}

EthrLog* PlaceLog(PVOID& slot, EthrLog* log)
{
    if (log == nullptr || FindLog(slot) != nullptr ||
        Guarded([&] { StoreRelaxed(slot, static_cast<PVOID>(log)); }) != 0) {
        return log;
    }
    log->m_pSlot = &slot;
    s_Logs.Append(*log);
    QueueOperation(*log, log->m_Opening, StartWriter);
    return nullptr;
}

VOID QueueClosing(EthrLog& log)
{
    RecordList<EthrLog>::Unlink(log);
    QueueOperation(log, log.m_Closing, CloseLog);
}

VOID LeaveLog(EthrLog& log)
{
    if (InterlockedDecrement(&log.m_nReferences) == 0) {
        KeSetEvent(&log.m_Unreferenced, IO_NO_INCREMENT, FALSE);
    }
}

VOID InitializeEthrLogs()
{
    NdisInitializeReadWriteLock(&g_EthrLogLock);
    s_Logs.Initialize();
    KeInitializeSpinLock(&s_OperationLock);
    s_Operations.Initialize();
    s_bOperationsRunning = FALSE;
}

VOID CloseAllEthrLogs()
{
    const WriteLock lock(g_EthrLogLock);
    for (EthrLog& log : s_Logs) { // their slots may be gone with their adapters
        QueueClosing(log);
    }
}
