// The frames of a Linux interface, through rings that the kernel shares with the program (packet(7), TPACKET_V2).
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <span>
#include <vector>

#include "interface.h"
#include "socket.h"

struct tpacket2_hdr;

namespace lab
{

class PacketSocket
{
  public:
    // Opens the interface for all frames that arrive, whoever they are for. Throws LabError.
    explicit PacketSocket(const Interface& interface);
    ~PacketSocket();
    PacketSocket(const PacketSocket&) = delete;
    PacketSocket& operator=(const PacketSocket&) = delete;

    // Waits until frames are there or the time is over. One thread at a time receives.
    void Wait(int milliseconds);
    // The next frames, at most as many as are asked for. They lie in the ring until Release.
    std::span<const std::span<const uint8_t>> Receive(size_t most);
    void Release();

    // Puts a frame into the ring; from any thread. It goes out at the next Flush of any thread.
    void Send(std::span<const uint8_t> frame);
    void Flush();

    // When nobody receives any more.
    struct Counters {
        uint64_t completedChecksums; // of frames that came without theirs
        uint64_t tooLong;            // received and left out
        uint64_t lostReceived;       // by the kernel, as the ring was full
        uint64_t lostSent;           // as the ring was full
    };
    Counters Count();

  private:
    tpacket2_hdr* Slot(uint8_t* ring, uint32_t index) const;
    void SetOption(int option, const void* value, uint32_t length, const char* what) const;
    std::span<const uint8_t> Prepare(tpacket2_hdr& slot);

    const Interface& interface_;
    Socket socket_;
    uint8_t* receiveRing_ = nullptr;
    uint8_t* sendRing_ = nullptr;

    uint32_t nextReceived_ = 0; // slot
    uint32_t taken_ = 0;        // slots before `nextReceived_` that Release gives back
    std::vector<std::span<const uint8_t>> frames_;
    std::vector<std::vector<uint8_t>> tagged_; // frames whose VLAN tag the kernel had taken out
    size_t taggedUsed_ = 0;

    std::mutex sendMutex_; // of the next two
    uint32_t nextSent_ = 0;
    uint64_t lostSent_ = 0;
    std::atomic<bool> unsent_ = false; // there are frames for Flush

    uint64_t completedChecksums_ = 0;
    uint64_t tooLong_ = 0;
};

} // namespace lab
