// The client library against what is no lab, or one that lies.
#include "ndisfilter-user.h"

#include <device.h>
#include <lab-protocol.h>
#include <support/program.h>

#include <filesystem>
#include <thread>

#include <gmock/gmock.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

namespace
{

using namespace testing;

constexpr uint32_t kShareSize = NDIS_FILTER_MAPPED_MEMORY_SIZE;

// Listens where a lab would, and sends a program that connects what a test wants.
class FalseLab
{
  public:
    explicit FalseLab(std::function<void(FalseLab&)> conduct = {}, uint32_t user = geteuid())
    {
        listener_ = socket(AF_UNIX, SOCK_SEQPACKET, 0);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        Path().copy(address.sun_path, sizeof(address.sun_path) - 1);
        EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
        // The user who listens is who the socket belongs to. The bare call changes this thread's alone.
        std::thread([this, user] {
            EXPECT_EQ(syscall(SYS_setresuid, -1, user, -1), 0);
            EXPECT_EQ(listen(listener_, 1), 0);
        }).join();
        thread_ = std::thread([this, conduct = std::move(conduct)] {
            if (peer_ = accept(listener_, nullptr, nullptr); peer_ >= 0 && conduct) {
                conduct(*this);
            }
            close(peer_);
        });
    }
    ~FalseLab()
    {
        shutdown(listener_, SHUT_RDWR);
        thread_.join();
        close(listener_);
    }
    std::string Path() const { return directory_.File("lab"); }

    template <class Message>
    void Send(const Message& message, int file = -1)
    {
        iovec vector = {const_cast<Message*>(&message), sizeof(message)};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
        msghdr header = {};
        header.msg_iov = &vector;
        header.msg_iovlen = 1;
        header.msg_control = control;
        header.msg_controllen = file >= 0 ? sizeof(control) : 0;
        if (cmsghdr* const first = CMSG_FIRSTHDR(&header); first != nullptr) {
            *first = {CMSG_LEN(sizeof(int)), SOL_SOCKET, SCM_RIGHTS};
            std::memcpy(CMSG_DATA(first), &file, sizeof(file));
        }
        EXPECT_EQ(sendmsg(peer_, &header, MSG_NOSIGNAL), static_cast<ssize_t>(sizeof(message)));
    }
    template <class Message>
    Message Receive()
    {
        Message message;
        EXPECT_GE(recv(peer_, &message, sizeof(message), 0), static_cast<ssize_t>(sizeof(message)));
        return message;
    }
    bool IsLeft() // by the program, in time
    {
        const timeval patience = {.tv_sec = 30, .tv_usec = 0};
        setsockopt(peer_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
        char byte;
        return recv(peer_, &byte, 1, 0) == 0;
    }
    template <class Message = labprotocol::Welcome>
    void Greet(const Message& welcome = {})
    {
        Receive<labprotocol::Hello>();
        Send(welcome);
    }

  private:
    support::TemporaryDirectory directory_;
    int listener_ = -1, peer_ = -1;
    std::thread thread_;
};

TEST(FalseLabTest, WhatDoesNotGreetLikeALabIsNotSpokenTo)
{
    labprotocol::Welcome stranger, newer, closed;
    stranger.magic = 1;
    newer.version = 77;
    closed.status = static_cast<int32_t>(0xC0000034);
    const std::pair<std::function<void(FalseLab&)>, const char*> rows[] = {
        {{}, "the lab has ended the connection"},
        {[](FalseLab& lab) { lab.Greet('?'); }, "what listens there is no lab"},
        {[&](FalseLab& lab) { lab.Greet(stranger); }, "what listens there is no lab"},
        {[&](FalseLab& lab) { lab.Greet(newer); }, "the lab speaks version 77"},
        {[&](FalseLab& lab) { lab.Greet(closed); }, "cannot open the control device: status 0xC0000034"},
    };
    for (const auto& [conduct, error] : rows) {
        FalseLab lab(conduct);
        std::string seen;
        EXPECT_EQ(ndisfilter::OpenDevice(lab.Path(), &seen), nullptr);
        EXPECT_THAT(seen, AllOf(StartsWith(lab.Path() + ": "), HasSubstr(error)));
    }
}

TEST(FalseLabTest, AnotherUsersIsNotSpokenTo)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "NOT CHECKED: to listen as two users takes root";
    }
    constexpr uint32_t kAnother = 54'321, kProgram = 54'322;
    FalseLab lab({}, kAnother);
    const std::filesystem::path path = lab.Path();
    permissions(path, std::filesystem::perms::all);
    permissions(path.parent_path(), std::filesystem::perms::all);
    std::string seen;
    std::thread([&] {
        EXPECT_EQ(syscall(SYS_setresuid, -1, kProgram, -1), 0);
        EXPECT_EQ(ndisfilter::OpenDevice(lab.Path(), &seen), nullptr);
    }).join();
    EXPECT_THAT(seen, HasSubstr("belongs to another user (54321)"));
}

// A mapping longer than its file would end the program at its first look.
TEST(FalseLabTest, PagesThatAreNotThereAreNotMapped)
{
    struct Row {
        off_t file;
        uint64_t offset, length;
    };
    const Row rows[] = {{4096, 0, kShareSize},
                        {kShareSize, 4096, kShareSize},
                        {kShareSize, ~uint64_t{4095}, kShareSize},
                        {kShareSize, 0, 4096}};
    for (const Row& row : rows) {
        FalseLab lab([&](FalseLab& self) {
            self.Greet();
            labprotocol::Reply reply;
            reply.id = self.Receive<labprotocol::Control>().id;
            const int file = memfd_create("pages", MFD_CLOEXEC);
            EXPECT_EQ(ftruncate(file, row.file), 0);
            labprotocol::Map map;
            map.offset = row.offset;
            map.length = row.length;
            self.Send(map, file);
            close(file);
            EXPECT_EQ(self.Receive<labprotocol::Mapped>().address, 0u);
            reply.status = static_cast<int32_t>(0xC000009A);
            self.Send(reply);
            self.Receive<labprotocol::Close>();
        });
        std::string error;
        const auto device = ndisfilter::OpenDevice(lab.Path(), &error);
        ASSERT_NE(device, nullptr) << error;
        int32_t status = 0;
        EXPECT_EQ(device->StartShare(1, &status), nullptr);
        EXPECT_EQ(status, static_cast<int32_t>(0xC000009A));
    }
}

TEST(FalseLabTest, AMessageThatMakesNoSenseEndsTheConnection)
{
    labprotocol::Reply stranger;
    stranger.id = ~uint64_t{0};
    const std::function<void(FalseLab&)> rows[] = {
        [&](FalseLab& lab) { lab.Send(stranger); },
        [](FalseLab& lab) { lab.Send(labprotocol::Map()); }, // without pages
        [](FalseLab& lab) { lab.Send(labprotocol::Hello()); },
        [](FalseLab& lab) { lab.Send(uint16_t{4}); },
    };
    for (const auto& answer : rows) {
        FalseLab lab([&](FalseLab& self) {
            self.Greet();
            self.Receive<labprotocol::Control>();
            answer(self);
            EXPECT_TRUE(self.IsLeft());
        });
        std::string error;
        const auto device = ndisfilter::OpenDevice(lab.Path(), &error);
        ASSERT_NE(device, nullptr) << error;
        EXPECT_EQ(device->Control(1, {}, {}).status, static_cast<int32_t>(0xC000009D)); // not connected
    }
}

} // namespace
