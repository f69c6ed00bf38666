// Guards for the NDIS read-write locks and the event-handler spin lock. Both raise to DISPATCH_LEVEL until release.
#pragma once

#include "ndisfilter-kernel.h"

template <BOOLEAN Write> class RwLockGuard
{
  public:
    explicit RwLockGuard(NDIS_RW_LOCK& lock) : lock_(lock)
    {
        NdisAcquireReadWriteLock(&lock_, Write, &state_);
    }
    ~RwLockGuard()
    {
        NdisReleaseReadWriteLock(&lock_, &state_);
    }
    RwLockGuard(const RwLockGuard&) = delete;
    RwLockGuard& operator=(const RwLockGuard&) = delete;

  private:
    NDIS_RW_LOCK& lock_;
    LOCK_STATE state_;
};

using ReadLock = RwLockGuard<FALSE>;
using WriteLock = RwLockGuard<TRUE>;

class SpinLock
{
  public:
    explicit SpinLock(KSPIN_LOCK& lock) : lock_(lock), oldIrql_(KeAcquireSpinLockRaiseToDpc(&lock))
    {
    }
    ~SpinLock()
    {
        KeReleaseSpinLock(&lock_, oldIrql_);
    }
    SpinLock(const SpinLock&) = delete;
    SpinLock& operator=(const SpinLock&) = delete;

  private:
    KSPIN_LOCK& lock_;
    KIRQL oldIrql_;
};
