// The host's kernel itself: its locks, in the steps of their own code, and its events.
#include "race.h"

#include <gtest/gtest.h>

#include <thread>

namespace races
{
namespace
{

// How many are inside a lock, and what they may meet there.
class Inside
{
  public:
    void Read()
    {
        ++readers_;
        Require(writers_ == 0, "no reader beside a writer");
        --readers_;
    }
    void Write()
    {
        ++writers_;
        Require(writers_ == 1 && readers_ == 0, "one writer, and no reader beside it");
        --writers_;
    }

  private:
    std::atomic<int> readers_{0}, writers_{0};
};

class LockRace : public Race
{
  protected:
    void Begin() override
    {
        NdisInitializeReadWriteLock(&lock_);
        KeInitializeSpinLock(&spinLock_);
    }
    void Enter(BOOLEAN write)
    {
        LOCK_STATE state;
        NdisAcquireReadWriteLock(&lock_, write, &state);
        Require(KeGetCurrentIrql() == DISPATCH_LEVEL, "a lock raises to DISPATCH_LEVEL");
        if (write) {
            inside_.Write();
        } else {
            inside_.Read();
        }
        NdisReleaseReadWriteLock(&lock_, &state);
    }

    NDIS_RW_LOCK lock_;
    KSPIN_LOCK spinLock_;
    Inside inside_;
};

class ReadersAndWriters : public LockRace
{
    Bodies Threads() override
    {
        return {[this] {
                    Enter(FALSE);
                    Enter(TRUE);
                },
                [this] { Enter(TRUE); },
                [this] {
                    const machine::AtDispatch raised; // the short road
                    Enter(FALSE);
                }};
    }
};

TEST(Races, ReaderAgainstWriter)
{
    Search<ReadersAndWriters>({.shortly = 2, .fully = 3}, true);
}

class SpinLocks : public LockRace
{
    Bodies Threads() override
    {
        const auto enter = [this] {
            const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&spinLock_);
            inside_.Write();
            KeReleaseSpinLock(&spinLock_, irql);
        };
        return {enter, enter, enter};
    }
};

TEST(Races, SpinLockAgainstSpinLock)
{
    Search<SpinLocks>({.shortly = 2, .fully = 3}, true);
}

// A producer that finds the event set does not take the kernel's lock. What it stored before is seen by the consumer
// that resets the event afterwards; no time passes that would hide a wake-up that was lost.
class ProducerAndConsumer : public Race
{
    static constexpr int kItems = 3;
    void Begin() override { NdisInitializeEvent(&event_); }
    Bodies Threads() override
    {
        return {[this] {
                    for (int i = 0; i < kItems; ++i) {
                        ++made_;
                        NdisSetEvent(&event_);
                    }
                },
                [this] {
                    while (taken_ < kItems) {
                        NdisWaitEvent(&event_, 0);
                        NdisResetEvent(&event_);
                        taken_ = made_;
                    }
                }};
    }
    void End() override { Require(taken_ == kItems, "everything that was announced is taken"); }

    NDIS_EVENT event_;
    std::atomic<int> made_{0};
    int taken_ = 0;
};

TEST(Races, SetEventAgainstReset)
{
    Search<ProducerAndConsumer>({.shortly = 3, .fully = 5});
}

// Of two who wait for a synchronization event each set lets one go.
class TwoWaiters : public Race
{
    void Begin() override { KeInitializeEvent(&event_, SynchronizationEvent, FALSE); }
    Bodies Threads() override
    {
        const auto wait = [this] {
            KeWaitForSingleObject(&event_, Executive, KernelMode, FALSE, nullptr);
            Require(++woken_ <= sets_, "a set lets one go");
        };
        return {wait, wait, [this] {
                    for (int i = 0; i < 2; ++i) {
                        ++sets_;
                        while (KeSetEvent(&event_, IO_NO_INCREMENT, FALSE) != 0) {
                            std::this_thread::yield(); // the set before has let nobody go yet
                        }
                    }
                }};
    }
    void End() override { Require(woken_ == 2, "everybody who waits is let go"); }

    KEVENT event_;
    std::atomic<int> sets_{0}, woken_{0};
};

TEST(Races, WaitAgainstWait)
{
    Search<TwoWaiters>({.shortly = 2, .fully = 3});
}

} // namespace
} // namespace races
