// Named interfaces between client drivers, and the events that tell of them.
#include "support/framework.h"

#include <thread>

using namespace support;

namespace
{

struct Block {
    USHORT length = sizeof(Block);
    USHORT version = 1;
    ULONG (*add)(ULONG, ULONG) = [](ULONG a, ULONG b) { return a + b; };
};

struct Heard {
    std::vector<std::string> events;
    std::function<void(ULONG)> action;
};

VOID Listen(FilterDriver*, PVOID, ULONG event, PVOID context, const STRING* name)
{
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    auto* heard = static_cast<Heard*>(context);
    heard->events.push_back(std::to_string(event) + " " + std::string(name->Buffer, name->Length));
    if (heard->action) {
        heard->action(event);
    }
}

struct InterfacesTest : Loaded<FrameworkOnly, 0x40> {
    void SetUp() override
    {
        FrameworkTest::SetUp();
        owner.emplace("owner");
        user.emplace("user");
        listener.emplace("listener");
        EXPECT_EQ(Filter_RegisterIfEventHandler(listener->Handle(), Listen, &heard, &handler),
                  FILTER_STATUS_SUCCESS);
    }
    void TearDown() override
    {
        if (handler != nullptr) {
            EXPECT_EQ(Filter_DeregisterIfEventHandler(listener->Handle(), handler), FILTER_STATUS_SUCCESS);
        }
        listener.reset();
        user.reset();
        owner.reset();
        FrameworkTest::TearDown();
    }

    FilterInterface* Publish()
    {
        FilterInterface* handle = nullptr;
        EXPECT_EQ(Filter_RegisterInterface(owner->Handle(), &CountedString("adder"), &block, &handle),
                  FILTER_STATUS_SUCCESS);
        return handle;
    }
    FILTER_STATUS Ask(PVOID* copy)
    {
        return Filter_QueryInterface(user->Handle(), &CountedString("adder"), copy);
    }
    Block* Reference()
    {
        PVOID copy = nullptr;
        EXPECT_EQ(Ask(&copy), FILTER_STATUS_SUCCESS);
        return static_cast<Block*>(copy);
    }
    FILTER_STATUS Release(PVOID copy) { return Filter_ReleaseInterface(user->Handle(), copy); }
    FILTER_STATUS Withdraw(FilterInterface* handle)
    {
        return Filter_DeregisterInterface(owner->Handle(), handle);
    }

    std::optional<TestDriver> owner, user, listener;
    IfEventHandler* handler = nullptr;
    Heard heard;
    Block block;
};

TEST_F(InterfacesTest, AReferenceIsAPrivateCopyOfTheBlock)
{
    Publish();
    block.version = 2; // what was published stays
    Block* const one = Reference();
    Block* const two = Reference();
    EXPECT_EQ(one->version, 1);
    EXPECT_EQ(one->add(2, 3), 5u);
    one->version = 7;
    EXPECT_EQ(two->version, 1);
    EXPECT_EQ(Release(one), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Filter_ReleaseInterface(owner->Handle(), two), FILTER_ERROR_INVALID_INTERFACE_REFERENCE_OWNER);
    EXPECT_EQ(Release(two), FILTER_STATUS_SUCCESS);
}

TEST_F(InterfacesTest, AWithdrawnInterfaceWaitsForItsLastReference)
{
    FilterInterface* const handle = Publish();
    Block* const one = Reference();
    heard.action = [&](ULONG event) {
        if (event == FILTER_IF_EVENT_DEREGISTERING) {
            EXPECT_EQ(Withdraw(handle), FILTER_ERROR_INTERFACE_NOT_FOUND);
        }
    };
    EXPECT_EQ(Withdraw(handle), FILTER_ERROR_INTERFACE_ARE_REFERENCED);
    EXPECT_EQ(Release(one), FILTER_STATUS_SUCCESS); // frees it, and no event says so
    EXPECT_THAT(heard.events, testing::ElementsAre("0 adder", "1 adder"));

    // A user that releases when it hears of the departure lets it go at once.
    FilterInterface* const again = Publish();
    Block* const held = Reference();
    heard.action = [&](ULONG event) {
        if (event == FILTER_IF_EVENT_DEREGISTERING) {
            EXPECT_EQ(Release(held), FILTER_STATUS_SUCCESS);
        }
    };
    EXPECT_EQ(Withdraw(again), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(heard.events.back(), "2 adder");
}

TEST_F(InterfacesTest, ADepartedOwnerLeavesDeadReferencesAndTheirName)
{
    Publish();
    Block* const held = Reference();
    heard.events.clear();
    EXPECT_EQ(owner->Deregister(), FILTER_STATUS_SUCCESS);
    EXPECT_TRUE(heard.events.empty());
    PVOID copy = nullptr;
    EXPECT_EQ(Ask(&copy), FILTER_ERROR_INTERFACE_ARE_INVALID);
    EXPECT_EQ(held->add(1, 1), 2u); // the copy itself is the user's
    Debug().Take();
    EXPECT_FALSE(Filter_IsValidInterface(held));
    EXPECT_EQ(Debug().Take(),
              "Filter_IsValidInterface: Invalid Handle " + PointerText(held) + ", bad tag 0x54414735\n");
    EXPECT_EQ(Release(held), FILTER_ERROR_INVALID_FILTER_INTERFACE);
}

TEST_F(InterfacesTest, AnOwnerThatGoesWhileItsInterfaceIsAnnouncedLeavesDeadReferences)
{
    FilterInterface* const handle = Publish();
    FilterDriver* const driver = owner->Handle();
    Block* const held = Reference();
    heard.action = [&](ULONG) {
        std::thread([&] { EXPECT_EQ(owner->Deregister(), FILTER_STATUS_SUCCESS); }).join();
    };
    EXPECT_EQ(Filter_DeregisterInterface(driver, handle), FILTER_ERROR_INTERFACE_ARE_REFERENCED);
    EXPECT_FALSE(Filter_IsValidInterface(held));
    PVOID copy = nullptr;
    EXPECT_EQ(Ask(&copy), FILTER_ERROR_INTERFACE_ARE_INVALID);
}

TEST_F(InterfacesTest, BadArgumentsAndFaultsAreRefusedAndLeaveNothing)
{
    Publish();
    FilterDriver* const driver = owner->Handle();
    FilterInterface* out = nullptr;
    PVOID copy = nullptr;
    const CountedString name("fresh");
    const CountedString known("adder");
    const STRING unreadable = {5, 5, Unreadable<char>()}; // as long as the known name
    const size_t blocks = machine::TakeCensus().poolBlocks;
    EXPECT_THAT((std::vector{
                    Filter_RegisterInterface(driver, &unreadable, &block, &out),
                    Filter_RegisterInterface(driver, &name, Unreadable<Block>(), &out),
                    Filter_RegisterInterface(driver, &name, &block, Unwritable<FilterInterface*>()),
                    Filter_QueryInterface(driver, &unreadable, &copy),
                    Filter_QueryInterface(driver, &known, Unwritable<PVOID>()),
                    Filter_RegisterIfEventHandler(driver, Listen, nullptr, Unwritable<IfEventHandler*>()),
                }),
                testing::Each(FILTER_ERROR_EXCEPTION));
    EXPECT_EQ(Filter_ReleaseInterface(driver, Unreadable<UCHAR>() + 64),
              FILTER_ERROR_INVALID_FILTER_INTERFACE);
    ExpectNoLockHeld("bad arguments");
    EXPECT_EQ(machine::TakeCensus().poolBlocks, blocks);

    machine::FailCall(machine::Fault::Pool, 1);
    EXPECT_EQ(Filter_QueryInterface(driver, &known, &copy), FILTER_ERROR_OUT_OF_MEMORY);
    EXPECT_THAT(heard.events, testing::ElementsAre("0 adder")); // nothing was announced that did not happen

    // A handler that faults is an exception to the raiser, and what it raised for is done nevertheless.
    heard.action = [](ULONG) { FaultOnRead(); };
    EXPECT_EQ(Filter_RegisterInterface(driver, &name, &block, &out), FILTER_ERROR_EXCEPTION);
    EXPECT_EQ(Filter_QueryInterface(driver, &name, &copy), FILTER_STATUS_SUCCESS);
    Debug().Take();
    EXPECT_EQ(Withdraw(out), FILTER_ERROR_INTERFACE_ARE_REFERENCED); // it cannot leave
    EXPECT_TRUE(Debug().Contains("Filter_DeregisterInterface: exception, code = -1073741819\n"));
    EXPECT_EQ(Filter_ReleaseInterface(driver, copy), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Filter_RegisterInterface(driver, &name, &block, &out), FILTER_ERROR_EXCEPTION);
    EXPECT_EQ(Withdraw(out), FILTER_ERROR_EXCEPTION);
    EXPECT_EQ(Filter_QueryInterface(driver, &name, &copy), FILTER_ERROR_INTERFACE_NOT_FOUND);
    ExpectNoLockHeld("a handler that faults");
    heard.action = nullptr;
}

} // namespace
