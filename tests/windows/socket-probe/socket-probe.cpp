// A client driver of the tests: calls the functions of the kernel sockets that need no transport, and those
// that do with one that is absent. It starts only when each answers as it should; what did not is in the
// debug output.
#include <ntddk.h>

#include "tdi-client.h"

namespace
{

constexpr PCWSTR NoTransport = L"\\Device\\NoTransport";
WCHAR deviceText[] = L"\\Device\\SocketProbe";
PDEVICE_OBJECT probeDevice;

BOOLEAN Conversions()
{
    return KS_htonl(0x01020304) == 0x04030201 && KS_ntohl(0x04030201) == 0x01020304 &&
           KS_htons(0x0102) == 0x0201 && KS_ntohs(0x0201) == 0x0102;
}

BOOLEAN Checksums()
{
    const UCHAR bytes[] = {0x01, 0xFF, 0xFF};
    return KS_in_cksum(bytes, 1) == 0xFEFF && KS_in_cksum(bytes, 0) == 0xFFFF &&
           KS_in_cksum(bytes + 1, 2) == 0;
}

BOOLEAN Addresses()
{
    TA_IP_ADDRESS address;
    KS_InitIPAddress(&address, 0x0100007F, 0x5000);
    return KS_TransportAddressLength(nullptr) == 0 &&
           KS_TransportAddressLength(reinterpret_cast<PTRANSPORT_ADDRESS>(&address)) == sizeof(address) &&
           address.Address[0].Address[0].in_addr == 0x0100007F &&
           address.Address[0].Address[0].sin_port == 0x5000;
}

BOOLEAN ExtendedAttributes()
{
    PFILE_FULL_EA_INFORMATION ea = nullptr;
    ULONG length = 0;
    if (!NT_SUCCESS(KS_BuildEaBuffer(4, "Name", 2, "xy", &ea, &length))) {
        return FALSE;
    }
    const BOOLEAN right = length == 15 && ea->EaNameLength == 4 && ea->EaValueLength == 2 &&
                          RtlCompareMemory(ea->EaName, "Name\0xy", 7) == 7;
    ExFreePool(ea);
    return right;
}

BOOLEAN Links()
{
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, deviceText);
    UNICODE_STRING tooShort = name;
    tooShort.Length = 16;
    return KS_CreateSymbolicLink(&tooShort, TRUE) == STATUS_UNSUCCESSFUL &&
           NT_SUCCESS(KS_CreateSymbolicLink(&name, TRUE)) &&
           NT_SUCCESS(KS_CreateSymbolicLink(&name, FALSE)) &&
           !NT_SUCCESS(KS_CreateSymbolicLink(&name, FALSE));
}

BOOLEAN ProcessNames()
{
    CHAR name[KS_PROCESS_NAME_SIZE] = {};
    const BOOLEAN known = KS_GetCurrentProcessName(name);
    const BOOLEAN right = !known && RtlCompareMemory(name, "???", 4) == 4;
    KS_InitProcessNameOffset(); // finds it on Windows; a process object elsewhere may have none
    return right;
}

BOOLEAN AbsentTransport()
{
    TA_IP_ADDRESS local;
    KS_TRANSPORT_ADDRESS address;
    KS_CONTROL_CHANNEL channel;
    UCHAR buffer[KS_PROVIDER_STATISTICS_SIZE];
    KS_InitIPAddress(&local, 0, 0);
    const NTSTATUS opened =
        KS_OpenTransportAddress(NoTransport, reinterpret_cast<PTRANSPORT_ADDRESS>(&local), &address);
    return !NT_SUCCESS(opened) && address.Status == opened && address.Count == 0 &&
           KS_CloseTransportAddress(&address) == STATUS_SUCCESS &&
           !NT_SUCCESS(KS_OpenControlChannel(NoTransport, &channel)) &&
           !NT_SUCCESS(KS_QueryProviderInfo(NoTransport, buffer)) &&
           !NT_SUCCESS(KS_QueryProviderStatistics(NoTransport, buffer));
}

struct Row {
    PCSTR Name;
    BOOLEAN (*IsRight)();
};
constexpr Row Rows[] = {
    {"conversions", Conversions},
    {"checksums", Checksums},
    {"addresses", Addresses},
    {"extended attributes", ExtendedAttributes},
    {"links", Links},
    {"process names", ProcessNames},
    {"absent transport", AbsentTransport},
};

VOID NTAPI Unload(PDRIVER_OBJECT)
{
    IoDeleteDevice(probeDevice);
}

} // namespace

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, deviceText);
    NTSTATUS status = IoCreateDevice(driver, 0, &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &probeDevice);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    for (const Row& row : Rows) {
        if (!row.IsRight()) {
            DbgPrint("socket-probe: %s: wrong\n", row.Name);
            status = STATUS_UNSUCCESSFUL;
        }
    }
    DbgPrint("socket-probe: %u rows\n", static_cast<ULONG>(sizeof(Rows) / sizeof(Rows[0])));
    driver->DriverUnload = Unload;
    if (!NT_SUCCESS(status)) {
        IoDeleteDevice(probeDevice);
    }
    return status;
}
