// The framework and the hook driver of the host, loaded for a test and unloaded behind it. A test fails when it breaks
// a rule of the kernel or of the hook driver that it did not ask for, or when anything is left behind.
#pragma once

#include <gmock/gmock.h>

#include "client.h"
#include "eventually.h"
#include "faults.h"
#include "frames.h"
#include "loading.h"
#include "rings.h"

#include <hook/virtual-adapters.h>
#include <machine.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace support
{

inline constexpr uint32_t kTraceEverything = 0xFFFFFFFF;

struct LoadPlan {
    bool loadFramework = true;
    bool loadHook = true;
    bool bind = true;
    std::map<std::string, uint32_t> registry = {}; // values of the framework's service key
};

// What tests with other traces, without a hook driver, or with a binding of their own start from.
inline LoadPlan WithTrace(uint32_t mask)
{
    return {.registry = {{"GlobalDebugFlag", mask}}};
}
inline LoadPlan FrameworkOnly(uint32_t mask = 0)
{
    return {.loadHook = false, .bind = false, .registry = {{"GlobalDebugFlag", mask}}};
}
inline LoadPlan NotBound(uint32_t mask = 0)
{
    return {.bind = false, .registry = {{"GlobalDebugFlag", mask}}};
}
inline LoadPlan NothingLoaded(uint32_t mask = 0)
{
    return {
        .loadFramework = false, .loadHook = false, .bind = false, .registry = {{"GlobalDebugFlag", mask}}};
}

class FrameworkTest : public testing::Test
{
  protected:
    void SetUp() override;
    void TearDown() override;

    // Unload the hook driver, then the framework: as TearDown does, for tests that go on afterwards.
    void StopHook();
    void StopFramework();

    // An open adapter, bound to TCP/IP.
    FilterAdapter* AddAdapter(const std::string& name = "{ADAPTER-1} Test",
                              const MacAddress& address = kOwnMac);

    // Debug output since the load, or since the last Take().
    machine::DebugCapture& Debug() { return *debug_; }

    // What is left behind at this moment is what the test expects to stay; it has asserted what that is.
    void AcceptLeftovers() { before_ = machine::TakeCensus(); }

    // No lock is held by this thread, which is at PASSIVE_LEVEL, and none stays held: the framework's own threads take
    // theirs at any time.
    void ExpectNoLockHeld(const char* where);

    // The control device, opened by the user program; fails the test when it cannot be.
    std::unique_ptr<machine::File> OpenDevice();

    LoadPlan plan_;

  private:
    machine::Census before_;
    std::unique_ptr<machine::DebugCapture> debug_;
    std::unique_ptr<machine::Process> program_;
};

// A fixture that is loaded with another plan: Loaded<FrameworkOnly, kTraceDriver>.
template <LoadPlan (*kPlan)(uint32_t mask), uint32_t kMask = 0, class Base = FrameworkTest>
struct Loaded : Base {
    Loaded() { this->plan_ = kPlan(kMask); }
};

// The binding by hand, for hook drivers that behave otherwise than the host's.
NdisHookAPI HookRecord(); // size and version right, no functions
// Sends the record; what came back is in it.
machine::Request::Result Exchange(machine::File& device, uint32_t code, NdisHookAPI& record);

// Has the control device open, and no debug output yet.
class DeviceTest : public FrameworkTest
{
  protected:
    void SetUp() override;
    void TearDown() override;

    std::unique_ptr<machine::File> device_;
};

// Collects what goes out of an adapter on one side.
class Collector
{
  public:
    Collector(FilterAdapter* adapter, hook::Side side);
    ~Collector();
    Collector(const Collector&) = delete;
    Collector& operator=(const Collector&) = delete;
    std::vector<Bytes> Frames() const;
    // Waits with a bound until `count` frames came out; FALSE when they did not.
    bool WaitFor(size_t count) const;

  private:
    FilterAdapter* adapter_;
    hook::Side side_;
    mutable std::mutex mutex_;
    std::vector<Bytes> frames_;
};

// As the debug output prints "0x%p".
std::string PointerText(const void* pointer);

} // namespace support
