// Writers of the capture logs: libpcap files (format 2.4, Ethernet), each written by a thread of its own.
#include "ndisfilter-ethrlog.h"

namespace
{

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

// A frame of which a write failed is left at what the file took.
VOID WriteFrame(EthrLog& log, const CaptureRecord& record)
{
    const LONGLONG microseconds = (record.m_Time.QuadPart - UNIX_EPOCH) / UNITS_PER_MICROSECOND;
    const ULONG length = record.m_nHeaderLength + record.m_nDataLength;
    const FrameHeader header = {static_cast<ULONG>(microseconds / MICROSECONDS_PER_SECOND),
                                static_cast<ULONG>(microseconds % MICROSECONDS_PER_SECOND), length, length};
    if (WriteBytes(log, log.m_hFile, &header, sizeof(header)) &&
        WriteBytes(log, log.m_hFile, record.m_pHeader, record.m_nHeaderLength)) {
        WriteBytes(log, log.m_hFile, record.m_pData, record.m_nDataLength);
    }
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
        WriteFrame(log, *record);
        if (log.m_nMaximumSize != ETHRLOG_NO_SIZE_LIMIT && log.m_nCurrentSize >= log.m_nMaximumSize) {
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

} // namespace

VOID StartWriter(EthrLog& log)
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

VOID StopWriter(EthrLog& log)
{
    StoreRelaxed(log.m_bStop, TRUE);
    KeSetEvent(&log.m_WorkAvailable, IO_NO_INCREMENT, FALSE);
    WaitForWorkerThread(log.m_hThread);
    CloseFile(log);
    while (CaptureRecord* const record = TakeRecord(log)) {
        Filter_FreeMemory(record); // its clone is not released: the hook driver takes it back when it unloads
    }
}
