// What the framework answers to diagnostic commands: who it is, and its state list by list.
#include "ndisfilter-diag.h"
#include "ndisfilter-hook-fields.h"

extern const CHAR g_szBuildDate[] = __DATE__;
extern const CHAR g_szBuildTime[] = __TIME__;

namespace
{

constexpr PCSTR DIAG_NAME = "filter";
constexpr PCSTR DIAG_NAME_OF_ALL = "driver";
constexpr PCSTR DRIVER_TITLE = "NDIS Packet Filter Driver";

// "adaptert" is what readers of this text know; the command is "adapter".
constexpr PCSTR HELP = "show info - print driver info\n"
                       "show hookapi - print NDIS Hook API\n"
                       "show shmem - print share memory info\n"
                       "show adaptert - print adapter list\n"
                       "show driver - print filter driver list\n"
                       "show filter - print packet filter\n"
                       "show timer - print timer info\n"
                       "show ioctl - print IOCTL handler\n";

CHAR ToLower(CHAR c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<CHAR>(c - 'A' + 'a') : c;
}

BOOLEAN EqualNames(PCSTR a, PCSTR b)
{
    while (*a != 0 && ToLower(*a) == ToLower(*b)) {
        a++;
        b++;
    }
    return ToLower(*a) == ToLower(*b);
}

// Prints into the reply.
struct DiagPrinter {
    Diag* Reply;

    template <class... Arguments>
    VOID operator()(PCSTR format, Arguments... arguments) const
    {
        Filter_DiagPrint(Reply, format, arguments...);
    }
};

VOID ShowHookApi(const DiagPrinter& print)
{
    ForEachVersionAndFunction(Global().m_NdisHookAPI,
                              [&](PCSTR name, PVOID value) { print(" - %s = 0x%p\n", name, value); });
}

VOID ShowSharedMemory(const DiagPrinter& print)
{
    const NdisFilterDeviceExtension& global = Global();
    print("- m_pMappedMemory = 0x%p\n", global.m_pMappedMemory);
    print("- m_bStopShare = %s\n", BooleanText(LoadRelaxed(global.m_bStopShare)));
    print("- m_pPendingReadIrp = 0x%p\n", LoadRelaxed(global.m_pPendingReadIrp));
    PrintRings(print);
    print("- m_nNdisHelperWorkThread = %d\n", LoadRelaxed(global.m_nNdisHelperWorkThread));
    PrintShareThreads(print);
}

template <class Record>
VOID ShowRecords(const DiagPrinter& print, NDIS_RW_LOCK& lock, const RecordList<Record>& list)
{
    ForEachLocked<ReadLock>(lock, list, [&](const Record& record) { PrintRecord(print, record); });
}

VOID ShowDrivers(const DiagPrinter& print)
{
    ShowRecords(print, Global().m_FilterDriverLock, Global().m_FilterDriverList);
}

VOID ShowFilters(const DiagPrinter& print)
{
    for (FILTER_TYPE type = 0; type < FILTER_TYPE_COUNT; type++) {
        Filter_DiagFilter(print.Reply, type);
    }
}

VOID ShowTimers(const DiagPrinter& print)
{
    ShowRecords(print, Global().m_FilterTimerLock, Global().m_FilterTimerList);
}

VOID ShowIoCtrlHandlers(const DiagPrinter& print)
{
    ShowRecords(print, Global().m_IoCtrlHandlerLock, Global().m_IoCtrlHandlerList);
}

struct ShowCommand {
    PCSTR Word;
    VOID (*Show)(const DiagPrinter& print);
};

constexpr ShowCommand SHOW_COMMANDS[] = {
    {"info", PrintDevice<DiagPrinter>},
    {"hookapi", ShowHookApi},
    {"shmem", ShowSharedMemory},
    {"adapter", PrintAdapterTable<DiagPrinter>},
    {"driver", ShowDrivers},
    {"filter", ShowFilters},
    {"timer", ShowTimers},
    {"ioctl", ShowIoCtrlHandlers},
};

// At least one word is given.
VOID AnswerOwnCommand(const DiagPrinter& print, LONG count, const PCHAR* words)
{
    if (count == 1 || EqualNames(words[0], "help")) {
        print("help - print this messages\n");
        print("%s", HELP);
        return;
    }
    if (EqualNames(words[0], "show")) {
        for (const ShowCommand& command : SHOW_COMMANDS) {
            if (EqualNames(words[1], command.Word)) {
                command.Show(print);
                return;
            }
        }
    }
    print("unsupport command %s\n", words[0]);
}

VOID PrintFilter(const DiagPrinter& print, const PacketFilter& filter, ULONG position)
{
    const PacketFilterCounters counters = SumFilterCounters(filter);
    print("- Filter[%d]\n", position);
    PrintName(print, "  - m_FilterName      = %*.*s\n", filter.m_FilterName);
    print("  - m_hFilterDriver   = 0x%p\n", filter.m_hFilterDriver);
    print("  - m_pDriverContext  = 0x%p\n", filter.m_pDriverContext);
    print("  - m_pfFilterProc    = 0x%p\n", AddressOf(filter.m_pfFilterProc));
    print("  - m_pFilterContext  = 0x%p\n", filter.m_pFilterContext);
    print("  - m_FilterType      = %ld - %s\n", filter.m_FilterType, Filter_TypeString(filter.m_FilterType));
    print("  - m_FilterOrder     = %lu - %s\n", filter.m_FilterOrder,
          Filter_OrderString(static_cast<FILTER_ORDER>(filter.m_FilterOrder)));
    print("  - m_PacketProcess   = %ld\n", counters.m_PacketProcess);
    print("  - m_PacketBypass    = %ld\n", counters.m_PacketBypass);
    print("  - m_PacketDiscard   = %ld\n", counters.m_PacketDiscard);
    print("  - m_PacketConsume   = %ld\n", counters.m_PacketConsume);
    print("  - m_PacketCapture   = %ld\n", counters.m_PacketCapture);
}

} // namespace

NTSTATUS NdisFilter_DiagHandler(const VOID* pInput, ULONG nInputLength, PVOID pOutput, ULONG nOutputLength)
{
    DbgPrint("Enter NdisFilter_DiagHandler\n");
    Diag* diag = nullptr;
    if (Filter_BeginDiag(pInput, nInputLength, pOutput, nOutputLength, &diag) != FILTER_STATUS_SUCCESS) {
        return STATUS_INVALID_PARAMETER;
    }
    const DiagPrinter print{diag};
    const LONG count = diag->m_nArgumentCount;
    const PCHAR* const words = diag->m_ppszArguments;
    if (EqualNames(diag->m_pszDriverName, DIAG_NAME_OF_ALL)) {
        if (count == 0) {
            print("%s - %s, Build at %s %s\n", DIAG_NAME, DRIVER_TITLE, g_szBuildDate, g_szBuildTime);
        } else if (count == 1 && EqualNames(words[0], DIAG_NAME)) {
            print("Select %s - %s\n", DIAG_NAME, DRIVER_TITLE);
            return STATUS_SUCCESS;
        }
    } else if (EqualNames(diag->m_pszDriverName, DIAG_NAME) && count != 0) {
        AnswerOwnCommand(print, count, words);
        return STATUS_SUCCESS;
    }
    return STATUS_NOT_SUPPORTED;
}

FILTER_STATUS Filter_DiagFilter(Diag* pDiag, FILTER_TYPE nType)
{
    // Its trace lines are those of the dump to the debugger.
    constexpr CallTrace trace{
        .Name = "Filter_DumpFilter", .Area = TRACE_CORE, .ExceptionName = "Filter_DiagFilter"};
    return TracedCall(trace, [&]() -> FILTER_STATUS {
        if (static_cast<ULONG>(nType) >= FILTER_TYPE_COUNT) {
            return FILTER_ERROR_INVALID_FILTER_TYPE;
        }
        const DiagPrinter print{pDiag};
        print("Packet Filter(Type = %d - %s)\n", nType, Filter_TypeString(nType));
        ULONG position = 0;
        ForEachLocked<ReadLock>(Global().m_PacketFilterLock[nType], Global().m_PacketFilterList[nType],
                                [&](const PacketFilter& filter) { PrintFilter(print, filter, position++); });
        return FILTER_STATUS_SUCCESS;
    });
}
