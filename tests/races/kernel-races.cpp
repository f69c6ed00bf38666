// The host's kernel itself: its locks, in the steps of their own code, and its events.
#include "race.h"

#include <gtest/gtest.h>

#include <thread>

namespace races
{
namespace
{

struct LockRace : Race {
    void Begin() override
    {
        NdisInitializeReadWriteLock(&lock);
        KeInitializeSpinLock(&spinLock);
    }
    void Enter(BOOLEAN write)
    {
        LOCK_STATE state;
        NdisAcquireReadWriteLock(&lock, write, &state);
        Require(KeGetCurrentIrql() == DISPATCH_LEVEL, "a lock raises to DISPATCH_LEVEL");
        if (write) {
            Write();
        } else {
            ++readers;
            Require(writers == 0, "no reader beside a writer");
            --readers;
        }
        NdisReleaseReadWriteLock(&lock, &state);
    }
    void Write()
    {
        ++writers;
        Require(writers == 1 && readers == 0, "one writer, and no reader beside it");
        --writers;
    }

    NDIS_RW_LOCK lock;
    KSPIN_LOCK spinLock;
    std::atomic<int> readers{0}, writers{0}; // inside a lock
};

TEST(Races, ReaderAgainstWriter)
{
    const auto layOut = [](LockRace& race) {
        race.threads = {[&] {
                            race.Enter(FALSE);
                            race.Enter(TRUE);
                        },
                        [&] { race.Enter(TRUE); },
                        [&] {
                            const machine::AtDispatch raised; // the short road
                            race.Enter(FALSE);
                        }};
    };
    Search<LockRace>({.shortly = 2, .fully = 3}, layOut, true);
}

TEST(Races, SpinLockAgainstSpinLock)
{
    const auto layOut = [](LockRace& race) {
        const auto enter = [&] {
            const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&race.spinLock);
            race.Write();
            KeReleaseSpinLock(&race.spinLock, irql);
        };
        race.threads = {enter, enter, enter};
    };
    Search<LockRace>({.shortly = 2, .fully = 3}, layOut, true);
}

// A producer that finds the event set does not take the kernel's lock. What it stored before is seen by the consumer
// that resets the event afterwards; no time passes that would hide a wake-up that was lost.
TEST(Races, SetEventAgainstReset)
{
    constexpr int kItems = 3;
    NDIS_EVENT event;
    std::atomic<int> made;
    int taken = 0;
    Search<Race>({.shortly = 3, .fully = 5}, [&](Race& race) {
        NdisInitializeEvent(&event);
        made = taken = 0;
        race.threads = {[&] {
                            for (int i = 0; i < kItems; ++i) {
                                ++made;
                                NdisSetEvent(&event);
                            }
                        },
                        [&] {
                            while (taken < kItems) {
                                NdisWaitEvent(&event, 0);
                                NdisResetEvent(&event);
                                taken = made;
                            }
                        }};
        race.end = [&] { Require(taken == kItems, "everything that was announced is taken"); };
    });
}

// Of two who wait for a synchronization event each set lets one go.
TEST(Races, WaitAgainstWait)
{
    KEVENT event;
    std::atomic<int> sets, woken;
    Search<Race>({.shortly = 2, .fully = 3}, [&](Race& race) {
        KeInitializeEvent(&event, SynchronizationEvent, FALSE);
        sets = woken = 0;
        const auto wait = [&] {
            KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
            Require(++woken <= sets, "a set lets one go");
        };
        race.threads = {wait, wait, [&] {
                            for (int i = 0; i < 2; ++i) {
                                ++sets;
                                while (KeSetEvent(&event, IO_NO_INCREMENT, FALSE) != 0) {
                                    std::this_thread::yield(); // the set before has let nobody go yet
                                }
                            }
                        }};
        race.end = [&] { Require(woken == 2, "everybody who waits is let go"); };
    });
}

} // namespace
} // namespace races
