// What programs may send that the client library never does.
#include "lab-server.h"
#include "program.h"

#include <lab-protocol.h>

#include <algorithm>
#include <random>

#include <gmock/gmock.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace
{

using labprotocol::MessageType;

constexpr int32_t kStatusInsufficientResources = static_cast<int32_t>(0xC000009A);

template <class Message>
std::vector<uint8_t> BytesOf(const Message& message, const std::vector<uint8_t>& tail = {})
{
    std::vector<uint8_t> bytes(sizeof(message));
    std::memcpy(bytes.data(), &message, sizeof(message));
    bytes.insert(bytes.end(), tail.begin(), tail.end());
    return bytes;
}

// A connection by hand.
class RawProgram
{
  public:
    explicit RawProgram(const LabServer& lab, bool greet = true) : socket_(socket(AF_UNIX, SOCK_SEQPACKET, 0))
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        lab.Socket().copy(address.sun_path, sizeof(address.sun_path) - 1);
        EXPECT_EQ(connect(socket_, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
        if (greet) {
            Send(labprotocol::Hello());
            EXPECT_EQ(Receive<labprotocol::Welcome>().status, kSuccess);
        }
    }
    ~RawProgram() { close(socket_); }
    RawProgram(const RawProgram&) = delete;
    RawProgram& operator=(const RawProgram&) = delete;

    void SendBytes(const std::vector<uint8_t>& bytes)
    {
        EXPECT_EQ(send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    template <class Message>
    void Send(const Message& message, const std::vector<uint8_t>& tail = {})
    {
        SendBytes(BytesOf(message, tail));
    }
    void SendControl(uint64_t id, uint32_t code, const std::vector<uint8_t>& input, uint32_t outputLength)
    {
        labprotocol::Control control;
        control.id = id;
        control.code = code;
        control.inputLength = static_cast<uint32_t>(input.size());
        control.outputLength = outputLength;
        Send(control, input);
    }
    void SendStart(uint64_t id) { SendControl(id, IOCTL_NDIS_FILTER_START_SHARE, {1, 0, 0, 0}, 8); }
    // Says that the pages are mapped at an address, and answers the share's that the driver makes of it.
    uint64_t ReportMapped(uint64_t id, uint64_t address)
    {
        labprotocol::Mapped mapped;
        mapped.id = id;
        mapped.address = address;
        Send(mapped);
        const auto reply = ReceiveBytes();
        uint64_t share = 0;
        EXPECT_EQ(reply.size(), sizeof(labprotocol::Reply) + sizeof(share));
        if (reply.size() == sizeof(labprotocol::Reply) + sizeof(share)) {
            std::memcpy(&share, reply.data() + sizeof(labprotocol::Reply), sizeof(share));
        }
        return share;
    }

    // The next message, empty at the end of the connection.
    std::vector<uint8_t> ReceiveBytes(int* file = nullptr)
    {
        pollfd ready = {.fd = socket_, .events = POLLIN, .revents = 0};
        EXPECT_EQ(poll(&ready, 1, static_cast<int>(kWaitMs)), 1) << "no answer";
        std::vector<uint8_t> bytes(labprotocol::kLongestMessage);
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
        iovec vector = {bytes.data(), bytes.size()};
        msghdr message = {};
        message.msg_iov = &vector;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        const ssize_t length = recvmsg(socket_, &message, 0);
        bytes.resize(length > 0 ? static_cast<size_t>(length) : 0);
        if (file != nullptr && message.msg_controllen != 0) {
            std::memcpy(file, CMSG_DATA(CMSG_FIRSTHDR(&message)), sizeof(*file));
        }
        return bytes;
    }
    template <class Message>
    Message Receive(int* file = nullptr)
    {
        Message message;
        const MessageType wanted = message.type;
        const auto bytes = ReceiveBytes(file);
        EXPECT_GE(bytes.size(), sizeof(message));
        if (bytes.size() >= sizeof(message)) {
            std::memcpy(&message, bytes.data(), sizeof(message));
        }
        EXPECT_EQ(message.type, wanted);
        return message;
    }
    bool IsDisconnected() { return ReceiveBytes().empty(); }
    int Descriptor() const { return socket_; }

  private:
    int socket_;
};

class Protocol : public testing::Test
{
  protected:
    ~Protocol() override
    {
        // Whatever a program has done, the others are served and the share can be had.
        const auto device = lab_.Open();
        EXPECT_NE(device, nullptr);
        EXPECT_TRUE(Eventually([&] { return StartShare(*device) != nullptr; }));
    }

    LabServer lab_{kOneAdapter};
};

TEST_F(Protocol, WhatIsNoMessageEndsTheConnection)
{
    labprotocol::Control badLength;
    badLength.inputLength = 5;
    labprotocol::Control badOutput;
    badOutput.outputLength = labprotocol::kLongestTransfer + 1;
    labprotocol::Control hugeInput;
    hugeInput.inputLength = 0xFFFFFFFF;
    const std::vector<uint8_t> wrongs[] = {{1},
                                           {3, 0, 0, 0},
                                           std::vector<uint8_t>(40, 0xFF),
                                           std::vector<uint8_t>(labprotocol::kLongestMessage + 1, 3),
                                           BytesOf(badLength, {1, 2, 3, 4}),
                                           BytesOf(badOutput),
                                           BytesOf(hugeInput),
                                           BytesOf(labprotocol::Cancel(), {0}),
                                           BytesOf(labprotocol::Mapped(), {0}),
                                           BytesOf(labprotocol::Close(), {0}),
                                           BytesOf(labprotocol::Welcome())};
    for (const std::vector<uint8_t>& wrong : wrongs) {
        RawProgram program(lab_);
        program.SendBytes(wrong);
        EXPECT_TRUE(program.IsDisconnected());
    }
    EXPECT_THAT(lab_.Errors(),
                testing::HasSubstr("process " + std::to_string(getpid()) + " was disconnected"));
}

TEST_F(Protocol, WhoDoesNotGreetIsNotServed)
{
    RawProgram rude(lab_, false);
    rude.SendControl(1, IOCTL_NDIS_FILTER_GET_VERSION, {}, 0);
    EXPECT_TRUE(rude.IsDisconnected());

    RawProgram newer(lab_, false);
    labprotocol::Hello hello;
    hello.version = labprotocol::kVersion + 1;
    newer.Send(hello);
    EXPECT_EQ(newer.Receive<labprotocol::Welcome>().version, labprotocol::kVersion);
    EXPECT_TRUE(newer.IsDisconnected());
}

TEST_F(Protocol, RandomMessagesHurtNobody)
{
    std::mt19937 random(4711);
    const auto device = lab_.Open();
    for (int round = 0; round < 300; ++round) {
        RawProgram program(lab_);
        for (int message = 0; message < 4; ++message) {
            std::vector<uint8_t> bytes(random() % 64 + 4);
            std::ranges::generate(bytes, [&] { return static_cast<uint8_t>(random()); });
            const uint32_t type = random() % 10;
            std::memcpy(bytes.data(), &type, sizeof(type));
            send(program.Descriptor(), bytes.data(), bytes.size(), MSG_NOSIGNAL); // may be too late
        }
        EXPECT_EQ(AskVersion(*device), kSuccess);
    }
}

TEST_F(Protocol, RequestsOfAnyLengthComeToAnEnd)
{
    RawProgram program(lab_);
    uint64_t id = 0;
    for (uint32_t function = 0x800; function <= 0x910; ++function) {
        for (const uint32_t length : {0u, 7u, 60u, 10'000u}) {
            if (NDIS_FILTER_CTL_CODE(function) != IOCTL_NDIS_FILTER_START_SHARE) { // that asks for a mapping
                program.SendControl(++id, NDIS_FILTER_CTL_CODE(function), std::vector<uint8_t>(length, 7),
                                    length);
                const size_t size = program.ReceiveBytes().size();
                ASSERT_GE(size, sizeof(labprotocol::Reply)) << std::hex << function;
                EXPECT_LE(size, sizeof(labprotocol::Reply) + length) << std::hex << function;
            }
        }
    }
}

TEST_F(Protocol, TheAddressThatAProgramReportsComesBackAndIsNotUsed)
{
    RawProgram program(lab_);
    program.SendStart(1);
    int file = -1;
    labprotocol::Mapped mapped;
    const auto map = program.Receive<labprotocol::Map>(&file);
    ASSERT_GE(file, 0);
    EXPECT_LT(ftruncate(file, 0), 0); // sealed
    EXPECT_LT(ftruncate(file, static_cast<off_t>(map.length + 4096)), 0);
    mapped.id = map.id + 1; // nobody has asked for that
    mapped.address = 0x1000;
    program.Send(mapped);
    EXPECT_EQ(program.ReportMapped(map.id, 0xDEADBEEF), 0xDEADBEEF + 20u);

    // Every byte of the pages is the program's to spoil, those behind the record as well.
    void* pages =
        mmap(nullptr, map.length, PROT_READ | PROT_WRITE, MAP_SHARED, file, static_cast<off_t>(map.offset));
    ASSERT_NE(pages, MAP_FAILED);
    std::memset(pages, 0xA5, map.length);
    program.SendControl(2, IOCTL_NDIS_FILTER_WRITE_SHARE, {}, 0);
    EXPECT_EQ(program.Receive<labprotocol::Reply>().status, kSuccess);
    munmap(pages, map.length);
    close(file);
}

TEST_F(Protocol, AMappingThatFailsOrNeverComesLeavesTheShareFree)
{
    RawProgram failing(lab_);
    failing.SendStart(1);
    EXPECT_EQ(failing.ReportMapped(failing.Receive<labprotocol::Map>().id, 0), NDIS_FILTER_SHARE_FAILED);
    {
        RawProgram dying(lab_);
        dying.SendStart(1);
        dying.Receive<labprotocol::Map>();
    }
    RawProgram silent(lab_);
    silent.SendStart(1);
    silent.Receive<labprotocol::Map>();
    // The lab gives the silent one up after a while; the fixture's program gets the share while it is still
    // there.
    const auto device = lab_.Open();
    EXPECT_TRUE(Eventually([&] { return StartShare(*device) != nullptr; }));
    EXPECT_EQ(silent.ReceiveBytes().size(), sizeof(labprotocol::Reply) + 8);
}

TEST_F(Protocol, RequestsAndConnectionsBeyondTheLimitAreRefused)
{
    {
        RawProgram program(lab_);
        for (uint64_t id = 1; id <= labprotocol::kMostRequests; ++id) {
            program.SendStart(id); // the first one waits for its mapping, the others for the first
        }
        program.SendControl(1000, IOCTL_NDIS_FILTER_GET_VERSION, {}, 0);
        program.Receive<labprotocol::Map>();
        const auto reply = program.Receive<labprotocol::Reply>();
        EXPECT_EQ(reply.id, 1000u);
        EXPECT_EQ(reply.status, kStatusInsufficientResources);
    }
    const auto isServed = [](RawProgram& program) { // it may be disconnected before it has greeted
        const labprotocol::Hello hello;
        send(program.Descriptor(), &hello, sizeof(hello), MSG_NOSIGNAL);
        return !program.IsDisconnected();
    };
    {
        std::vector<std::unique_ptr<RawProgram>> programs;
        do {
            programs.push_back(std::make_unique<RawProgram>(lab_, false));
        } while (programs.size() < 80 && isServed(*programs.back()));
        EXPECT_GE(programs.size(), 64u); // the first program's connection may still be there
        EXPECT_LE(programs.size(), 65u);
    }
    EXPECT_THAT(lab_.Errors(), testing::HasSubstr("64 programs are connected already"));
    EXPECT_TRUE(Eventually([&] {
        RawProgram program(lab_, false);
        return isServed(program);
    }));
}

TEST_F(Protocol, RepliesThatAreNotTakenEndTheConnection)
{
    RawProgram program(lab_);
    labprotocol::Control control;
    control.code = IOCTL_NDIS_FILTER_GET_ADAPTER;
    control.outputLength = sizeof(UserAdapterList);
    EXPECT_TRUE(Eventually([&] {
        ++control.id;
        send(program.Descriptor(), &control, sizeof(control), MSG_DONTWAIT | MSG_NOSIGNAL);
        pollfd end = {.fd = program.Descriptor(), .events = 0, .revents = 0};
        return poll(&end, 1, 0) == 1 && (end.revents & POLLHUP) != 0;
    }));
}

TEST_F(Protocol, NumbersOfRequestsAreTheProgramsOwn)
{
    RawProgram program(lab_);
    program.SendStart(7);
    program.ReportMapped(program.Receive<labprotocol::Map>().id, 0x1000);
    program.SendControl(7, IOCTL_NDIS_FILTER_READ_SHARE, {}, 0); // parked
    labprotocol::Cancel cancel;
    cancel.id = 8;
    program.Send(cancel); // no such request
    cancel.id = 7;
    program.Send(cancel);
    const auto reply = program.Receive<labprotocol::Reply>();
    EXPECT_EQ(reply.id, 7u);
    EXPECT_EQ(reply.status, kCancelled);

    program.SendControl(7, IOCTL_NDIS_FILTER_READ_SHARE, {}, 0);
    program.SendControl(7, IOCTL_NDIS_FILTER_READ_SHARE, {}, 0); // the same number again
    program.ReceiveBytes(); // the first one, completed by the end of the handle
    EXPECT_TRUE(program.IsDisconnected());
}

} // namespace
