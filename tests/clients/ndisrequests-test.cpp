// NDIS requests of client drivers, carried by the hook driver.
#include "support/framework.h"

using namespace support;
using hook::Answering;

namespace
{

constexpr uint32_t kMaximumFrameSize = 0x00010106;

struct NdisRequestsTest : Loaded<WithTrace, 1> {
    hook::NdisRequest* Allocate()
    {
        PVOID handle = nullptr;
        EXPECT_EQ(Filter_AllocateNdisRequest(&handle), FILTER_STATUS_SUCCESS);
        auto* request = static_cast<hook::NdisRequest*>(handle);
        *request = {};
        request->oid = kMaximumFrameSize;
        request->information = &answer;
        request->informationLength = sizeof(answer);
        request->completed = [](hook::NdisRequest*, void* count) {
            ++*static_cast<std::atomic<int>*>(count);
        };
        return request;
    }
    static int32_t StatusOf(const hook::NdisRequest* request)
    {
        return __atomic_load_n(&request->status, __ATOMIC_ACQUIRE);
    }

    uint32_t answer = 0;
    std::atomic<int> completions = 0;
};

TEST_F(NdisRequestsTest, TheOutcomeComesThroughTheRequest)
{
    FilterAdapter* const adapter = AddAdapter();
    hook::NdisRequest* const request = Allocate();
    int made = 0;
    for (const Answering how : {Answering::Later, Answering::AtOnce, Answering::Failing, Answering::Never}) {
        hook::SetAnswering(how);
        answer = 0;
        EXPECT_EQ(Filter_MakeNdisRequest(adapter, request, &completions), FILTER_STATUS_SUCCESS);
        if (how == Answering::AtOnce) {
            EXPECT_EQ(completions, made + 1);
        } else if (how == Answering::Never) {
            ASSERT_TRUE(machine::WaitIdle());
            EXPECT_EQ(StatusOf(request), STATUS_PENDING);
            hook::SetAnswering(Answering::Later);
        }
        made++;
        EXPECT_TRUE(Eventually([&] { return completions == made; }));
        EXPECT_EQ(StatusOf(request), how == Answering::Failing ? STATUS_UNSUCCESSFUL : 0);
        EXPECT_EQ(answer, how == Answering::Failing ? 0u : 1500u);
    }
    EXPECT_EQ(Filter_FreeNdisRequest(request), FILTER_STATUS_SUCCESS);
}

TEST_F(NdisRequestsTest, HandlesAreChecked)
{
    hook::NdisRequest* const request = Allocate();
    EXPECT_TRUE(Filter_IsValidNdisRequest(request));
    Debug().Take();
    EXPECT_FALSE(Filter_IsValidNdisRequest(nullptr));
    EXPECT_EQ(Debug().Take(), "Filter_IsValidNdisRequest: Invalid Handle 0x0000000000000000, NULL pointer\n");
    EXPECT_FALSE(Filter_IsValidNdisRequest(reinterpret_cast<PVOID>(24)));
    EXPECT_EQ(Debug().Take(),
              "Filter_IsValidNdisRequest: Invalid Handle 0x0000000000000000, bad tag 0xffffffff\n");
    EXPECT_FALSE(Filter_IsValidNdisRequest(Unreadable<char>() + 64));
    EXPECT_EQ(Debug().Take(), "Filter_IsValidNdisRequest: exception, code = -1073741819\n");
    uint32_t bytes[16] = {1, 2, 3, 4, 5, 6, 7};
    EXPECT_FALSE(Filter_IsValidNdisRequest(bytes + 6));
    EXPECT_EQ(Debug().Take(),
              "Filter_IsValidNdisRequest: Invalid Handle " + PointerText(bytes) + ", bad tag 0x5\n");

    // The adapter's handle is looked at before the request's.
    EXPECT_EQ(Filter_MakeNdisRequest(reinterpret_cast<FilterAdapter*>(bytes), bytes + 6, nullptr),
              FILTER_ERROR_INVALID_ADAPTER_HANDLE);
    EXPECT_EQ(Filter_AllocateNdisRequest(Unwritable<PVOID>()), FILTER_ERROR_EXCEPTION);
    PVOID none = nullptr;
    machine::FailCall(machine::Fault::Pool, 1);
    EXPECT_EQ(Filter_AllocateNdisRequest(&none), FILTER_ERROR_OUT_OF_MEMORY);
    using enum hook::Function;
    EXPECT_EQ(hook::Bind({.without = {AllocateRequest, MakeNdisRequest, FreeRequest}}), STATUS_SUCCESS);
    EXPECT_EQ(Filter_AllocateNdisRequest(&none), FILTER_ERROR_INTERFACE_NOT_ACTIVE);
    EXPECT_EQ(Filter_MakeNdisRequest(AddAdapter(), request, nullptr), FILTER_ERROR_INTERFACE_NOT_ACTIVE);
    EXPECT_EQ(Filter_FreeNdisRequest(request), FILTER_ERROR_INTERFACE_NOT_ACTIVE);
    EXPECT_EQ(hook::Bind(), STATUS_SUCCESS);
    EXPECT_EQ(Filter_FreeNdisRequest(request), FILTER_STATUS_SUCCESS);
}

} // namespace
