// What all records behind handles share: the check of a handle's tag, blocks that hold a name, and how records are
// registered and unlinked.
#pragma once

#include "ndisfilter-internal.h"
#include "ndisfilter-lock.h"

// A word of memory that may be freed, foreign or unmapped: such memory is read through here and inside a guard only.
ULONG ReadUntrustedWord(const volatile VOID* address);

// TRUE when the handle is not null, the word at `tagOffset` is `tag`, and `holds` (if given) says so of the record; it
// runs inside the guard. Otherwise says why not in the debug output, under the name of the exported check.
BOOLEAN CheckHandle(PCSTR checkName, const VOID* handle, SIZE_T tagOffset, ULONG tag,
                    BOOLEAN (*holds)(const VOID* handle) = nullptr);

template <class Record>
BOOLEAN CheckRecord(PCSTR checkName, const Record* handle, ULONG tag, BOOLEAN (*holds)(const VOID*) = nullptr)
{
    return CheckHandle(checkName, handle, offsetof(Record, m_Tag), tag, holds);
}

// What a block holds, in this order.
struct NamedBlockLayout {
    SIZE_T RecordSize;
    SIZE_T ExtraSize = 0; // of bytes that start at a multiple of 64 and end where the name begins
    USHORT NameLength;
    USHORT TerminatorSize = 2; // of the zero bytes behind the name; its maximum length includes them
    SIZE_T TailSize = 0;
};

// Such a block, filled with zeros. `name` is set to the room for the characters, which the caller fills. nullptr when
// no memory is left.
PVOID AllocateNamedBlock(const NamedBlockLayout& layout, ULONG tag, STRING* name);

// The characters of a name; of an empty one the address may be null.
inline VOID CopyText(PCHAR destination, const CHAR* source, USHORT length)
{
    if (length != 0) {
        RtlCopyMemory(destination, source, length);
    }
}

// Hands out a copy of a name, a STRING or UNICODE_STRING, in a block of its own. No memory: success, and nothing is
// written.
template <class String>
FILTER_STATUS CopyNameOut(PCSTR functionName, const String& name, ULONG tag, String** ppName)
{
    STRING room;
    const NamedBlockLayout layout{.RecordSize = sizeof(String), .NameLength = LoadRelaxed(name.Length)};
    String* copy = static_cast<String*>(AllocateNamedBlock(layout, tag, &room));
    if (copy == nullptr) {
        return FILTER_STATUS_SUCCESS;
    }
    copy->Length = room.Length;
    copy->MaximumLength = room.MaximumLength;
    copy->Buffer = reinterpret_cast<decltype(copy->Buffer)>(room.Buffer);
    const NTSTATUS code = Guarded([&] {
        CopyText(room.Buffer, reinterpret_cast<const CHAR*>(name.Buffer), room.Length);
        *ppName = copy;
    });
    if (code != 0) {
        Filter_FreeMemory(copy);
        return ExceptionStatus(functionName, code);
    }
    return FILTER_STATUS_SUCCESS;
}

// A registration of a record under a name that must be unique in its list.
template <class Record>
struct NamedRegistration {
    PCSTR FunctionName;
    const STRING* Name; // the caller's
    Record** Handle;    // the caller's output
    NDIS_RW_LOCK& Lock;
    RecordList<Record>& List;
    STRING Record::*NameField;
    FILTER_STATUS KnownStatus; // when the list holds the name already
    ULONG PoolTag;
    SIZE_T ExtraSize = 0; // this and the next two as in NamedBlockLayout
    USHORT TerminatorSize = 2;
    SIZE_T TailSize = 0;
    const VOID* TailData = nullptr; // the caller's, what the tail is to hold
};

// `fill` sets the fields of the new record but its name, and places it in the list. Runs under the list's lock, and
// touches the caller's memory there in guards, so that a fault neither keeps the lock nor leaves a record behind. No
// memory: success, and the output is not written.
template <class Record, class Fill>
FILTER_STATUS RegisterNamed(const NamedRegistration<Record>& registration, const Fill& fill)
{
    const STRING name = *registration.Name; // read once: the record has room for this length
    NTSTATUS code;
    {
        WriteLock lock(registration.Lock);
        BOOLEAN known = FALSE;
        code = Guarded([&] {
            for (const Record& entry : registration.List) {
                if (Filter_CompareString(&(entry.*registration.NameField), &name) == 0) {
                    known = TRUE;
                    return;
                }
            }
        });
        if (code == 0 && known) {
            return registration.KnownStatus;
        }
        if (code == 0) {
            STRING room;
            const NamedBlockLayout layout{.RecordSize = sizeof(Record),
                                          .ExtraSize = registration.ExtraSize,
                                          .NameLength = name.Length,
                                          .TerminatorSize = registration.TerminatorSize,
                                          .TailSize = registration.TailSize};
            Record* record = static_cast<Record*>(AllocateNamedBlock(layout, registration.PoolTag, &room));
            if (record == nullptr) {
                return FILTER_STATUS_SUCCESS;
            }
            record->*registration.NameField = room;
            fill(*record);
            code = Guarded([&] {
                CopyText(room.Buffer, name.Buffer, name.Length);
                if (registration.TailData != nullptr) {
                    RtlCopyMemory(room.Buffer + name.Length + registration.TerminatorSize, registration.TailData,
                                  registration.TailSize);
                }
                *registration.Handle = record;
            });
            if (code != 0) {
                RecordList<Record>::Unlink(*record);
                Filter_FreeMemory(record);
            }
        }
    }
    return code == 0 ? FILTER_STATUS_SUCCESS : ExceptionStatus(registration.FunctionName, code);
}

// A registration of a record of which each driver has at most one, at the tail of a list.
template <class Record>
struct OwnedRegistration {
    PCSTR FunctionName;
    FilterDriver* Owner;
    Record** Handle; // the caller's output
    RecordList<Record>& List;
    FILTER_STATUS KnownStatus; // when the owner has one already
    ULONG RecordTag;
    ULONG PoolTag;
};

// `fill` sets the fields of the new record but its tag and owner. Runs under the list's lock, of the guard type
// Lock, and writes the caller's output there in a guard, so that a fault neither keeps the lock nor leaves a record
// behind. No memory: success, and the output is not written.
template <class Lock, class LockStorage, class Record, class Fill>
FILTER_STATUS RegisterOwned(LockStorage& storage, const OwnedRegistration<Record>& registration,
                            const Fill& fill)
{
    NTSTATUS code;
    {
        Lock lock(storage);
        for (const Record& entry : registration.List) {
            if (entry.m_hFilterDriver == registration.Owner) {
                return registration.KnownStatus;
            }
        }
        Record* record = static_cast<Record*>(AllocateZeroed(sizeof(Record), registration.PoolTag));
        if (record == nullptr) {
            return FILTER_STATUS_SUCCESS;
        }
        record->m_Tag = registration.RecordTag;
        record->m_hFilterDriver = registration.Owner;
        fill(*record);
        code = Guarded([&] { *registration.Handle = record; });
        if (code == 0) {
            registration.List.Append(*record);
        } else {
            Filter_FreeMemory(record);
        }
    }
    return code == 0 ? FILTER_STATUS_SUCCESS : ExceptionStatus(registration.FunctionName, code);
}

// Unlinks a record by its address, unless the list does not hold it or another driver owns it. The handle may be
// stale: it is not looked into before it was found.
template <class Lock, class LockStorage, class Record>
FILTER_STATUS UnlinkOwned(LockStorage& storage, const RecordList<Record>& list, Record* record,
                          const FilterDriver* owner, FILTER_STATUS notFound, FILTER_STATUS wrongOwner)
{
    Lock lock(storage);
    if (!list.Contains(record)) {
        return notFound;
    }
    if (record->m_hFilterDriver != owner) {
        return wrongOwner;
    }
    RecordList<Record>::Unlink(*record);
    return FILTER_STATUS_SUCCESS;
}
