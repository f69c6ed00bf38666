// Datagrams of kernel clients.
#include "tdi-test.h"

namespace
{

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr uint32_t kDatagrams = 20'000; // a sanitizer finds in it what it would find in more
#else
constexpr uint32_t kDatagrams = 100'000;
#endif

constexpr uint32_t kRound = 32; // at a time: fewer than any of the sockets keeps, so that none is lost

// Numbered datagrams; sizes and contents follow from the number.
ULONG SizeOf(uint32_t number)
{
    return 64 + number % 1000;
}

struct Taker {
    KEVENT round;
    uint32_t next = 0;
    uint32_t wrong = 0; // doubled, changed, or out of order

    void Take(const void* data, ULONG bytes)
    {
        const uint32_t number = next++;
        std::vector<uint8_t> expected(SizeOf(number), static_cast<uint8_t>(number));
        std::memcpy(expected.data(), &number, sizeof(number));
        wrong += bytes == expected.size() && std::memcmp(data, expected.data(), bytes) == 0 ? 0 : 1;
    }
    static NTSTATUS OnDatagram(PVOID context, LONG, PVOID, LONG, PVOID, ULONG, ULONG bytes, ULONG,
                               ULONG* taken, PVOID data, PIRP*)
    {
        const auto self = static_cast<Taker*>(context);
        self->Take(data, bytes);
        *taken = bytes;
        if (self->next % kRound == 0) {
            KeSetEvent(&self->round, 0, FALSE);
        }
        return STATUS_SUCCESS;
    }
};

TEST_F(TdiTest, AHundredThousandDatagramsComeBackInOrder)
{
    const echo::Server server;
    ASSERT_NE(server.udpPort, 0);
    echo::Block block(2000);
    IO_STATUS_BLOCK result;
    for (const bool handled : {true, false}) { // indicated, or asked for one by one
        machine::CompleteTransportRequestsLater(!handled);
        Port port(L"\\Device\\Udp", server.udpPort);
        ASSERT_EQ(port.status, STATUS_SUCCESS);
        Taker taker;
        KeInitializeEvent(&taker.round, SynchronizationEvent, FALSE);
        KS_SetEventHandlers(&port.address, &taker, nullptr, nullptr, nullptr, nullptr,
                            handled ? Taker::OnDatagram : nullptr, nullptr);
        uint32_t number = 0;
        while (number < (handled ? kDatagrams : kDatagrams / 10)) {
            for (uint32_t i = 0; i < kRound; ++i, ++number) {
                block.Mdl()->ByteCount = SizeOf(number);
                std::memset(block.Bytes(), static_cast<int>(number), SizeOf(number));
                std::memcpy(block.Bytes(), &number, sizeof(number));
                ASSERT_EQ(port.Send(block.Mdl()), STATUS_SUCCESS);
            }
            block.Mdl()->ByteCount = 2000;
            for (uint32_t i = 0; i < kRound && !handled; ++i) {
                ASSERT_EQ(port.Receive(block.Mdl(), &result), STATUS_SUCCESS);
                taker.Take(block.Bytes(), static_cast<ULONG>(result.Information));
            }
            if (handled) {
                KeWaitForSingleObject(&taker.round, Executive, KernelMode, FALSE, nullptr);
            }
        }
        EXPECT_EQ(taker.next, number);
        EXPECT_EQ(taker.wrong, 0u);
    }
}

TEST_F(TdiTest, DatagramsAreReceivedOneByOneAndErrorsTold)
{
    const HostSocket peer(SOCK_DGRAM);
    std::atomic<NTSTATUS> error{STATUS_SUCCESS};
    Port port(L"\\Device\\Udp", peer.Port());
    ASSERT_EQ(port.status, STATUS_SUCCESS);
    ASSERT_EQ(KS_SetEventHandlers(
                  &port.address, &error, nullptr, nullptr,
                  [](PVOID context, NTSTATUS status) -> NTSTATUS {
                      *static_cast<std::atomic<NTSTATUS>*>(context) = status;
                      return STATUS_SUCCESS;
                  },
                  nullptr, nullptr, nullptr),
              STATUS_SUCCESS);
    TextBlock first("to the ");
    TextBlock second("peer");
    first.Mdl()->Next = second.Mdl();
    ASSERT_EQ(port.Send(first.Mdl()), STATUS_SUCCESS);
    EXPECT_EQ(peer.Receive(), "to the peer");
    ASSERT_EQ(port.Send(nullptr), STATUS_SUCCESS); // an empty datagram
    EXPECT_EQ(peer.Receive(), "<end>");

    // Echoed: longer than the memory, and with the sender's address.
    TA_IP_ADDRESS sender = {};
    TDI_CONNECTION_INFORMATION from = {};
    from.RemoteAddressLength = sizeof(sender);
    from.RemoteAddress = &sender;
    echo::Block small(4);
    IO_STATUS_BLOCK result;
    const echo::Server server;
    port.peer = echo::Loopback(server.udpPort);
    ASSERT_EQ(port.Send(first.Mdl()), STATUS_SUCCESS);
    EXPECT_EQ(port.Receive(small.Mdl(), &result, &from), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(TextOf(small, result), "to t");
    EXPECT_EQ(sender.Address[0].Address[0].sin_port, KS_htons(server.udpPort));
    ASSERT_EQ(port.Send(first.Mdl()), STATUS_SUCCESS);
    EXPECT_EQ(port.Receive(nullptr, &result), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(result.Information, 0u);

    // Nobody listens: the next error is told by the handler.
    const HostSocket other(SOCK_DGRAM);
    const HostSocket deaf(SOCK_DGRAM); // takes datagrams of `other` only
    deaf.Connect(other.Port());
    port.peer = echo::Loopback(deaf.Port());
    ASSERT_EQ(port.Send(first.Mdl()), STATUS_SUCCESS);
    EXPECT_TRUE(support::Eventually([&] { return error == STATUS_PORT_UNREACHABLE; }));
}

TEST_F(TdiTest, RawDatagramsCarryTheProtocolOfTheFilesName)
{
    echo::Block block(200);
    IO_STATUS_BLOCK result;
    TextBlock text("raw");
    Port wrong(L"\\Device\\RawIp\\256");
    EXPECT_EQ(wrong.status, STATUS_OBJECT_NAME_INVALID);
    Port raw(L"\\Device\\RawIp\\253"); // for experiments: RFC 3692
    if (raw.status == STATUS_ACCESS_DENIED) {
        GTEST_SKIP() << "raw sockets are for root alone";
    }
    ASSERT_EQ(raw.status, STATUS_SUCCESS);
    ASSERT_EQ(raw.Send(text.Mdl()), STATUS_SUCCESS);
    EXPECT_EQ(raw.Receive(block.Mdl(), &result), STATUS_SUCCESS);
    const std::string packet = TextOf(block, result);
    ASSERT_EQ(packet.size(), 23u); // with the IPv4 header
    EXPECT_EQ(static_cast<uint8_t>(packet[9]), 253);
    EXPECT_EQ(packet.substr(20), "raw");
}

} // namespace
