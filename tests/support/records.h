// Records as the bytes of a control request.
#pragma once

#include <cstdint>
#include <span>

namespace support
{

template <class Record>
std::span<const uint8_t> In(const Record& record)
{
    return {reinterpret_cast<const uint8_t*>(&record), sizeof(record)};
}

template <class Record>
std::span<uint8_t> Out(Record& record)
{
    return {reinterpret_cast<uint8_t*>(&record), sizeof(record)};
}

} // namespace support
