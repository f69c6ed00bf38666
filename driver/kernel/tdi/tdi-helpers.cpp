// Helpers: MDLs, extended attributes, transport addresses, symbolic links, packets, byte order, checksum.
#include "tdi-internal.h"

#include "../filter/ndisfilter-guard.h"

using namespace tdi;

namespace
{

constexpr ULONG MaxEaName = 255;
constexpr ULONG MaxEaValue = MAXUSHORT;

constexpr WCHAR LinkDirectory[] = L"\\DosDevices\\";
constexpr ULONG LinkDirectoryLength = sizeof(LinkDirectory) - sizeof(WCHAR);
constexpr ULONG DeviceDirectoryLength = sizeof(L"\\Device\\") - sizeof(WCHAR);
constexpr ULONG LinkBufferExtra = 26; // what a link's buffer is longer than the device's name

// Where IoAllocateMdl has hung it.
VOID TakeOff(PMDL mdl, PIRP irp)
{
    for (PMDL* link = &irp->MdlAddress; *link != nullptr; link = &(*link)->Next) {
        if (*link == mdl) {
            *link = mdl->Next;
            return;
        }
    }
}

} // namespace

PMDL KS_AllocateAndProbeMdl(PVOID Address, ULONG Length, BOOLEAN SecondaryBuffer, BOOLEAN ChargeQuota,
                            PIRP Irp)
{
    const PMDL mdl = IoAllocateMdl(Address, Length, SecondaryBuffer, ChargeQuota, Irp);
    if (mdl != nullptr) {
        const NTSTATUS code = Guarded([&] { MmProbeAndLockPages(mdl, KernelMode, IoModifyAccess); });
        if (!NT_SUCCESS(code)) {
            if (Irp != nullptr) {
                TakeOff(mdl, Irp);
            }
            IoFreeMdl(mdl);
            ExRaiseStatus(code); // the caller's to handle
        }
        mdl->Next = nullptr;
    }
    return mdl;
}

VOID KS_UnlockAndFreeMdl(PMDL Mdl)
{
    MmUnlockPages(Mdl);
    IoFreeMdl(Mdl);
}

NTSTATUS KS_BuildEaBuffer(ULONG NameLength, const VOID* Name, ULONG ValueLength, const VOID* Value,
                          PFILE_FULL_EA_INFORMATION* Buffer, PULONG Length)
{
    if (NameLength > MaxEaName || ValueLength > MaxEaValue) {
        return STATUS_INVALID_PARAMETER;
    }
    const ULONG header = FIELD_OFFSET(FILE_FULL_EA_INFORMATION, EaName);
    const ULONG length = header + NameLength + 1 + ValueLength;
    PFILE_FULL_EA_INFORMATION ea =
        static_cast<PFILE_FULL_EA_INFORMATION>(ExAllocatePoolWithTag(PagedPool, length, PoolTag));
    if (ea == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    PUCHAR bytes = reinterpret_cast<PUCHAR>(ea);
    RtlZeroMemory(bytes, length);
    ea->EaNameLength = static_cast<UCHAR>(NameLength);
    ea->EaValueLength = static_cast<USHORT>(ValueLength);
    RtlCopyMemory(bytes + header, Name, NameLength);
    if (ValueLength != 0) {
        RtlCopyMemory(bytes + header + NameLength + 1, Value, ValueLength);
    }
    *Buffer = ea;
    *Length = length;
    return STATUS_SUCCESS;
}

ULONG KS_TransportAddressLength(const TRANSPORT_ADDRESS* Address)
{
    if (Address == nullptr) {
        return 0;
    }
    const UCHAR* begin = reinterpret_cast<const UCHAR*>(Address);
    ULONG length = FIELD_OFFSET(TRANSPORT_ADDRESS, Address);
    for (LONG i = 0; i < Address->TAAddressCount; ++i) {
        USHORT addressLength; // the entries follow one another without padding
        RtlCopyMemory(&addressLength, begin + length, sizeof(addressLength));
        length += FIELD_OFFSET(TA_ADDRESS, Address) + addressLength;
    }
    return length;
}

VOID KS_InitIPAddress(PTA_IP_ADDRESS Address, ULONG IpAddress, USHORT Port)
{
    RtlZeroMemory(Address, sizeof(*Address));
    Address->TAAddressCount = 1;
    Address->Address[0].AddressLength = TDI_ADDRESS_LENGTH_IP;
    Address->Address[0].AddressType = TDI_ADDRESS_TYPE_IP;
    Address->Address[0].Address[0].sin_port = Port;
    Address->Address[0].Address[0].in_addr = IpAddress;
}

NTSTATUS KS_CreateSymbolicLink(PUNICODE_STRING DeviceName, BOOLEAN Create)
{
    const ULONG size = DeviceName->Length + LinkBufferExtra;
    if (DeviceName->Length < DeviceDirectoryLength + sizeof(WCHAR) || size > MAXUSHORT) {
        return STATUS_UNSUCCESSFUL;
    }
    PUCHAR buffer = static_cast<PUCHAR>(ExAllocatePoolWithTag(NonPagedPool, size, PoolTag));
    if (buffer == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    const ULONG nameLength = DeviceName->Length - DeviceDirectoryLength;
    RtlZeroMemory(buffer, size);
    RtlCopyMemory(buffer, LinkDirectory, LinkDirectoryLength);
    RtlCopyMemory(buffer + LinkDirectoryLength,
                  reinterpret_cast<PUCHAR>(DeviceName->Buffer) + DeviceDirectoryLength, nameLength);
    UNICODE_STRING link;
    link.Length = static_cast<USHORT>(LinkDirectoryLength + nameLength);
    link.MaximumLength = static_cast<USHORT>(size);
    link.Buffer = reinterpret_cast<PWSTR>(buffer);
    const NTSTATUS status = Create ? IoCreateSymbolicLink(&link, DeviceName) : IoDeleteSymbolicLink(&link);
    ExFreePoolWithTag(buffer, PoolTag);
    return status;
}

VOID KS_FreePacketAndBuffers(PNDIS_PACKET Packet)
{
    if (Packet == nullptr) {
        return;
    }
    UINT count = 0;
    NdisQueryPacket(Packet, nullptr, &count, nullptr, nullptr);
    for (; count != 0; --count) {
        PNDIS_BUFFER buffer = nullptr;
        NdisUnchainBufferAtFront(Packet, &buffer);
        if (buffer == nullptr) {
            break;
        }
        IoFreeMdl(buffer);
    }
    Packet->Private.Head = nullptr;
    Packet->Private.ValidCounts = FALSE;
    NdisFreePacket(Packet);
}

ULONG KS_htonl(ULONG Value)
{
    return __builtin_bswap32(Value);
}

USHORT KS_htons(USHORT Value)
{
    return __builtin_bswap16(Value);
}

// The way back is the same.
extern "C" {
ULONG KS_ntohl(ULONG Value) __attribute__((alias("KS_htonl")));
USHORT KS_ntohs(USHORT Value) __attribute__((alias("KS_htons")));
}

USHORT KS_in_cksum(const VOID* Buffer, ULONG Length)
{
    const UCHAR* bytes = static_cast<const UCHAR*>(Buffer);
    ULONG sum = 0;
    for (; Length > 1; Length -= sizeof(USHORT), bytes += sizeof(USHORT)) {
        USHORT word;
        RtlCopyMemory(&word, bytes, sizeof(word));
        sum += word;
    }
    if (Length != 0) {
        sum += static_cast<ULONG>(*bytes) << 8;
    }
    while (sum > MAXUSHORT) {
        sum = (sum & MAXUSHORT) + (sum >> 16);
    }
    return static_cast<USHORT>(~sum);
}
