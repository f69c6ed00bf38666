// Control requests: those of the framework, the share, the capture logs, and those that others answer.
#include "scenario.h"

#include <algorithm>

namespace faults
{
namespace
{

// Answers diagnostics for "client", and declines the rest.
NTSTATUS Handle(PVOID context, PIRP irp, ULONG code, PVOID input, ULONG inputLength, PVOID output,
                ULONG outputLength, ULONG_PTR* returned)
{
    if (code == IOCTL_NDIS_FILTER_DIAG) {
        Diag* diag = nullptr;
        CALL(Filter_BeginDiag, input, inputLength, output, outputLength, &diag);
        if (diag != nullptr) {
            CALL(Filter_DiagPrint, diag, "client of %d\n", 1);
            CALL(Filter_DiagFilter, diag, FILTER_TYPE_INCOMING_PACKET);
            return STATUS_SUCCESS;
        }
    }
    return CALL(Filter_DefaultIoCtrlHandler, context, irp, code, input, inputLength, output, outputLength,
                returned);
}

uint32_t IdOf(FilterAdapter* adapter)
{
    ULONG id = 0;
    Filter_AdapterToId(adapter, &id);
    return id;
}

UserMacValue MacValue(uint8_t value)
{
    UserMacValue record = {};
    std::copy(support::kOwnMac.begin(), support::kOwnMac.end(), record.m_MacAddress);
    record.m_nValue = value;
    return record;
}

void UseHandlers(World& world)
{
    if (world.driver == nullptr) {
        return;
    }
    IoCtrlHandler* handler = nullptr;
    MAKES(handler, Filter_RegisterIoControl, world.driver, Handle, nullptr, &handler);
    // Into a reply that is too short each text is formatted apart.
    for (const auto& [line, size] : {std::pair<std::string_view, size_t>{"client show", 4096},
                                     {"filter show filter", 4096},
                                     {"filter show driver", NDIS_FILTER_DIAG_HEADER_SIZE + 8}}) {
        static uint8_t reply[4096];
        const std::span<const uint8_t> input(reinterpret_cast<const uint8_t*>(line.data()), line.size());
        const auto result = REQUEST(IOCTL_NDIS_FILTER_DIAG, input, std::span(reply).first(size));
        Made(result.information > NDIS_FILTER_DIAG_HEADER_SIZE);
    }
    hook::SetIoControlHandler([](uint32_t code, const void*, uint32_t, void*, uint32_t, uint32_t*) {
        return code == NDIS_FILTER_CTL_CODE(0xA00) ? STATUS_SUCCESS : STATUS_NOT_SUPPORTED;
    });
    Ask("a request of the hook driver", world, NDIS_FILTER_CTL_CODE(0xA00));
    Ask("a request of nobody", world, NDIS_FILTER_CTL_CODE(0xA01));
    if (handler != nullptr) {
        CALL(Filter_IsValidIoCtrlHandler, handler);
        CALL(Filter_DeregisterIoControl, world.driver, handler);
    }
}

void UseShare(World& world)
{
    const uint32_t value = 1;
    uint64_t address = 0;
    REQUEST(IOCTL_NDIS_FILTER_START_SHARE, In(value), Out(address));
    if (!Made(address != 0 && address != NDIS_FILTER_SHARE_FAILED)) {
        return;
    }
    auto& memory = *reinterpret_cast<SharedMemory*>(address);
    const uint32_t id = IdOf(world.adapter);
    for (const uint32_t direction : {NDIS_FILTER_DIRECTION_TO_ADAPTER, NDIS_FILTER_DIRECTION_TO_PROTOCOL,
                                     NDIS_FILTER_DIRECTION_TO_APPLICATION}) {
        support::Fill(support::NextInput(memory), id, direction, support::UdpFrame());
        support::Advance(memory.KernelModeInput.m_iWrite);
        REQUEST(IOCTL_NDIS_FILTER_WRITE_SHARE);
        Made(support::IsEmpty(memory.KernelModeInput));
    }
    memory.KernelModeOutput.m_iRead = memory.KernelModeOutput.m_iWrite;
    static uint8_t signal[NDIS_FILTER_SIGNAL_SIZE];
    {
        g_journal.Begin("IOCTL_NDIS_FILTER_READ_SHARE");
        machine::Request read = world.program->device->Send(IOCTL_NDIS_FILTER_READ_SHARE, {}, 0);
        g_journal.End(read.DispatchStatus());
        CALL(Filter_IndicateSignalToApplication, signal);
        Made(read.IsComplete());
        read.Cancel();
    }
    if (FilterPacket* packet = world.adapter != nullptr ? NewPacket(world) : nullptr) {
        CALL(Filter_IndicatePacketToApplication, packet, 1, 2);
        CALL(Filter_ReleasePacketp, packet, __FILE__, __LINE__);
    }
    REQUEST(IOCTL_NDIS_FILTER_STOP_SHARE);
}

} // namespace

void StartRequests(World& world)
{
    UseHandlers(world);
    REQUEST(IOCTL_NDIS_FILTER_SET_PACKET_DUMP, In(MacValue(1)));
    REQUEST(IOCTL_NDIS_FILTER_START_ETHRLOG);
}

void UseRequests(World& world)
{
    UseShare(world);
    REQUEST(IOCTL_NDIS_FILTER_STOP_ETHRLOG);
    REQUEST(IOCTL_NDIS_FILTER_SET_PACKET_DUMP, In(MacValue(0)));
    uint8_t version[2] = {};
    uint32_t size = 0;
    REQUEST(IOCTL_NDIS_FILTER_GET_VERSION, {}, version);
    REQUEST(IOCTL_NDIS_FILTER_PUT_SHAREDMEMORYSIZE, {}, Out(size));
    UserAdapterList list = {};
    REQUEST(IOCTL_NDIS_FILTER_GET_TCPIP_INTERFACES, {}, Out(list));
    FilterEventHead head = {}; // of an adapter, so that no identifier is spent on it
    head.m_hAdapter = world.adapter;
    REQUEST(IOCTL_NDIS_FILTER_CLEAR_EVENT);
    CALL(Filter_ReportEventEx, 1, 2, sizeof(head), &head);
    UserEvent event = {};
    Made(REQUEST(IOCTL_NDIS_FILTER_GET_EVENT, {}, Out(event)).information == sizeof(event));
    UserIPConfig config = {};
    config.m_nAdapterId = IdOf(world.adapter);
    config.m_nIP = 1;
    REQUEST(IOCTL_NDIS_FILTER_SET_IPCONFIG, In(config));
    REQUEST(IOCTL_NDIS_FILTER_GET_IPCONFIG, In(config.m_nAdapterId), Out(config));
    UserMacValue value = MacValue(0);
    REQUEST(IOCTL_NDIS_FILTER_SET_MEDIA_STATUS, In(value));
    REQUEST(IOCTL_NDIS_FILTER_GET_MEDIA_STATUS, In(value), Out(value));
    REQUEST(IOCTL_NDIS_FILTER_GET_PACKET_DUMP, In(value), Out(value));
    UserMacAdapter named = {};
    REQUEST(IOCTL_NDIS_FILTER_GET_ADAPTER, std::span(support::kOwnMac), Out(named));
    REQUEST(IOCTL_NDIS_FILTER_GET_DBGFLAG);
    REQUEST(IOCTL_NDIS_FILTER_DUMP_DEVICE_EXTENSION);
    const uint32_t limit = 512;
    REQUEST(IOCTL_NDIS_FILTER_SET_CONGESTION_CONTROL, In(limit));
}

} // namespace faults
