// Capture logs: libpcap files (format 2.4, Ethernet) of the frames that pass certain points. The packet paths clone a
// frame and queue it; each log has a thread that writes its file.
//
// A log's slot, in an adapter or in the global state, may be read at any moment. So a recorder looks the log up under
// s_LogLock and references it; closing takes it out of slot and list under the same lock, and waits for the references.
#include "ndisfilter-packetapi.h"

namespace
{

constexpr CHAR SIGNATURE[] = {'E', 'T', 'H', 'R'};
constexpr ULONG NO_SIZE_LIMIT = 0;
constexpr ULONG FILE_NAME_CHARACTERS = 64;          // more than the longest name below
constexpr LONGLONG UNIX_EPOCH = 116444736000000000; // 1 January 1970 in units of 100 ns since 1 January 1601
constexpr LONGLONG UNITS_PER_MICROSECOND = 10;
constexpr LONGLONG MICROSECONDS_PER_SECOND = 1000000;

// The header of a libpcap file; the program that reads it sees the byte order from the magic number.
struct FileHeader {
    ULONG m_nMagic;
    USHORT m_nMajorVersion;
    USHORT m_nMinorVersion;
    LONG m_nTimeZone;
    ULONG m_nAccuracy;
    ULONG m_nSnapshotLength;
    ULONG m_nLinkType;
};
static_assert(sizeof(FileHeader) == 24);

constexpr FileHeader FILE_HEADER = {0xA1B2C3D4, 2, 4, 0, 0, 65535, 1};

// What stands in front of each frame in the file.
struct FrameHeader {
    ULONG m_nSeconds; // since 1 January 1970, UTC
    ULONG m_nMicroseconds;
    ULONG m_nCapturedLength;
    ULONG m_nFrameLength;
};
static_assert(sizeof(FrameHeader) == 16);

struct EthrLog;

// A frame that waits to be written.
struct CaptureRecord {
    LIST_ENTRY m_ListEntry; // in the log's queue
    LARGE_INTEGER m_Time;   // when it was recorded, in units of 100 ns since 1 January 1601, UTC
    const UCHAR* m_pHeader; // Ethernet header, in the clone
    ULONG m_nHeaderLength;  // ETHERNET_HEADER_SIZE
    const UCHAR* m_pData;   // the rest of the frame, in the clone
    ULONG m_nDataLength;
    FilterPacket* m_pClone;
};

// Opening or closing a log, waiting for its turn.
struct LogOperation {
    LIST_ENTRY m_ListEntry; // in s_Operations
    EthrLog* m_pLog;
    VOID (*m_pfRoutine)(EthrLog& log);
};

struct EthrLog {
    UCHAR m_Signature[sizeof(SIGNATURE)]; // shows a log in a memory dump
    LIST_ENTRY m_ListEntry;               // in s_Logs, until it is to be closed
    UNICODE_STRING m_FileName;
    ULONG m_nMaximumSize; // the file is closed when it has reached it
    ULONG m_nCurrentSize; // bytes written
    HANDLE
        m_hFile; // set while frames are taken: by the opening, last of all, until the writer closes the file
    KSPIN_LOCK m_QueueLock;
    RecordList<CaptureRecord> m_Queue;
    KEVENT m_WorkAvailable; // set when the queue gets its first record, and to stop the writer
    HANDLE m_hThread;       // of the writer; nullptr: none was started
    BOOLEAN m_bStop;
    LONG m_nReferences; // one of the slot, one of each recorder
    KEVENT m_Unreferenced;
    LogOperation m_Opening;
    LogOperation m_Closing;
    WCHAR m_FileNameBuffer[FILE_NAME_CHARACTERS];
};

NDIS_RW_LOCK s_LogLock; // the list, and all slots
RecordList<EthrLog> s_Logs;

// Operations run one after the other, in the order they were asked for: a log that is started again finds the file of
// its predecessor closed.
KSPIN_LOCK s_OperationLock;
RecordList<LogOperation> s_Operations;
BOOLEAN s_bOperationsRunning;
WORK_QUEUE_ITEM s_OperationItem;

// ----------------------------------------------------------------------------------------------------- writing

// FALSE: the file took less than all.
BOOLEAN WriteBytes(EthrLog& log, HANDLE file, const VOID* bytes, ULONG size)
{
    IO_STATUS_BLOCK result = {};
    const NTSTATUS status = ZwWriteFile(file, nullptr, nullptr, nullptr, &result, const_cast<PVOID>(bytes),
                                        size, nullptr, nullptr);
    if (!NT_SUCCESS(status)) {
        return FALSE;
    }
    log.m_nCurrentSize += static_cast<ULONG>(result.Information);
    return result.Information == size;
}

BOOLEAN WriteFrame(EthrLog& log, const CaptureRecord& record)
{
    const LONGLONG microseconds = (record.m_Time.QuadPart - UNIX_EPOCH) / UNITS_PER_MICROSECOND;
    const ULONG length = record.m_nHeaderLength + record.m_nDataLength;
    const FrameHeader header = {static_cast<ULONG>(microseconds / MICROSECONDS_PER_SECOND),
                                static_cast<ULONG>(microseconds % MICROSECONDS_PER_SECOND), length, length};
    return WriteBytes(log, log.m_hFile, &header, sizeof(header)) &&
           WriteBytes(log, log.m_hFile, record.m_pHeader, record.m_nHeaderLength) &&
           WriteBytes(log, log.m_hFile, record.m_pData, record.m_nDataLength);
}

VOID CloseFile(EthrLog& log)
{
    const HANDLE file = log.m_hFile;
    if (file != nullptr) {
        StoreRelaxed(log.m_hFile, nullptr); // recorders look whether it is set
        ZwClose(file);
    }
}

VOID WriteRecord(EthrLog& log, CaptureRecord* record)
{
    if (log.m_hFile != nullptr) {
        // Behind half a frame nothing more could be read, so a file that takes no more is left as it is.
        if (!WriteFrame(log, *record)) {
            CloseFile(log);
        } else if (log.m_nMaximumSize != NO_SIZE_LIMIT && log.m_nCurrentSize >= log.m_nMaximumSize) {
            CloseFile(log);
            StoreRelaxed(log.m_bStop, TRUE);
        }
    }
    Filter_ReleasePacket(record->m_pClone);
    Filter_FreeMemory(record);
}

CaptureRecord* TakeRecord(EthrLog& log)
{
    const SpinLock lock(log.m_QueueLock);
    return log.m_Queue.TakeFirst();
}

VOID WriterThread(PVOID context)
{
    EthrLog& log = *static_cast<EthrLog*>(context);
    while (!LoadRelaxed(log.m_bStop)) {
        CaptureRecord* const record = TakeRecord(log);
        if (record != nullptr) {
            WriteRecord(log, record);
        } else {
            KeWaitForSingleObject(&log.m_WorkAvailable, Executive, KernelMode, FALSE, nullptr);
        }
    }
    PsTerminateSystemThread(STATUS_SUCCESS);
}

// ------------------------------------------------------------------------------------------- opening, closing

HANDLE CreateLogFile(UNICODE_STRING& name)
{
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr,
                               nullptr);
    IO_STATUS_BLOCK result = {};
    HANDLE file = nullptr;
    const NTSTATUS status = ZwCreateFile(&file, FILE_WRITE_DATA | DELETE | SYNCHRONIZE, &attributes, &result,
                                         nullptr, FILE_ATTRIBUTE_NORMAL, FILE_SHARE_READ, FILE_SUPERSEDE,
                                         FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
    return NT_SUCCESS(status) ? file : nullptr;
}

// A log whose file or thread cannot be had stays silent.
VOID OpenLog(EthrLog& log)
{
    constexpr ULONG MagicSize = sizeof(FILE_HEADER.m_nMagic);
    const HANDLE file = CreateLogFile(log.m_FileName);
    if (file == nullptr) {
        return;
    }
    if (WriteBytes(log, file, &FILE_HEADER, MagicSize) &&
        WriteBytes(log, file, reinterpret_cast<const UCHAR*>(&FILE_HEADER) + MagicSize,
                   sizeof(FILE_HEADER) - MagicSize)) {
        log.m_hThread = StartWorkerThread(WriterThread, &log);
    }
    if (log.m_hThread == nullptr) {
        ZwClose(file);
    } else {
        StoreRelease(log.m_hFile, file); // goes live: recorders may queue from here on
    }
}

VOID LeaveLog(EthrLog& log)
{
    if (InterlockedDecrement(&log.m_nReferences) == 0) {
        KeSetEvent(&log.m_Unreferenced, IO_NO_INCREMENT, FALSE);
    }
}

// The log is in no slot and not in the list any more.
VOID CloseLog(EthrLog& log)
{
    LeaveLog(log);
    KeWaitForSingleObject(&log.m_Unreferenced, Executive, KernelMode, FALSE, nullptr);
    StoreRelaxed(log.m_bStop, TRUE);
    KeSetEvent(&log.m_WorkAvailable, IO_NO_INCREMENT, FALSE);
    WaitForWorkerThread(log.m_hThread);
    CloseFile(log);
    while (CaptureRecord* const record = TakeRecord(log)) {
        Filter_FreeMemory(record); // its clone is not released: the hook driver takes it back when it unloads
    }
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

// --------------------------------------------------------------------------------------------- logs and slots

VOID AppendWidened(UNICODE_STRING& name, PCSTR text)
{
    for (; *text != 0 && name.Length < name.MaximumLength; text++) {
        name.Buffer[name.Length / sizeof(WCHAR)] = static_cast<UCHAR>(*text);
        name.Length += sizeof(WCHAR);
    }
}

// A log that is neither open nor in a slot; nullptr when no memory is left.
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
        log->m_nMaximumSize = NO_SIZE_LIMIT;
        KeInitializeSpinLock(&log->m_QueueLock);
        log->m_Queue.Initialize();
        KeInitializeEvent(&log->m_WorkAvailable, SynchronizationEvent, FALSE);
        log->m_nReferences = 1;
        KeInitializeEvent(&log->m_Unreferenced, NotificationEvent, FALSE);
    }
    return log;
}

// The log of a slot, also when the slot's memory still holds one of an earlier life of the driver. Under s_LogLock.
EthrLog* FindLog(const PVOID& slot)
{
    const PVOID log = LoadRelaxed(slot);
    for (EthrLog& candidate : s_Logs) {
        if (&candidate == log) {
            return &candidate;
        }
    }
    return nullptr;
}

// Gives a new log to a free slot and has it opened; answers nullptr then, else the log. Under s_LogLock for writing.
EthrLog* PlaceLog(PVOID& slot, EthrLog* log)
{
    if (log == nullptr || FindLog(slot) != nullptr) {
        return log;
    }
    s_Logs.Append(*log);
    StoreRelease(slot, static_cast<PVOID>(log));
    QueueOperation(*log, log->m_Opening, OpenLog);
    return nullptr;
}

VOID FreeUnplaced(EthrLog* log)
{
    if (log != nullptr) {
        Filter_FreeMemory(log);
    }
}

// Under s_LogLock for writing.
VOID QueueClosing(EthrLog& log)
{
    RecordList<EthrLog>::Unlink(log);
    QueueOperation(log, log.m_Closing, CloseLog);
}

VOID CloseSlot(PVOID& slot)
{
    const WriteLock lock(s_LogLock);
    EthrLog* const log = FindLog(slot);
    StoreRelaxed(slot, nullptr);
    if (log != nullptr) {
        QueueClosing(*log);
    }
}

VOID StartGlobalLog(PVOID& slot, PCSTR fileName)
{
    if (LoadRelaxed(slot) == nullptr) {
        EthrLog* log = AllocateLog(fileName, "", "");
        {
            const WriteLock lock(s_LogLock);
            log = PlaceLog(slot, log);
        }
        FreeUnplaced(log);
    }
}

enum class AdapterStart { Started, AlreadyOpen, Gone };

AdapterStart StartAdapterLogs(FilterAdapter* adapter, PCSTR macText)
{
    constexpr PCSTR NameStart = "\\??\\C:\\Adapter(";
    EthrLog* upper = AllocateLog(NameStart, macText, ")NdisUpper.eth");
    EthrLog* lower = AllocateLog(NameStart, macText, ")NdisLower.eth");
    EthrLog* inject = AllocateLog(NameStart, macText, ")NdisInject.eth");
    AdapterStart outcome = AdapterStart::Started;
    {
        const WriteLock lock(s_LogLock);
        if (!IsAdapterListed(adapter)) {
            outcome = AdapterStart::Gone; // closed since the entry was read: its record is not to be touched
        } else if (FindLog(adapter->m_pUpperEthrLog) != nullptr ||
                   FindLog(adapter->m_pLowerEthrLog) != nullptr ||
                   FindLog(adapter->m_pInjectEthrLog) != nullptr) {
            outcome = AdapterStart::AlreadyOpen;
        } else {
            upper = PlaceLog(adapter->m_pUpperEthrLog, upper);
            lower = PlaceLog(adapter->m_pLowerEthrLog, lower);
            inject = PlaceLog(adapter->m_pInjectEthrLog, inject);
        }
    }
    FreeUnplaced(upper);
    FreeUnplaced(lower);
    FreeUnplaced(inject);
    return outcome;
}

PCSTR TruthText(BOOLEAN value)
{
    return value ? "TRUE" : "FALSE";
}

BOOLEAN StartLogsOf(const AdapterInfo& info)
{
    if (info.m_hAdapter == nullptr) {
        Trace(TRACE_HOOK, "Invalid adapter handle\n");
        return FALSE;
    }
    Trace(TRACE_HOOK, "AdapterName=%.256s\n", info.m_szAdapterName);
    CHAR macText[18];
    inet_mtoa(info.m_CurrentAddress, macText, sizeof(macText));
    switch (StartAdapterLogs(info.m_hAdapter, macText)) {
    case AdapterStart::Gone:
        Trace(TRACE_HOOK, "Invalid adapter handle\n");
        return FALSE;
    case AdapterStart::AlreadyOpen:
        Trace(TRACE_HOOK, "Ethrlog is opened already!");
        return FALSE;
    case AdapterStart::Started:
        break;
    }
    StartGlobalLog(Global().m_pAppToDriverEthrLog, "\\??\\C:\\Application-to-Driver-Io.eth");
    StartGlobalLog(Global().m_pDriverToAppEthrLog, "\\??\\C:\\Driver-to-Application-Io.eth");
    return TRUE;
}

BOOLEAN StopLogsOf(const AdapterInfo& info)
{
    if (info.m_hAdapter == nullptr) {
        Trace(TRACE_HOOK, "Invalid adapter handle\n");
        return FALSE;
    }
    Trace(TRACE_HOOK, "AdapterName=%.256s\n", info.m_szAdapterName);
    CloseAdapterEthrLogs(info.m_hAdapter);
    CloseSlot(Global().m_pAppToDriverEthrLog);
    CloseSlot(Global().m_pDriverToAppEthrLog);
    return TRUE;
}

// --------------------------------------------------------------------------------------------------- recording

// The log of a slot if it takes frames, referenced.
EthrLog* EnterLog(const PVOID& slot)
{
    const ReadLock lock(s_LogLock);
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

VOID InitializeEthrLogs()
{
    NdisInitializeReadWriteLock(&s_LogLock);
    s_Logs.Initialize();
    KeInitializeSpinLock(&s_OperationLock);
    s_Operations.Initialize();
    s_bOperationsRunning = FALSE;
}

VOID NdisFilter_StartEthrLog()
{
    Trace(TRACE_HOOK, "Enter NdisFilter_StartEthrLog\n");
    const ULONG count = ReadAdapterCount();
    for (ULONG i = 0; i < count; i++) {
        NdisFilter_StartAdapterEthrLog(ReadAdapterInfo(i));
    }
    Trace(TRACE_HOOK, "Leave NdisFilter_StartEthrLog\n");
}

BOOLEAN NdisFilter_StopEthrLog()
{
    Trace(TRACE_HOOK, "Enter NdisFilter_StopEthrLog\n");
    const ULONG count = ReadAdapterCount();
    for (ULONG i = 0; i < count; i++) {
        NdisFilter_StopAdapterEthrLog(ReadAdapterInfo(i));
    }
    Trace(TRACE_HOOK, "Leave NdisFilter_StopEthrLog\n");
    return count != 0;
}

BOOLEAN NdisFilter_StartAdapterEthrLog(const AdapterInfo& info)
{
    Trace(TRACE_HOOK, "Enter NdisFilter_StartAdapterEthrLog\n");
    const BOOLEAN started = StartLogsOf(info);
    Trace(TRACE_HOOK, "Leave NdisFilter_StartAdapterEthrLog, %s\n", TruthText(started));
    return started;
}

BOOLEAN NdisFilter_StopAdapterEthrLog(const AdapterInfo& info)
{
    Trace(TRACE_HOOK, "Enter NdisFilter_StopAdapterEthrLog\n");
    const BOOLEAN stopped = StopLogsOf(info);
    Trace(TRACE_HOOK, "Leave NdisFilter_StopAdapterEthrLog, %s\n", TruthText(stopped));
    return stopped;
}

VOID CloseAdapterEthrLogs(FilterAdapter* pAdapter)
{
    CloseSlot(pAdapter->m_pUpperEthrLog);
    CloseSlot(pAdapter->m_pLowerEthrLog);
    CloseSlot(pAdapter->m_pInjectEthrLog);
}

VOID CloseAllEthrLogs()
{
    const WriteLock lock(s_LogLock);
    for (EthrLog& log : s_Logs) { // their slots may be gone with their adapters
        QueueClosing(log);
    }
}

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
