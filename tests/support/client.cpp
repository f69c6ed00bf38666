#include "client.h"

#include <gtest/gtest.h>

#include <atomic>

namespace support
{

CountedString::CountedString(std::string text) : text_(text.begin(), text.end())
{
    const auto length = static_cast<USHORT>(text_.size());
    string_ = {length, length, text_.data()};
}

std::string TakeName(STRING* name)
{
    if (name == nullptr) {
        return "(none)";
    }
    const std::string text(name->Buffer, name->Length);
    EXPECT_EQ(Filter_FreeMemory(name), FILTER_STATUS_SUCCESS);
    return text;
}

uint32_t IdOf(FilterAdapter* adapter)
{
    ULONG id = 0;
    EXPECT_EQ(Filter_AdapterToId(adapter, &id), FILTER_STATUS_SUCCESS);
    return id;
}

TestDriver::TestDriver(const std::string& name, void* context)
{
    const CountedString counted(name);
    EXPECT_EQ(Filter_RegisterDriver(&counted, context, 1, 0, &handle_), FILTER_STATUS_SUCCESS) << name;
    EXPECT_NE(handle_, nullptr) << name;
}

TestDriver::~TestDriver()
{
    if (handle_ != nullptr) {
        EXPECT_EQ(Deregister(), FILTER_STATUS_SUCCESS);
    }
}

FILTER_STATUS TestDriver::Deregister()
{
    FilterDriver* handle = handle_;
    handle_ = nullptr;
    return Filter_DeregisterDriver(handle);
}

TestFilter::TestFilter(TestDriver& driver, const Options& options, Procedure procedure)
    : driver_(driver), procedure_(std::move(procedure))
{
    static std::atomic<int> number = 0;
    const CountedString name(!options.name.empty() ? options.name : "filter-" + std::to_string(++number));
    EXPECT_EQ(Filter_RegisterFilter(driver.Handle(), &name, Run, this, options.type, options.order, &handle_),
              FILTER_STATUS_SUCCESS)
        << options.name;
    EXPECT_NE(handle_, nullptr) << options.name;
}

TestFilter::~TestFilter()
{
    if (handle_ != nullptr && driver_.Handle() != nullptr) {
        EXPECT_EQ(Deregister(), FILTER_STATUS_SUCCESS);
    }
}

FILTER_STATUS TestFilter::Deregister()
{
    PacketFilter* handle = handle_;
    handle_ = nullptr;
    return Filter_DeregisterFilter(driver_.Handle(), handle);
}

const void* TestFilter::ProcedureAddress() const
{
    return reinterpret_cast<const void*>(Run);
}

std::vector<TestFilter::Call> TestFilter::Calls() const
{
    const std::lock_guard lock(mutex_);
    return calls_;
}

FILTER_RESULT TestFilter::Run(FilterDriver* driver, PVOID driverContext, PacketFilter* filter,
                              PVOID filterContext, FilterPacket* packet)
{
    auto* self = static_cast<TestFilter*>(filterContext);
    {
        const std::lock_guard lock(self->mutex_);
        self->calls_.push_back({driver, driverContext, filter, packet,
                                Bytes(packet->m_Data, packet->m_Data + packet->m_nBytesRead)});
    }
    return self->procedure_ ? self->procedure_(packet) : FILTER_RESULT_BYPASS;
}

HandlingDriver::HandlingDriver(const std::string& name, Answer answer)
    : driver(name), answer_(std::move(answer))
{
    IoCtrlHandler* handler = nullptr;
    EXPECT_EQ(Filter_RegisterIoControl(driver.Handle(), Handle, this, &handler), FILTER_STATUS_SUCCESS);
}

NTSTATUS HandlingDriver::Handle(PVOID context, PIRP irp, ULONG code, PVOID input, ULONG inputLength,
                                PVOID output, ULONG outputLength, ULONG_PTR* returned)
{
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    return static_cast<HandlingDriver*>(context)->answer_(
        {irp, code, input, inputLength, output, outputLength, returned});
}

} // namespace support
