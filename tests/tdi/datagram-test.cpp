// Datagrams of kernel clients.
#include "tdi-test.h"

#include <array>

namespace
{

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr uint32_t kDatagrams = 20'000; // a sanitizer finds in it what it would find in more
#else
constexpr uint32_t kDatagrams = 100'000;
#endif

// Numbered datagrams to the echo server and back, a round of them at a time: fewer than any of the sockets keeps, so that
// none is lost.
class DatagramExchange
{
  public:
    DatagramExchange(Port& port, bool callbacks) : port_(port), callbacks_(callbacks)
    {
        KeInitializeEvent(&over_, SynchronizationEvent, FALSE);
    }

    void Run()
    {
        if (!callbacks_) {
            ASSERT_EQ(KS_SetEventHandlers(&port_.address, this, nullptr, nullptr, nullptr, nullptr,
                                          OnDatagram, nullptr),
                      STATUS_SUCCESS);
        }
        LARGE_INTEGER patience;
        patience.QuadPart = -600'000'000; // a minute
        for (uint32_t number = 0; number < kDatagrams;) {
            underWay_ = kRound;
            for (Slot& slot : slots_) {
                slot.owner = this;
                if (callbacks_) {
                    KS_ReceiveDatagramOnAddress(&port_.address, nullptr, OnReceived, &slot, nullptr,
                                                slot.block.Mdl(), nullptr, nullptr, TDI_RECEIVE_NORMAL);
                }
                Send(number++);
            }
            ASSERT_EQ(KeWaitForSingleObject(&over_, Executive, KernelMode, FALSE, &patience), STATUS_SUCCESS)
                << underWay_ << " of the datagrams up to " << number << " are missing";
        }
        // The last callback may still be on its way back to the library.
        EXPECT_TRUE(support::Eventually(
            [&] { return __atomic_load_n(&port_.address.Count, __ATOMIC_ACQUIRE) == 1; }));
    }

    std::atomic<uint32_t> wrong{0};

  private:
    static constexpr uint32_t kRound = 32;
    struct Slot {
        DatagramExchange* owner = nullptr;
        echo::Block block{2000};
    };

    // Sizes and contents follow from the number.
    static ULONG SizeOf(uint32_t number) { return 64 + number % 1000; }
    void Send(uint32_t number)
    {
        std::memset(out_.Bytes(), static_cast<int>(number), SizeOf(number));
        std::memcpy(out_.Bytes(), &number, sizeof(number));
        out_.Mdl()->ByteCount = SizeOf(number);
        wrong += port_.Send(out_.Mdl()) == STATUS_SUCCESS ? 0 : 1;
    }
    static VOID OnReceived(PVOID context, PIO_STATUS_BLOCK status, ULONG)
    {
        auto* slot = static_cast<Slot*>(context);
        slot->owner->Take(slot->block.Bytes(), status->Status == STATUS_SUCCESS ? status->Information : 0);
    }
    static NTSTATUS OnDatagram(PVOID context, LONG, PVOID, LONG, PVOID, ULONG, ULONG bytes, ULONG,
                               ULONG* taken, PVOID data, PIRP*)
    {
        static_cast<DatagramExchange*>(context)->Take(static_cast<uint8_t*>(data), bytes);
        *taken = bytes;
        return STATUS_SUCCESS;
    }
    // One at a time, on the transport's thread, in the order in which they were sent.
    void Take(const uint8_t* data, size_t bytes)
    {
        const uint32_t number = next_++;
        const uint8_t* fill = data + sizeof(number);
        const bool right = bytes == SizeOf(number) && std::memcmp(data, &number, sizeof(number)) == 0 &&
                           fill[0] == static_cast<uint8_t>(number) &&
                           std::memcmp(fill, fill + 1, bytes - 5) == 0;
        wrong += right ? 0 : 1;
        if (--underWay_ == 0) {
            KeSetEvent(&over_, 0, FALSE);
        }
    }

    Port& port_;
    const bool callbacks_;
    echo::Block out_{2000};
    std::array<Slot, kRound> slots_;
    uint32_t next_ = 0;
    std::atomic<uint32_t> underWay_{0}; // of the round
    KEVENT over_;
};

TEST_F(TdiTest, AHundredThousandDatagramsComeBackInOrder)
{
    const echo::Server server;
    ASSERT_NE(server.udpPort, 0);
    for (const bool callbacks : {false, true}) {
        machine::CompleteTransportRequestsLater(callbacks);
        Port port(L"\\Device\\Udp", server.udpPort);
        ASSERT_EQ(port.status, STATUS_SUCCESS);
        DatagramExchange exchange(port, callbacks);
        exchange.Run();
        EXPECT_EQ(exchange.wrong, 0u) << "doubled, changed, out of order or failed";
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
