#include "event-text.h"

#include <fmt/format.h>

namespace ctl
{

namespace
{

ndisfilter_event Decode(const UserEvent& event, bool raw)
{
    ndisfilter_event decoded;
    ndisfilter_decode_event(&event, &decoded);
    if (raw && decoded.has_head != 0) {
        decoded.has_head = 0;
        decoded.message -= NDIS_FILTER_EVENT_MESSAGE_OFFSET;
        decoded.message_size += NDIS_FILTER_EVENT_MESSAGE_OFFSET;
    }
    return decoded;
}

} // namespace

std::string FormatEvent(const UserEvent& event, bool raw)
{
    const ndisfilter_event decoded = Decode(event, raw);
    std::string text = fmt::format("event {} {}", decoded.event1, decoded.event2);
    if (decoded.has_head != 0) {
        const UserEventHead& head = decoded.head;
        text +=
            fmt::format(" adapter {} values {:#x} {:#x} {:#x} {:#x} {:#x} {:#x}", uint32_t{head.m_nAdapterId},
                        uint32_t{head.m_nValue1}, uint64_t{head.m_nValue2}, uint64_t{head.m_nValue3},
                        uint16_t{head.m_nValue4}, uint32_t{head.m_nValue5}, uint32_t{head.m_nValue6});
    }
    return text + ": " + Printable({decoded.message, decoded.message_size});
}

Json EventToJson(const UserEvent& event, bool raw)
{
    const ndisfilter_event decoded = Decode(event, raw);
    Json json = {
        {"event1", decoded.event1}, {"event2", decoded.event2}, {"length", int32_t{event.m_nLength}}};
    if (decoded.has_head != 0) {
        const UserEventHead& head = decoded.head;
        json["adapter"] = uint32_t{head.m_nAdapterId};
        json["values"] = {uint32_t{head.m_nValue1}, uint64_t{head.m_nValue2}, uint64_t{head.m_nValue3},
                          uint16_t{head.m_nValue4}, uint32_t{head.m_nValue5}, uint32_t{head.m_nValue6}};
    }
    json["message"] = Printable({decoded.message, decoded.message_size});
    return json;
}

} // namespace ctl
