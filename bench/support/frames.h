// Frames for contenders to work on: TCP to port 80 over IPv4, in packets that lie apart as a hook driver's do, in an
// order that no prefetcher guesses. The touched lines of all stay in the second-level cache.
#pragma once

#include "contest.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

namespace bench
{

constexpr size_t kTcpOffset = 34; // in each of the frames

// What a peer sees of a packet, whose headers and the framework's do not go together.
struct PlainPacket {
    uint8_t fields[848];
    uint8_t m_Data[1648];
};

// An Ethernet frame of `size` bytes, numbered in its source address.
inline void FillFrame(uint8_t* frame, uint32_t size, uint32_t number)
{
    std::memset(frame, 0, size);
    frame[12] = 0x08; // IPv4
    uint8_t* const ip = frame + 14;
    ip[0] = 0x45;
    ip[2] = static_cast<uint8_t>((size - 14) >> 8);
    ip[3] = static_cast<uint8_t>(size - 14);
    ip[8] = 64;
    ip[9] = 6; // TCP
    std::memcpy(ip + 12, &number, sizeof(number));
    ip[20 + 3] = 80;
    ip[20 + 12] = 5 << 4; // header length
}

// Packet: FilterPacket or PlainPacket.
template <class Packet>
class Frames
{
    static_assert(sizeof(Packet) == sizeof(PlainPacket));

  public:
    explicit Frames(uint32_t size)
    {
        for (uint32_t i = 0; i < 1000; i++) {
            packets_.push_back(std::make_unique<Packet>());
            FillFrame(packets_.back()->m_Data, size, i);
            order_.push_back(packets_.back().get());
        }
        std::shuffle(order_.begin(), order_.end(), std::mt19937(7));
    }

    // Passes over the frames again and again, one a call of `use`, which answers where the TCP header is.
    template <class Use>
    void UseAll(benchmark::State& state, const Use& use)
    {
        uint64_t work = 0;
        for (Packet* packet : order_) {
            work = Mix(work, static_cast<uint64_t>(use(*packet)));
        }
        SetWork(state, work);
        size_t next = 0;
        for (auto _ : state) {
            benchmark::DoNotOptimize(use(*order_[next]));
            next = next + 1 < order_.size() ? next + 1 : 0;
        }
    }

  private:
    std::vector<std::unique_ptr<Packet>> packets_;
    std::vector<Packet*> order_;
};

} // namespace bench
