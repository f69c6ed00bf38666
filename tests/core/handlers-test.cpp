// Client drivers' handlers of control requests.
#include "support/framework.h"

#include <cstring>
#include <functional>
#include <string>

using namespace support;

namespace
{

constexpr uint32_t kTraceIoctl = 0x80;
constexpr uint32_t kUnknown = 0x80003000;
constexpr machine::Status kDeclined = static_cast<machine::Status>(0xC00000BB);
constexpr machine::Status kInvalidDeviceRequest = static_cast<machine::Status>(0xC0000010);

class HandlersTest : public FrameworkTest
{
  protected:
    HandlersTest() : FrameworkTest(WithTrace(kTraceIoctl)) {}

    void SetUp() override
    {
        FrameworkTest::SetUp();
        device_ = OpenDevice();
        ASSERT_NE(device_, nullptr);
    }
    void TearDown() override
    {
        device_.reset();
        FrameworkTest::TearDown();
    }

    std::unique_ptr<machine::File> device_;
};

// A driver with a handler that notes its name in a list and then answers as it was told to.
class HandlingDriver
{
  public:
    struct Request {
        PIRP irp;
        ULONG code;
        void* input;
        ULONG inputLength;
        void* output;
        ULONG outputLength;
        ULONG_PTR* returned;
    };
    using Answer = std::function<NTSTATUS(const Request& request)>;

    HandlingDriver(const std::string& name, std::string& asked, Answer answer)
        : driver(name), name_(name), asked_(asked), answer_(std::move(answer))
    {
        EXPECT_EQ(Filter_RegisterIoControl(driver.Handle(), Handle, this, &handler), FILTER_STATUS_SUCCESS);
        EXPECT_TRUE(Filter_IsValidIoCtrlHandler(handler));
    }

    TestDriver driver;
    IoCtrlHandler* handler = nullptr;

  private:
    static NTSTATUS Handle(PVOID context, PIRP irp, ULONG code, PVOID input, ULONG inputLength, PVOID output,
                           ULONG outputLength, ULONG_PTR* returned)
    {
        auto* self = static_cast<HandlingDriver*>(context);
        EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
        self->asked_ += self->name_;
        return self->answer_({irp, code, input, inputLength, output, outputLength, returned});
    }

    std::string name_;
    std::string& asked_;
    Answer answer_;
};

NTSTATUS Decline(const HandlingDriver::Request& request)
{
    return Filter_DefaultIoCtrlHandler(nullptr, request.irp, request.code, request.input, request.inputLength,
                                       request.output, request.outputLength, request.returned);
}

TEST_F(HandlersTest, AreAskedInOrderUntilOneDoesNotDecline)
{
    std::string asked;
    machine::Status answer = STATUS_SUCCESS;
    HandlingDriver first("1", asked, [](const auto& request) {
        *request.returned = 5; // has said nothing, as it declines
        return Decline(request);
    });
    HandlingDriver second("2", asked, [&](const auto& request) {
        EXPECT_EQ(request.code, kUnknown);
        EXPECT_EQ(Bytes(static_cast<uint8_t*>(request.input),
                        static_cast<uint8_t*>(request.input) + request.inputLength),
                  Counting(3));
        EXPECT_EQ(request.output, request.input);
        EXPECT_EQ(request.outputLength, 8u);
        EXPECT_EQ(*request.returned, 0u);
        std::memset(request.output, 0x77, 8);
        *request.returned = 2;
        return answer;
    });
    HandlingDriver third("3", asked, Decline);
    Bytes output(8, 0xEE);
    machine::Request::Result result = device_->Control(kUnknown, Counting(3), output);
    EXPECT_EQ(asked, "12");
    EXPECT_EQ(result.status, STATUS_SUCCESS);
    EXPECT_EQ(result.information, 2u);
    EXPECT_EQ(output, (Bytes{0x77, 0x77, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE}));
    // The kit's constant of the similar name does not decline.
    answer = kInvalidDeviceRequest;
    EXPECT_EQ(device_->Control(kUnknown, Counting(3), output).status, kInvalidDeviceRequest);
    EXPECT_EQ(asked, "1212");
    answer = kDeclined;
    EXPECT_EQ(device_->Control(kUnknown, Counting(3), output).status, kDeclined);
    EXPECT_EQ(asked, "1212123");
    // Of a driver that has gone nobody is asked, nor for what the hook driver answers.
    EXPECT_EQ(second.driver.Deregister(), FILTER_STATUS_SUCCESS);
    asked.clear();
    EXPECT_EQ(device_->Control(kUnknown, Counting(3), output).status, kDeclined);
    EXPECT_EQ(asked, "13");
    hook::SetIoControlHandler([](auto...) -> machine::Status { return STATUS_SUCCESS; });
    EXPECT_EQ(device_->Control(kUnknown, Counting(3), output).status, STATUS_SUCCESS);
    EXPECT_EQ(asked, "13");
}

TEST_F(HandlersTest, MayClaimNoMoreThanTheOutputHolds)
{
    std::string asked;
    HandlingDriver driver("1", asked, [&](const auto& request) {
        *request.returned = ~ULONG_PTR{0};
        return STATUS_SUCCESS;
    });
    Bytes output(8, 0xEE);
    EXPECT_EQ(device_->Control(kUnknown, Counting(3), output).information, 8u);
    EXPECT_EQ(device_->Control(kUnknown, {}, {}).information, 0u);
}

TEST_F(HandlersTest, OneADriverAndOnlyItsOwnerRemovesIt)
{
    std::string asked;
    HandlingDriver first("1", asked, Decline);
    const TestDriver second("2");
    IoCtrlHandler* handler = nullptr;
    FilterDriver* const owner = first.driver.Handle();
    const FILTER_IOCTRL_PROC proc = Filter_DefaultIoCtrlHandler;
    EXPECT_EQ(Filter_RegisterIoControl(owner, proc, nullptr, &handler),
              FILTER_ERROR_IOCTL_HANDLER_ALREADY_REGISTERED);
    machine::FailCall(machine::Fault::Pool, 1);
    EXPECT_EQ(Filter_RegisterIoControl(second.Handle(), proc, nullptr, &handler), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(handler, nullptr);

    uint8_t forged[64] = {};
    std::memcpy(forged + 16, "9GAT", 4);
    EXPECT_EQ(Filter_DeregisterIoControl(owner, reinterpret_cast<IoCtrlHandler*>(forged)),
              FILTER_ERROR_IOCTL_HANDLER_NOT_FOUND);
    EXPECT_EQ(Filter_DeregisterIoControl(second.Handle(), first.handler),
              FILTER_ERROR_INVALID_IOCTL_HANDLER_OWNER);
    Debug().Take();
    EXPECT_EQ(Filter_DeregisterIoControl(owner, first.handler), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Debug().Take(), "Enter Filter_DeregisterIoControlr\n  Error: 0 - FILTER_STATUS_SUCCESS\n"
                              "Leave Filter_DeregisterIoControl, 0-FILTER_STATUS_SUCCESS\n");
    EXPECT_EQ(device_->Control(kUnknown, {}, {}).status, kDeclined);
    EXPECT_EQ(asked, "");
    EXPECT_FALSE(Filter_IsValidIoCtrlHandler(first.handler));
    Debug().Take();
    EXPECT_FALSE(Filter_IsValidIoCtrlHandler(nullptr));
    EXPECT_EQ(Debug().Take(),
              "Filter_IsValidIoCtrlHandler: Invalid Handle 0x0000000000000000, bad tag 0xffffffff\n");
}

} // namespace
