#include "read-ahead.h"

#include <utility>

namespace lab
{
namespace
{

constexpr size_t kBatches = 4;

} // namespace

ReadAhead::ReadAhead(Fill fill, size_t framesInBatch) : fill_(std::move(fill)), framesInBatch_(framesInBatch)
{
    for (size_t i = 0; i < kBatches; ++i) {
        batches_.emplace_back(framesInBatch);
    }
    thread_ = std::jthread([this](const std::stop_token& stop) { Read(stop); });
}

ReadAhead::~ReadAhead() = default;

void ReadAhead::Read(const std::stop_token& stop)
{
    FrameBatch batch(framesInBatch_);
    while (fill_(batch)) {
        std::unique_lock lock(mutex_);
        if (!empty_.wait(lock, stop, [this] { return count_ < kBatches; })) {
            return;
        }
        std::swap(batch, batches_[(next_ + count_) % kBatches]);
        ++count_;
        full_.notify_one();
        lock.unlock();
        batch.Clear();
        if (batch.Capacity() != framesInBatch_) { // what somebody brought who took one
            batch = FrameBatch(framesInBatch_);
        }
    }
    std::lock_guard lock(mutex_);
    end_ = true;
    full_.notify_all();
}

bool ReadAhead::Take(FrameBatch& batch)
{
    std::unique_lock lock(mutex_);
    full_.wait(lock, [this] { return count_ != 0 || end_; });
    if (count_ == 0) {
        batch.Clear();
        return false;
    }
    std::swap(batch, batches_[next_]);
    next_ = (next_ + 1) % kBatches;
    --count_;
    empty_.notify_one();
    return true;
}

} // namespace lab
