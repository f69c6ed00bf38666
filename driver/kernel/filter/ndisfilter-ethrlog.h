// What the rooms of the capture logs share.
//
// A slot, in an adapter or in the global state, is set while it has a log; what it holds is not relied upon. A log is
// found by the place of its slot, in the list: a recorder looks it up under g_EthrLogLock and references it; closing
// takes it out of the list under the same lock, and waits for the references.
#pragma once

#include "ndisfilter-packetapi.h"

constexpr ULONG ETHRLOG_SIGNATURE_SIZE = 4;
constexpr ULONG ETHRLOG_NAME_CHARACTERS = 64; // more than the longest name of a log
constexpr ULONG ETHRLOG_NO_SIZE_LIMIT = 0;

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
    LIST_ENTRY m_ListEntry; // in the queue of operations
    EthrLog* m_pLog;
    VOID (*m_pfRoutine)(EthrLog& log);
};

struct EthrLog {
    UCHAR m_Signature[ETHRLOG_SIGNATURE_SIZE]; // shows a log in a memory dump
    LIST_ENTRY m_ListEntry;                    // in the list of logs, until it is to be closed
    const PVOID* m_pSlot;                      // while it is in the list
    UNICODE_STRING m_FileName;
    ULONG m_nMaximumSize; // the file is closed when it has reached it
    ULONG m_nCurrentSize; // bytes written
    HANDLE m_hFile;       // set while frames are taken: by the opening, last of all, until the file is closed
    KSPIN_LOCK m_QueueLock;
    RecordList<CaptureRecord> m_Queue;
    KEVENT m_WorkAvailable; // set when the queue gets its first record, and to stop the writer
    HANDLE m_hThread;       // of the writer; nullptr: none was started
    BOOLEAN m_bStop;
    LONG m_nReferences; // one of the slot, one of each recorder
    KEVENT m_Unreferenced;
    LogOperation m_Opening;
    LogOperation m_Closing;
    WCHAR m_FileNameBuffer[ETHRLOG_NAME_CHARACTERS];
};

// ---- ndisfilter-ethrlog-life
extern NDIS_RW_LOCK g_EthrLogLock; // the list of logs
// A log that is neither open nor in a slot, with a name of three parts; nullptr when no memory is left.
EthrLog* AllocateLog(PCSTR nameStart, PCSTR nameMiddle, PCSTR nameEnd);
// The log of a slot, whose memory is not touched. Under the lock.
EthrLog* FindLog(const PVOID& slot);
// Gives a new log to a free slot and has it opened; answers nullptr then, else the log, also when the slot's memory
// raises an exception. Under the lock for writing.
EthrLog* PlaceLog(PVOID& slot, EthrLog* log);
VOID QueueClosing(EthrLog& log); // takes it out of the list; under the lock for writing
VOID LeaveLog(EthrLog& log);     // gives a reference back

// ---- ndisfilter-ethrlog-writer; all at PASSIVE_LEVEL
// Creates the file, with its header, and the thread that writes what is queued. Without either the log stays silent.
VOID StartWriter(EthrLog& log);
VOID StopWriter(EthrLog& log); // waits for the thread; frames that are still queued are not written
