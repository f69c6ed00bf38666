// A user program with the control device open, and what its requests answer.
#pragma once

#include "support/framework.h"

namespace requests
{

using Result = machine::Request::Result;
using support::Bytes;
using support::In;
using support::Out;

// Tests write +field for a copy of a field that need not be aligned.
inline constexpr uint32_t kTraceCore = 0x100;

// Gives all identifiers away.
inline void UseUpIds()
{
    ULONG id;
    for (uintptr_t handle = 1; Filter_AdapterToId(reinterpret_cast<FilterAdapter*>(handle), &id) == 0;
         handle++) {
    }
}

struct RequestsTest : support::Loaded<support::WithTrace, kTraceCore, support::DeviceTest> {
    void SetUp() override
    {
        DeviceTest::SetUp();
        ASSERT_TRUE(machine::WaitIdle()); // all worker threads have come up
        Debug().Take();
    }

    Result Control(uint32_t code, std::span<const uint8_t> input, std::span<uint8_t> output)
    {
        return device_->Control(code, input, output);
    }
    // The bytes returned by a request that is to be answered with this status.
    size_t Returned(uint32_t code, std::span<const uint8_t> input, std::span<uint8_t> output,
                    machine::Status status = STATUS_SUCCESS)
    {
        const Result result = Control(code, input, output);
        EXPECT_EQ(result.status, status) << std::hex << code;
        return result.information;
    }
    machine::Status StatusOf(uint32_t code, std::span<const uint8_t> input, std::span<uint8_t> output = {})
    {
        return Control(code, input, output).status;
    }
};

} // namespace requests
