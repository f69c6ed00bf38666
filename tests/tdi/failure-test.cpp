// Transports that fail, memory that runs out, records closed while requests are under way: what the caller
// sees, and that nothing stays behind.
#include "tdi-test.h"

#include "support/framework.h"

#include <thread>

using machine::TransportAnswer;
using machine::TransportRequest;

namespace
{

constexpr NTSTATUS kOdd = static_cast<NTSTATUS>(0xC0001234); // no transport of this world answers that

NTSTATUS Worse(NTSTATUS one, NTSTATUS other)
{
    return NT_SUCCESS(one) ? other : one;
}

// Uses each function once on a fresh connection. Answers the first failure.
NTSTATUS UseEverything(uint16_t tcpPort, uint16_t udpPort, echo::Block& block)
{
    echo::Connection connection;
    NTSTATUS status = connection.Open();
    if (NT_SUCCESS(status)) {
        KS_CONNECTION_ENDPOINT* endpoint = &connection.endpoint;
        status = KS_SetEventHandlers(&connection.address, nullptr, nullptr, nullptr, nullptr, nullptr,
                                     nullptr, nullptr);
        status = Worse(status, connection.Connect(tcpPort));
        UCHAR info[KS_CONNECTION_INFO_SIZE];
        if (NT_SUCCESS(status)) {
            status = KS_SetConnectionInfo(endpoint, info);
            status = Worse(status,
                           KS_SendOnEndpoint(endpoint, nullptr, nullptr, nullptr, nullptr, block.Mdl(), 0));
            if (NT_SUCCESS(status)) {
                status = KS_ReceiveOnEndpoint(endpoint, nullptr, nullptr, nullptr, nullptr, block.Mdl(), 0);
            }
            status = Worse(
                status, KS_Disconnect(endpoint, nullptr, nullptr, nullptr, nullptr, TDI_DISCONNECT_RELEASE));
        }
    }
    connection.Close();
    UCHAR buffer[KS_PROVIDER_STATISTICS_SIZE];
    status = Worse(status, KS_QueryProviderInfo(L"\\Device\\Udp", buffer));
    status = Worse(status, KS_QueryProviderStatistics(L"\\Device\\Udp", buffer));

    KS_TRANSPORT_ADDRESS address;
    TA_IP_ADDRESS local = echo::Loopback(0);
    TA_IP_ADDRESS peer = echo::Loopback(udpPort);
    TDI_CONNECTION_INFORMATION to = {};
    to.RemoteAddressLength = sizeof(peer);
    to.RemoteAddress = &peer;
    status = Worse(status, KS_OpenTransportAddress(L"\\Device\\Udp",
                                                   reinterpret_cast<PTRANSPORT_ADDRESS>(&local), &address));
    if (NT_SUCCESS(address.Status)) {
        const NTSTATUS sent =
            KS_SendDatagramOnAddress(&address, nullptr, nullptr, nullptr, nullptr, block.Mdl(), &to);
        status = Worse(status, sent);
        if (NT_SUCCESS(sent)) {
            status = Worse(status, KS_ReceiveDatagramOnAddress(&address, nullptr, nullptr, nullptr, nullptr,
                                                               block.Mdl(), nullptr, nullptr, 0));
        }
    }
    KS_CloseTransportAddress(&address);
    return status;
}

class FailureTest : public TdiTest
{
  protected:
    echo::Server server_;
    echo::Block block_{64};
};

TEST_F(FailureTest, WithoutMemoryAtEachStepNothingStaysOpen)
{
    EXPECT_EQ(UseEverything(server_.tcpPort, server_.udpPort, block_), STATUS_SUCCESS);
    const machine::Census before = machine::TakeCensus();
    for (const machine::Fault fault :
         {machine::Fault::Pool, machine::Fault::Request, machine::Fault::Mdl, machine::Fault::File}) {
        uint64_t steps = 0;
        for (bool hit = true; hit; ++steps) {
            machine::ClearFaults();
            machine::FailCall(fault, steps + 1);
            const NTSTATUS status = UseEverything(server_.tcpPort, server_.udpPort, block_);
            hit = machine::FaultHit(fault);
            EXPECT_EQ(status, hit ? STATUS_INSUFFICIENT_RESOURCES : STATUS_SUCCESS) << "step " << steps;
            machine::ClearFaults();
            ASSERT_TRUE(machine::WaitIdle());
            EXPECT_TRUE(machine::TakeCensus() == before) << machine::DescribeCensus(machine::TakeCensus());
        }
        EXPECT_GT(steps, 3u);
    }
}

TEST_F(FailureTest, TheStatusIsTheOneThatTheCompletionDelivered)
{
    for (int kind = 0; kind < static_cast<int>(TransportRequest::Count); ++kind) {
        for (const TransportAnswer answer :
             {TransportAnswer::AtOnce, TransportAnswer::Later, TransportAnswer::Twice}) {
            machine::AnswerTransportRequest(static_cast<TransportRequest>(kind), 1, answer, kOdd);
            EXPECT_EQ(UseEverything(server_.tcpPort, server_.udpPort, block_), kOdd) << "request " << kind;
            const bool twice = answer == TransportAnswer::Twice;
            EXPECT_EQ(BrokenRules(), std::vector<std::string>(twice ? 1 : 0, "irp-completed-twice"));
        }
    }
    // A success reads its result from the completion too.
    echo::Connection connection;
    IO_STATUS_BLOCK result = {};
    ASSERT_EQ(connection.Open(), STATUS_SUCCESS);
    machine::AnswerTransportRequest(TransportRequest::Receive, 1, TransportAnswer::Later, STATUS_SUCCESS);
    EXPECT_EQ(KS_ReceiveOnEndpoint(&connection.endpoint, nullptr, nullptr, nullptr, &result, block_.Mdl(), 0),
              STATUS_SUCCESS);
    EXPECT_EQ(result.Status, STATUS_SUCCESS);
    connection.Close();
}

TEST_F(FailureTest, AFailingEventHandlerLeavesThoseBehindItUnset)
{
    KS_TRANSPORT_ADDRESS address;
    TA_IP_ADDRESS local = echo::Loopback(0);
    ASSERT_EQ(
        KS_OpenTransportAddress(L"\\Device\\Tcp", reinterpret_cast<PTRANSPORT_ADDRESS>(&local), &address), 0);
    const auto sets = [&] {
        return KS_SetEventHandlers(&address, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    };
    machine::AnswerTransportRequest(TransportRequest::SetEventHandler, 3, TransportAnswer::AtOnce, kOdd);
    EXPECT_EQ(sets(), kOdd);
    // Had any behind the third been sent, this would not be the next one.
    machine::AnswerTransportRequest(TransportRequest::SetEventHandler, 6, TransportAnswer::AtOnce, kOdd);
    EXPECT_EQ(sets(), kOdd);
    EXPECT_EQ(sets(), STATUS_SUCCESS);
    KS_CloseTransportAddress(&address);
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

// A client driver that is unloaded while its receive waits: it stays open, and is closed by the last
// completion, which runs at DISPATCH_LEVEL.
struct Client {
    static inline KS_TRANSPORT_ADDRESS address;
    static inline IO_STATUS_BLOCK result;
    static inline std::atomic<int> completions{0};
    static inline echo::Block* block;

    static machine::Status Entry(void* object, void*)
    {
        TA_IP_ADDRESS local = echo::Loopback(0);
        static_cast<DRIVER_OBJECT*>(object)->DriverUnload = [](PDRIVER_OBJECT) {
            KS_CloseTransportAddress(&address);
        };
        completions = 0;
        const NTSTATUS status =
            KS_OpenTransportAddress(L"\\Device\\Udp", reinterpret_cast<PTRANSPORT_ADDRESS>(&local), &address);
        machine::AnswerTransportRequest(TransportRequest::ReceiveDatagram, 1, TransportAnswer::Held, kOdd);
        KS_ReceiveDatagramOnAddress(
            &address, nullptr, [](PVOID, PIO_STATUS_BLOCK, ULONG) { ++completions; }, nullptr, &result,
            block->Mdl(), nullptr, nullptr, 0);
        return status;
    }
};

TEST_F(FailureTest, AnUnloadWithARequestUnderWayKeepsTheAddressUntilItCompletes)
{
    Client::block = &block_;
    ASSERT_EQ(machine::LoadDriver("Client", Client::Entry), STATUS_SUCCESS);
    EXPECT_EQ(Client::address.Count, 2u);
    EXPECT_EQ(machine::UnloadDriver("Client"), STATUS_SUCCESS);
    EXPECT_EQ(Client::address.Count, 1u);
    EXPECT_EQ(machine::TakeCensus().requests, 2u); // the receive, and that of the address
    EXPECT_EQ(Client::completions, 0);
    {
        const machine::WorkItemHold hold;
        machine::ReleaseTransportRequests();
        EXPECT_EQ(Client::completions, 1);
        EXPECT_EQ(Client::result.Status, kOdd);
        EXPECT_EQ(Client::address.Count, KS_BEING_CLOSED); // its handlers may still be called
        EXPECT_EQ(KS_CloseTransportAddress(&Client::address), STATUS_SUCCESS);
    }
    EXPECT_TRUE(machine::WaitIdle()); // for the work item that closes the address
    EXPECT_EQ(Client::address.Count, 0u);
    EXPECT_EQ(machine::TakeCensus().files, 0u);
}

TEST_F(FailureTest, TheUnloadOfTheFrameworkEndsWhatIsUnderWay)
{
    machine::SetRegistryDword(support::kFrameworkService, "Start", 3);
    ASSERT_EQ(support::LoadFramework(), STATUS_SUCCESS);
    KS_TRANSPORT_ADDRESS address;
    TA_IP_ADDRESS local = echo::Loopback(0);
    ASSERT_EQ(
        KS_OpenTransportAddress(L"\\Device\\Udp", reinterpret_cast<PTRANSPORT_ADDRESS>(&local), &address), 0);
    // The first is closed with its completion, the second has a thread that waits for it.
    std::atomic<NTSTATUS> calledBack{STATUS_PENDING}, waited{STATUS_PENDING};
    EXPECT_EQ(KS_ReceiveDatagramOnAddress(
                  &address, nullptr,
                  [](PVOID context, PIO_STATUS_BLOCK result, ULONG) {
                      *static_cast<std::atomic<NTSTATUS>*>(context) = result->Status;
                  },
                  &calledBack, nullptr, block_.Mdl(), nullptr, nullptr, 0),
              STATUS_PENDING);
    std::thread waiter([&] {
        waited = KS_ReceiveDatagramOnAddress(&address, nullptr, nullptr, nullptr, nullptr, block_.Mdl(), nullptr,
                                             nullptr, 0);
    });
    EXPECT_TRUE(support::Eventually([&] { return machine::TakeCensus().requests == 3; })); // and the address's
    EXPECT_EQ(machine::UnloadDriver(support::kFrameworkService), STATUS_SUCCESS);
    EXPECT_EQ(calledBack, STATUS_CANCELLED);
    EXPECT_EQ(machine::TakeCensus().requests, 1u);
    waiter.join();
    EXPECT_EQ(waited, STATUS_CANCELLED);
    KS_CloseTransportAddress(&address);
    EXPECT_EQ(address.Count, 0u);
    machine::DeleteRegistryKey(support::kFrameworkService);
}

TEST_F(FailureTest, ARequestThatWaitsCanBeCancelled)
{
    echo::Connection connection;
    ASSERT_EQ(connection.Open(), STATUS_SUCCESS);
    ASSERT_EQ(connection.Connect(server_.tcpPort), STATUS_SUCCESS);
    const PFILE_OBJECT file = connection.endpoint.FileObject;
    const PDEVICE_OBJECT device = IoGetRelatedDeviceObject(file);
    const PIRP irp = IoAllocateIrp(device->StackSize, FALSE);
    const PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    next->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    next->MinorFunction = TDI_RECEIVE;
    next->FileObject = file;
    reinterpret_cast<TDI_REQUEST_KERNEL_RECEIVE&>(next->Parameters).ReceiveLength = 64;
    irp->MdlAddress = block_.Mdl();
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    IoSetCompletionRoutine(
        irp,
        [](PDEVICE_OBJECT, PIRP, PVOID event) -> NTSTATUS {
            KeSetEvent(static_cast<PKEVENT>(event), 0, FALSE);
            return STATUS_MORE_PROCESSING_REQUIRED;
        },
        &done, TRUE, TRUE, TRUE);
    EXPECT_EQ(IoCallDriver(device, irp), STATUS_PENDING);
    IoFreeIrp(nullptr); // no request at all
    EXPECT_EQ(BrokenRules(), std::vector<std::string>{"irp-not-live"});
    IoReuseIrp(irp, STATUS_SUCCESS);
    EXPECT_EQ(BrokenRules(), std::vector<std::string>{"irp-reused-under-way"});
    EXPECT_TRUE(IoCancelIrp(irp));
    KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
    EXPECT_EQ(irp->IoStatus.Status, STATUS_CANCELLED);
    IoFreeIrp(irp);
    connection.Close();
}

TEST(AbsentTransportTest, EveryOpeningSaysThatThereIsNone)
{
    const machine::DebugCapture debug;
    UCHAR buffer[KS_PROVIDER_STATISTICS_SIZE];
    echo::Connection connection;
    EXPECT_EQ(connection.Open(), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(connection.address.Status, STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(KS_SetEventHandlers(&connection.address, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
              STATUS_INVALID_HANDLE);
    connection.Close(); // there is nothing to close
    EXPECT_EQ(KS_QueryProviderInfo(L"\\Device\\Tcp", buffer), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(debug.Text(), "Unable To Open TDI Control Channel\n");
}

} // namespace
