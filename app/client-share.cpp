#include "client-share.h"

#include <algorithm>
#include <cstring>

#include <immintrin.h>

namespace ndisfilter
{

namespace
{

using namespace std::chrono_literals;

constexpr uint32_t kBlocks = NDIS_FILTER_BLOCK_COUNT;
constexpr uint32_t kBlockData = NDIS_FILTER_BLOCK_DATA_SIZE;

// An announcement that the driver missed is repeated after the first of these; the pause grows up to the last while
// the driver does not move.
constexpr auto kFirstPause = 2ms;
constexpr auto kLastPause = 256ms;

// How often a receive looks for the next block before it parks a read: for about as long as parking one and being woken
// takes, which also costs the driver more than many a frame.
constexpr int kLooksForMore = 200;

// Acquire pairs with the driver's release store behind its access to the block.
uint32_t LoadIndex(int32_t& index)
{
    return static_cast<uint32_t>(std::atomic_ref(index).load(std::memory_order_acquire));
}

void StoreIndex(int32_t& index, uint32_t value)
{
    std::atomic_ref(index).store(static_cast<int32_t>(value), std::memory_order_release);
}

uint32_t LoadOnce(uint32_t& value)
{
    return std::atomic_ref(value).load(std::memory_order_relaxed);
}

constexpr uint32_t Next(uint32_t index)
{
    return (index + 1) % kBlocks;
}

constexpr uint32_t InFlight(uint32_t read, uint32_t write)
{
    return (write + kBlocks - read) % kBlocks;
}

void FillBlock(SharedBlock& block, const ndisfilter_frame& frame)
{
    block.m_nAdapterId = frame.adapter_id;
    block.m_nReserved = 0;
    block.m_nDirection = frame.direction;
    block.m_nPacketSize = frame.size;
    block.m_nCarried[0] = frame.carried[0];
    block.m_nCarried[1] = frame.carried[1];
    block.m_nIndicateCode = frame.indicate_code;
    block.m_nIndicateValue = frame.indicate_value;
    if (frame.application_data != nullptr) {
        std::memcpy(block.m_ApplicationData, frame.application_data, sizeof(block.m_ApplicationData));
    } else {
        std::memset(block.m_ApplicationData, 0, sizeof(block.m_ApplicationData));
    }
    std::memcpy(block.m_Data, frame.data, frame.size);
}

// What a short frame takes of a block. The blocks go from one processor to another, so each is asked for while the one
// before it is worked on.
constexpr size_t kFetchedAhead = offsetof(SharedBlock, m_Data) + 64;

void FetchAhead(const SharedBlock& block)
{
    for (size_t offset = 0; offset < kFetchedAhead; offset += 64) {
        __builtin_prefetch(reinterpret_cast<const char*>(&block) + offset);
    }
}

void FetchAheadForWriting(SharedBlock& block)
{
    for (size_t offset = 0; offset < kFetchedAhead; offset += 64) {
        __builtin_prefetch(reinterpret_cast<char*>(&block) + offset, 1);
    }
}

// The driver reports no progress, so waiting for it means looking: eagerly at first, for it is fast when it runs. Between
// two looks the processor pauses but is not given away: on a busy machine it would not come back for thousands of frames.
void PauseBetweenLooks()
{
    for (int i = 0; i < 8; ++i) {
        _mm_pause();
    }
}

class Patience
{
  public:
    bool IsEager() const { return looks_ < 256; } // a hundred microseconds
    void Wait()
    {
        if (IsEager()) {
            ++looks_;
            PauseBetweenLooks();
        } else {
            std::this_thread::sleep_for(pause_);
            pause_ = std::min<std::chrono::microseconds>(pause_ * 2, 1ms);
        }
    }

  private:
    int looks_ = 0;
    std::chrono::microseconds pause_ = 50us;
};

} // namespace

Deadline::Deadline(uint32_t timeoutMs)
{
    if (timeoutMs != NDISFILTER_FOREVER) {
        end_ = Clock::now() + std::chrono::milliseconds(timeoutMs);
    }
}

bool Deadline::IsOver() const
{
    return end_ && Clock::now() >= *end_;
}

std::optional<uint32_t> Deadline::Remaining() const
{
    if (!end_) {
        return std::nullopt;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*end_ - Clock::now()).count();
    return static_cast<uint32_t>(std::max<int64_t>(left, 0));
}

// ------------------------------------------------------------------------------------------------- start and stop

std::shared_ptr<Share> Share::Start(Device& device, int32_t* status)
{
    uint32_t size = 0;
    const ControlResult result = device.Control(IOCTL_NDIS_FILTER_PUT_SHAREDMEMORYSIZE, {},
                                                {reinterpret_cast<uint8_t*>(&size), sizeof(size)});
    if (result.status < 0) {
        *status = result.status;
        return nullptr;
    }
    if (result.returned != sizeof(size) || size != NDIS_FILTER_MAPPED_MEMORY_SIZE) {
        *status = NDISFILTER_BAD_ANSWER;
        return nullptr;
    }
    *status = NDISFILTER_SUCCESS;
    void* const memory = device.StartShare(1, status);
    if (memory == nullptr) {
        *status = *status < 0 ? *status : NDISFILTER_SHARE_TAKEN;
        return nullptr;
    }
    *status = NDISFILTER_SUCCESS;
    std::shared_ptr<Share> share;
    try {
        share.reset(new Share(device, static_cast<SharedMemory*>(memory)));
        share->ResetRings();
        share->announcer_ = std::thread(&Share::AnnounceUntilTaken, share.get());
    } catch (...) {
        if (share == nullptr) {
            device.StopShare();
        }
        throw;
    }
    return share;
}

Share::Share(Device& device, SharedMemory* memory) : device_(device), memory_(memory) {}

Share::~Share()
{
    Stop();
}

int32_t Share::Stop()
{
    {
        const std::lock_guard lock(announceMutex_);
        stopping_ = true;
    }
    announceWake_.notify_all();
    CancelReceive();
    const std::scoped_lock lock(sendMutex_, receiveMutex_);
    if (stopped_) {
        return NDISFILTER_SUCCESS;
    }
    stopped_ = true;
    if (announcer_.joinable()) {
        announcer_.join();
    }
    announcement_.reset();
    DropRead();
    return device_.StopShare().status;
}

void Share::ResetRings()
{
    // The program's index goes first: as long as the driver's is out of range the driver does not touch the ring.
    SharedRing& output = memory_->KernelModeOutput;
    outputRead_ = LoadIndex(output.m_iWrite);
    const bool spoiltOutput = outputRead_ >= kBlocks;
    outputRead_ = spoiltOutput ? 0 : outputRead_;
    StoreIndex(output.m_iRead, outputRead_);
    if (spoiltOutput) {
        StoreIndex(output.m_iWrite, 0);
    }

    SharedRing& input = memory_->KernelModeInput;
    if (LoadIndex(input.m_iRead) >= kBlocks) {
        StoreIndex(input.m_iWrite, 0);
        StoreIndex(input.m_iRead, 0);
    }
    EmptyInputRing();
}

// Drops what the driver has not taken. A driver that is just taking a block has read the indexes before and will
// advance its own once more, beyond one that was moved back meanwhile, and then take the whole ring for filled. So the
// ring is first closed by an index that is none, and opened where the driver has come to rest.
void Share::EmptyInputRing()
{
    SharedRing& input = memory_->KernelModeInput;
    uint32_t read = LoadIndex(input.m_iRead);
    if (read != LoadIndex(input.m_iWrite)) {
        StoreIndex(input.m_iWrite, UINT32_MAX);
        for (int quietLooks = 0; quietLooks < 20; ++quietLooks) {
            std::this_thread::sleep_for(1ms);
            const uint32_t now = LoadIndex(input.m_iRead);
            if (now != read) {
                read = now;
                quietLooks = 0;
            }
        }
        read = read < kBlocks ? read : 0;
        StoreIndex(input.m_iWrite, read);
    }
    inputWrite_ = read;
}

// --------------------------------------------------------------------------------------------------------- sending

int32_t Share::Announce()
{
    return device_.Control(IOCTL_NDIS_FILTER_WRITE_SHARE, {}, {}).status;
}

// Announces without waiting for the answer: while it is on its way the program goes on filling the ring, so that the
// driver, once awake, finds more than it can take before the next look at it. At most one is on its way. Answers the
// status of those that have been answered.
int32_t Share::AnnounceAhead()
{
    const int32_t before = AnswerToAnnouncement(std::nullopt);
    announcement_ = device_.Send(IOCTL_NDIS_FILTER_WRITE_SHARE);
    if (announcement_ == nullptr) {
        throw std::bad_alloc();
    }
    const int32_t status = AnswerToAnnouncement(0);
    return before < 0 ? before : status;
}

// Waits for it as PendingControl::Wait does. Success also when none is on its way, or it has not been answered.
int32_t Share::AnswerToAnnouncement(std::optional<uint32_t> timeoutMs)
{
    const auto result = announcement_ != nullptr ? announcement_->Wait(timeoutMs) : std::nullopt;
    if (!result) {
        return NDISFILTER_SUCCESS;
    }
    announcement_.reset();
    return std::min(result->status, NDISFILTER_SUCCESS);
}

// Whether the driver will find blocks that were put behind `before` without being told: it takes blocks until the ring
// is empty. It has moved since the last look, and has not come to an end before them.
bool Share::IsDriverTaking(uint32_t before)
{
    // The write index was stored before this look at the driver's; the driver stores its own before it looks at ours.
    // Writing the index once more keeps the two in order: an exchange is a full barrier.
    std::atomic_ref(memory_->KernelModeInput.m_iWrite).exchange(static_cast<int32_t>(inputWrite_));
    const uint32_t read = LoadIndex(memory_->KernelModeInput.m_iRead);
    const bool moved = read != seenRead_;
    seenRead_ = read;
    return moved && read != before;
}

bool Share::IsAllTaken() const
{
    return LoadIndex(memory_->KernelModeInput.m_iRead) == inputWrite_;
}

// An announcement can be lost in the driver: between the end of its wait and the reset of its event. Nothing tells, so
// as long as frames wait the announcer makes it again.
void Share::AnnounceUntilTaken()
{
    std::unique_lock lock(announceMutex_);
    while (!stopping_) {
        announceWake_.wait(lock, [this] { return stopping_ || outstanding_; });
        std::chrono::milliseconds pause = kFirstPause;
        uint32_t lastRead = UINT32_MAX;
        while (!stopping_ && outstanding_) {
            announceWake_.wait_for(lock, pause, [this] { return stopping_.load(); });
            // Cleared before the look: a frame that is put behind it sets the flag again and wakes this thread.
            outstanding_ = false;
            if (stopping_ || IsAllTaken()) {
                continue;
            }
            outstanding_ = true;
            const uint32_t read = LoadIndex(memory_->KernelModeInput.m_iRead);
            pause =
                read != lastRead ? kFirstPause : std::min<std::chrono::milliseconds>(pause * 2, kLastPause);
            lastRead = read;
            lock.unlock();
            Announce();
            lock.lock();
        }
    }
}

// Puts frames as far as there is room, and none where there is less than `least`.
size_t Share::FillRoom(const ndisfilter_frame* frames, size_t count, size_t least, int32_t* status)
{
    SharedRing& input = memory_->KernelModeInput;
    const uint32_t read = LoadIndex(input.m_iRead);
    if (read >= kBlocks) {
        *status = NDISFILTER_BAD_RING;
        return 0;
    }
    uint32_t write = inputWrite_;
    const size_t room = kBlocks - 1 - InFlight(read, write);
    size_t put = 0;
    for (; room >= least && put < std::min(count, room); ++put) {
        const ndisfilter_frame& frame = frames[put];
        if (frame.data == nullptr) {
            *status = NDISFILTER_INVALID_PARAMETER;
            break;
        }
        if (frame.size == 0 || frame.size > kBlockData) {
            *status = NDISFILTER_BAD_FRAME_SIZE;
            break;
        }
        FillBlock(memory_->m_InputBlocks[write], frame);
        write = Next(write);
        FetchAheadForWriting(memory_->m_InputBlocks[Next(write)]);
    }
    if (put > 0) {
        inputWrite_ = write;
        StoreIndex(input.m_iWrite, write);
    }
    return put;
}

int32_t Share::Send(const ndisfilter_frame* frames, size_t count, const Deadline& deadline, size_t* sent)
{
    const std::lock_guard lock(sendMutex_);
    *sent = 0;
    int32_t status = NDISFILTER_SUCCESS;
    Patience patience;
    while (*sent < count && status == NDISFILTER_SUCCESS) {
        if (stopping_) {
            return NDISFILTER_NO_SHARE;
        }
        const uint32_t before = inputWrite_;
        // While the driver may be taking blocks it is left to take some more, so that the two do not meet at each one.
        const bool mayWait = patience.IsEager() && !deadline.IsOver();
        const size_t least = mayWait ? std::min<size_t>(count - *sent, kBlocks / 4) : 1;
        const size_t put = FillRoom(frames + *sent, count - *sent, least, &status);
        *sent += put;
        if (put > 0) {
            const int32_t announced = IsDriverTaking(before) ? AnswerToAnnouncement(0) : AnnounceAhead();
            status = status == NDISFILTER_SUCCESS ? announced : status;
            if (!outstanding_.exchange(true)) {
                const std::lock_guard wake(announceMutex_);
                announceWake_.notify_one();
            }
            patience = Patience();
        } else if (status == NDISFILTER_SUCCESS) {
            if (deadline.IsOver()) {
                return NDISFILTER_TIMEOUT;
            }
            patience.Wait();
        }
    }
    return status;
}

int32_t Share::Flush(const Deadline& deadline, size_t* left)
{
    Patience patience;
    for (;;) {
        {
            const std::lock_guard lock(sendMutex_);
            if (stopping_) {
                return NDISFILTER_NO_SHARE;
            }
            const uint32_t read = LoadIndex(memory_->KernelModeInput.m_iRead);
            if (read >= kBlocks) {
                return NDISFILTER_BAD_RING;
            }
            *left = InFlight(read, inputWrite_);
            if (const int32_t announced = AnswerToAnnouncement(0); announced < 0) {
                return announced;
            }
        }
        if (*left == 0) {
            return NDISFILTER_SUCCESS;
        }
        if (deadline.IsOver()) {
            return NDISFILTER_TIMEOUT;
        }
        patience.Wait();
    }
}

int32_t Share::Discard(size_t* dropped)
{
    const std::lock_guard lock(sendMutex_);
    if (stopping_) {
        return NDISFILTER_NO_SHARE;
    }
    if (LoadIndex(memory_->KernelModeInput.m_iRead) >= kBlocks) {
        return NDISFILTER_BAD_RING;
    }
    const uint32_t end = inputWrite_;
    EmptyInputRing();
    *dropped = InFlight(inputWrite_, end);
    return NDISFILTER_SUCCESS;
}

// ------------------------------------------------------------------------------------------------------- receiving

void Share::CopyBlock(uint32_t index, ndisfilter_block& block) const
{
    SharedBlock& source = memory_->m_OutputBlocks[index];
    const uint32_t size = LoadOnce(source.m_nPacketSize);
    block.full_size = size;
    block.is_signal = size == 0;
    if (block.is_signal) {
        // From the last block it reaches into the input blocks, which lie behind it.
        block.size = NDIS_FILTER_SIGNAL_SIZE;
        const size_t offset = offsetof(SharedMemory, m_OutputBlocks) + index * sizeof(SharedBlock);
        std::memcpy(block.content.signal, reinterpret_cast<const uint8_t*>(memory_) + offset, block.size);
    } else {
        block.size = std::min(size, kBlockData);
        std::memcpy(static_cast<void*>(&block.content.frame), &source,
                    offsetof(SharedBlock, m_Data) + block.size);
        block.content.frame.m_nPacketSize = size;
    }
}

size_t Share::TakeBlocks(ndisfilter_block* blocks, size_t capacity, int32_t* status)
{
    SharedRing& output = memory_->KernelModeOutput;
    const uint32_t write = LoadIndex(output.m_iWrite);
    if (write >= kBlocks) {
        *status = NDISFILTER_BAD_RING;
        return 0;
    }
    size_t count = 0;
    for (; count < capacity && outputRead_ != write; outputRead_ = Next(outputRead_)) {
        if (const uint32_t next = Next(outputRead_); next != write) {
            FetchAhead(memory_->m_OutputBlocks[next]);
        }
        CopyBlock(outputRead_, blocks[count++]);
    }
    if (count > 0) {
        StoreIndex(output.m_iRead, outputRead_);
        idleAnswers_ = 0;
    }
    return count;
}

// The outstanding read, sent when there is none. It stays outstanding between calls.
PendingControl* Share::ParkedRead()
{
    const std::lock_guard lock(readMutex_);
    if (cancelled_ || stopping_) {
        return nullptr;
    }
    if (read_ == nullptr) {
        read_ = device_.Send(IOCTL_NDIS_FILTER_READ_SHARE);
        if (read_ == nullptr) {
            throw std::bad_alloc();
        }
    }
    return read_.get();
}

void Share::DropRead()
{
    const std::lock_guard lock(readMutex_);
    read_.reset();
}

// The driver parks a read only when it finds the ring empty, so a block that came between the look and the request
// ends it at once.
int32_t Share::WaitForBlocks(const Deadline& deadline)
{
    PendingControl* const read = ParkedRead();
    if (read == nullptr) {
        return NDISFILTER_SUCCESS; // the caller looks why
    }
    const std::optional<ControlResult> result = read->Wait(deadline.Remaining());
    if (!result) {
        return NDISFILTER_TIMEOUT;
    }
    DropRead();
    if (result->status == NDISFILTER_CANCELLED) {
        // By CancelReceive, or because the thread that sent it has ended: the caller looks, and parks a new one.
        return NDISFILTER_SUCCESS;
    }
    // One answer too many is ordinary: its block has been taken already. More mean that the driver sees another ring
    // than this program does.
    StoreIndex(memory_->KernelModeOutput.m_iRead, outputRead_);
    if (++idleAnswers_ > 2) {
        std::this_thread::sleep_for(1ms);
    }
    return std::min(result->status, NDISFILTER_SUCCESS);
}

int32_t Share::Receive(ndisfilter_block* blocks, size_t capacity, const Deadline& deadline, size_t* count)
{
    const std::lock_guard lock(receiveMutex_);
    for (;;) {
        if (stopping_) {
            return NDISFILTER_NO_SHARE;
        }
        if (cancelled_.exchange(false)) {
            return NDISFILTER_CANCELLED;
        }
        int32_t status = NDISFILTER_SUCCESS;
        *count = TakeBlocks(blocks, capacity, &status);
        if (*count > 0 || status != NDISFILTER_SUCCESS) {
            looksLeft_ = kLooksForMore;
            return status;
        }
        if (deadline.IsOver()) {
            return NDISFILTER_TIMEOUT;
        }
        if (looksLeft_ > 0) {
            --looksLeft_;
            PauseBetweenLooks();
            continue;
        }
        status = WaitForBlocks(deadline);
        if (status < 0) {
            return status;
        }
    }
}

void Share::CancelReceive()
{
    // Set before the lock: a read that is sent behind it sees the mark, one that was sent before is cancelled here.
    cancelled_ = true;
    const std::lock_guard lock(readMutex_);
    if (read_ != nullptr) {
        read_->Cancel();
    }
}

} // namespace ndisfilter
