// NdisFilter: the client library for C++20. A thin layer over ndisfilter-client.h: the client ends with its object,
// failures are exceptions. Functions do what their namesakes there do.
#pragma once

#include "ndisfilter-client.h"

#include <array>
#include <cstdio>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace ndisfilter
{

using MacAddress = std::array<uint8_t, 6>;

// "STATUS_NOT_SUPPORTED (0xC00000BB)"
inline std::string StatusText(int32_t status)
{
    char value[16];
    std::snprintf(value, sizeof(value), " (0x%08X)", static_cast<unsigned>(status));
    return ndisfilter_status_name(status) + std::string(value);
}

// The control device cannot be opened.
class OpenError : public std::runtime_error
{
  public:
    using std::runtime_error::runtime_error;
};

// A request has failed.
class RequestError : public std::runtime_error
{
  public:
    RequestError(const char* request, int32_t status)
        : std::runtime_error(std::string(request) + ": " + StatusText(status)), request_(request),
          status_(status)
    {}
    const char* Request() const
    {
        return request_;
    } // what was asked for: a text that lives as long as the program
    int32_t Status() const { return status_; }

  private:
    const char* request_;
    int32_t status_;
};

class Client
{
  public:
    static constexpr uint32_t kForever = NDISFILTER_FOREVER;

    explicit Client(const std::string& name = "")
    {
        char message[512] = "";
        client_.reset(ndisfilter_open(name.c_str(), message, sizeof(message)));
        if (client_ == nullptr) {
            throw OpenError(message);
        }
    }
    explicit Client(ndisfilter_client* client) : client_(client) {} // takes it over

    ndisfilter_client* Get() const { return client_.get(); }

    void CheckVersion() { Check("ask for the version", ndisfilter_get_version(Get())); }

    std::vector<UserAdapterInfo> Adapters()
    {
        UserAdapterList list;
        Check("list the adapters", ndisfilter_get_adapters(Get(), &list));
        return {list.m_Adapters, list.m_Adapters + list.m_nAdapterCount};
    }
    uint32_t FindAdapter(const MacAddress& mac)
    {
        uint32_t id = 0;
        Check("find the adapter", ndisfilter_find_adapter(Get(), mac.data(), &id));
        return id;
    }

    UserIPConfig IPConfig(uint32_t adapterId)
    {
        UserIPConfig config;
        Check("get the IP configuration", ndisfilter_get_ipconfig(Get(), adapterId, &config));
        return config;
    }
    void SetIPConfig(const UserIPConfig& config)
    {
        Check("set the IP configuration", ndisfilter_set_ipconfig(Get(), &config));
    }

    uint8_t MediaState(const MacAddress& mac)
    {
        uint8_t state = 0;
        Check("get the media state", ndisfilter_get_media_state(Get(), mac.data(), &state));
        return state;
    }
    void SetMediaState(const MacAddress& mac, uint8_t state)
    {
        Check("set the media state", ndisfilter_set_media_state(Get(), mac.data(), state));
    }

    bool PacketDump(const MacAddress& mac)
    {
        uint8_t enabled = 0;
        Check("get the packet dump", ndisfilter_get_packet_dump(Get(), mac.data(), &enabled));
        return enabled != 0;
    }
    void SetPacketDump(const MacAddress& mac, bool enabled)
    {
        Check("switch the packet dump", ndisfilter_set_packet_dump(Get(), mac.data(), enabled ? 1 : 0));
    }

    // Nothing: no event is waiting.
    std::optional<UserEvent> NextEvent()
    {
        UserEvent event;
        const int32_t status = ndisfilter_get_event(Get(), &event);
        if (status == NDISFILTER_NO_EVENT) {
            return std::nullopt;
        }
        Check("get an event", status);
        return event;
    }
    void ClearEvents() { Check("clear the events", ndisfilter_clear_events(Get())); }

    void StartCapture() { Check("start the capture", ndisfilter_start_capture(Get())); }
    void StopCapture() { Check("stop the capture", ndisfilter_stop_capture(Get())); }
    void ReloadDebugFlag() { Check("reload the debug mask", ndisfilter_reload_debug_flag(Get())); }
    void SetCongestionLimit(uint32_t packets)
    {
        Check("set the congestion limit", ndisfilter_set_congestion_limit(Get(), packets));
    }
    void DumpState() { Check("print the driver's state", ndisfilter_dump_state(Get())); }

    // Nothing: another diagnostic is running.
    std::optional<std::string> Diagnose(const std::string& command, size_t longest = 64 * 1024)
    {
        std::string text(longest, '\0');
        const int32_t status = ndisfilter_diagnose(Get(), command.c_str(), text.data(), text.size());
        if (status == NDISFILTER_DIAG_BUSY) {
            return std::nullopt;
        }
        Check("run the diagnostic", status);
        text.resize(text.find('\0'));
        return text;
    }

    void StartShare() { Check("start the share", ndisfilter_share_start(Get())); }
    void StopShare() { Check("stop the share", ndisfilter_share_stop(Get())); }

    // How many frames were put until the time was up.
    size_t Send(std::span<const ndisfilter_frame> frames, uint32_t timeoutMs = kForever)
    {
        size_t sent = 0;
        Check("send frames", ndisfilter_send(Get(), frames.data(), frames.size(), timeoutMs, &sent));
        return sent;
    }
    // How many frames the driver has not taken when the time was up.
    size_t Flush(uint32_t timeoutMs = kForever)
    {
        size_t left = 0;
        Check("wait until frames are taken", ndisfilter_flush(Get(), timeoutMs, &left));
        return left;
    }
    size_t Discard()
    {
        size_t dropped = 0;
        Check("take frames back", ndisfilter_discard(Get(), &dropped));
        return dropped;
    }
    // The blocks that came, a part of `room`; none when the time was up.
    std::span<ndisfilter_block> Receive(std::span<ndisfilter_block> room, uint32_t timeoutMs = kForever)
    {
        size_t count = 0;
        Check("receive", ndisfilter_receive(Get(), room.data(), room.size(), timeoutMs, &count));
        return room.first(count);
    }
    void CancelReceive() { Check("cancel receiving", ndisfilter_cancel_receive(Get())); }

  private:
    struct Closer {
        void operator()(ndisfilter_client* client) const { ndisfilter_close(client); }
    };

    static void Check(const char* request, int32_t status)
    {
        if (status < 0) {
            throw RequestError(request, status);
        }
    }

    std::unique_ptr<ndisfilter_client, Closer> client_;
};

} // namespace ndisfilter
