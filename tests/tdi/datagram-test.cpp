// Datagrams of kernel clients.
#include "tdi-test.h"

namespace
{

// An open address, and the addresses that its requests name.
struct Port {
    KS_TRANSPORT_ADDRESS address;
    TA_IP_ADDRESS peer = {};
    TDI_CONNECTION_INFORMATION to = {};
    NTSTATUS status;

    explicit Port(PCWSTR device, uint16_t peerPort = 0)
    {
        TA_IP_ADDRESS local = echo::Loopback(0);
        status = KS_OpenTransportAddress(device, reinterpret_cast<PTRANSPORT_ADDRESS>(&local), &address);
        peer = echo::Loopback(peerPort);
        to.RemoteAddressLength = sizeof(peer);
        to.RemoteAddress = &peer;
    }
    ~Port() { KS_CloseTransportAddress(&address); }
    NTSTATUS Send(PMDL mdl)
    {
        return KS_SendDatagramOnAddress(&address, nullptr, nullptr, nullptr, nullptr, mdl, &to);
    }
};

struct Arrivals {
    std::vector<uint8_t> seen;
    std::atomic<uint32_t> count{0}, wrong{0};
    KEVENT some;

    static NTSTATUS OnDatagram(PVOID context, LONG, PVOID, LONG, PVOID, ULONG, ULONG bytes, ULONG,
                               ULONG* taken, PVOID data, PIRP*)
    {
        auto* self = static_cast<Arrivals*>(context);
        uint32_t number = 0;
        std::memcpy(&number, data, sizeof(number));
        // Sizes and contents follow from the number.
        const auto* fill = static_cast<uint8_t*>(data) + sizeof(number);
        const bool right = number < self->seen.size() && self->seen[number]++ == 0 &&
                           bytes == 64 + number % 1000 && fill[0] == static_cast<uint8_t>(number) &&
                           std::memcmp(fill, fill + 1, bytes - 5) == 0;
        self->wrong += right ? 0 : 1;
        ++self->count;
        *taken = bytes;
        KeSetEvent(&self->some, 0, FALSE);
        return STATUS_SUCCESS;
    }
};

TEST_F(TdiTest, AHundredThousandDatagramsComeBackOrAreCountedAsLost)
{
    constexpr uint32_t kCount = 100'000;
    constexpr uint32_t kWindow = 64;
    const echo::Server server;
    ASSERT_NE(server.udpPort, 0);
    Arrivals arrivals;
    arrivals.seen.resize(kCount);
    KeInitializeEvent(&arrivals.some, SynchronizationEvent, FALSE);
    uint32_t lost = 0;
    {
        Port port(L"\\Device\\Udp", server.udpPort);
        ASSERT_EQ(port.status, STATUS_SUCCESS);
        ASSERT_EQ(KS_SetEventHandlers(&port.address, &arrivals, nullptr, nullptr, nullptr, nullptr,
                                      Arrivals::OnDatagram, nullptr),
                  STATUS_SUCCESS);
        LARGE_INTEGER patience;
        patience.QuadPart = -20'000'000; // two seconds without any: what is out is lost
        const auto await = [&](uint32_t sent, uint32_t out) {
            while (sent - arrivals.count - lost > out) {
                if (KeWaitForSingleObject(&arrivals.some, Executive, KernelMode, FALSE, &patience) ==
                    STATUS_TIMEOUT) {
                    lost = sent - arrivals.count;
                }
            }
        };
        echo::Block block(2000);
        for (uint32_t number = 0; number < kCount; ++number) {
            await(number, kWindow);
            std::memset(block.Bytes() + sizeof(number), static_cast<int>(number), 1100);
            std::memcpy(block.Bytes(), &number, sizeof(number));
            block.Mdl()->ByteCount = 64 + number % 1000;
            ASSERT_EQ(port.Send(block.Mdl()), STATUS_SUCCESS);
        }
        await(kCount, 0);
    }
    std::printf("%u datagrams sent, %u came back, %u lost\n", kCount, arrivals.count.load(), lost);
    EXPECT_EQ(arrivals.wrong, 0u) << "doubled or changed";
    EXPECT_EQ(arrivals.count + lost, kCount);
    EXPECT_LT(lost, kCount / 100);
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
    EXPECT_EQ(KS_ReceiveDatagramOnAddress(&port.address, nullptr, nullptr, nullptr, &result, small.Mdl(),
                                          nullptr, &from, TDI_RECEIVE_NORMAL),
              STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(TextOf(small, result), "to t");
    EXPECT_EQ(sender.Address[0].Address[0].sin_port, KS_htons(server.udpPort));

    // Nobody listens: the next error is told by the handler.
    const HostSocket other(SOCK_DGRAM);
    const HostSocket deaf(SOCK_DGRAM); // takes datagrams of `other` only
    deaf.Connect(other);
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
    EXPECT_EQ(KS_ReceiveDatagramOnAddress(&raw.address, nullptr, nullptr, nullptr, &result, block.Mdl(),
                                          nullptr, nullptr, TDI_RECEIVE_NORMAL),
              STATUS_SUCCESS);
    const std::string packet = TextOf(block, result);
    ASSERT_EQ(packet.size(), 23u); // with the IPv4 header
    EXPECT_EQ(static_cast<uint8_t>(packet[9]), 253);
    EXPECT_EQ(packet.substr(20), "raw");
}

} // namespace
