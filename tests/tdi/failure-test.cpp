// Transports that fail, records closed while requests are under way: what the caller sees, and that nothing stays
// behind. Each function with each of its requests failing is what tests/faults looks at.
#include "tdi-test.h"

#include "support/loading.h"

#include <memory>
#include <thread>

using machine::TransportAnswer;
using machine::TransportRequest;

namespace
{

constexpr NTSTATUS kOdd = static_cast<NTSTATUS>(0xC0001234); // no transport of this world answers that

class FailureTest : public TdiTest
{
  protected:
    echo::Server server_;
    echo::Block block_{64};
};

TEST_F(FailureTest, TheStatusIsTheOneThatTheCompletionDelivered)
{
    echo::Connection connection;
    IO_STATUS_BLOCK result;
    ASSERT_EQ(connection.Open(), STATUS_SUCCESS);
    for (const auto& [answer, status] : {std::pair{TransportAnswer::Later, STATUS_SUCCESS},
                                         {TransportAnswer::Later, kOdd},
                                         {TransportAnswer::Twice, kOdd}}) {
        result = {};
        machine::AnswerTransportRequest(TransportRequest::Receive, 1, answer, status);
        EXPECT_EQ(
            KS_ReceiveOnEndpoint(&connection.endpoint, nullptr, nullptr, nullptr, &result, block_.Mdl(), 0),
            status);
        EXPECT_EQ(result.Status, status);
        const bool twice = answer == TransportAnswer::Twice;
        EXPECT_EQ(BrokenRules(), std::vector<std::string>(twice ? 1 : 0, "irp-completed-twice"));
    }
    connection.Close();
}

// A transport of the test's own: its dispatch routine and its completions need not agree, and another driver may have
// put its device above.
struct OddTransport {
    static constexpr ULONG_PTR kClaimed = ~ULONG_PTR{0}; // bytes, whatever there was to send
    static inline PDEVICE_OBJECT device;
    static inline NTSTATUS dispatched = STATUS_SUCCESS;
    static inline NTSTATUS completed = STATUS_SUCCESS;
    static inline int depth; // of the last request

    static NTSTATUS Answer(PDEVICE_OBJECT, PIRP irp)
    {
        const bool internal =
            IoGetCurrentIrpStackLocation(irp)->MajorFunction == IRP_MJ_INTERNAL_DEVICE_CONTROL;
        depth = irp->StackCount;
        irp->IoStatus.Status = internal ? completed : STATUS_SUCCESS;
        irp->IoStatus.Information = internal ? kClaimed : 0;
        IoCompleteRequest(irp, IO_NO_INCREMENT);
        return internal ? dispatched : STATUS_SUCCESS;
    }
    static NTSTATUS Entry(PDRIVER_OBJECT driver, PUNICODE_STRING)
    {
        for (const int major :
             {IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE, IRP_MJ_INTERNAL_DEVICE_CONTROL}) {
            driver->MajorFunction[major] = Answer;
        }
        driver->DriverUnload = [](PDRIVER_OBJECT) { IoDeleteDevice(device); };
        WCHAR text[] = L"\\Device\\Odd";
        UNICODE_STRING name;
        RtlInitUnicodeString(&name, text);
        return IoCreateDevice(driver, 0, &name, FILE_DEVICE_NETWORK, 0, FALSE, &device);
    }
};

TEST_F(FailureTest, EachModeTellsItsOwnOfTwoStatusesAndNothingWhenNothingWasSent)
{
    ASSERT_EQ(machine::LoadDriver("Odd", OddTransport::Entry), STATUS_SUCCESS);
    struct Callback {
        KEVENT event;
        Port port{L"\\Device\\Odd"};
        int count = 0;
        static VOID Run(PVOID context, PIO_STATUS_BLOCK result, ULONG extra)
        {
            const auto self = static_cast<Callback*>(context);
            ++self->count;
            EXPECT_NE(KeReadStateEvent(&self->event), 0); // set just before
            EXPECT_EQ(self->port.address.Count, 2u);      // and the request's reference is dropped behind
            EXPECT_EQ(result->Status, OddTransport::completed);
            EXPECT_EQ(extra, 0u);
        }
    } callback;
    KS_TRANSPORT_ADDRESS& address = callback.port.address;
    KeInitializeEvent(&callback.event, NotificationEvent, FALSE);
    ASSERT_EQ(callback.port.status, STATUS_SUCCESS);
    const auto sets = [&] {
        return KS_SetEventHandlers(&address, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    };
    const auto send = [&](PKEVENT event, KS_COMPLETION completion, PIO_STATUS_BLOCK result) {
        return KS_SendDatagramOnAddress(&address, event, completion, &callback, result, block_.Mdl(),
                                        nullptr);
    };
    int called = 0;
    for (const auto& [dispatched, completed] :
         {std::pair<NTSTATUS, NTSTATUS>{STATUS_SUCCESS, kOdd}, {kOdd, STATUS_SUCCESS}}) {
        OddTransport::dispatched = dispatched;
        OddTransport::completed = completed;
        EXPECT_EQ(sets(), kOdd);
        EXPECT_EQ(send(nullptr, nullptr, nullptr), completed);
        IO_STATUS_BLOCK result = {};
        KeResetEvent(&callback.event);
        EXPECT_EQ(send(&callback.event, Callback::Run, &result), dispatched);
        EXPECT_EQ(callback.count, ++called);
        EXPECT_EQ(result.Status, completed);
        EXPECT_EQ(result.Information, OddTransport::kClaimed);
        EXPECT_EQ(send(&callback.event, nullptr, &result), dispatched);
        EXPECT_EQ(callback.count, called);
        EXPECT_EQ(address.Count, 1u);
    }
    for (const machine::Fault fault : {machine::Fault::Pool, machine::Fault::Request}) {
        IO_STATUS_BLOCK result = {};
        result.Status = kOdd;
        result.Information = 77;
        machine::FailCall(fault, 1);
        EXPECT_EQ(send(nullptr, Callback::Run, &result), STATUS_INSUFFICIENT_RESOURCES);
        machine::ClearFaults();
        EXPECT_EQ(callback.count, called);
        EXPECT_EQ(result.Status, kOdd);
        EXPECT_EQ(result.Information, 77u);
        EXPECT_EQ(address.Count, 1u);
    }
    // As if another driver had put its device above this one since the opening.
    OddTransport::dispatched = OddTransport::completed = STATUS_SUCCESS;
    OddTransport::device->StackSize = 3;
    machine::FailCall(machine::Fault::Request, 1);
    EXPECT_EQ(sets(), STATUS_INSUFFICIENT_RESOURCES);
    machine::ClearFaults();
    EXPECT_EQ(sets(), STATUS_SUCCESS);
    EXPECT_EQ(OddTransport::depth, 3);
    KS_CloseTransportAddress(&address);
    EXPECT_EQ(machine::UnloadDriver("Odd"), STATUS_SUCCESS);
}

TEST_F(FailureTest, ASecondSynchronousRequestOnAnAddressIsRefused)
{
    echo::Connection connection;
    KS_CONNECTION_ENDPOINT second;
    ASSERT_EQ(connection.Open(), STATUS_SUCCESS);
    machine::AnswerTransportRequest(TransportRequest::Connect, 1, TransportAnswer::Held, kOdd);
    std::atomic<NTSTATUS> connected{STATUS_PENDING};
    std::thread other([&] { connected = connection.Connect(server_.tcpPort); });
    EXPECT_TRUE(support::Eventually([] { return machine::HeldTransportRequests() == 1; }));
    EXPECT_EQ(KS_SetEventHandlers(&connection.address, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                  nullptr),
              STATUS_DEVICE_BUSY);
    EXPECT_EQ(connection.Connect(server_.tcpPort), STATUS_DEVICE_BUSY);
    EXPECT_EQ(KS_OpenConnectionEndpoint(L"\\Device\\Tcp", &connection.address, &second, nullptr),
              STATUS_DEVICE_BUSY);
    EXPECT_EQ(second.Count, 0u);
    EXPECT_EQ(second.Status, STATUS_SUCCESS); // opened, but not associated
    EXPECT_EQ(second.AssociateStatus, STATUS_DEVICE_BUSY);
    // Data requests have their own.
    EXPECT_EQ(KS_SendOnEndpoint(&connection.endpoint, nullptr, nullptr, nullptr, nullptr, block_.Mdl(), 0),
              STATUS_INVALID_CONNECTION);
    machine::ReleaseTransportRequests();
    other.join();
    EXPECT_EQ(connected, kOdd);
    EXPECT_EQ(connection.Connect(server_.tcpPort), STATUS_SUCCESS);

    // An endpoint that is closed meanwhile stays open until its request is over.
    machine::AnswerTransportRequest(TransportRequest::Connect, 1, TransportAnswer::Held, kOdd);
    other = std::thread([&] { connected = connection.Connect(server_.tcpPort); });
    EXPECT_TRUE(support::Eventually([] { return machine::HeldTransportRequests() == 1; }));
    const size_t files = machine::TakeCensus().files;
    KS_CloseConnectionEndpoint(&connection.endpoint);
    EXPECT_EQ(connection.endpoint.Count, 1u);
    EXPECT_EQ(machine::TakeCensus().files, files);
    machine::ReleaseTransportRequests();
    other.join();
    EXPECT_EQ(connection.endpoint.Count, 0u);
    EXPECT_EQ(machine::TakeCensus().files, files - 1);
    EXPECT_EQ(connection.Connect(server_.tcpPort), STATUS_INVALID_HANDLE);
    EXPECT_EQ(KS_SendOnEndpoint(&connection.endpoint, nullptr, nullptr, nullptr, nullptr, block_.Mdl(), 0),
              STATUS_INVALID_HANDLE);
    connection.Close();
}

// It stays open, and is closed by the last completion, which runs at DISPATCH_LEVEL.
TEST_F(FailureTest, AnAddressThatIsClosedWithARequestUnderWayIsKeptUntilItCompletes)
{
    Port port(L"\\Device\\Udp");
    KS_TRANSPORT_ADDRESS& address = port.address;
    IO_STATUS_BLOCK result = {};
    std::atomic<int> completions{0};
    const KS_COMPLETION count = [](PVOID context, PIO_STATUS_BLOCK, ULONG) {
        ++*static_cast<std::atomic<int>*>(context);
    };
    ASSERT_EQ(port.status, STATUS_SUCCESS);
    machine::AnswerTransportRequest(TransportRequest::ReceiveDatagram, 1, TransportAnswer::Held, kOdd);
    KS_ReceiveDatagramOnAddress(&address, nullptr, count, &completions, &result, block_.Mdl(), nullptr,
                                nullptr, 0);
    EXPECT_EQ(address.Count, 2u);
    EXPECT_EQ(KS_CloseTransportAddress(&address), STATUS_SUCCESS);
    EXPECT_EQ(address.Count, 1u);
    EXPECT_EQ(machine::TakeCensus().requests, 2u); // the receive, and that of the address
    EXPECT_EQ(completions, 0);
    {
        const machine::WorkItemHold hold;
        machine::ReleaseTransportRequests();
        EXPECT_EQ(completions, 1);
        EXPECT_EQ(result.Status, kOdd);
        EXPECT_EQ(address.Count, KS_BEING_CLOSED); // its handlers may still be called
        EXPECT_EQ(KS_CloseTransportAddress(&address), STATUS_SUCCESS);
    }
    EXPECT_TRUE(machine::WaitIdle()); // for the work item that closes the address
    EXPECT_EQ(address.Count, 0u);
    EXPECT_EQ(machine::TakeCensus().files, 0u);
}

// Receives again and again, and keeps what that comes to in the end.
struct Renewing {
    PKS_CONNECTION_ENDPOINT endpoint = nullptr;
    echo::Block block{16};
    std::atomic<NTSTATUS> last{STATUS_PENDING};    // completion
    std::atomic<NTSTATUS> refusal{STATUS_PENDING}; // of the receive behind it

    void Start()
    {
        const NTSTATUS status = KS_ReceiveOnEndpoint(endpoint, nullptr, Renew, this, nullptr, block.Mdl(), 0);
        if (status == STATUS_DELETE_PENDING) {
            refusal = status;
        }
    }
    static VOID Renew(PVOID context, PIO_STATUS_BLOCK result, ULONG)
    {
        static_cast<Renewing*>(context)->last = result->Status;
        static_cast<Renewing*>(context)->Start();
    }
};

// Receives that are sent anew with their completion, and such that threads wait for; in all rounds but the first data
// arrives meanwhile.
TEST_F(FailureTest, TheUnloadOfTheFrameworkEndsWhatIsUnderWay)
{
    const HostSocket listener(SOCK_STREAM);
    machine::SetRegistryDword(support::kFrameworkService, "Start", 3);
    for (int round = 0; round < 20; ++round) {
        ASSERT_EQ(support::LoadFramework(), STATUS_SUCCESS);
        std::optional<Port> port(L"\\Device\\Udp");
        ASSERT_EQ(port->status, STATUS_SUCCESS);
        echo::Connection connection;
        ASSERT_EQ(connection.Open(), STATUS_SUCCESS);
        ASSERT_EQ(connection.Connect(listener.Port()), STATUS_SUCCESS);
        auto peer = std::make_unique<HostSocket>(listener);
        Renewing renewing[2];
        for (Renewing& one : renewing) {
            one.endpoint = &connection.endpoint;
            one.Start();
        }
        NTSTATUS waited[2] = {STATUS_SUCCESS, STATUS_SUCCESS};
        std::thread waiters[2];
        waiters[0] = std::thread([&] { waited[0] = port->Receive(block_.Mdl(), nullptr); });
        waiters[1] = std::thread([&] {
            while (NT_SUCCESS(waited[1])) {
                waited[1] = KS_ReceiveOnEndpoint(&connection.endpoint, nullptr, nullptr, nullptr, nullptr,
                                                 block_.Mdl(), 0);
            }
        });
        // And those of the two addresses.
        EXPECT_TRUE(support::Eventually([&] { return machine::TakeCensus().requests == 6; }));
        std::atomic<bool> unloaded{false};
        std::atomic<int> sent{0};
        std::thread sender([&] {
            // Few enough to fit when nobody receives them any more.
            for (; round != 0 && !unloaded && sent < 10'000; ++sent) {
                peer->Send("x");
            }
        });
        EXPECT_TRUE(support::Eventually([&] { return round == 0 || sent > 100; }));
        EXPECT_EQ(machine::UnloadDriver(support::kFrameworkService), STATUS_SUCCESS);
        for (const Renewing& one : renewing) {
            EXPECT_EQ(one.refusal, STATUS_DELETE_PENDING);
            EXPECT_TRUE(round != 0 || one.last == STATUS_CANCELLED);
        }
        EXPECT_TRUE(round != 0 || machine::TakeCensus().requests == 2);
        unloaded = true;
        sender.join();
        peer.reset(); // ends a wait that has begun behind the unload
        for (std::thread& waiter : waiters) {
            waiter.join();
        }
        EXPECT_EQ(waited[0], STATUS_CANCELLED);
        EXPECT_TRUE(round != 0 || waited[1] == STATUS_CANCELLED);
        connection.Close();
        port.reset();
        EXPECT_EQ(machine::TakeCensus().requests, 0u);
    }
    machine::DeleteRegistryKey(support::kFrameworkService);
}

TEST_F(FailureTest, ARequestThatWaitsCanBeCancelled)
{
    echo::Connection connection;
    ASSERT_EQ(connection.Open(), STATUS_SUCCESS);
    ASSERT_EQ(connection.Connect(server_.tcpPort), STATUS_SUCCESS);
    OwnRequest own;
    const PIRP irp = own.New(connection.endpoint.FileObject, TDI_RECEIVE, block_.Mdl());
    EXPECT_EQ(IoCallDriver(IoGetRelatedDeviceObject(connection.endpoint.FileObject), irp), STATUS_PENDING);
    IoFreeIrp(nullptr); // no request at all
    EXPECT_EQ(BrokenRules(), std::vector<std::string>{"irp-not-live"});
    IoReuseIrp(irp, STATUS_SUCCESS);
    EXPECT_EQ(BrokenRules(), std::vector<std::string>{"irp-reused-under-way"});
    EXPECT_TRUE(IoCancelIrp(irp));
    own.Wait();
    EXPECT_EQ(own.result.Status, STATUS_CANCELLED);
    connection.Close();
}

TEST(AbsentTransportTest, EveryOpeningSaysThatThereIsNone)
{
    const machine::DebugCapture debug;
    UCHAR buffer[KS_PROVIDER_STATISTICS_SIZE];
    echo::Connection connection;
    EXPECT_EQ(connection.Open(), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(connection.address.Status, STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(KS_SetEventHandlers(&connection.address, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                  nullptr),
              STATUS_INVALID_HANDLE);
    connection.Close(); // there is nothing to close
    EXPECT_EQ(KS_QueryProviderInfo(L"\\Device\\Tcp", buffer), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(debug.Text(), "Unable To Open TDI Control Channel\n");
}

} // namespace
