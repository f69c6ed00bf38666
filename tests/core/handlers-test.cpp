// Client drivers' handlers of control requests.
#include "support/framework.h"

#include <cstring>
#include <string>

using namespace support;

namespace
{

constexpr uint32_t kUnknown = 0x80003000;

using HandlersTest = DeviceTest;

NTSTATUS Decline(const HandlingDriver::Request& request)
{
    return Filter_DefaultIoCtrlHandler(nullptr, request.irp, request.code, request.input, request.inputLength,
                                       request.output, request.outputLength, request.returned);
}

TEST_F(HandlersTest, AreAskedInOrderUntilOneDoesNotDecline)
{
    std::string asked;
    machine::Status answer = STATUS_SUCCESS;
    PIRP pended = nullptr;
    HandlingDriver first("1", [&](const auto& request) {
        asked += "1";
        *request.returned = 5; // the next one finds it: there is one count
        return Decline(request);
    });
    HandlingDriver second("2", [&](const auto& request) {
        asked += "2";
        EXPECT_EQ(request.code, kUnknown);
        EXPECT_EQ(Bytes(static_cast<uint8_t*>(request.input),
                        static_cast<uint8_t*>(request.input) + request.inputLength),
                  Counting(3));
        EXPECT_EQ(request.output, request.input);
        EXPECT_EQ(request.outputLength, 8u);
        EXPECT_EQ(*request.returned, 5u);
        std::memset(request.output, 0x77, 8);
        *request.returned = 2;
        if (answer == STATUS_PENDING) {
            IoMarkIrpPending(request.irp);
            pended = request.irp;
        }
        return answer;
    });
    HandlingDriver third("3", [&](const auto& request) {
        asked += "3";
        return Decline(request);
    });
    Bytes output(8, 0xEE);
    machine::Request::Result result = device_->Control(kUnknown, Counting(3), output);
    EXPECT_EQ(asked, "12");
    EXPECT_EQ(result.status, STATUS_SUCCESS);
    EXPECT_EQ(result.information, 2u);
    EXPECT_EQ(output, (Bytes{0x77, 0x77, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE}));
    // The kit's constant of the similar name does not decline.
    answer = STATUS_INVALID_DEVICE_REQUEST;
    EXPECT_EQ(device_->Control(kUnknown, Counting(3), output).status, STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(asked, "1212");
    answer = STATUS_NOT_SUPPORTED;
    EXPECT_EQ(device_->Control(kUnknown, Counting(3), output).status, STATUS_NOT_SUPPORTED);
    EXPECT_EQ(asked, "1212123");
    // One that pends is the handler's to complete.
    answer = STATUS_PENDING;
    asked.clear();
    machine::Request pending = device_->Send(kUnknown, Counting(3), 8);
    EXPECT_EQ(pending.DispatchStatus(), STATUS_PENDING);
    EXPECT_FALSE(pending.IsComplete());
    EXPECT_EQ(asked, "12");
    ASSERT_NE(pended, nullptr);
    pended->IoStatus = {.Status = STATUS_SUCCESS, .Information = 1};
    IoCompleteRequest(pended, IO_NO_INCREMENT);
    EXPECT_EQ(pending.Wait().value_or(machine::Request::Result{}).information, 1u);
    EXPECT_THAT(pending.Output(), testing::ElementsAre(0x77));
    // Of a driver that has gone nobody is asked, nor for what the hook driver answers.
    EXPECT_EQ(second.driver.Deregister(), FILTER_STATUS_SUCCESS);
    asked.clear();
    EXPECT_EQ(device_->Control(kUnknown, Counting(3), output).status, STATUS_NOT_SUPPORTED);
    EXPECT_EQ(asked, "13");
    hook::SetIoControlHandler([](auto...) -> machine::Status { return STATUS_SUCCESS; });
    EXPECT_EQ(device_->Control(kUnknown, Counting(3), output).status, STATUS_SUCCESS);
    EXPECT_EQ(asked, "13");
}

TEST_F(HandlersTest, MayClaimNoMoreThanTheOutputHolds)
{
    HandlingDriver driver("1", [](const auto& request) {
        *request.returned = ~ULONG_PTR{0};
        return STATUS_SUCCESS;
    });
    Bytes output(8, 0xEE);
    EXPECT_EQ(device_->Control(kUnknown, Counting(3), output).information, 8u);
    EXPECT_EQ(device_->Control(kUnknown, {}, {}).information, 0u);
}

} // namespace
