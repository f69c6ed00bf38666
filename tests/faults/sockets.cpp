// The kernel sockets, with ordinary sockets of the host for peers. This file includes libc's network headers, and so
// no header that declares htons.
#include "journal.h"

#include <support/host-socket.h>

#include <hostguard.h>
#include <machine.h>
#include <tdi-client.h>

namespace faults
{

void UseSockets();

namespace
{

constexpr const WCHAR* kTcp = L"\\Device\\Tcp";
constexpr const WCHAR* kUdp = L"\\Device\\Udp";
constexpr char kText[] = "a few bytes";

UCHAR g_data[256];

// Pages that cannot be locked raise; that counts as none.
PMDL DescribeData()
{
    return Recorded("KS_AllocateAndProbeMdl", [] {
        static PMDL mdl;
        mdl = nullptr;
        HostCallGuarded(nullptr, [](void*) {
            mdl = KS_AllocateAndProbeMdl(g_data, sizeof(kText), FALSE, FALSE, nullptr);
        });
        return mdl;
    });
}

TA_IP_ADDRESS Loopback(uint16_t port)
{
    TA_IP_ADDRESS address = {};
    CALL(KS_InitIPAddress, &address, htonl(INADDR_LOOPBACK), htons(port));
    return address;
}

PTRANSPORT_ADDRESS Cast(TA_IP_ADDRESS& address)
{
    return reinterpret_cast<PTRANSPORT_ADDRESS>(&address);
}

void UseHelpers()
{
    CALL(KS_htonl, 1);
    CALL(KS_ntohl, 1);
    CALL(KS_htons, 1);
    CALL(KS_ntohs, 1);
    CALL(KS_in_cksum, kText, sizeof(kText));
    CALL(KS_InitProcessNameOffset);
    char name[KS_PROCESS_NAME_SIZE];
    CALL(KS_GetCurrentProcessName, name);
    TA_IP_ADDRESS address = Loopback(0);
    CALL(KS_TransportAddressLength, Cast(address));
    PFILE_FULL_EA_INFORMATION attribute = nullptr;
    ULONG length = 0;
    CALL(KS_BuildEaBuffer, TDI_TRANSPORT_ADDRESS_LENGTH, TdiTransportAddress, sizeof(address), &address,
         &attribute, &length);
    if (attribute != nullptr) {
        ExFreePool(attribute);
    }
    UNICODE_STRING device;
    RtlInitUnicodeString(&device, kTcp);
    if (NT_SUCCESS(CALL(KS_CreateSymbolicLink, &device, TRUE))) {
        while (!NT_SUCCESS(CALL(KS_CreateSymbolicLink, &device, FALSE))) { // whoever has made it keeps trying
        }
    }
    NDIS_STATUS status;
    NDIS_HANDLE pool = nullptr;
    CALL(NdisAllocatePacketPool, &status, &pool, 1, 0);
    if (pool != nullptr) {
        PNDIS_PACKET packet = nullptr;
        CALL(NdisAllocatePacket, &status, &packet, pool);
        if (PMDL mdl = packet != nullptr ? CALL(IoAllocateMdl, g_data, 10, FALSE, FALSE, nullptr) : nullptr) {
            MmBuildMdlForNonPagedPool(mdl);
            NdisChainBufferAtBack(packet, mdl);
        }
        CALL(KS_FreePacketAndBuffers, packet);
        NdisFreePacketPool(pool);
    }
}

void UseProvider()
{
    CALL(KS_QueryProviderInfo, kTcp, g_data);
    CALL(KS_QueryProviderStatistics, kTcp, g_data);
    KS_CONTROL_CHANNEL channel = {};
    if (!NT_SUCCESS(CALL(KS_OpenControlChannel, kUdp, &channel))) {
        return;
    }
    PDEVICE_OBJECT device = IoGetRelatedDeviceObject(channel.FileObject);
    PIRP irp = CALL(IoAllocateIrp, device->StackSize, FALSE);
    PMDL mdl = CALL(IoAllocateMdl, g_data, KS_PROVIDER_INFO_SIZE, FALSE, FALSE, nullptr);
    if (irp != nullptr && mdl != nullptr) {
        MmBuildMdlForNonPagedPool(mdl);
        PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
        next->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
        next->MinorFunction = TDI_QUERY_INFORMATION;
        next->FileObject = channel.FileObject;
        reinterpret_cast<PTDI_REQUEST_KERNEL_QUERY_INFORMATION>(&next->Parameters)->QueryType =
            TDI_QUERY_PROVIDER_INFO;
        irp->MdlAddress = mdl;
        CALL(KS_MakeSimpleTdiRequest, device, irp);
    }
    if (mdl != nullptr) {
        IoFreeMdl(mdl);
    }
    if (irp != nullptr) {
        IoFreeIrp(irp);
    }
    CALL(KS_CloseControlChannel, &channel);
}

void UseStream(PMDL mdl)
{
    const support::HostSocket peer(SOCK_STREAM);
    KS_TRANSPORT_ADDRESS address = {};
    KS_CONNECTION_ENDPOINT endpoint = {};
    TA_IP_ADDRESS local = Loopback(0);
    TA_IP_ADDRESS remote = Loopback(peer.Port());
    if (!NT_SUCCESS(CALL(KS_OpenTransportAddress, kTcp, Cast(local), &address))) {
        return;
    }
    CALL(KS_SetEventHandlers, &address, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    if (NT_SUCCESS(CALL(KS_OpenConnectionEndpoint, kTcp, &address, &endpoint, nullptr))) {
        if (NT_SUCCESS(CALL(KS_Connect, &endpoint, &remote))) {
            const support::HostSocket caller(peer);
            caller.Send(kText);
            caller.EndSending();
            CALL(KS_SetConnectionInfo, &endpoint, g_data);
            CALL(KS_SendOnEndpoint, &endpoint, nullptr, nullptr, nullptr, nullptr, mdl, 0);
            CALL(KS_ReceiveOnEndpoint, &endpoint, nullptr, nullptr, nullptr, nullptr, mdl, 0);
            CALL(KS_Disconnect, &endpoint, nullptr, nullptr, nullptr, nullptr, TDI_DISCONNECT_RELEASE);
        }
        CALL(KS_CloseConnectionEndpoint, &endpoint);
    }
    CALL(KS_CloseTransportAddress, &address);
}

// The second datagram is received by a request that outlives its address's opening: a work item closes that.
void UseDatagrams(PMDL mdl)
{
    const support::HostSocket peer(SOCK_DGRAM);
    static KS_TRANSPORT_ADDRESS address;
    static KEVENT received;
    IO_STATUS_BLOCK result = {};
    TA_IP_ADDRESS local = Loopback(0);
    TA_IP_ADDRESS remote = Loopback(peer.Port());
    TDI_CONNECTION_INFORMATION to = {};
    to.RemoteAddressLength = sizeof(remote);
    to.RemoteAddress = &remote;
    if (!NT_SUCCESS(CALL(KS_OpenTransportAddress, kUdp, Cast(local), &address))) {
        return;
    }
    const auto completed = [](PVOID, PIO_STATUS_BLOCK, ULONG) {};
    KeInitializeEvent(&received, NotificationEvent, FALSE);
    const NTSTATUS waiting = CALL(KS_ReceiveDatagramOnAddress, &address, &received, completed, nullptr,
                                  &result, mdl, nullptr, nullptr, 0);
    const NTSTATUS sent =
        CALL(KS_SendDatagramOnAddress, &address, nullptr, nullptr, nullptr, nullptr, mdl, &to);
    if (!NT_SUCCESS(sent)) { // the peer hears of the address in another way
        KS_SendDatagramOnAddress(&address, nullptr, nullptr, nullptr, nullptr, mdl, &to);
    }
    if (waiting == STATUS_PENDING) {
        CALL(KS_CloseTransportAddress, &address);
        Recorded("a datagram comes", [&] {
            peer.Answer(kText, 2);
            KeWaitForSingleObject(&received, Executive, KernelMode, FALSE, nullptr);
        });
    } else {
        peer.Answer(kText, 2);
        CALL(KS_CloseTransportAddress, &address);
    }
}

} // namespace

void UseSockets()
{
    if (Recorded("the transport", [] { return machine::LoadTransport(); }) < 0) {
        return;
    }
    UseHelpers();
    UseProvider();
    if (PMDL mdl = DescribeData()) {
        UseStream(mdl);
        UseDatagrams(mdl);
        CALL(KS_UnlockAndFreeMdl, mdl);
    }
    Recorded("the transport's unload", [] { return machine::UnloadTransport(); });
}

} // namespace faults
