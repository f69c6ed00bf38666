// The name of the current process. No documented function gives it: the place where a process object keeps it
// is found in that of the system process, whose name is known.
#include "tdi-internal.h"

namespace
{

constexpr CHAR SystemName[] = {'S', 'y', 's', 't', 'e', 'm'};
constexpr ULONG SearchedBytes = 3 * PAGE_SIZE;
constexpr ULONG NameCharacters = KS_PROCESS_NAME_SIZE - 1;
constexpr CHAR UnknownName[] = "???";

ULONG nameOffset; // 0: unknown

} // namespace

// The object may end before the searched range does: pages that are not there are not looked at.
VOID KS_InitProcessNameOffset(VOID)
{
    PUCHAR process = reinterpret_cast<PUCHAR>(PsGetCurrentProcess());
    PUCHAR validEnd = process; // what lies before it can be read
    nameOffset = 0;
    for (ULONG offset = 0; offset < SearchedBytes; ++offset) {
        PUCHAR place = process + offset;
        while (place + sizeof(SystemName) > validEnd) {
            if (!MmIsAddressValid(validEnd)) {
                return;
            }
            validEnd = static_cast<PUCHAR>(PAGE_ALIGN(validEnd)) + PAGE_SIZE;
        }
        if (RtlCompareMemory(place, SystemName, sizeof(SystemName)) == sizeof(SystemName)) {
            nameOffset = offset;
            return;
        }
    }
}

BOOLEAN KS_GetCurrentProcessName(PCHAR Name)
{
    if (nameOffset == 0) {
        RtlCopyMemory(Name, UnknownName, sizeof(UnknownName));
        return FALSE;
    }
    RtlCopyMemory(Name, reinterpret_cast<PUCHAR>(PsGetCurrentProcess()) + nameOffset, NameCharacters);
    Name[NameCharacters] = 0;
    return TRUE;
}
