// A client filter driver that translates addresses and ports: what is sent to one end point goes to another, and the
// answers seem to come from the first.
//
// Configuration, read once at start from the driver's registry key:
//   Translate  REG_SZ  "10.0.0.80:80=10.0.0.2:8080, ..."  end points of TCP and UDP
#include "../support/sample.h"

using namespace sample;

namespace
{

constexpr char kName[] = "rewriter";
constexpr ULONG kMaxTranslations = 64;

struct EndPoint {
    ULONG Address; // network order
    USHORT Port;   // host order
};

struct Translation {
    EndPoint Asked; // whom the protocols talk to
    EndPoint Real;  // who answers
    volatile LONG Sent;
    volatile LONG Received;
};

struct Rewriter {
    FilterDriver* Driver;
    ULONG Count;
    Translation Translations[kMaxTranslations];
    volatile LONG Skipped;
};

Rewriter rewriter;

// --------------------------------------------------------------------------------------------- configuration

// Reads on while the text agrees. The text ends with a character that fits nowhere.
struct Scanner {
    const WCHAR* At;

    BOOLEAN Take(WCHAR character)
    {
        if (*At != character) {
            return FALSE;
        }
        ++At;
        return TRUE;
    }
    BOOLEAN TakeNumber(ULONG maximum, ULONG* number)
    {
        const WCHAR* const begin = At;
        *number = 0;
        while (*At >= L'0' && *At <= L'9' && *number <= maximum) {
            *number = 10 * *number + static_cast<ULONG>(*At++ - L'0');
        }
        return At != begin && *number <= maximum;
    }
    BOOLEAN TakeEndPoint(EndPoint* end)
    {
        ULONG value = 0;
        ULONG number;
        for (ULONG i = 0; i < 4; ++i) {
            if ((i > 0 && !Take(L'.')) || !TakeNumber(255, &number)) {
                return FALSE;
            }
            value = value << 8 | number;
        }
        if (!Take(L':') || !TakeNumber(65535, &number)) {
            return FALSE;
        }
        end->Address = htonl(value);
        end->Port = static_cast<USHORT>(number);
        return TRUE;
    }
};

BOOLEAN IsSame(const EndPoint& a, const EndPoint& b)
{
    return a.Address == b.Address && a.Port == b.Port;
}

// Each end point stands for one thing only, or answers could not be told apart.
BOOLEAN IsFree(const EndPoint& end)
{
    for (ULONG i = 0; i < rewriter.Count; ++i) {
        if (IsSame(rewriter.Translations[i].Asked, end) || IsSame(rewriter.Translations[i].Real, end)) {
            return FALSE;
        }
    }
    return TRUE;
}

// FALSE: the text is wrong from `scanner` on.
BOOLEAN ParseTranslations(Scanner* scanner)
{
    for (;;) {
        while (scanner->Take(L' ') || scanner->Take(L',')) {
        }
        if (*scanner->At == 0) {
            return TRUE;
        }
        EndPoint asked, real;
        const Scanner begin = *scanner;
        if (!scanner->TakeEndPoint(&asked) || !scanner->Take(L'=') || !scanner->TakeEndPoint(&real) ||
            IsSame(asked, real) || !IsFree(asked) || !IsFree(real) || rewriter.Count == kMaxTranslations) {
            *scanner = begin;
            return FALSE;
        }
        Translation& translation = rewriter.Translations[rewriter.Count++];
        translation.Asked = asked;
        translation.Real = real;
    }
}

VOID ReadTranslations(PUNICODE_STRING registryPath)
{
    UNICODE_STRING value = {0, 0, nullptr};
    if (Filter_RegGetStringValue(registryPath, L"Translate", &value) && value.Buffer != nullptr) {
        // A copy that ends with a zero, as the text from the registry need not.
        UNICODE_STRING text = {0, 0, nullptr};
        if (NT_SUCCESS(Filter_SaveDriverRegistryPath(&value, &text))) {
            Scanner scanner = {text.Buffer};
            if (!ParseTranslations(&scanner)) {
                DbgPrint("rewriter: '%ws' is no translation, one of an end point named before, or one too many; "
                         "it and what follows are ignored\n",
                         scanner.At);
            }
            ExFreePool(text.Buffer);
        }
    }
    if (value.Buffer != nullptr) {
        ExFreePool(value.Buffer);
    }
}

// ------------------------------------------------------------------------------------------------ the filter

// The translation whose end point on one side is this, or null.
Translation* FindTranslation(EndPoint Translation::*side, const EndPoint& end)
{
    for (ULONG i = 0; i < rewriter.Count; ++i) {
        if (IsSame(rewriter.Translations[i].*side, end)) {
            return &rewriter.Translations[i];
        }
    }
    return nullptr;
}

// A UDP checksum of zero means that there is none; one that comes out as zero is sent as all ones (RFC 768).
VOID UpdateTransportChecksum(const Ipv4Frame& frame)
{
    UCHAR* const checksum = frame.Transport + 6;
    const BOOLEAN udp = frame.Protocol == kProtocolUdp;
    if (udp && ReadUshort(checksum) == 0) {
        return;
    }
    Filter_CalculatePacketCheckSum(frame.Ip, frame.Protocol);
    if (udp && ReadUshort(checksum) == 0) {
        WriteUshort(checksum, 0xFFFF);
    }
}

// Replaces source or destination, and recomputes the checksums over it. The packet's own buffer becomes the frame: it is
// completed first, and the headers lie in it afterwards.
BOOLEAN Replace(FilterPacket* pPacket, BOOLEAN isSource, const EndPoint& end)
{
    Ipv4Frame frame;
    if (Filter_ModifyPacket(pPacket) != FILTER_STATUS_SUCCESS) {
        return FALSE;
    }
    Filter_InitPacketHeader(pPacket, nullptr);
    // Checksums read as many bytes as the datagram's length tells: LookAt has compared it with the frame.
    if (!LookAt(pPacket, &frame) || frame.Transport == nullptr || pPacket->m_nBytesRead < pPacket->m_nPacketSize) {
        return FALSE;
    }
    RtlCopyMemory(frame.Ip + (isSource ? kIpSource : kIpDestination), &end.Address, sizeof(end.Address));
    WriteUshort(frame.Transport + (isSource ? 0 : 2), end.Port);
    Filter_CalculatePacketCheckSum(frame.Ip, 0);
    UpdateTransportChecksum(frame);
    return TRUE;
}

FILTER_RESULT RewritePacket(FilterDriver*, PVOID, PacketFilter*, PVOID, FilterPacket* pPacket)
{
    Ipv4Frame frame;
    if (!LookAt(pPacket, &frame) || frame.Transport == nullptr) {
        return FILTER_RESULT_BYPASS;
    }
    const BOOLEAN received = pPacket->m_nDirection == NDIS_FILTER_DIRECTION_TO_PROTOCOL;
    const EndPoint end = received ? EndPoint{frame.Source, frame.SourcePort}
                                  : EndPoint{frame.Destination, frame.DestinationPort};
    Translation* const translation =
        FindTranslation(received ? &Translation::Real : &Translation::Asked, end);
    if (translation == nullptr) {
        return FILTER_RESULT_BYPASS;
    }
    // The transport's checksum covers the whole datagram, of which a fragment has only a part.
    if (frame.IsFragment || !Replace(pPacket, received, received ? translation->Asked : translation->Real)) {
        InterlockedIncrement(&rewriter.Skipped);
        return FILTER_RESULT_BYPASS;
    }
    InterlockedIncrement(received ? &translation->Received : &translation->Sent);
    return FILTER_RESULT_BYPASS;
}

// -------------------------------------------------------------------------------------------- start and stop

char driverName[] = "rewriter";
char incomingName[] = "rewriter-incoming";
char outgoingName[] = "rewriter-outgoing";

// Other filters see the end points that the protocols talk to: this one runs first for what is received and last for
// what is sent.
BOOLEAN RegisterFilter(STRING name, FILTER_TYPE nType, FILTER_ORDER nOrder)
{
    PacketFilter* hFilter = nullptr;
    const FILTER_STATUS status =
        Filter_RegisterFilter(rewriter.Driver, &name, RewritePacket, nullptr, nType, nOrder, &hFilter);
    return IsRegistered(kName, name.Buffer, status, hFilter);
}

BOOLEAN Start()
{
    STRING name = CountedName(driverName);
    const FILTER_STATUS status = Filter_RegisterDriver(&name, &rewriter, 1, 0, &rewriter.Driver);
    return IsRegistered(kName, "as a client driver", status, rewriter.Driver) &&
           RegisterFilter(CountedName(incomingName), FILTER_TYPE_INCOMING_PACKET, FILTER_ORDER_FIRST) &&
           RegisterFilter(CountedName(outgoingName), FILTER_TYPE_OUTGOING_PACKET, FILTER_ORDER_LAST);
}

VOID Stop()
{
    if (rewriter.Driver != nullptr) {
        Filter_DeregisterDriver(rewriter.Driver);
    }
}

VOID DriverUnload(PDRIVER_OBJECT)
{
    Stop();
    for (ULONG i = 0; i < rewriter.Count; ++i) {
        const Translation& translation = rewriter.Translations[i];
        char asked[16], real[16];
        DbgPrint("rewriter: %s:%u is %s:%u: %u frames sent, %u received\n",
                 inet_ntoa(translation.Asked.Address, asked, sizeof(asked)), ULONG{translation.Asked.Port},
                 inet_ntoa(translation.Real.Address, real, sizeof(real)), ULONG{translation.Real.Port},
                 Read(&translation.Sent), Read(&translation.Received));
    }
    DbgPrint("rewriter: %u frames skipped\n", Read(&rewriter.Skipped));
}

} // namespace

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath)
{
    RtlZeroMemory(&rewriter, sizeof(rewriter));
    ReadTranslations(RegistryPath);
    DriverObject->DriverUnload = DriverUnload;
    if (!Start()) {
        Stop();
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return STATUS_SUCCESS;
}
