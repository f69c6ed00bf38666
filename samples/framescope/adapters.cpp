// Adapters: what is known of them, and what can be changed.
#include "framescope.h"

using namespace sample;

namespace
{

constexpr ULONG kMacBytes = 6;
constexpr ULONG kMacText = 18;
constexpr ULONG kAddressText = 16;

PCSTR YesNo(BOOLEAN value)
{
    return value ? "yes" : "no";
}

VOID PrintName(Diag* pDiag, FilterAdapter* hAdapter)
{
    UNICODE_STRING* pName = nullptr;
    if (Filter_GetAdapterName(hAdapter, &pName) != FILTER_STATUS_SUCCESS || pName == nullptr) {
        return;
    }
    char text[64]; // wide texts can only be printed at PASSIVE_LEVEL
    ULONG length = 0;
    for (; length < pName->Length / sizeof(WCHAR) && length < sizeof(text) - 1; ++length) {
        text[length] = pName->Buffer[length] < 0x80 ? static_cast<CHAR>(pName->Buffer[length]) : '?';
    }
    text[length] = 0;
    Filter_DiagPrint(pDiag, "  name %s\n", text);
    Filter_FreeMemory(pName);
}

VOID PrintMac(Diag* pDiag, PCSTR what, FILTER_STATUS status, const UCHAR* mac)
{
    char text[kMacText];
    Filter_DiagPrint(pDiag, "  %s %s\n", what,
                     status == FILTER_STATUS_SUCCESS ? inet_mtoa(mac, text, sizeof(text))
                                                     : Filter_StatusString(status));
}

VOID PrintAddresses(Diag* pDiag, FilterAdapter* hAdapter)
{
    IPConfig config;
    if (Filter_GetIPConfig(hAdapter, &config) == nullptr) {
        return;
    }
    for (ULONG i = 0; i < config.m_nIP && i < RTL_NUMBER_OF(config.m_Address); ++i) {
        const IPConfigAddress& address = config.m_Address[i];
        char text[3][kAddressText];
        const ULONG broadcast = SubnetBroadcastAddress(address.IpAddress, address.Netmask);
        Filter_DiagPrint(pDiag, "  address %s, %u hosts, broadcast %s%s\n",
                         inet_ntoa(address.IpAddress, text[0], kAddressText), ~ntohl(address.Netmask),
                         inet_ntoa(broadcast, text[1], kAddressText),
                         IsBroadcastAddress(broadcast) ? "" : " (which does not end in 255)");
    }
}

BOOLEAN PrintAdapter(PVOID pContext, FilterAdapter* hAdapter)
{
    Diag* const pDiag = static_cast<Diag*>(pContext);
    ULONG id = 0;
    ULONG media = 0;
    ULONG medium = 0;
    USHORT mtu = 0;
    BOOLEAN isWan = FALSE;
    UCHAR mac[kMacBytes] = {};
    Filter_AdapterToId(hAdapter, &id);
    Filter_GetAdapterMediaState(hAdapter, &media);
    Filter_GetAdapterMediumType(hAdapter, &medium);
    Filter_GetAdapterMtu(hAdapter, &mtu);
    Filter_IsNdisWanAdapter(hAdapter, &isWan);
    Filter_DiagPrint(pDiag, "adapter %u%s: MTU %u, medium %u, media state %u, PPP %s\n", id,
                     hAdapter == Filter_GetFirstAdapter() ? " (the first)" : "", mtu, medium, media,
                     YesNo(isWan));
    PrintName(pDiag, hAdapter);
    PrintMac(pDiag, "permanent address", Filter_GetAdapterPermentAddress(hAdapter, mac), mac);
    PrintMac(pDiag, "PPP source", Filter_GetAdapterPPPSrcMacAddress(hAdapter, mac), mac);
    PrintMac(pDiag, "PPP destination", Filter_GetAdapterPPPDstMacAddress(hAdapter, mac), mac);
    const FILTER_STATUS status = Filter_GetAdapterCurrentAddress(hAdapter, mac);
    PrintMac(pDiag, "current address", status, mac);
    PrintAddresses(pDiag, hAdapter);
    return TRUE;
}

// The adapter that a word names: an identifier, or the beginning of a name.
FilterAdapter* FindAdapter(PCSTR word)
{
    ULONG id;
    FilterAdapter* hAdapter = nullptr;
    const FILTER_STATUS status = ParseNumber(word, 0xFFFFFFFF, &id)
                                     ? Filter_IdToAdapter(id, &hAdapter)
                                     : Filter_FindAdapterByNetCfgInstanceId(word, &hAdapter);
    return status == FILTER_STATUS_SUCCESS && Filter_IsValidAdapter(hAdapter) ? hAdapter : nullptr;
}

// An Ethernet header of a PPP adapter begins with addresses that somebody chooses: these are of the private kind.
FILTER_STATUS ChoosePppAddresses(FilterAdapter* hAdapter)
{
    constexpr UCHAR kSource[kMacBytes] = {0x02, 0, 0, 0, 0, 0x01};
    constexpr UCHAR kDestination[kMacBytes] = {0x02, 0, 0, 0, 0, 0x02};
    const FILTER_STATUS status = Filter_SetAdapterPPPSrcMacAddress(hAdapter, kSource);
    return status == FILTER_STATUS_SUCCESS ? Filter_SetAdapterPPPDstMacAddress(hAdapter, kDestination)
                                           : status;
}

FILTER_STATUS ToggleDump(const UCHAR* mac)
{
    BOOLEAN isOn = FALSE;
    const FILTER_STATUS status = Filter_GetAdapterPacketDump(mac, &isOn);
    return status == FILTER_STATUS_SUCCESS ? Filter_SetAdapterPacketDump(mac, !isOn) : status;
}

FILTER_STATUS ForgetAddresses(FilterAdapter* hAdapter)
{
    IPConfig config = {};
    config.hAdapter = hAdapter;
    return Filter_SetIPConfig(&config);
}

// Left to the timer: the hook driver may wait.
FILTER_STATUS LeaveMediaErrand(const UCHAR* mac, ULONG state)
{
    Filter_AcquireLock(&scope.Lock);
    RtlCopyMemory(scope.ErrandMac, mac, kMacBytes);
    Filter_ReleaseLock(&scope.Lock);
    InterlockedExchange(&scope.WantedMedia, static_cast<LONG>(state));
    return Filter_StartTimer(scope.Errand, 1);
}

} // namespace

VOID AnswerAdapters(Diag* pDiag)
{
    Filter_EnumAdapter(scope.Driver, PrintAdapter, pDiag);
    if (pDiag->m_nArgumentCount == 2 && IsWord(pDiag->m_ppszArguments[1], "report")) {
        Filter_EnumOpenedAdapter(); // every event handler hears of every adapter once more
    }
    static AdapterList list; // the framework lets one diagnostic run at a time
    const FILTER_STATUS status = Filter_GetTcpIpBoundAdapters(&list);
    if (status == FILTER_STATUS_SUCCESS) {
        Filter_DiagPrint(pDiag, "the hook driver counts %u\n", list.m_nAdapterCount);
    } else {
        Filter_DiagPrint(pDiag, "the hook driver counts none: %s\n", Filter_StatusString(status));
    }
}

VOID AnswerAdapter(Diag* pDiag)
{
    const LONG count = pDiag->m_nArgumentCount;
    FilterAdapter* const hAdapter = count > 1 ? FindAdapter(pDiag->m_ppszArguments[1]) : nullptr;
    UCHAR mac[kMacBytes];
    FilterAdapter* hSame = nullptr;
    if (hAdapter == nullptr || Filter_GetAdapterCurrentAddress(hAdapter, mac) != FILTER_STATUS_SUCCESS ||
        Filter_FindAdapterByMacAddress(mac, &hSame) != FILTER_STATUS_SUCCESS) {
        Filter_DiagPrint(pDiag, "adapter: name one by its identifier or the beginning of its name\n");
        return;
    }
    PCSTR const verb = count > 2 ? pDiag->m_ppszArguments[2] : "";
    ULONG value = 0;
    const BOOLEAN hasValue = count == 4 && ParseNumber(pDiag->m_ppszArguments[3], 255, &value);
    FILTER_STATUS status;
    if (IsWord(verb, "dump")) {
        status = ToggleDump(mac);
    } else if (IsWord(verb, "ppp")) {
        status = ChoosePppAddresses(hAdapter);
    } else if (IsWord(verb, "forget-ip")) {
        status = ForgetAddresses(hAdapter);
    } else if (IsWord(verb, "congestion") && hasValue) {
        status = Filter_SetAdapterCongestionControl(hAdapter, static_cast<BOOLEAN>(value));
    } else if (IsWord(verb, "media") && hasValue) {
        status = LeaveMediaErrand(mac, value);
    } else {
        Filter_DiagPrint(pDiag, "adapter ID dump|ppp|forget-ip|congestion 0/1|media STATE\n");
        return;
    }
    Filter_DiagPrint(pDiag, "%s: %s\n", verb, Filter_StatusString(status));
}

VOID RunErrand(FilterDriver*, PVOID, FilterTimer*, PVOID)
{
    UCHAR mac[kMacBytes];
    Filter_AcquireLock(&scope.Lock);
    RtlCopyMemory(mac, scope.ErrandMac, kMacBytes);
    Filter_ReleaseLock(&scope.Lock);
    ULONGLONG before = 0; // the hook driver decides how many bytes it writes
    FILTER_STATUS status = Filter_GetAdapterMediaStateByMac(mac, &before);
    if (status == FILTER_STATUS_SUCCESS) {
        status = Filter_SetAdapterMediaStateByMac(mac, static_cast<UCHAR>(Read(&scope.WantedMedia)));
    }
    DbgPrint("framescope: media state %u before, forced to %u: %s\n", static_cast<ULONG>(before),
             Read(&scope.WantedMedia), Filter_StatusString(status));
}
