// A kernel client of the echo server, for tests and benchmarks, and the server's process.
#pragma once

#include <tdi-client.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <netinet/in.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace echo
{

inline const ULONG kLoopback = htonl(INADDR_LOOPBACK);

inline TA_IP_ADDRESS Loopback(uint16_t port)
{
    TA_IP_ADDRESS address;
    KS_InitIPAddress(&address, kLoopback, KS_htons(port));
    return address;
}

// The echo server, in a process of its own that ends with this object.
class Server
{
  public:
    Server()
    {
        int input[2];
        int output[2];
        if (pipe2(input, O_CLOEXEC) != 0 || pipe2(output, O_CLOEXEC) != 0) {
            return;
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
        char path[] = ECHO_SERVER;
        char* arguments[] = {path, nullptr};
        if (posix_spawn(&process_, path, &actions, nullptr, arguments, environ) != 0) {
            process_ = -1;
        }
        posix_spawn_file_actions_destroy(&actions);
        close(input[0]);
        close(output[1]);
        input_ = input[1];
        FILE* answer = fdopen(output[0], "r");
        unsigned tcp = 0;
        unsigned udp = 0;
        if (std::fscanf(answer, "%u %u", &tcp, &udp) == 2) {
            tcpPort = static_cast<uint16_t>(tcp);
            udpPort = static_cast<uint16_t>(udp);
        }
        std::fclose(answer);
    }
    ~Server()
    {
        close(input_);
        if (process_ > 0) {
            waitpid(process_, nullptr, 0);
        }
    }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    uint16_t tcpPort = 0; // 0: the server did not start
    uint16_t udpPort = 0;

  private:
    pid_t process_ = -1;
    int input_ = -1;
};

// Non-paged memory and its description.
class Block
{
  public:
    explicit Block(size_t size)
        : bytes_(static_cast<uint8_t*>(ExAllocatePoolWithTag(NonPagedPool, size, kTag))),
          mdl_(IoAllocateMdl(bytes_, static_cast<ULONG>(size), FALSE, FALSE, nullptr))
    {
        MmBuildMdlForNonPagedPool(mdl_);
    }
    ~Block()
    {
        IoFreeMdl(mdl_);
        ExFreePoolWithTag(bytes_, kTag);
    }
    Block(const Block&) = delete;
    Block& operator=(const Block&) = delete;

    uint8_t* Bytes() { return bytes_; }
    PMDL Mdl() { return mdl_; }

  private:
    static constexpr ULONG kTag = 0x6F686345;
    uint8_t* bytes_;
    PMDL mdl_;
};

// What goes over a stream: never the same at two places that a lost or doubled block could bring together.
class Pattern
{
  public:
    Pattern() : bytes_(kPeriod + kReach)
    {
        std::mt19937_64 random(6);
        for (size_t i = 0; i < kPeriod; ++i) {
            bytes_[i] = static_cast<uint8_t>(random());
        }
        std::memcpy(bytes_.data() + kPeriod, bytes_.data(), kReach);
    }
    // At most kReach bytes from there.
    const uint8_t* At(uint64_t position) const { return bytes_.data() + position % kPeriod; }

    static constexpr size_t kReach = 256 * 1024;

  private:
    static constexpr size_t kPeriod = 1'048'573; // a prime
    std::vector<uint8_t> bytes_;
};

// A connection to the server.
struct Connection {
    KS_TRANSPORT_ADDRESS address = {};
    KS_CONNECTION_ENDPOINT endpoint = {};

    NTSTATUS Open(uint16_t port = 0, PVOID context = nullptr)
    {
        TA_IP_ADDRESS local = Loopback(port);
        NTSTATUS status =
            KS_OpenTransportAddress(L"\\Device\\Tcp", reinterpret_cast<PTRANSPORT_ADDRESS>(&local), &address);
        if (NT_SUCCESS(status)) {
            status = KS_OpenConnectionEndpoint(L"\\Device\\Tcp", &address, &endpoint, context);
        }
        return status;
    }
    NTSTATUS Connect(uint16_t port)
    {
        TA_IP_ADDRESS peer = Loopback(port);
        return KS_Connect(&endpoint, &peer);
    }
    void Close()
    {
        KS_CloseConnectionEndpoint(&endpoint);
        KS_CloseTransportAddress(&address);
    }
};

struct Transfer {
    uint64_t sent = 0;
    uint64_t received = 0;
    bool equal = true; // what came back is what was sent
    NTSTATUS status = STATUS_SUCCESS;
};

// Sends a block, waits for it to come back, sends the next one.
inline Transfer ExchangeWaiting(Connection& connection, const Pattern& pattern, uint64_t bytes,
                                size_t blockSize)
{
    Block out(blockSize);
    Block in(blockSize);
    Transfer transfer;
    while (transfer.received < bytes && transfer.equal) {
        std::memcpy(out.Bytes(), pattern.At(transfer.sent), blockSize);
        transfer.status =
            KS_SendOnEndpoint(&connection.endpoint, nullptr, nullptr, nullptr, nullptr, out.Mdl(), 0);
        if (!NT_SUCCESS(transfer.status)) {
            return transfer;
        }
        transfer.sent += blockSize;
        while (transfer.received < transfer.sent) {
            IO_STATUS_BLOCK result;
            transfer.status = KS_ReceiveOnEndpoint(&connection.endpoint, nullptr, nullptr, nullptr, &result,
                                                   in.Mdl(), TDI_RECEIVE_NORMAL);
            if (!NT_SUCCESS(transfer.status)) {
                return transfer;
            }
            transfer.equal = transfer.equal &&
                             std::memcmp(in.Bytes(), pattern.At(transfer.received), result.Information) == 0;
            transfer.received += result.Information;
        }
    }
    return transfer;
}

// Keeps several sends and receives under way; each completion starts the next one.
class CallbackExchange
{
  public:
    CallbackExchange(Connection& connection, const Pattern& pattern, uint64_t bytes, size_t blockSize)
        : connection_(connection), pattern_(pattern), bytes_(bytes), blockSize_(blockSize)
    {
        KeInitializeEvent(&done_, NotificationEvent, FALSE);
        for (Slot* slot : {&sends_[0], &sends_[1], &sends_[2], &sends_[3], &receives_[0], &receives_[1],
                           &receives_[2], &receives_[3]}) {
            slot->owner = this;
            slot->block = std::make_unique<Block>(blockSize);
        }
    }

    Transfer Run()
    {
        underWay_ = 1;
        for (Slot& slot : receives_) {
            StartReceive(&slot);
        }
        StartSend(&sends_[0]); // its completion starts the others: only completions know the order of blocks
        Finish();
        KeWaitForSingleObject(&done_, Executive, KernelMode, FALSE, nullptr);
        // The last callback may still be on its way back to the library.
        while (__atomic_load_n(&connection_.endpoint.Count, __ATOMIC_ACQUIRE) != 1) {
            std::this_thread::yield();
        }
        return result_;
    }

  private:
    static constexpr size_t kSlots = 4;
    struct Slot {
        CallbackExchange* owner = nullptr;
        std::unique_ptr<Block> block;
    };

    void Finish()
    {
        if (--underWay_ == 0) {
            KeSetEvent(&done_, 0, FALSE);
        }
    }
    void StartSend(Slot* slot)
    {
        const uint64_t position = sendPosition_;
        if (position >= bytes_ || failed_) {
            return;
        }
        sendPosition_ += blockSize_;
        std::memcpy(slot->block->Bytes(), pattern_.At(position), blockSize_);
        ++underWay_;
        KS_SendOnEndpoint(&connection_.endpoint, nullptr, OnSent, slot, nullptr, slot->block->Mdl(), 0);
    }
    void StartReceive(Slot* slot)
    {
        ++underWay_;
        KS_ReceiveOnEndpoint(&connection_.endpoint, nullptr, OnReceived, slot, nullptr, slot->block->Mdl(),
                             TDI_RECEIVE_NORMAL);
    }
    // The sends of a connection complete in order, one at a time.
    static VOID OnSent(PVOID context, PIO_STATUS_BLOCK status, ULONG)
    {
        auto* slot = static_cast<Slot*>(context);
        CallbackExchange* self = slot->owner;
        const bool first = self->result_.sent == 0;
        self->result_.sent += status->Information;
        if (!NT_SUCCESS(status->Status)) {
            self->Fail(status->Status);
        } else {
            self->StartSend(slot);
            for (size_t i = 1; first && i < kSlots; ++i) {
                self->StartSend(&self->sends_[i]);
            }
        }
        self->Finish();
    }
    static VOID OnReceived(PVOID context, PIO_STATUS_BLOCK status, ULONG)
    {
        auto* slot = static_cast<Slot*>(context);
        CallbackExchange* self = slot->owner;
        Transfer& result = self->result_;
        const bool complete = result.received >= self->bytes_;
        if (!NT_SUCCESS(status->Status)) {
            if (!complete) {
                self->Fail(status->Status);
            }
        } else {
            result.equal =
                result.equal && std::memcmp(slot->block->Bytes(), self->pattern_.At(result.received),
                                            status->Information) == 0;
            result.received += status->Information;
            if (result.received < self->bytes_) {
                self->StartReceive(slot);
            } else {
                // The other receives end with the connection.
                ++self->underWay_;
                KS_Disconnect(
                    &self->connection_.endpoint, nullptr,
                    [](PVOID owner, PIO_STATUS_BLOCK, ULONG) {
                        static_cast<CallbackExchange*>(owner)->Finish();
                    },
                    self, nullptr, TDI_DISCONNECT_RELEASE);
            }
        }
        self->Finish();
    }
    void Fail(NTSTATUS status)
    {
        failed_ = true;
        result_.status = status;
    }

    Connection& connection_;
    const Pattern& pattern_;
    const uint64_t bytes_;
    const size_t blockSize_;
    Slot sends_[kSlots];
    Slot receives_[kSlots];
    uint64_t sendPosition_ = 0;
    std::atomic<int> underWay_{0}; // requests, and Run itself
    std::atomic<bool> failed_{false};
    KEVENT done_;
    Transfer result_;
};

} // namespace echo
