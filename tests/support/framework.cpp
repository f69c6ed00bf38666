#include "framework.h"

#include "eventually.h"

#include <cstdio>
#include <cstring>

// The entry routine of the framework, which is linked into every test program.
extern "C" int32_t DriverEntry(_DRIVER_OBJECT* driver, _UNICODE_STRING* registryPath);

namespace support
{

void* MapPage(int protection)
{
    return mmap(nullptr, 4096, protection, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
}

machine::Status LoadFramework()
{
    const machine::Status status = machine::LoadDriver(kFrameworkService, DriverEntry);
    EXPECT_TRUE(machine::WaitIdle());
    return status;
}

void FrameworkTest::SetUp()
{
    machine::TakeViolations();
    hook::TakeMisuses();
    machine::PrintViolations(false);
    before_ = machine::TakeCensus();
    debug_ = std::make_unique<machine::DebugCapture>();
    program_ = std::make_unique<machine::Process>();
    machine::DeleteRegistryKey(kFrameworkService);
    machine::SetRegistryDword(kFrameworkService, "Start", 3); // creates the key
    for (const auto& [name, value] : plan_.registry) {
        machine::SetRegistryDword(kFrameworkService, name, value);
    }
    if (plan_.loadFramework) {
        ASSERT_EQ(LoadFramework(), STATUS_SUCCESS) << debug_->Text();
    }
    if (plan_.loadHook) {
        ASSERT_EQ(hook::Load(), STATUS_SUCCESS);
    }
    if (plan_.bind) {
        ASSERT_EQ(hook::Bind(), STATUS_SUCCESS) << debug_->Text();
    }
}

void FrameworkTest::TearDown()
{
    machine::ClearFaults();
    machine::CheckReturnToUser("the end of the test");
    program_.reset();
    StopHook();
    StopFramework();
    machine::DiscardDriver(kFrameworkService);
    debug_.reset();
    for (const machine::Violation& violation : machine::TakeViolations()) {
        ADD_FAILURE() << violation.rule << " in " << violation.function << ": " << violation.detail;
    }
    for (const std::string& misuse : hook::TakeMisuses()) {
        ADD_FAILURE() << "misuse of the hook driver: " << misuse;
    }
    const machine::Census after = machine::TakeCensus();
    EXPECT_TRUE(after == before_) << "left behind: " << machine::DescribeCensus(after)
                                  << "\nbefore: " << machine::DescribeCensus(before_);
    machine::PrintViolations(true);
}

void FrameworkTest::StopHook()
{
    if (hook::IsLoaded()) {
        EXPECT_EQ(hook::Unload(), STATUS_SUCCESS);
        EXPECT_TRUE(hook::TakeBalance().IsEven());
    }
}

void FrameworkTest::StopFramework()
{
    if (machine::IsDriverLoaded(kFrameworkService)) {
        EXPECT_EQ(machine::UnloadDriver(kFrameworkService), STATUS_SUCCESS);
    }
}

FilterAdapter* FrameworkTest::AddAdapter(const std::string& name, const MacAddress& address)
{
    hook::AdapterOptions options;
    options.name = name;
    options.address = address;
    FilterAdapter* adapter = hook::AddAdapter(options);
    EXPECT_NE(adapter, nullptr) << name;
    if (adapter != nullptr) {
        hook::OpenAdapter(adapter);
    }
    return adapter;
}

void FrameworkTest::ExpectNoLockHeld(const char* where)
{
    machine::CheckReturnToUser(where);
    EXPECT_TRUE(Eventually([] { return machine::TakeCensus().locksHeld == 0; })) << where;
}

std::unique_ptr<machine::File> FrameworkTest::OpenDevice()
{
    machine::Status status = 0;
    std::unique_ptr<machine::File> file = program_->Open(kDeviceName, &status);
    EXPECT_NE(file, nullptr) << "status " << std::hex << static_cast<uint32_t>(status);
    return file;
}

void DeviceTest::SetUp()
{
    FrameworkTest::SetUp();
    device_ = OpenDevice();
    ASSERT_NE(device_, nullptr);
    Debug().Take();
}

void DeviceTest::TearDown()
{
    device_.reset();
    FrameworkTest::TearDown();
}

NdisHookAPI HookRecord()
{
    NdisHookAPI record = {};
    record.m_Size = sizeof(record);
    record.m_MajorVersion = NDIS_HOOK_MAJOR_VERSION;
    record.m_MinorVersion = NDIS_HOOK_MINOR_VERSION;
    return record;
}

machine::Request::Result Exchange(machine::File& device, uint32_t code, NdisHookAPI& record)
{
    const std::span bytes(reinterpret_cast<const uint8_t*>(&record), sizeof(record));
    machine::Request request = device.SendInternal(code, bytes, sizeof(record), sizeof(record));
    const machine::Request::Result result = request.Wait().value();
    if (request.Output().size() == sizeof(record)) {
        std::memcpy(&record, request.Output().data(), sizeof(record));
    }
    return result;
}

Collector::Collector(FilterAdapter* adapter, hook::Side side) : adapter_(adapter), side_(side)
{
    hook::SetSink(adapter, side, [this](std::span<const uint8_t> frame, const hook::Delivery&) {
        const std::lock_guard lock(mutex_);
        frames_.emplace_back(frame.begin(), frame.end());
    });
}

Collector::~Collector()
{
    if (hook::IsLoaded()) {
        hook::SetSink(adapter_, side_, {});
    }
}

std::vector<Bytes> Collector::Frames() const
{
    const std::lock_guard lock(mutex_);
    return frames_;
}

bool Collector::WaitFor(size_t count) const
{
    return Eventually([&] { return Frames().size() >= count; });
}

std::string PointerText(const void* pointer)
{
    char text[2 + 16 + 1];
    snprintf(text, sizeof(text), "0x%016llX", reinterpret_cast<unsigned long long>(pointer));
    return text;
}

} // namespace support
