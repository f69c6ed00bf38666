// The program's side of the shared rings.
//
// The program owns the read index of the output ring and the write index of the input ring. It keeps both in its own
// memory and only stores them into the shared one; of the driver's two it reads each once per look and checks it.
#pragma once

#include "device.h"
#include "ndisfilter-client.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

namespace ndisfilter
{

// When a wait ends.
class Deadline
{
  public:
    explicit Deadline(uint32_t timeoutMs);
    bool IsOver() const;
    std::optional<uint32_t> Remaining() const; // milliseconds, rounded up; nothing: no limit

  private:
    using Clock = std::chrono::steady_clock;
    std::optional<Clock::time_point> end_;
};

class Share
{
  public:
    // Null with a status when the share cannot be had.
    static std::shared_ptr<Share> Start(Device& device, int32_t* status);
    ~Share();
    Share(const Share&) = delete;
    Share& operator=(const Share&) = delete;

    int32_t Send(const ndisfilter_frame* frames, size_t count, const Deadline& deadline, size_t* sent);
    int32_t Flush(const Deadline& deadline, size_t* left);
    int32_t Discard(size_t* dropped);
    int32_t Receive(ndisfilter_block* blocks, size_t capacity, const Deadline& deadline, size_t* count);
    void CancelReceive();
    // Ends and waits for all other calls; those that follow answer NDISFILTER_NO_SHARE.
    int32_t Stop();

  private:
    Share(Device& device, SharedMemory* memory);

    void ResetRings();
    void EmptyInputRing();

    int32_t Announce();
    int32_t AnnounceAhead();
    int32_t AnswerToAnnouncement(std::optional<uint32_t> timeoutMs);
    void AnnounceUntilTaken();
    bool IsDriverTaking(uint32_t before);
    bool IsAllTaken() const;
    size_t FillRoom(const ndisfilter_frame* frames, size_t count, size_t least, int32_t* status);

    size_t TakeBlocks(ndisfilter_block* blocks, size_t capacity, int32_t* status);
    void CopyBlock(uint32_t index, ndisfilter_block& block) const;
    int32_t WaitForBlocks(const Deadline& deadline);
    PendingControl* ParkedRead();
    void DropRead();

    Device& device_;
    SharedMemory* const memory_;
    std::atomic<bool> stopping_ = false;
    bool stopped_ = false; // under both sendMutex_ and receiveMutex_

    std::mutex sendMutex_;
    std::atomic<uint32_t> inputWrite_ = 0; // stored under sendMutex_
    uint32_t seenRead_ = UINT32_MAX;       // the driver's index at the last send
    std::unique_ptr<PendingControl> announcement_;

    std::mutex receiveMutex_;
    uint32_t outputRead_ = 0;
    int looksLeft_ = 0;        // behind the last block that came, before a read is parked
    uint32_t idleAnswers_ = 0; // reads that came back although nothing was there, in a row
    std::mutex readMutex_;     // guards the pointer; held only briefly, so that a cancel never waits
    std::unique_ptr<PendingControl> read_;
    std::atomic<bool> cancelled_ = false;

    std::mutex announceMutex_;
    std::condition_variable announceWake_;
    std::atomic<bool> outstanding_ = false; // frames may be waiting for the driver
    std::thread announcer_;
};

} // namespace ndisfilter
