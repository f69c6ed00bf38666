// Connections of kernel clients: data both ways, refused, reset and half-closed connections, event handlers.
#include "tdi-test.h"

#include <thread>

#include <sys/resource.h>

namespace
{

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr uint64_t kBytes = 32ull << 20; // a sanitizer finds in it what it would find in more
#else
constexpr uint64_t kBytes = 1ull << 30;
#endif
constexpr size_t kBlockSize = 64 * 1024;

TEST_F(TdiTest, AGigabyteComesBackAsItWasSentInBothModes)
{
    const echo::Server server;
    ASSERT_NE(server.tcpPort, 0);
    const echo::Pattern pattern;
    for (const bool later : {false, true}) {
        machine::CompleteTransportRequestsLater(later);
        echo::Connection connection;
        ASSERT_EQ(connection.Open(), STATUS_SUCCESS);
        ASSERT_EQ(connection.Connect(server.tcpPort), STATUS_SUCCESS);
        const uint64_t bytes = later ? kBytes / 16 : kBytes;
        for (const bool callbacks : {false, true}) {
            const echo::Transfer transfer =
                callbacks ? echo::CallbackExchange(connection, pattern, bytes, kBlockSize).Run()
                          : echo::ExchangeWaiting(connection, pattern, bytes, kBlockSize);
            EXPECT_EQ(transfer.status, STATUS_SUCCESS);
            EXPECT_EQ(transfer.sent, bytes);
            EXPECT_EQ(transfer.received, bytes);
            EXPECT_TRUE(transfer.equal);
        }
        connection.Close();
    }
}

TEST_F(TdiTest, AThousandConnectionsLeaveNothingBehind)
{
    rlimit files;
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
    const echo::Server server;
    const echo::Pattern pattern;
    const machine::Census before = machine::TakeCensus();
    {
        std::vector<echo::Connection> connections(1000);
        for (echo::Connection& connection : connections) {
            ASSERT_EQ(connection.Open(), STATUS_SUCCESS);
            ASSERT_EQ(connection.Connect(server.tcpPort), STATUS_SUCCESS);
        }
        TDI_PROVIDER_STATISTICS statistics;
        EXPECT_EQ(KS_QueryProviderStatistics(L"\\Device\\Tcp", &statistics), STATUS_SUCCESS);
        EXPECT_EQ(statistics.OpenConnections, connections.size());
        for (echo::Connection& connection : connections) {
            EXPECT_TRUE(echo::ExchangeWaiting(connection, pattern, 256, 256).equal);
        }
        for (echo::Connection& connection : connections) {
            connection.Close();
        }
    }
    EXPECT_TRUE(machine::TakeCensus() == before) << machine::DescribeCensus(machine::TakeCensus());
}

TEST_F(TdiTest, WhatThePeerDoesIsToldByTheStatus)
{
    constexpr int kCallers = 5;
    HostSocket* const listener = new HostSocket(SOCK_STREAM, kCallers);
    echo::Connection connection;
    ASSERT_EQ(connection.Open(), STATUS_SUCCESS);
    KS_CONNECTION_ENDPOINT& endpoint = connection.endpoint;
    echo::Block block(100);
    TextBlock hello("hello");
    IO_STATUS_BLOCK result;
    const auto receive = [&](PMDL mdl) {
        return KS_ReceiveOnEndpoint(&endpoint, nullptr, nullptr, nullptr, &result, mdl, TDI_RECEIVE_NORMAL);
    };
    const auto send = [&](PMDL mdl) {
        return KS_SendOnEndpoint(&endpoint, nullptr, nullptr, nullptr, &result, mdl, 0);
    };
    const auto disconnect = [&](ULONG flags) {
        return KS_Disconnect(&endpoint, nullptr, nullptr, nullptr, &result, flags);
    };
    EXPECT_EQ(receive(block.Mdl()), STATUS_INVALID_CONNECTION);
    {
        // The peer ends its direction first: ours goes on.
        ASSERT_EQ(connection.Connect(listener->Port()), STATUS_SUCCESS);
        EXPECT_EQ(connection.Connect(listener->Port()), STATUS_CONNECTION_ACTIVE);
        const HostSocket peer(*listener);
        EXPECT_EQ(send(nullptr), STATUS_SUCCESS);
        EXPECT_EQ(receive(nullptr), STATUS_SUCCESS);
        EXPECT_EQ(result.Information, 0u);
        peer.Send("last words");
        peer.EndSending();
        ASSERT_EQ(receive(block.Mdl()), STATUS_SUCCESS);
        EXPECT_EQ(TextOf(block, result), "last words");
        EXPECT_EQ(receive(block.Mdl()), STATUS_GRACEFUL_DISCONNECT);
        EXPECT_EQ(send(hello.Mdl()), STATUS_SUCCESS);
        EXPECT_EQ(result.Information, 5u);
        EXPECT_EQ(disconnect(TDI_DISCONNECT_RELEASE), STATUS_SUCCESS);
        EXPECT_EQ(peer.Receive(), "hello");
        EXPECT_EQ(peer.Receive(), "<end>");
        EXPECT_EQ(send(hello.Mdl()), STATUS_INVALID_CONNECTION);
    }
    {
        // We end first, and wait for the peer with an event.
        ASSERT_EQ(connection.Connect(listener->Port()), STATUS_SUCCESS);
        KEVENT ended;
        KeInitializeEvent(&ended, NotificationEvent, TRUE); // the library resets it
        IO_STATUS_BLOCK waited;
        ASSERT_EQ(KS_SendOnEndpoint(&endpoint, nullptr, nullptr, nullptr, nullptr, hello.Mdl(),
                                    TDI_SEND_AND_DISCONNECT),
                  STATUS_SUCCESS);
        EXPECT_EQ(KS_Disconnect(&endpoint, &ended, nullptr, nullptr, &waited, TDI_DISCONNECT_WAIT),
                  STATUS_PENDING);
        {
            const HostSocket peer(*listener);
            EXPECT_EQ(peer.Receive(), "hello");
            EXPECT_EQ(peer.Receive(), "<end>");
        }
        EXPECT_EQ(receive(block.Mdl()), STATUS_GRACEFUL_DISCONNECT);
        EXPECT_EQ(KeWaitForSingleObject(&ended, Executive, KernelMode, FALSE, nullptr), STATUS_SUCCESS);
        EXPECT_EQ(waited.Status, STATUS_SUCCESS);
    }
    {
        // The peer resets it under a receive.
        ASSERT_EQ(connection.Connect(listener->Port()), STATUS_SUCCESS);
        HostSocket* const peer = new HostSocket(*listener);
        KEVENT ended;
        KeInitializeEvent(&ended, NotificationEvent, FALSE);
        EXPECT_EQ(KS_ReceiveOnEndpoint(&endpoint, &ended, nullptr, nullptr, &result, block.Mdl(),
                                       TDI_RECEIVE_NORMAL),
                  STATUS_PENDING);
        peer->ResetOnClose();
        delete peer;
        KeWaitForSingleObject(&ended, Executive, KernelMode, FALSE, nullptr);
        EXPECT_EQ(result.Status, STATUS_CONNECTION_RESET);
        EXPECT_EQ(send(hello.Mdl()), STATUS_CONNECTION_RESET);
    }
    {
        ASSERT_EQ(connection.Connect(listener->Port()), STATUS_SUCCESS);
        const HostSocket peer(*listener);
        UCHAR info[KS_CONNECTION_INFO_SIZE];
        std::memset(info, 0xFF, sizeof(info));
        EXPECT_EQ(KS_SetConnectionInfo(&endpoint, info), STATUS_SUCCESS);
        EXPECT_THAT(info, testing::Each(0));
        EXPECT_EQ(disconnect(TDI_DISCONNECT_ABORT), STATUS_SUCCESS);
        EXPECT_EQ(peer.Receive(), "<reset>");
        EXPECT_EQ(receive(block.Mdl()), STATUS_CONNECTION_ABORTED);
    }
    {
        // A peer that does not answer, as its queue is full: an abort ends the waiting for it.
        std::vector<echo::Connection> queued(kCallers + 1);
        for (echo::Connection& one : queued) {
            ASSERT_EQ(one.Open(), STATUS_SUCCESS);
            ASSERT_EQ(one.Connect(listener->Port()), STATUS_SUCCESS);
        }
        std::atomic<NTSTATUS> connected{STATUS_PENDING};
        std::thread caller([&] { connected = connection.Connect(listener->Port()); });
        EXPECT_TRUE(support::Eventually([&] { return disconnect(TDI_DISCONNECT_ABORT) == STATUS_SUCCESS; }));
        caller.join();
        EXPECT_EQ(connected, STATUS_CONNECTION_ABORTED);
        for (echo::Connection& one : queued) {
            one.Close();
        }
    }
    delete listener;
    const HostSocket nobody(SOCK_STREAM, HostSocket::kRefuses);
    EXPECT_EQ(connection.Connect(nobody.Port()), STATUS_CONNECTION_REFUSED);
    TA_IP_ADDRESS far;
    KS_InitIPAddress(&far, htonl(0x08080808), KS_htons(53));
    EXPECT_EQ(KS_Connect(&endpoint, &far), STATUS_NETWORK_UNREACHABLE);
    connection.Close();
}

// A kernel server: accepts with a request of its own, and answers what is indicated to it as it is told.
struct Listener {
    echo::Connection connection;
    echo::Block rest{100};
    OwnRequest own;
    KEVENT indicated, disconnected;
    NTSTATUS answer = STATUS_SUCCESS; // to an indication
    std::string taken;
    ULONG disconnectFlags = 0;

    Listener()
    {
        KeInitializeEvent(&indicated, SynchronizationEvent, FALSE);
        KeInitializeEvent(&disconnected, SynchronizationEvent, FALSE);
    }
    // For the transport, which completes it.
    PIRP NewRequest(UCHAR minor, PMDL mdl = nullptr)
    {
        const PIRP irp = own.New(connection.endpoint.FileObject, minor, mdl);
        IoSetNextIrpStackLocation(irp);
        return irp;
    }
    static NTSTATUS OnConnect(PVOID context, LONG, PVOID, LONG, PVOID, LONG, PVOID, CONNECTION_CONTEXT*,
                              PIRP* request)
    {
        EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
        *request = static_cast<Listener*>(context)->NewRequest(TDI_ACCEPT);
        return STATUS_MORE_PROCESSING_REQUIRED;
    }
    static NTSTATUS OnReceive(PVOID context, CONNECTION_CONTEXT connection, ULONG, ULONG indicated, ULONG,
                              ULONG* taken, PVOID data, PIRP* request)
    {
        const auto self = static_cast<Listener*>(context);
        EXPECT_EQ(connection, self);
        *taken = std::min(indicated, 4u);
        self->taken.assign(static_cast<char*>(data), *taken);
        if (self->answer == STATUS_MORE_PROCESSING_REQUIRED) {
            *request = self->NewRequest(TDI_RECEIVE, self->rest.Mdl());
        }
        KeSetEvent(&self->indicated, 0, FALSE);
        return self->answer;
    }
    static NTSTATUS OnDisconnect(PVOID context, CONNECTION_CONTEXT, LONG, PVOID, LONG, PVOID, ULONG flags)
    {
        const auto self = static_cast<Listener*>(context);
        self->disconnectFlags = flags;
        KeSetEvent(&self->disconnected, 0, FALSE);
        return STATUS_SUCCESS;
    }
};

TEST_F(TdiTest, AClientOfTheKernelServesCallersWithEventHandlers)
{
    constexpr NTSTATUS kOdd = static_cast<NTSTATUS>(0xC0001234);
    struct Row {
        NTSTATUS set;    // what setting the third handler comes to
        NTSTATUS answer; // of the receive handler
        const char* taken;
        const char* rest;
    };
    for (const Row& row : {Row{kOdd, STATUS_SUCCESS, "", "abcdefgh"}, // it leaves those behind it unset
                           Row{STATUS_SUCCESS, STATUS_SUCCESS, "abcd", "efgh"},
                           Row{STATUS_SUCCESS, STATUS_DATA_NOT_ACCEPTED, "abcd", "abcdefgh"},
                           Row{STATUS_SUCCESS, STATUS_MORE_PROCESSING_REQUIRED, "abcd", "efgh"}}) {
        Listener listener;
        const PKS_CONNECTION_ENDPOINT endpoint = &listener.connection.endpoint;
        listener.answer = row.answer;
        ASSERT_EQ(listener.connection.Open(0, &listener), STATUS_SUCCESS);
        if (row.set != STATUS_SUCCESS) {
            machine::AnswerTransportRequest(machine::TransportRequest::SetEventHandler, 3,
                                            machine::TransportAnswer::AtOnce, row.set);
        }
        EXPECT_EQ(KS_SetEventHandlers(&listener.connection.address, &listener, Listener::OnConnect,
                                      Listener::OnDisconnect, nullptr, Listener::OnReceive, nullptr, nullptr),
                  row.set);
        {
            const HostSocket caller(SOCK_STREAM, HostSocket::kRefuses);
            caller.Connect(support::AskPort(listener.connection.address)); // that it chose
            listener.own.Wait();
            caller.Send("abcdefgh");
            // Two answers of the transport's own thread: it has seen the data by then.
            for (int i = 0; i < 2; ++i) {
                machine::AnswerTransportRequest(machine::TransportRequest::Send, 1,
                                                machine::TransportAnswer::Later, STATUS_SUCCESS);
                KS_SendOnEndpoint(endpoint, nullptr, nullptr, nullptr, nullptr, nullptr, 0);
            }
            if (row.taken[0] != 0) {
                KeWaitForSingleObject(&listener.indicated, Executive, KernelMode, FALSE, nullptr);
            }
            if (row.answer == STATUS_MORE_PROCESSING_REQUIRED) {
                listener.own.Wait();
            } else {
                EXPECT_EQ(KS_ReceiveOnEndpoint(endpoint, nullptr, nullptr, nullptr, &listener.own.result,
                                               listener.rest.Mdl(), TDI_RECEIVE_NORMAL),
                          STATUS_SUCCESS);
            }
            EXPECT_EQ(listener.taken, row.taken);
            EXPECT_EQ(TextOf(listener.rest, listener.own.result), row.rest);
        }
        KeWaitForSingleObject(&listener.disconnected, Executive, KernelMode, FALSE, nullptr);
        EXPECT_EQ(listener.disconnectFlags, static_cast<ULONG>(TDI_DISCONNECT_RELEASE));
        listener.connection.Close();
    }
}

} // namespace
