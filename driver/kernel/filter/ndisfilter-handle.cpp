// The handle check behind every Filter_IsValid function, and the blocks that hold a name.
#include "ndisfilter-handle.h"

FILTER_NOT_INSTRUMENTED ULONG ReadUntrustedWord(const volatile VOID* address)
{
    return *static_cast<const volatile ULONG*>(address);
}

BOOLEAN CheckHandle(PCSTR checkName, const VOID* handle, SIZE_T tagOffset, ULONG tag,
                    BOOLEAN (*holds)(const VOID* handle))
{
    ULONG tagRead = 0xFFFFFFFF;
    BOOLEAN valid = FALSE;
    if (handle != nullptr) {
        const NTSTATUS code = Guarded([&] {
            tagRead = ReadUntrustedWord(
                reinterpret_cast<const volatile VOID*>(reinterpret_cast<ULONG_PTR>(handle) + tagOffset));
            valid = tagRead == tag && (holds == nullptr || holds(handle));
        });
        if (code != 0) {
            PrintException(checkName, code);
            return FALSE;
        }
    }
    if (!valid) {
        DbgPrint("%s: Invalid Handle 0x%p, bad tag 0x%x\n", checkName, handle, tagRead);
    }
    return valid;
}

PVOID AllocateNamedBlock(const NamedBlockLayout& layout, ULONG tag, STRING* name)
{
    constexpr SIZE_T ExtraAlignment = 64;
    const SIZE_T slack = layout.ExtraSize != 0 ? ExtraAlignment - 1 : 0;
    PVOID block = AllocateZeroed(layout.RecordSize + slack + layout.ExtraSize + layout.NameLength +
                                     layout.TerminatorSize + layout.TailSize,
                                 tag);
    if (block == nullptr) {
        return nullptr;
    }
    ULONG_PTR behind = reinterpret_cast<ULONG_PTR>(block) + layout.RecordSize;
    if (layout.ExtraSize != 0) {
        behind = (behind + slack) & ~(ExtraAlignment - 1);
    }
    name->Length = layout.NameLength;
    name->MaximumLength = static_cast<USHORT>(layout.NameLength + layout.TerminatorSize);
    name->Buffer = reinterpret_cast<PCHAR>(behind + layout.ExtraSize);
    return block;
}
