#include "fuzz.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <vector>

// The entry routine of the framework, which is linked into every fuzzer.
extern "C" int32_t DriverEntry(_DRIVER_OBJECT* driver, _UNICODE_STRING* registryPath);

// What ASAN_OPTIONS does not say otherwise: short stacks of allocations and a small quarantine are many times faster, and
// leaks are the verifier's to find, input by input.
extern "C" const char* __asan_default_options()
{
    return "malloc_context_size=2:quarantine_size_mb=16:thread_local_quarantine_size_kb=64:detect_leaks=0:"
           "allocator_may_return_null=1";
}

namespace fuzz
{
namespace
{

constexpr char kService[] = "NdisFilter";
constexpr int64_t kMidday2024 = 133'480'872'000'000'000; // 1 January 2024, 12:00 UTC

// What the hook driver makes at its first use, so that none is made while inputs run.
void FillPools(FilterAdapter* adapter)
{
    const support::Bytes frame = support::UdpFrame();
    Require(hook::DeliverReceived(adapter, frame, {.presentBytes = 14}) == hook::Accepted::Yes,
            "a first frame");
    std::vector<FilterPacket*> packets(256);
    for (FilterPacket*& packet : packets) {
        packet = Filter_AllocatePacket(adapter);
        Require(packet != nullptr, "a packet of the pool");
    }
    for (FilterPacket* packet : packets) {
        Filter_ReleasePacket(packet);
    }
}

} // namespace

void Fail(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    std::fputs("fuzz: ", stderr);
    std::vfprintf(stderr, format, arguments);
    std::fputc('\n', stderr);
    va_end(arguments);
    std::abort();
}

void AwaitRest()
{
    constexpr uint32_t kPatience = 50'000; // also of a machine that has much else to do
    Require(machine::WaitIdle(kPatience), "the machine comes to rest");
}

Machine::Machine()
{
    machine::StopClock(kMidday2024);
    machine::SetRegistryDword(kService, "Start", 3);
    RequireEqual(machine::LoadDriver(kService, DriverEntry), STATUS_SUCCESS, "loading the framework");
    RequireEqual(hook::Load(), STATUS_SUCCESS, "loading the hook driver");
    RequireEqual(hook::Bind(), STATUS_SUCCESS, "binding");
    for (size_t i = 0; i < kAdapters; ++i) {
        hook::AdapterOptions options;
        options.name = "{ADAPTER-" + std::to_string(i + 1) + "}";
        options.address = kAddresses[i];
        adapters[i] = hook::AddAdapter(options);
        Require(adapters[i] != nullptr, "an adapter");
        hook::OpenAdapter(adapters[i]);
        RequireEqual(Filter_AdapterToId(adapters[i], &adapterIds[i]), FILTER_STATUS_SUCCESS,
                     "its identifier");
    }
    FillPools(adapters[0]);
    AwaitRest();
    Accept();
}

void Machine::CheckAtRest()
{
    AwaitRest();
    machine::CheckReturnToUser("the end of the input");
    for (const machine::Violation& violation : machine::TakeViolations()) {
        Fail("rule %s broken in %s: %s", violation.rule.c_str(), violation.function.c_str(),
             violation.detail.c_str());
    }
    for (const std::string& misuse : hook::TakeMisuses()) {
        Fail("misuse of the hook driver: %s", misuse.c_str());
    }
    const hook::Balance balance = hook::TakeBalance();
    Require(balance.IsEven(), "the balance of packets is even");
    RequireEqual(balance.outstanding, 0, "packets that are still out");
    if (const machine::Census now = machine::TakeCensus(); !(now == before_)) {
        Fail("left behind: %s\nbefore: %s", machine::DescribeCensus(now).c_str(),
             machine::DescribeCensus(before_).c_str());
    }
}

FilterDriver* RegisterDriver(const char* name, void* context)
{
    const STRING counted = Counted(name);
    FilterDriver* driver = nullptr;
    RequireEqual(Filter_RegisterDriver(&counted, context, 1, 0, &driver), FILTER_STATUS_SUCCESS,
                 "registering a driver");
    return driver;
}

FilterPacket* MakePacket(FilterAdapter* adapter, std::span<const uint8_t> frame)
{
    FilterPacket* packet = Filter_AllocatePacket(adapter);
    Require(packet != nullptr && frame.size() <= sizeof(packet->m_Data), "a packet");
    std::copy(frame.begin(), frame.end(), packet->m_Data);
    packet->m_nBytesRead = packet->m_nPacketSize = static_cast<ULONG>(frame.size());
    Filter_InitPacketHeader(packet, nullptr);
    return packet;
}

} // namespace fuzz
