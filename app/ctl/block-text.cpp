#include "block-text.h"

#include <cstring>
#include <span>

#include <fmt/format.h>

namespace ctl
{

namespace
{

constexpr size_t kEthernetHeader = 14;
constexpr size_t kShownSignalBytes = 32;

const char* DirectionName(uint32_t direction)
{
    switch (direction) {
    case NDIS_FILTER_DIRECTION_TO_PROTOCOL:
        return "in";
    case NDIS_FILTER_DIRECTION_TO_ADAPTER:
        return "out";
    case NDIS_FILTER_DIRECTION_TO_APPLICATION:
        return "loop";
    default:
        return "?";
    }
}

std::string Hex(std::span<const uint8_t> bytes)
{
    return fmt::format("{:02x}", fmt::join(bytes, ""));
}

std::string DescribeFrame(std::span<const uint8_t> frame)
{
    if (frame.size() < kEthernetHeader) {
        return "shorter than an Ethernet header";
    }
    const unsigned type = frame[12] << 8 | frame[13];
    return fmt::format("{} > {} type 0x{:04x}", FormatMac(&frame[6]), FormatMac(&frame[0]), type);
}

uint64_t IndicateValue(const SharedBlock& frame)
{
    uint64_t value; // not aligned in the block
    std::memcpy(&value, reinterpret_cast<const uint8_t*>(&frame) + offsetof(SharedBlock, m_nIndicateValue),
                sizeof(value));
    return value;
}

} // namespace

std::string FormatBlock(const ndisfilter_block& block)
{
    if (block.is_signal != 0) {
        return fmt::format("signal {} bytes {}...", block.size,
                           Hex(std::span(block.content.signal).first(kShownSignalBytes)));
    }
    const SharedBlock& frame = block.content.frame;
    std::string text =
        fmt::format("adapter {} {} {} bytes {} code {:#x} value {:#x}", frame.m_nAdapterId,
                    DirectionName(frame.m_nDirection), block.full_size,
                    DescribeFrame({frame.m_Data, block.size}), frame.m_nIndicateCode, IndicateValue(frame));
    if (block.full_size > block.size) {
        text += fmt::format(" (cut to {})", block.size);
    }
    return text;
}

Json BlockToJson(const ndisfilter_block& block)
{
    if (block.is_signal != 0) {
        return {{"kind", "signal"}, {"size", block.size}, {"data", Hex(block.content.signal)}};
    }
    const SharedBlock& frame = block.content.frame;
    return {{"kind", "frame"},
            {"adapter", frame.m_nAdapterId},
            {"direction", DirectionName(frame.m_nDirection)},
            {"size", block.full_size},
            {"code", frame.m_nIndicateCode},
            {"value", IndicateValue(frame)},
            {"carried", {frame.m_nCarried[0], frame.m_nCarried[1]}},
            {"data", Hex({frame.m_Data, block.size})}};
}

} // namespace ctl
