// The diagnostic channel: takes a command apart, hands it to the drivers that are asked, and collects their texts.
#include "ndisfilter-internal.h"

namespace
{

constexpr ULONG COMMAND_SIZE = NDIS_FILTER_DIAG_COMMAND_SIZE + 1;
constexpr LONG ARGUMENT_COUNT = 16;
constexpr LONG MANY_TEXTS = 1024; // more than handlers print into one reply

// Of the one diagnostic that runs.
CHAR s_szCommand[COMMAND_SIZE];
PCHAR s_pszArguments[ARGUMENT_COUNT];
LONG s_nArgumentCount;

FILTER_STATUS CheckBuffers(BOOLEAN areGiven, ULONG inputLength, ULONG outputLength)
{
    if (!areGiven) {
        DbgPrint("Invalid arguments: buffer are NULL\n");
        return FILTER_ERROR_INVALID_ARGUMENT;
    }
    if (inputLength == 0 || outputLength == 0) {
        DbgPrint("Invalid arguments: length is 0 or argv buffer size is 0\n");
        return FILTER_ERROR_INVALID_ARGUMENT;
    }
    if (inputLength >= COMMAND_SIZE || outputLength < sizeof(Diag)) {
        DbgPrint("Buffer too small, copy buffer size is less than input buffer\n");
        return FILTER_ERROR_BUFFER_TOO_SMALL;
    }
    return FILTER_STATUS_SUCCESS;
}

// Ends the word at `text` in the command and answers where the next one begins, nullptr when there is none.
PCHAR NextWord(PCHAR text)
{
    while (*text != 0 && *text != ' ') {
        text++;
    }
    if (*text == 0) {
        return nullptr;
    }
    *text++ = 0;
    while (*text == ' ') {
        text++;
    }
    const UCHAR first = static_cast<UCHAR>(*text);
    return first >= 1 && first <= 127 ? text : nullptr;
}

LONG SplitCommand()
{
    LONG count = 0;
    for (PCHAR word = NextWord(s_szCommand); word != nullptr && count < ARGUMENT_COUNT;
         word = NextWord(word)) {
        s_pszArguments[count++] = word;
    }
    return count;
}

VOID PrintCommand(const Diag& diag)
{
    DbgPrint(" - driver = %s\n", diag.m_pszDriverName);
    DbgPrint(" - argc = %d\n", diag.m_nArgumentCount);
    for (LONG i = 0; i < diag.m_nArgumentCount; i++) {
        DbgPrint(" - argv[%d] = %s\n", i, diag.m_ppszArguments[i]);
    }
}

// A handler may bring the buffer of another request, in which the program has written what it likes: it gets a record
// without a command then. The size is the caller's in any case, as texts are written up to it.
VOID MakeTrustworthy(Diag& diag, ULONG outputLength)
{
    static CHAR s_szNone[] = "NULL";
    diag.m_BufferSize = outputLength;
    const BOOLEAN isOwn = diag.m_pszDriverName == s_szCommand && diag.m_ppszArguments == s_pszArguments &&
                          diag.m_nArgumentCount == LoadRelaxed(s_nArgumentCount);
    if (!isOwn) {
        diag.m_pszDriverName = s_szNone;
        diag.m_ppszArguments = s_pszArguments;
        diag.m_nArgumentCount = 0;
    }
    // The bytes used are those of the output, or less than none by one for each text that was too long. With any other
    // number texts would be given rooms of up to four gigabytes.
    const LONGLONG used = static_cast<LONG>(diag.m_BufferUsed);
    if (!isOwn || used < -MANY_TEXTS || used > LONGLONG{outputLength}) {
        diag.m_BufferUsed = 0;
    }
}

// What the formatter answers for a buffer of `room` bytes, which there need not be.
NTSTATUS FormatIntoRoom(ULONG room, PCSTR format, va_list arguments, LONG& result)
{
    result = -1;
    const PCHAR buffer = static_cast<PCHAR>(ExAllocatePool(NonPagedPool, room != 0 ? room : 1));
    if (buffer == nullptr) {
        return STATUS_SUCCESS; // it counts as a text that does not fit
    }
    const NTSTATUS code = Guarded([&] { result = _vsnprintf(buffer, room, format, arguments); });
    ExFreePool(buffer);
    return code;
}

// Formats behind the text so far. The room is reckoned without the record's header, so a text may be longer than what
// is left of the output and fit nevertheless; the output then gets its beginning. `result` is the formatter's.
NTSTATUS Append(Diag& diag, PCSTR format, va_list arguments, LONG& result)
{
    const ULONG room = diag.m_BufferSize - diag.m_BufferUsed;
    const ULONGLONG offset = offsetof(Diag, m_Text) + ULONGLONG{diag.m_BufferUsed};
    result = -1;
    if (offset < diag.m_BufferSize) {
        va_list copy;
        va_copy(copy, arguments);
        const PCHAR end = reinterpret_cast<PCHAR>(&diag) + offset;
        result = _vsnprintf(end, diag.m_BufferSize - static_cast<ULONG>(offset), format, copy);
        va_end(copy);
    }
    return result >= 0 ? STATUS_SUCCESS : FormatIntoRoom(room, format, arguments, result);
}

} // namespace

FILTER_STATUS Filter_PrepareDiag(const VOID* pInput, ULONG nInputLength, PVOID pOutput, ULONG nOutputLength)
{
    BOOLEAN isTaken = FALSE;
    const FILTER_STATUS result = TracedCall({"Filter_PrepareDiag", TRACE_SERVICE}, [&]() -> FILTER_STATUS {
        const BOOLEAN areGiven = pInput != nullptr && pOutput != nullptr;
        const FILTER_STATUS status = CheckBuffers(areGiven, nInputLength, nOutputLength);
        if (status != FILTER_STATUS_SUCCESS) {
            return status;
        }
        if (InterlockedCompareExchange(&Global().m_bDiagInProgress, 1, 0) != 0) {
            DbgPrint("driver diagnostic are in progress\n");
            return FILTER_ERROR_DRIVER_DIAG_IN_PROGRESS;
        }
        isTaken = TRUE;
        DbgPrint(" - InputBufferLength = %d\n", nInputLength);
        DbgPrint(" - pInputBuffer = %*.*s\n", nInputLength, nInputLength, static_cast<PCSTR>(pInput));
        DbgPrint(" - OutputBufferLength = %d\n", nOutputLength);
        DbgPrint(" - pOutputBuffer = 0x%p\n", pOutput);
        RtlZeroMemory(s_szCommand, sizeof(s_szCommand)); // the input leaves the last byte
        RtlCopyMemory(s_szCommand, pInput, nInputLength);
        RtlZeroMemory(s_pszArguments, sizeof(s_pszArguments));

        // What the program has not sent is of the pool, and none of its business.
        PUCHAR const output = static_cast<PUCHAR>(pOutput);
        if (nInputLength < nOutputLength) {
            RtlZeroMemory(output + nInputLength, nOutputLength - nInputLength);
        }
        Diag& diag = *static_cast<Diag*>(pOutput);
        RtlZeroMemory(diag.m_Text, nOutputLength - sizeof(Diag));
        diag.m_BufferSize = nOutputLength;
        diag.m_BufferUsed = 0;
        diag.m_bInitialized = TRUE;
        diag.m_pszDriverName = s_szCommand;
        diag.m_ppszArguments = s_pszArguments;
        const LONG count = SplitCommand();
        StoreRelaxed(s_nArgumentCount, count);
        diag.m_nArgumentCount = count;
        PrintCommand(diag);
        return FILTER_STATUS_SUCCESS;
    });
    // Some kernels raise when they are to print a line as long as a command may be.
    if (isTaken && result != FILTER_STATUS_SUCCESS) {
        Filter_EndDiag();
    }
    return result;
}

VOID Filter_EndDiag()
{
    InterlockedExchange(&Global().m_bDiagInProgress, 0);
}

FILTER_STATUS Filter_BeginDiag(const VOID* pInputBuffer, ULONG nInputLength, PVOID pOutputBuffer,
                               ULONG nOutputLength, Diag** ppDiag)
{
    return TracedCall({"Filter_BeginDiag", TRACE_SERVICE}, [&]() -> FILTER_STATUS {
        const BOOLEAN areGiven = pInputBuffer != nullptr && pOutputBuffer != nullptr && ppDiag != nullptr;
        const FILTER_STATUS status = CheckBuffers(areGiven, nInputLength, nOutputLength);
        if (status != FILTER_STATUS_SUCCESS) {
            return status;
        }
        Diag* const diag = static_cast<Diag*>(pOutputBuffer);
        *ppDiag = diag;
        MakeTrustworthy(*diag, nOutputLength);
        PrintCommand(*diag);
        DbgPrint("pDiag->m_BufferSize = %d\n", diag->m_BufferSize);
        DbgPrint("pDiag->m_BufferUsed = %d\n", diag->m_BufferUsed);
        DbgPrint("pDiag->m_bInitialized = %s\n", BooleanText(diag->m_bInitialized));
        return FILTER_STATUS_SUCCESS;
    });
}

FILTER_STATUS Filter_DiagPrint(Diag* pDiag, PCSTR pszFormat, ...)
{
    constexpr CallTrace trace{"Filter_DiagPrint", TRACE_SERVICE};
    va_list arguments;
    va_start(arguments, pszFormat);
    const FILTER_STATUS status = TracedCall(trace, [&]() -> FILTER_STATUS {
        if (pDiag == nullptr || pszFormat == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        LONG result;
        const NTSTATUS code = Append(*pDiag, pszFormat, arguments, result);
        if (code != 0) {
            return ExceptionStatus(trace.Name, code);
        }
        pDiag->m_BufferUsed += static_cast<ULONG>(result);
        return FILTER_STATUS_SUCCESS;
    });
    va_end(arguments);
    return status;
}
