// A client filter driver that blocks TCP and UDP ports and IPv4 addresses, in both directions.
//
// Configuration, read once at start from the driver's registry key:
//   BlockPorts      REG_SZ  "23,53"              ports, 1 to 65535
//   BlockAddresses  REG_SZ  "10.0.0.7, 10.0.0.9" IPv4 addresses
#include <ntddk.h>
#include <ndis.h>

#include "ndisfilter.h"

namespace
{

constexpr ULONG kMaxRules = 64; // of each kind

constexpr ULONG kIpHeader = 20; // shortest IPv4 header
constexpr ULONG kIpSource = 12; // offsets in it: RFC 791
constexpr ULONG kIpDestination = 16;
constexpr ULONG kPorts = 4;       // TCP and UDP begin with source and destination port
constexpr ULONG kAllHeaders = 78; // Ethernet, longest IPv4 header and the ports

struct Rule {
    ULONG Value;           // a port, or an address in network order
    volatile LONG Blocked; // frames; filter procedures run on several processors at once
};

struct RuleList {
    PCSTR Kind;
    ULONG Count;
    Rule Rules[kMaxRules];
};

struct Blocker {
    FilterDriver* Driver;
    RuleList Ports;
    RuleList Addresses;
};

Blocker blocker;

// -------------------------------------------------------------------------------------------- configuration

// A part of a configuration text; not terminated.
struct Item {
    const WCHAR* Text;
    ULONG Length; // characters
};

// Takes a decimal number of at most `maximum` from the front of the item. Leading zeros are refused: some
// programs read such numbers as octal ones.
BOOLEAN TakeNumber(Item* item, ULONG maximum, ULONG* number)
{
    ULONG value = 0;
    ULONG digits = 0;
    while (digits < item->Length && item->Text[digits] >= L'0' && item->Text[digits] <= L'9') {
        value = value * 10 + (item->Text[digits] - L'0');
        ++digits;
        if (value > maximum || (digits > 1 && item->Text[0] == L'0')) {
            return FALSE;
        }
    }
    item->Text += digits;
    item->Length -= digits;
    *number = value;
    return digits > 0;
}

BOOLEAN ParsePort(Item item, ULONG* port)
{
    return TakeNumber(&item, 65535, port) && item.Length == 0 && *port != 0;
}

BOOLEAN ParseAddress(Item item, ULONG* address)
{
    ULONG value = 0;
    for (ULONG octet = 0; octet < 4; ++octet) {
        if (octet > 0) {
            if (item.Length == 0 || item.Text[0] != L'.') {
                return FALSE;
            }
            ++item.Text;
            --item.Length;
        }
        ULONG number;
        if (!TakeNumber(&item, 255, &number)) {
            return FALSE;
        }
        value = value << 8 | number;
    }
    *address = htonl(value);
    return item.Length == 0;
}

Rule* FindRule(RuleList* list, ULONG value)
{
    for (ULONG i = 0; i < list->Count; ++i) {
        if (list->Rules[i].Value == value) {
            return &list->Rules[i];
        }
    }
    return nullptr;
}

typedef BOOLEAN (*ItemParser)(Item item, ULONG* value);

VOID AddRule(RuleList* list, Item item, ItemParser parse)
{
    PCSTR problem = nullptr;
    ULONG value;
    if (!parse(item, &value)) {
        problem = "not valid";
    } else if (FindRule(list, value) != nullptr) {
        problem = "there already";
    } else if (list->Count == kMaxRules) {
        problem = "one too many";
    }
    if (problem != nullptr) {
        DbgPrint("blocker: %s '%.*ws' is %s, ignored\n", list->Kind, static_cast<int>(item.Length), item.Text,
                 problem);
        return;
    }
    list->Rules[list->Count++].Value = value;
}

BOOLEAN IsBlank(WCHAR character)
{
    return character == L' ' || character == L'\t';
}

// Splits a text at its commas; blanks around an item, and items of nothing else, do not count.
VOID AddRules(RuleList* list, Item text, ItemParser parse)
{
    ULONG begin = 0;
    for (ULONG i = 0; i <= text.Length; ++i) {
        if (i < text.Length && text.Text[i] != L',') {
            continue;
        }
        Item item = {text.Text + begin, i - begin};
        begin = i + 1;
        while (item.Length > 0 && IsBlank(item.Text[0])) {
            ++item.Text;
            --item.Length;
        }
        while (item.Length > 0 && IsBlank(item.Text[item.Length - 1])) {
            --item.Length;
        }
        if (item.Length > 0) {
            AddRule(list, item, parse);
        }
    }
}

VOID ReadRules(PUNICODE_STRING registryPath, PCWSTR name, RuleList* list, ItemParser parse)
{
    UNICODE_STRING value = {0, 0, nullptr};
    if (!Filter_RegGetStringValue(registryPath, name, &value)) {
        DbgPrint("blocker: cannot read %ws as text, nothing blocked by it\n", name);
    } else if (value.Buffer != nullptr) {
        AddRules(list, {value.Buffer, value.Length / static_cast<ULONG>(sizeof(WCHAR))}, parse);
    }
    if (value.Buffer != nullptr) {
        ExFreePool(value.Buffer);
    }
}

// ---------------------------------------------------------------------------------------------- the filter

ULONG ReadAddress(const UCHAR* bytes)
{
    ULONG address;
    RtlCopyMemory(&address, bytes, sizeof(address));
    return address;
}

USHORT ReadPort(const UCHAR* bytes)
{
    return static_cast<USHORT>(bytes[0] << 8 | bytes[1]);
}

// How many bytes of the frame can be read behind m_pEthernet, having fetched the headers where only a leading
// part of them is there. The header pointers are those of the fetched bytes then.
ULONG FetchHeaders(FilterPacket* pPacket)
{
    const BOOLEAN lazy =
        pPacket->m_pEthernet == pPacket->m_Data && !pPacket->m_bDirty &&
        (pPacket->m_pIncomingNdisPacket != nullptr || pPacket->m_pOutgoingNdisPacket != nullptr);
    if (!lazy) {
        return pPacket->m_nPacketSize;
    }
    if (pPacket->m_nBytesRead < pPacket->m_nPacketSize && pPacket->m_nBytesRead < kAllHeaders) {
        Filter_TransferPacketData(pPacket);
        Filter_InitPacketHeader(pPacket, nullptr);
    }
    return pPacket->m_nBytesRead;
}

// Whether `length` bytes at a header lie inside the frame: the parser looks at no length, so its pointers may
// lie behind the end of a short frame.
BOOLEAN IsInside(const FilterPacket* pPacket, ULONG available, const UCHAR* pHeader, ULONG length)
{
    const ULONG_PTR offset = static_cast<ULONG_PTR>(pHeader - pPacket->m_pEthernet);
    return offset + length <= available;
}

// The rule that blocks a frame, or null. Only the first fragment of a datagram has ports.
Rule* FindBlockingRule(FilterPacket* pPacket)
{
    const ULONG available = FetchHeaders(pPacket);
    const UCHAR* pIp = pPacket->m_pIp;
    if (pIp == nullptr || !IsInside(pPacket, available, pIp, kIpHeader)) {
        return nullptr;
    }
    Rule* rule = FindRule(&blocker.Addresses, ReadAddress(pIp + kIpSource));
    if (rule == nullptr) {
        rule = FindRule(&blocker.Addresses, ReadAddress(pIp + kIpDestination));
    }
    const UCHAR* pTransport = pPacket->m_pTcp != nullptr ? pPacket->m_pTcp : pPacket->m_pUdp;
    if (rule != nullptr || pTransport == nullptr || !IsInside(pPacket, available, pTransport, kPorts)) {
        return rule;
    }
    rule = FindRule(&blocker.Ports, ReadPort(pTransport));
    return rule != nullptr ? rule : FindRule(&blocker.Ports, ReadPort(pTransport + 2));
}

FILTER_RESULT BlockPacket(FilterDriver*, PVOID, PacketFilter*, PVOID, FilterPacket* pPacket)
{
    Rule* rule = FindBlockingRule(pPacket);
    if (rule == nullptr) {
        return FILTER_RESULT_BYPASS;
    }
    InterlockedIncrement(&rule->Blocked);
    return FILTER_RESULT_DISCARD;
}

// ------------------------------------------------------------------------------------------ start and stop

char driverName[] = "blocker";
char incomingName[] = "blocker-incoming";
char outgoingName[] = "blocker-outgoing";

template <size_t Size>
STRING CountedName(char (&text)[Size])
{
    return {static_cast<USHORT>(Size - 1), static_cast<USHORT>(Size), text};
}

NTSTATUS RegisterFilter(STRING name, FILTER_TYPE nType)
{
    // Success without a handle: the framework had no memory for the filter.
    PacketFilter* hFilter = nullptr;
    const FILTER_STATUS status = Filter_RegisterFilter(blocker.Driver, &name, BlockPacket, nullptr, nType,
                                                       FILTER_ORDER_FIRST, &hFilter);
    if (status != FILTER_STATUS_SUCCESS || hFilter == nullptr) {
        DbgPrint("blocker: cannot register %s: %s\n", name.Buffer,
                 status != FILTER_STATUS_SUCCESS ? Filter_StatusString(status) : "no memory");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return STATUS_SUCCESS;
}

NTSTATUS Register()
{
    STRING name = CountedName(driverName);
    blocker.Driver = nullptr;
    const FILTER_STATUS status = Filter_RegisterDriver(&name, &blocker, 1, 0, &blocker.Driver);
    if (status != FILTER_STATUS_SUCCESS || blocker.Driver == nullptr) {
        DbgPrint("blocker: cannot register as a client driver: %s\n",
                 status != FILTER_STATUS_SUCCESS ? Filter_StatusString(status) : "no memory");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    NTSTATUS result = RegisterFilter(CountedName(incomingName), FILTER_TYPE_INCOMING_PACKET);
    if (NT_SUCCESS(result)) {
        result = RegisterFilter(CountedName(outgoingName), FILTER_TYPE_OUTGOING_PACKET);
    }
    if (!NT_SUCCESS(result)) {
        Filter_DeregisterDriver(blocker.Driver); // and with it a filter that is there
    }
    return result;
}

VOID DriverUnload(PDRIVER_OBJECT)
{
    Filter_DeregisterDriver(blocker.Driver);
    // No filter procedure runs any more: the counters are final.
    for (ULONG i = 0; i < blocker.Ports.Count; ++i) {
        const Rule& rule = blocker.Ports.Rules[i];
        DbgPrint("blocker: port %u: %u frames blocked\n", rule.Value, static_cast<ULONG>(rule.Blocked));
    }
    for (ULONG i = 0; i < blocker.Addresses.Count; ++i) {
        const Rule& rule = blocker.Addresses.Rules[i];
        char text[16];
        DbgPrint("blocker: address %s: %u frames blocked\n", inet_ntoa(rule.Value, text, sizeof(text)),
                 static_cast<ULONG>(rule.Blocked));
    }
}

} // namespace

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath)
{
    blocker = {};
    blocker.Ports.Kind = "port";
    blocker.Addresses.Kind = "address";
    ReadRules(RegistryPath, L"BlockPorts", &blocker.Ports, ParsePort);
    ReadRules(RegistryPath, L"BlockAddresses", &blocker.Addresses, ParseAddress);
    DbgPrint("blocker: %u ports and %u addresses to block\n", blocker.Ports.Count, blocker.Addresses.Count);
    DriverObject->DriverUnload = DriverUnload;
    return Register();
}
