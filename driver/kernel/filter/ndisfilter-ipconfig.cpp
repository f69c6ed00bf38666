// The IP configuration that an adapter carries. The counts in it are not trusted: every walk over a group ends
// where the record does.
#include "ndisfilter-internal.h"

namespace
{

constexpr SIZE_T AddressTextSize = sizeof("255.255.255.255");

// FALSE for offsets behind the record's end, where a count may lead.
BOOLEAN HoldsWord(SIZE_T offset)
{
    return offset + sizeof(ULONG) <= sizeof(IPConfig);
}

PUCHAR WordAt(IPConfig* config, SIZE_T offset)
{
    return reinterpret_cast<PUCHAR>(config) + offset;
}

ULONG ReadWord(const IPConfig& config, SIZE_T offset)
{
    ULONG value;
    RtlCopyMemory(&value, reinterpret_cast<const UCHAR*>(&config) + offset, sizeof(value));
    return value;
}

struct WordGroup {
    PCSTR Format; // of an element's index and text
    SIZE_T Offset;
};

// Prints the elements of one count, one line for each group that it counts.
template <SIZE_T Groups>
VOID DumpElements(const IPConfig& config, ULONG count, const WordGroup (&groups)[Groups])
{
    for (ULONG i = 0; i < count; i++) {
        for (const WordGroup& group : groups) {
            const SIZE_T offset = group.Offset + SIZE_T{i} * Groups * sizeof(ULONG);
            if (!HoldsWord(offset)) {
                return;
            }
            CHAR text[AddressTextSize];
            DbgPrint(group.Format, i, inet_ntoa(ReadWord(config, offset), text, sizeof(text)));
        }
    }
}

VOID DumpIPConfig(const IPConfig& config)
{
    constexpr SIZE_T triples = offsetof(IPConfig, m_Address);
    constexpr WordGroup addresses[] = {
        {"- IpAddress[%d] = %s\n", triples + offsetof(IPConfigAddress, IpAddress)},
        {"- Netmask[%d]   = %s\n", triples + offsetof(IPConfigAddress, Netmask)},
        {"- Broadcast[%d] = %s\n", triples + offsetof(IPConfigAddress, Broadcast)},
    };
    constexpr WordGroup routers[] = {{"- RouterAddr[%d] = %s\n", offsetof(IPConfig, RouterAddr)}};
    constexpr WordGroup dhcpServers[] = {{"- DhcpServer[%d] = %s\n", offsetof(IPConfig, DhcpServer)}};
    constexpr WordGroup dnsServers[] = {{"- DnsServer[%d]  = %s\n", offsetof(IPConfig, DnsServer)}};
    if (!TraceEnabled(TRACE_ADAPTER)) {
        return;
    }
    DbgPrint("- hAdapter = 0x%p\n", config.hAdapter);
    DbgPrint("- m_nIP    = %d\n", config.m_nIP);
    DumpElements(config, config.m_nIP, addresses);
    DbgPrint("- m_nGW    = %d\n", config.m_nGW);
    DumpElements(config, config.m_nGW, routers);
    DbgPrint("- m_nDHCP  = %d\n", config.m_nDHCP);
    DumpElements(config, config.m_nDHCP, dhcpServers);
    DbgPrint("- m_nDNS   = %d\n", config.m_nDNS);
    DumpElements(config, config.m_nDNS, dnsServers);
    CHAR text[AddressTextSize];
    inet_ntoa(config.WinsServer1, text, sizeof(text));
    DbgPrint("- WinsServer1 = %s\n", text);
    DbgPrint("- WinsServer2 = %s\n", text); // the first server's address, as readers of this dump know it
}

// Stores the broadcast address of each triple that m_nIP counts, in both the copy and the caller's record.
// Triples behind the eighth lie over the fields that follow, and change those.
VOID ComputeBroadcasts(IPConfig& config, IPConfig* callers)
{
    constexpr SIZE_T triples = offsetof(IPConfig, m_Address);
    for (ULONG i = 0; i < config.m_nIP; i++) {
        const SIZE_T triple = triples + SIZE_T{i} * sizeof(IPConfigAddress);
        const SIZE_T target = triple + offsetof(IPConfigAddress, Broadcast);
        if (!HoldsWord(target)) {
            return;
        }
        const ULONG broadcast =
            SubnetBroadcastAddress(ReadWord(config, triple + offsetof(IPConfigAddress, IpAddress)),
                                   ReadWord(config, triple + offsetof(IPConfigAddress, Netmask)));
        RtlCopyMemory(WordAt(&config, target), &broadcast, sizeof(broadcast));
        StoreBytesRelaxed(WordAt(callers, target), &broadcast,
                          sizeof(broadcast)); // it may be the adapter's own
    }
}

} // namespace

FILTER_STATUS Filter_SetIPConfig(IPConfig* pConfig)
{
    constexpr CallTrace trace{"Filter_SetIPConfig", TRACE_ADAPTER};
    return TracedCall(trace, [&]() -> FILTER_STATUS {
        if (pConfig == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        FilterAdapter* hAdapter;
        CopyRelaxed(&hAdapter, &pConfig->hAdapter, sizeof(hAdapter));
        if (!Filter_IsValidAdapter(hAdapter)) {
            return FILTER_ERROR_INVALID_ADAPTER_HANDLE;
        }
        IPConfig config;
        CopyRelaxed(&config, pConfig, sizeof(config));
        config.hAdapter = hAdapter; // the one that was checked
        ComputeBroadcasts(config, pConfig);
        IPConfig present;
        CopyRelaxed(&present, &hAdapter->m_IPConfig, sizeof(present));
        if (RtlEqualMemory(&config, &present, sizeof(config))) {
            Trace(TRACE_ADAPTER, "No IP Address change, ignore\n");
            return FILTER_STATUS_SUCCESS;
        }
        StoreBytesRelaxed(&hAdapter->m_IPConfig, &config, sizeof(config));
        DumpIPConfig(config);
        const NTSTATUS code = DeliverAdapterEvent(FILTER_EVENT_IPCONFIG_CHANGED, hAdapter);
        return code == 0 ? FILTER_STATUS_SUCCESS : ExceptionStatus(trace.Name, code);
    });
}

IPConfig* Filter_GetIPConfig(FilterAdapter* hAdapter, IPConfig* pConfig)
{
    constexpr PCSTR name = "Filter_GetIPConfig";
    Trace(TRACE_ADAPTER, "Enter Filter_GetIPConfig\n");
    if (!Filter_IsValidAdapter(hAdapter)) {
        Trace(TRACE_ADAPTER, "Leave Filter_GetIPConfig, Invalid adapter\n");
        return nullptr;
    }
    IPConfig* result = &hAdapter->m_IPConfig;
    const NTSTATUS code = Guarded([&] {
        IPConfig present;
        CopyRelaxed(&present, result, sizeof(present));
        if (pConfig != nullptr) {
            RtlCopyMemory(pConfig, &present, sizeof(present));
        }
        DumpIPConfig(present);
    });
    if (code != 0) {
        PrintException(name, code);
        result = nullptr;
    }
    Trace(TRACE_ADAPTER, "Leave Filter_GetIPConfig, 0x%p\n", result);
    return result;
}
