#include <ntddk.h>

#include <cstdint>

SIZE_T RtlCompareMemory(const VOID* Source1, const VOID* Source2, SIZE_T Length)
{
    const auto* first = static_cast<const UCHAR*>(Source1);
    const auto* second = static_cast<const UCHAR*>(Source2);
    SIZE_T equal = 0;
    while (equal < Length && first[equal] == second[equal])
        equal++;
    return equal;
}

VOID RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString)
{
    constexpr size_t kLongest = (UINT16_MAX & ~1) - sizeof(WCHAR); // bytes, the terminator not counted
    size_t length = 0;
    if (SourceString != nullptr)
        while (SourceString[length] != 0 && length * sizeof(WCHAR) < kLongest)
            length++;
    DestinationString->Length = static_cast<USHORT>(length * sizeof(WCHAR));
    DestinationString->MaximumLength =
        SourceString == nullptr ? USHORT{0} : static_cast<USHORT>((length + 1) * sizeof(WCHAR));
    DestinationString->Buffer = const_cast<PWSTR>(SourceString);
}

VOID RtlInitString(PSTRING DestinationString, PCSTR SourceString)
{
    size_t length = SourceString == nullptr ? 0 : strnlen(SourceString, UINT16_MAX - 1);
    DestinationString->Length = static_cast<USHORT>(length);
    DestinationString->MaximumLength = SourceString == nullptr ? USHORT{0} : static_cast<USHORT>(length + 1);
    DestinationString->Buffer = const_cast<PSTR>(SourceString);
}

VOID RtlInitAnsiString(PANSI_STRING DestinationString, PCSTR SourceString)
{
    RtlInitString(DestinationString, SourceString);
}
