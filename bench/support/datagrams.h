// Datagrams for contenders to sum up, few enough to stay in the first-level cache.
#pragma once

#include "contest.h"

#include <array>
#include <cstring>
#include <random>

namespace bench
{

constexpr size_t kIpHeaderSize = 20;

// A datagram whose transport part has `size` bytes; all checksums are zero. It lies as in a frame, behind 14 bytes.
struct Datagram {
    alignas(64) uint8_t space[1536];
    uint16_t checksum = 0; // where a contender puts it that does not write into the datagram

    uint8_t* Ip() { return space + 14; }
    uint8_t* Transport() { return Ip() + kIpHeaderSize; }
};

class Datagrams
{
  public:
    Datagrams(uint8_t protocol, size_t checksumOffset, size_t size)
    {
        std::minstd_rand random(static_cast<unsigned>(size));
        for (Datagram& datagram : datagrams_) {
            for (uint8_t& byte : datagram.space) {
                byte = static_cast<uint8_t>(random() >> 8);
            }
            uint8_t* const ip = datagram.Ip();
            ip[0] = 0x45;
            ip[2] = static_cast<uint8_t>((kIpHeaderSize + size) >> 8);
            ip[3] = static_cast<uint8_t>(kIpHeaderSize + size);
            ip[9] = protocol;
            std::memset(ip + 10, 0, 2);
            std::memset(datagram.Transport() + checksumOffset, 0, 2);
        }
    }

    // `use` sums up a datagram, `result` then answers the checksum.
    template <class Use, class Result>
    void UseAll(benchmark::State& state, const Use& use, const Result& result)
    {
        uint64_t work = 0;
        for (Datagram& datagram : datagrams_) {
            use(datagram);
            work = Mix(work, result(datagram));
        }
        SetWork(state, work);
        for (auto _ : state) {
            for (Datagram& datagram : datagrams_) {
                use(datagram);
            }
            benchmark::ClobberMemory();
        }
        SetOperations(state,
                      static_cast<double>(state.iterations()) * static_cast<double>(datagrams_.size()));
    }

    // The same for a contender that leaves the checksum beside the datagram.
    template <class Sum>
    void SumAll(benchmark::State& state, const Sum& sum)
    {
        UseAll(
            state, [&](Datagram& datagram) { datagram.checksum = sum(datagram); },
            [](const Datagram& datagram) { return datagram.checksum; });
    }

  private:
    std::array<Datagram, 16> datagrams_;
};

} // namespace bench
