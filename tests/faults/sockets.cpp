// The kernel sockets, with ordinary sockets of the host for peers. This file includes libc's network headers, and so
// no header that declares htons.
#include "journal.h"

#include <hostguard.h>
#include <machine.h>
#include <tdi-client.h>

#include <atomic>
#include <cstring>

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace faults
{

void UseSockets();

namespace
{

constexpr const WCHAR* kTcp = L"\\Device\\Tcp";
constexpr const WCHAR* kUdp = L"\\Device\\Udp";
constexpr char kText[] = "a few bytes";

// A socket of loopback; its waits are bounded.
class Peer
{
  public:
    explicit Peer(int type) : descriptor_(socket(AF_INET, type | SOCK_CLOEXEC, 0))
    {
        address_.sin_family = AF_INET;
        address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(descriptor_, reinterpret_cast<sockaddr*>(&address_), sizeof(address_));
        socklen_t length = sizeof(address_);
        getsockname(descriptor_, reinterpret_cast<sockaddr*>(&address_), &length);
        if (type == SOCK_STREAM) {
            listen(descriptor_, 5);
        }
    }
    ~Peer()
    {
        close(caller_);
        close(descriptor_);
    }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    TA_IP_ADDRESS Address() const
    {
        TA_IP_ADDRESS address = {};
        KS_InitIPAddress(&address, address_.sin_addr.s_addr, address_.sin_port);
        return address;
    }
    // A caller's connection gets the text, and no more.
    void Serve()
    {
        if (IsReadable(descriptor_)) {
            caller_ = accept(descriptor_, nullptr, nullptr);
            send(caller_, kText, sizeof(kText), MSG_NOSIGNAL);
            shutdown(caller_, SHUT_WR);
        }
    }
    // Answers one datagram with the text.
    void Answer()
    {
        char buffer[64];
        sockaddr_in from = {};
        socklen_t length = sizeof(from);
        if (IsReadable(descriptor_) && recvfrom(descriptor_, buffer, sizeof(buffer), 0,
                                                reinterpret_cast<sockaddr*>(&from), &length) >= 0) {
            for (int i = 0; i < 2; ++i) {
                sendto(descriptor_, kText, sizeof(kText), 0, reinterpret_cast<sockaddr*>(&from), length);
            }
        }
    }

  private:
    static bool IsReadable(int descriptor)
    {
        pollfd one = {descriptor, POLLIN, 0};
        return poll(&one, 1, 5000) == 1;
    }
    const int descriptor_;
    int caller_ = -1;
    sockaddr_in address_ = {};
};

UCHAR g_data[256];

// Pages that cannot be locked raise; that counts as none.
PMDL DescribeData()
{
    return Recorded("KS_AllocateAndProbeMdl", [] {
        PMDL mdl = nullptr;
        const auto allocate = [](void* result) {
            *static_cast<PMDL*>(result) =
                KS_AllocateAndProbeMdl(g_data, sizeof(kText), FALSE, FALSE, nullptr);
        };
        HostCallGuarded(&mdl, allocate);
        return mdl;
    });
}

TA_IP_ADDRESS AnyPort()
{
    TA_IP_ADDRESS address = {};
    CALL(KS_InitIPAddress, &address, htonl(INADDR_LOOPBACK), 0);
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
    TA_IP_ADDRESS address = AnyPort();
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
    Peer peer(SOCK_STREAM);
    KS_TRANSPORT_ADDRESS address = {};
    KS_CONNECTION_ENDPOINT endpoint = {};
    TA_IP_ADDRESS local = AnyPort();
    TA_IP_ADDRESS remote = peer.Address();
    if (!NT_SUCCESS(CALL(KS_OpenTransportAddress, kTcp, Cast(local), &address))) {
        return;
    }
    CALL(KS_SetEventHandlers, &address, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    if (NT_SUCCESS(CALL(KS_OpenConnectionEndpoint, kTcp, &address, &endpoint, nullptr))) {
        if (NT_SUCCESS(CALL(KS_Connect, &endpoint, &remote))) {
            peer.Serve();
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
    Peer peer(SOCK_DGRAM);
    static KS_TRANSPORT_ADDRESS address;
    static KEVENT received;
    IO_STATUS_BLOCK result = {};
    TA_IP_ADDRESS local = AnyPort();
    TA_IP_ADDRESS remote = peer.Address();
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
            peer.Answer();
            KeWaitForSingleObject(&received, Executive, KernelMode, FALSE, nullptr);
        });
    } else {
        peer.Answer();
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
