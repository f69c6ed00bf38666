// The handle and the control requests.
#include "client.h"

#include <algorithm>
#include <cstring>
#include <span>
#include <string>
#include <vector>

namespace ndisfilter
{

namespace
{

constexpr size_t kShortestDiagText = 64;

template <typename Record>
std::span<const uint8_t> In(const Record& record)
{
    return {reinterpret_cast<const uint8_t*>(&record), sizeof(record)};
}

template <typename Record>
std::span<uint8_t> Out(Record& record)
{
    return {reinterpret_cast<uint8_t*>(&record), sizeof(record)};
}

// A request without output.
int32_t Tell(ndisfilter_client* client, uint32_t code, std::span<const uint8_t> input = {})
{
    if (client == nullptr) {
        return NDISFILTER_INVALID_PARAMETER;
    }
    return WithoutExceptions(
        [&] { return std::min(client->device->Control(code, input, {}).status, NDISFILTER_SUCCESS); });
}

// A request whose output is one record, whole or not at all.
template <typename Record>
int32_t Ask(ndisfilter_client* client, uint32_t code, std::span<const uint8_t> input, Record& record)
{
    return WithoutExceptions([&] {
        const ControlResult result = client->device->Control(code, input, Out(record));
        if (result.status < 0) {
            return result.status;
        }
        return result.returned == sizeof(record) ? NDISFILTER_SUCCESS : NDISFILTER_BAD_ANSWER;
    });
}

UserMacValue MacValue(const uint8_t mac[6], uint8_t value)
{
    UserMacValue record = {};
    std::memcpy(record.m_MacAddress, mac, sizeof(record.m_MacAddress));
    record.m_nValue = value;
    return record;
}

int32_t AskByMac(ndisfilter_client* client, uint32_t code, const uint8_t mac[6], uint8_t* value)
{
    if (client == nullptr || mac == nullptr || value == nullptr) {
        return NDISFILTER_INVALID_PARAMETER;
    }
    const UserMacValue input = MacValue(mac, 0);
    UserMacValue output = {};
    const int32_t status = Ask(client, code, In(input), output);
    if (status == NDISFILTER_SUCCESS) {
        *value = output.m_nValue;
    }
    return status;
}

int32_t TellByMac(ndisfilter_client* client, uint32_t code, const uint8_t mac[6], uint8_t value)
{
    return mac == nullptr ? NDISFILTER_INVALID_PARAMETER : Tell(client, code, In(MacValue(mac, value)));
}

// The text in a reply of `returned` bytes. Its length in the header is the driver's sum over its prints; a print that
// did not fit takes one from it.
std::string_view DiagText(std::span<const uint8_t> reply, size_t returned)
{
    UserDiag header;
    std::memcpy(&header, reply.data(), sizeof(header));
    constexpr size_t start = offsetof(UserDiag, m_Text);
    const auto used = static_cast<int32_t>(header.m_BufferUsed);
    const size_t length = std::min<size_t>(used > 0 ? static_cast<size_t>(used) : 0, returned - start);
    return {reinterpret_cast<const char*>(reply.data()) + start, length};
}

int32_t Diagnose(Device& device, std::string_view command, std::span<char> text)
{
    // Room for the header, and for what the driver counts twice when it reckons the room of a print.
    std::vector<uint8_t> reply(text.size() + NDIS_FILTER_DIAG_HEADER_SIZE);
    const ControlResult result = device.Control(
        IOCTL_NDIS_FILTER_DIAG, {reinterpret_cast<const uint8_t*>(command.data()), command.size()}, reply);
    if (result.status < 0) {
        return result.status;
    }
    if (result.returned == 0) {
        return NDISFILTER_DIAG_BUSY; // the lengths are fit
    }
    if (result.returned < offsetof(UserDiag, m_Text) || result.returned > reply.size()) {
        return NDISFILTER_BAD_ANSWER; // a first print that did not fit makes it shorter than the header
    }
    const std::string_view answer = DiagText(reply, result.returned).substr(0, text.size() - 1);
    *std::copy(answer.begin(), answer.end(), text.begin()) = '\0';
    return NDISFILTER_SUCCESS;
}

} // namespace

} // namespace ndisfilter

using namespace ndisfilter;

ndisfilter_client* ndisfilter_open(const char* name, char* message, size_t message_size)
{
    std::string error;
    try {
        std::unique_ptr<Device> device = OpenDevice(name == nullptr ? "" : name, &error);
        if (device != nullptr) {
            return new ndisfilter_client(std::move(device));
        }
    } catch (const std::exception&) {
        error = "cannot open the control device: out of memory";
    }
    if (message != nullptr && message_size > 0) {
        const size_t length = std::min(error.size(), message_size - 1);
        std::memcpy(message, error.data(), length);
        message[length] = '\0';
    }
    return nullptr;
}

void ndisfilter_close(ndisfilter_client* client)
{
    if (client != nullptr) {
        ndisfilter_share_stop(client);
        delete client;
    }
}

int32_t ndisfilter_control(ndisfilter_client* client, uint32_t code, const void* input, size_t input_size,
                           void* output, size_t output_size, size_t* returned)
{
    if (client == nullptr || (input == nullptr && input_size > 0) || (output == nullptr && output_size > 0)) {
        return NDISFILTER_INVALID_PARAMETER;
    }
    return WithoutExceptions([&] {
        const ControlResult result =
            client->device->Control(code, {static_cast<const uint8_t*>(input), input_size},
                                    {static_cast<uint8_t*>(output), output_size});
        if (returned != nullptr) {
            *returned = result.returned;
        }
        return result.status;
    });
}

int32_t ndisfilter_get_version(ndisfilter_client* client)
{
    if (client == nullptr) {
        return NDISFILTER_INVALID_PARAMETER;
    }
    return WithoutExceptions([&] {
        uint8_t version[2] = {}; // the driver wants the room
        const int32_t status = client->device->Control(IOCTL_NDIS_FILTER_GET_VERSION, {}, version).status;
        return std::min(status, NDISFILTER_SUCCESS);
    });
}

int32_t ndisfilter_get_adapters(ndisfilter_client* client, UserAdapterList* adapters)
{
    if (client == nullptr || adapters == nullptr) {
        return NDISFILTER_INVALID_PARAMETER;
    }
    UserAdapterList list = {};
    const int32_t status = Ask(client, IOCTL_NDIS_FILTER_GET_TCPIP_INTERFACES, {}, list);
    if (status != NDISFILTER_SUCCESS) {
        return status;
    }
    if (list.m_nAdapterCount > NDIS_FILTER_MAX_ADAPTERS) {
        return NDISFILTER_BAD_ANSWER;
    }
    for (UserAdapterInfo& adapter : list.m_Adapters) {
        adapter.m_szAdapterName[sizeof(adapter.m_szAdapterName) - 1] = '\0';
    }
    *adapters = list;
    return NDISFILTER_SUCCESS;
}

int32_t ndisfilter_find_adapter(ndisfilter_client* client, const uint8_t mac[6], uint32_t* adapter_id)
{
    if (client == nullptr || mac == nullptr || adapter_id == nullptr) {
        return NDISFILTER_INVALID_PARAMETER;
    }
    UserMacAdapter output = {};
    const int32_t status = Ask(client, IOCTL_NDIS_FILTER_GET_ADAPTER, {mac, 6}, output);
    if (status == NDISFILTER_SUCCESS) {
        *adapter_id = output.m_nAdapterId;
    }
    return status;
}

int32_t ndisfilter_get_ipconfig(ndisfilter_client* client, uint32_t adapter_id, UserIPConfig* config)
{
    if (client == nullptr || config == nullptr) {
        return NDISFILTER_INVALID_PARAMETER;
    }
    UserIPConfig output = {};
    const int32_t status = Ask(client, IOCTL_NDIS_FILTER_GET_IPCONFIG, In(adapter_id), output);
    if (status == NDISFILTER_SUCCESS) {
        *config = output;
    }
    return status;
}

int32_t ndisfilter_set_ipconfig(ndisfilter_client* client, const UserIPConfig* config)
{
    if (config == nullptr || std::max({config->m_nIP, config->m_nGW, config->m_nDHCP, config->m_nDNS}) > 8) {
        return NDISFILTER_INVALID_PARAMETER;
    }
    return Tell(client, IOCTL_NDIS_FILTER_SET_IPCONFIG, In(*config));
}

int32_t ndisfilter_get_media_state(ndisfilter_client* client, const uint8_t mac[6], uint8_t* state)
{
    return AskByMac(client, IOCTL_NDIS_FILTER_GET_MEDIA_STATUS, mac, state);
}

int32_t ndisfilter_set_media_state(ndisfilter_client* client, const uint8_t mac[6], uint8_t state)
{
    return TellByMac(client, IOCTL_NDIS_FILTER_SET_MEDIA_STATUS, mac, state);
}

int32_t ndisfilter_get_packet_dump(ndisfilter_client* client, const uint8_t mac[6], uint8_t* enabled)
{
    return AskByMac(client, IOCTL_NDIS_FILTER_GET_PACKET_DUMP, mac, enabled);
}

int32_t ndisfilter_set_packet_dump(ndisfilter_client* client, const uint8_t mac[6], uint8_t enabled)
{
    return TellByMac(client, IOCTL_NDIS_FILTER_SET_PACKET_DUMP, mac, enabled);
}

int32_t ndisfilter_get_event(ndisfilter_client* client, UserEvent* event)
{
    if (client == nullptr || event == nullptr) {
        return NDISFILTER_INVALID_PARAMETER;
    }
    return WithoutExceptions([&] {
        UserEvent output = {};
        const ControlResult result = client->device->Control(IOCTL_NDIS_FILTER_GET_EVENT, {}, Out(output));
        if (result.status < 0) {
            return result.status;
        }
        if (result.returned != sizeof(output)) {
            return result.returned == 0 ? NDISFILTER_NO_EVENT : NDISFILTER_BAD_ANSWER;
        }
        *event = output;
        return NDISFILTER_SUCCESS;
    });
}

int32_t ndisfilter_clear_events(ndisfilter_client* client)
{
    return Tell(client, IOCTL_NDIS_FILTER_CLEAR_EVENT);
}

int32_t ndisfilter_start_capture(ndisfilter_client* client)
{
    return Tell(client, IOCTL_NDIS_FILTER_START_ETHRLOG);
}

int32_t ndisfilter_stop_capture(ndisfilter_client* client)
{
    return Tell(client, IOCTL_NDIS_FILTER_STOP_ETHRLOG);
}

int32_t ndisfilter_reload_debug_flag(ndisfilter_client* client)
{
    return Tell(client, IOCTL_NDIS_FILTER_GET_DBGFLAG);
}

int32_t ndisfilter_set_congestion_limit(ndisfilter_client* client, uint32_t packets)
{
    return Tell(client, IOCTL_NDIS_FILTER_SET_CONGESTION_CONTROL, In(packets));
}

int32_t ndisfilter_dump_state(ndisfilter_client* client)
{
    return Tell(client, IOCTL_NDIS_FILTER_DUMP_DEVICE_EXTENSION);
}

int32_t ndisfilter_diagnose(ndisfilter_client* client, const char* command, char* text, size_t text_size)
{
    if (client == nullptr || command == nullptr || text == nullptr) {
        return NDISFILTER_INVALID_PARAMETER;
    }
    const std::string_view words = command;
    if (words.empty() || words.size() > NDIS_FILTER_DIAG_COMMAND_SIZE || text_size < kShortestDiagText) {
        return NDISFILTER_INVALID_PARAMETER;
    }
    return WithoutExceptions([&] { return Diagnose(*client->device, words, {text, text_size}); });
}

void ndisfilter_decode_event(const UserEvent* event, ndisfilter_event* decoded)
{
    constexpr size_t head = NDIS_FILTER_EVENT_MESSAGE_OFFSET;
    const auto* const text = reinterpret_cast<const char*>(event->m_Text);
    // -1 stands for a formatted text that did not fit: it fills the room.
    const size_t length =
        std::min<size_t>(static_cast<uint32_t>(event->m_nLength), NDIS_FILTER_EVENT_TEXT_SIZE);
    *decoded = {};
    decoded->event1 = event->m_nEvent1;
    decoded->event2 = event->m_nEvent2;
    decoded->has_head = length >= head;
    if (decoded->has_head) {
        std::memcpy(&decoded->head, text, sizeof(decoded->head));
    }
    decoded->message = decoded->has_head ? text + head : text;
    decoded->message_size = decoded->has_head ? length - head : length;
}

// ------------------------------------------------------------------------------------------------ the shared rings

namespace
{

// Runs a call on the present share.
template <typename Function>
int32_t WithShare(ndisfilter_client* client, Function function)
{
    return WithoutExceptions([&] {
        const std::shared_ptr<Share> share = client->CurrentShare();
        return share == nullptr ? NDISFILTER_NO_SHARE : function(*share);
    });
}

} // namespace

int32_t ndisfilter_share_start(ndisfilter_client* client)
{
    if (client == nullptr) {
        return NDISFILTER_INVALID_PARAMETER;
    }
    return WithoutExceptions([&] {
        const std::lock_guard lock(client->shareMutex);
        if (client->share != nullptr) {
            return NDISFILTER_SHARE_TAKEN;
        }
        int32_t status = NDISFILTER_SUCCESS;
        client->share = Share::Start(*client->device, &status);
        return status;
    });
}

int32_t ndisfilter_share_stop(ndisfilter_client* client)
{
    if (client == nullptr) {
        return NDISFILTER_INVALID_PARAMETER;
    }
    return WithoutExceptions([&] {
        const std::lock_guard lock(client->shareMutex);
        const std::shared_ptr<Share> share = std::move(client->share);
        client->share = nullptr;
        return share == nullptr ? NDISFILTER_SUCCESS : std::min(share->Stop(), NDISFILTER_SUCCESS);
    });
}

int32_t ndisfilter_send(ndisfilter_client* client, const ndisfilter_frame* frames, size_t count,
                        uint32_t timeout_ms, size_t* sent)
{
    if (client == nullptr || (frames == nullptr && count > 0) || sent == nullptr) {
        return NDISFILTER_INVALID_PARAMETER;
    }
    *sent = 0;
    return WithShare(client,
                     [&](Share& share) { return share.Send(frames, count, Deadline(timeout_ms), sent); });
}

int32_t ndisfilter_flush(ndisfilter_client* client, uint32_t timeout_ms, size_t* left)
{
    if (client == nullptr) {
        return NDISFILTER_INVALID_PARAMETER;
    }
    size_t ignored = 0;
    return WithShare(client, [&](Share& share) {
        return share.Flush(Deadline(timeout_ms), left == nullptr ? &ignored : left);
    });
}

int32_t ndisfilter_discard(ndisfilter_client* client, size_t* dropped)
{
    if (client == nullptr) {
        return NDISFILTER_INVALID_PARAMETER;
    }
    size_t ignored = 0;
    return WithShare(client,
                     [&](Share& share) { return share.Discard(dropped == nullptr ? &ignored : dropped); });
}

int32_t ndisfilter_receive(ndisfilter_client* client, ndisfilter_block* blocks, size_t capacity,
                           uint32_t timeout_ms, size_t* count)
{
    if (client == nullptr || blocks == nullptr || capacity == 0 || count == nullptr) {
        return NDISFILTER_INVALID_PARAMETER;
    }
    *count = 0;
    return WithShare(
        client, [&](Share& share) { return share.Receive(blocks, capacity, Deadline(timeout_ms), count); });
}

int32_t ndisfilter_cancel_receive(ndisfilter_client* client)
{
    if (client == nullptr) {
        return NDISFILTER_INVALID_PARAMETER;
    }
    return WithShare(client, [](Share& share) {
        share.CancelReceive();
        return NDISFILTER_SUCCESS;
    });
}
