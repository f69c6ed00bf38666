// Fills batches of frames on a thread of its own, so that reading and parsing a capture runs beside the delivery.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "capture-reader.h"

namespace lab
{

class ReadAhead
{
  public:
    // Fills an empty batch; false when it has left it empty, as there are no frames any more. Runs on the thread.
    using Fill = std::function<bool(FrameBatch& batch)>;

    ReadAhead(Fill fill, size_t framesInBatch);
    ~ReadAhead(); // ends the reading; what was not taken is lost
    ReadAhead(const ReadAhead&) = delete;
    ReadAhead& operator=(const ReadAhead&) = delete;

    // Exchanges the batch for the next full one, in the order of the capture; waits for it. False, with the batch empty,
    // when all were taken. From any thread.
    bool Take(FrameBatch& batch);

  private:
    void Read(const std::stop_token& stop);

    const Fill fill_;
    const size_t framesInBatch_;
    std::mutex mutex_; // of the rest
    std::condition_variable_any full_, empty_;
    std::vector<FrameBatch>
        batches_; // those that are read and not taken stand at `next_`, `count_` of them, in a ring
    size_t next_ = 0;
    size_t count_ = 0;
    bool end_ = false;
    std::jthread thread_; // last: it ends first
};

} // namespace lab
