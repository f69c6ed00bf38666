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

// Numbered datagrams to the echo server and back, which keep their order on this way: what has not come when a later
// one is there is lost. Those with higher numbers end the exchange.
class DatagramExchange
{
  public:
    DatagramExchange(Port& port, bool callbacks) : port_(port), callbacks_(callbacks)
    {
        KeInitializeEvent(&some_, SynchronizationEvent, FALSE);
    }

    void Run()
    {
        if (!callbacks_) {
            ASSERT_EQ(KS_SetEventHandlers(&port_.address, this, nullptr, nullptr, nullptr, nullptr,
                                          OnDatagram, nullptr),
                      STATUS_SUCCESS);
        }
        for (Slot& slot : receives_) {
            slot.owner = this;
            if (callbacks_) {
                StartReceive(&slot);
            }
        }
        LARGE_INTEGER patience;
        patience.QuadPart = -100'000'000; // ten seconds
        for (uint32_t number = 0; number < kDatagrams; ++number) {
            while (number - std::min(passed_, completed_) >= kWindow) {
                ASSERT_EQ(KeWaitForSingleObject(&some_, Executive, KernelMode, FALSE, &patience),
                          STATUS_SUCCESS);
            }
            Send(sends_[number % kWindow], number, 64 + number % 1000); // what that block had is through
        }
        uint32_t ends = 0;
        EXPECT_TRUE(support::Eventually([&] {
            if (completed_ == kDatagrams + ends) { // the one before has left the block
                ++ends;
                Send(end_, kDatagrams, sizeof(kDatagrams));
            }
            return passed_ > kDatagrams && completed_ == kDatagrams + ends && receiving_ == 0;
        }));
    }

    std::vector<uint8_t> seen = std::vector<uint8_t>(kDatagrams);
    std::atomic<uint32_t> count{0}, wrong{0};

  private:
    static constexpr uint32_t kWindow = 64;
    struct Big : echo::Block {
        Big() : Block(2000) {}
    };
    struct Slot {
        DatagramExchange* owner = nullptr;
        Big block;
    };

    void Send(echo::Block& block, uint32_t number, ULONG bytes)
    {
        std::memset(block.Bytes() + sizeof(number), static_cast<int>(number), bytes - sizeof(number));
        std::memcpy(block.Bytes(), &number, sizeof(number));
        block.Mdl()->ByteCount = bytes;
        IO_STATUS_BLOCK status = {};
        KS_SendDatagramOnAddress(&port_.address, nullptr, callbacks_ ? OnSent : nullptr, this,
                                 callbacks_ ? nullptr : &status, block.Mdl(), &port_.to);
        if (!callbacks_) {
            OnSent(this, &status, 0);
        }
    }
    void StartReceive(Slot* slot)
    {
        ++receiving_;
        KS_ReceiveDatagramOnAddress(&port_.address, nullptr, OnReceived, slot, nullptr, slot->block.Mdl(),
                                    nullptr, nullptr, TDI_RECEIVE_NORMAL);
    }
    void Wake(uint32_t progress)
    {
        if (progress % (kWindow / 4) == 0) { // for each datagram it would be most of the work
            KeSetEvent(&some_, 0, FALSE);
        }
    }

    static VOID OnSent(PVOID context, PIO_STATUS_BLOCK status, ULONG)
    {
        auto* self = static_cast<DatagramExchange*>(context);
        self->wrong += status->Status == STATUS_SUCCESS ? 0 : 1;
        self->Wake(++self->completed_);
    }
    static VOID OnReceived(PVOID context, PIO_STATUS_BLOCK status, ULONG)
    {
        auto* slot = static_cast<Slot*>(context);
        slot->owner->wrong += status->Status == STATUS_SUCCESS ? 0 : 1;
        if (slot->owner->Take(slot->block.Bytes(), status->Information)) {
            slot->owner->StartReceive(slot);
        }
        --slot->owner->receiving_;
    }
    static NTSTATUS OnDatagram(PVOID context, LONG, PVOID, LONG, PVOID, ULONG, ULONG bytes, ULONG,
                               ULONG* taken, PVOID data, PIRP*)
    {
        static_cast<DatagramExchange*>(context)->Take(static_cast<uint8_t*>(data), bytes);
        *taken = bytes;
        return STATUS_SUCCESS;
    }
    // One at a time, on the transport's thread. False at the end.
    bool Take(const uint8_t* data, size_t bytes)
    {
        uint32_t number = 0;
        std::memcpy(&number, data, sizeof(number));
        passed_ = std::max(passed_.load(), number + 1);
        if (number >= kDatagrams) {
            return false;
        }
        // Sizes and contents follow from the number.
        const uint8_t* fill = data + sizeof(number);
        const bool right = seen[number]++ == 0 && bytes == 64 + number % 1000 &&
                           fill[0] == static_cast<uint8_t>(number) &&
                           std::memcmp(fill, fill + 1, bytes - 5) == 0;
        wrong += right ? 0 : 1;
        ++count;
        Wake(passed_);
        return true;
    }

    Port& port_;
    const bool callbacks_;
    std::array<Big, kWindow> sends_;
    std::array<Slot, 8> receives_;
    echo::Block end_{sizeof(uint32_t)};
    std::atomic<uint32_t> passed_{0};    // all before this one are here or lost
    std::atomic<uint32_t> completed_{0}; // sends
    std::atomic<int> receiving_{0};
    KEVENT some_;
};

TEST_F(TdiTest, AHundredThousandDatagramsComeBackOrAreCountedAsLost)
{
    const echo::Server server;
    ASSERT_NE(server.udpPort, 0);
    for (const bool callbacks : {false, true}) {
        machine::CompleteTransportRequestsLater(callbacks);
        Port port(L"\\Device\\Udp", server.udpPort);
        ASSERT_EQ(port.status, STATUS_SUCCESS);
        DatagramExchange exchange(port, callbacks);
        exchange.Run();
        const uint32_t lost = kDatagrams - exchange.count;
        std::printf("%u datagrams sent, %u came back, %u lost\n", kDatagrams, exchange.count.load(), lost);
        EXPECT_EQ(exchange.wrong, 0u) << "doubled, changed or failed";
        EXPECT_LT(lost, kDatagrams / 100);
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
