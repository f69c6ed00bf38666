// Requests of kernel sockets, in any order, to a transport that answers as the input says: at once, later on its own
// thread, when it is told to, with any status, or as the network would. Every request ends once, and records come free.
#include "support/fuzz.h"

#include <tdi-client.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <list>
#include <memory>
#include <thread>
#include <utility>

using namespace fuzz;
using machine::TransportAnswer;
using machine::TransportRequest;

namespace
{

constexpr size_t kSteps = 24, kRecords = 2;
constexpr NTSTATUS kUntouched = 0x12345678;
const PCWSTR kDevices[] = {L"\\Device\\Tcp", L"\\Device\\Udp", L"\\Device\\Nobody"};
constexpr NTSTATUS kStatuses[] = {STATUS_SUCCESS,
                                  STATUS_SUCCESS,
                                  STATUS_INSUFFICIENT_RESOURCES,
                                  STATUS_CANCELLED,
                                  STATUS_ACCESS_DENIED,
                                  STATUS_INVALID_HANDLE,
                                  STATUS_UNSUCCESSFUL,
                                  STATUS_BUFFER_OVERFLOW,
                                  STATUS_DELETE_PENDING,
                                  STATUS_INVALID_DEVICE_REQUEST};

// A data request with the memory it needs until it has ended.
struct Request {
    KEVENT event;
    IO_STATUS_BLOCK result{};
    std::unique_ptr<uint8_t[]> bytes;
    PMDL mdl = nullptr;
    TA_IP_ADDRESS peer;
    TDI_CONNECTION_INFORMATION information{};
    bool hasCallback = false, sent = false;
    PKS_TRANSPORT_ADDRESS closes = nullptr; // by its callback
    std::atomic<uint32_t> completions = 0;

    bool HasEnded() const
    {
        return hasCallback ? completions != 0 : KeReadStateEvent(const_cast<PKEVENT>(&event)) != 0;
    }
};

VOID NTAPI OnCompletion(PVOID context, PIO_STATUS_BLOCK result, ULONG extra)
{
    auto* request = static_cast<Request*>(context);
    Require(result == &request->result && result->Status != kUntouched && extra == 0,
            "a completion tells its result");
    if (request->closes != nullptr) {
        KS_CloseTransportAddress(request->closes);
    }
    ++request->completions;
}

NTSTATUS NTAPI OnError(PVOID, NTSTATUS)
{
    return STATUS_SUCCESS;
}

template <class Record, NTSTATUS (*kClose)(Record*)>
struct Slot {
    Record record{};
    bool open = false; // and not closed yet

    ULONG Count() const { return __atomic_load_n(&record.Count, __ATOMIC_ACQUIRE); }
    void Close()
    {
        if (std::exchange(open, false)) {
            RequireEqual(kClose(&record), STATUS_SUCCESS, "closing an address or endpoint");
        }
    }
};

class Fixture : public Machine
{
  public:
    Fixture()
    {
        RequireEqual(machine::LoadTransport(), STATUS_SUCCESS, "loading the transport");
        std::atexit([] { machine::UnloadTransport(); }); // its thread
        Accept();
    }

    void Run(Input input)
    {
        input_ = &input;
        for (size_t step = 0; step < kSteps && !input.IsEmpty(); ++step) {
            Step();
        }
        PutBack();
        CheckAtRest();
    }

  private:
    using Address = Slot<KS_TRANSPORT_ADDRESS, KS_CloseTransportAddress>;
    using Endpoint = Slot<KS_CONNECTION_ENDPOINT, KS_CloseConnectionEndpoint>;

    // How the next request of a kind is answered. One that is waited for must not be held.
    void Plan(TransportRequest kind, bool mayBeHeld, bool always = false)
    {
        const uint8_t choice = input_->Byte() % 16; // the network's own sockets are slow
        const NTSTATUS status = input_->OneOf(kStatuses);
        if (choice == 0 && !always) {
            machine::AnswerTransportRequest(kind, 0, TransportAnswer::AtOnce,
                                            status); // forgets an answer that is left
            return;
        }
        const TransportAnswer answer = choice >= 13 && mayBeHeld ? TransportAnswer::Held
                                       : choice >= 12            ? TransportAnswer::Later
                                                                 : TransportAnswer::AtOnce;
        const uint64_t which = always ? 1 : 1 + input_->Byte() / 192;
        machine::AnswerTransportRequest(kind, which, answer, status);
    }

    void Step()
    {
        Address& address = addresses_[input_->Below(kRecords)];
        Endpoint& endpoint = endpoints_[input_->Below(kRecords)];
        switch (input_->Below(13)) {
        case 0:
        case 1:
            OpenAddress(address);
            break;
        case 2:
            OpenEndpoint(endpoint, address);
            break;
        case 3:
            address.Close();
            break;
        case 4:
            endpoint.Close();
            break;
        case 5:
            if (address.open) {
                Plan(TransportRequest::SetEventHandler, false);
                KS_SetEventHandlers(&address.record, this, nullptr, nullptr,
                                    input_->Flag() ? OnError : nullptr, nullptr, nullptr, nullptr);
            }
            break;
        case 6:
            if (endpoint.open && endpoint.Count() == 1) {
                Plan(TransportRequest::Connect, false, true);
                TA_IP_ADDRESS peer = Loopback();
                KS_Connect(&endpoint.record, &peer);
            }
            break;
        case 7:
            machine::ReleaseTransportRequests();
            break;
        default:
            SendData(address, endpoint);
            break;
        }
        Settle();
    }

    static TA_IP_ADDRESS Loopback()
    {
        TA_IP_ADDRESS address;
        KS_InitIPAddress(&address, KS_htonl(0x7F000001), KS_htons(9));
        return address;
    }

    void OpenAddress(Address& address)
    {
        if (address.open || address.Count() != 0) {
            return;
        }
        Plan(TransportRequest::Create, false);
        TA_IP_ADDRESS local;
        KS_InitIPAddress(&local, KS_htonl(0x7F000001), 0);
        const NTSTATUS status = KS_OpenTransportAddress(
            input_->OneOf(kDevices), reinterpret_cast<PTRANSPORT_ADDRESS>(&local), &address.record);
        RequireEqual(address.record.Status, status, "the status in the record");
        RequireEqual(address.Count(), NT_SUCCESS(status) ? 1u : 0u,
                     "references of an address that was opened");
        address.open = NT_SUCCESS(status);
    }

    void OpenEndpoint(Endpoint& endpoint, Address& address)
    {
        if (endpoint.open || endpoint.Count() != 0 || !address.open) {
            return;
        }
        Plan(TransportRequest::Create, false);
        Plan(TransportRequest::Associate, false);
        const ULONG before = address.Count();
        const NTSTATUS status =
            KS_OpenConnectionEndpoint(input_->OneOf(kDevices), &address.record, &endpoint.record, &endpoint);
        RequireEqual(endpoint.record.AssociateStatus, status, "the status in the record");
        RequireEqual(endpoint.Count(), NT_SUCCESS(status) ? 1u : 0u,
                     "references of an endpoint that was opened");
        if (requests_.empty()) { // else one may end at any moment
            RequireEqual(address.Count(), before + (NT_SUCCESS(status) ? 1 : 0), "references of its address");
        }
        endpoint.open = NT_SUCCESS(status);
    }

    void SendData(Address& address, Endpoint& endpoint)
    {
        static constexpr TransportRequest kKinds[] = {
            TransportRequest::SendDatagram, TransportRequest::ReceiveDatagram, TransportRequest::Send,
            TransportRequest::Receive, TransportRequest::Disconnect};
        const TransportRequest kind = input_->OneOf(kKinds);
        const bool datagram =
            kind == TransportRequest::SendDatagram || kind == TransportRequest::ReceiveDatagram;
        if (!(datagram ? address.open : endpoint.open)) {
            return;
        }
        const uint32_t mode = input_->Below(4); // callback, callback and event, event, waiting
        const bool receives = kind == TransportRequest::ReceiveDatagram || kind == TransportRequest::Receive;
        // What the network answers may never come.
        Plan(kind, mode != 3, receives || kind == TransportRequest::Disconnect);

        Request& request = *requests_.emplace_back(std::make_unique<Request>());
        KeInitializeEvent(&request.event, NotificationEvent, FALSE);
        request.result.Status = kUntouched;
        request.hasCallback = mode < 2;
        request.peer = Loopback();
        request.information.RemoteAddress = &request.peer;
        request.information.RemoteAddressLength = sizeof(request.peer);
        if (const uint32_t length = input_->Below(64); length != 0) {
            request.bytes.reset(new uint8_t[length]());
            request.mdl = KS_AllocateAndProbeMdl(request.bytes.get(), length, FALSE, FALSE, nullptr);
        }
        if (datagram && request.hasCallback && input_->Below(8) == 0) {
            request.closes = &address.record;
        }
        const bool closes = request.closes != nullptr;
        const PKEVENT event = mode == 1 || mode == 2 ? &request.event : nullptr;
        const KS_COMPLETION completion = request.hasCallback ? OnCompletion : nullptr;
        const ULONG flags = input_->Byte();
        if (closes) {
            address.open = false; // from now on its callback may have closed it
        }
        const NTSTATUS status = Send(kind, address, endpoint, request, event, completion, flags);
        request.sent = request.result.Status != kUntouched;
        if (closes && !request.sent) {
            address.open = true;
        }
        if (mode == 3 && request.sent) {
            RequireEqual(status, request.result.Status, "the status of a request that was waited for");
            KeSetEvent(&request.event, IO_NO_INCREMENT, FALSE);
        }
        Require(request.sent || (status != STATUS_PENDING && !NT_SUCCESS(status)),
                "what was not sent has failed");
    }

    NTSTATUS Send(TransportRequest kind, Address& address, Endpoint& endpoint, Request& request,
                  PKEVENT event, KS_COMPLETION completion, ULONG flags)
    {
        switch (kind) {
        case TransportRequest::SendDatagram:
            return KS_SendDatagramOnAddress(&address.record, event, completion, &request, &request.result,
                                            request.mdl, &request.information);
        case TransportRequest::ReceiveDatagram:
            return KS_ReceiveDatagramOnAddress(&address.record, event, completion, &request, &request.result,
                                               request.mdl, nullptr,
                                               (flags & 1) != 0 ? &request.information : nullptr, flags);
        case TransportRequest::Send:
            return KS_SendOnEndpoint(&endpoint.record, event, completion, &request, &request.result,
                                     request.mdl, flags);
        case TransportRequest::Receive:
            return KS_ReceiveOnEndpoint(&endpoint.record, event, completion, &request, &request.result,
                                        request.mdl, flags);
        default:
            return KS_Disconnect(&endpoint.record, event, completion, &request, &request.result, flags);
        }
    }

    // Forgets the requests that have ended.
    void Settle()
    {
        requests_.remove_if([](const std::unique_ptr<Request>& request) {
            if (request->sent && !request->HasEnded()) {
                return false;
            }
            RequireEqual(request->completions.load(), request->hasCallback && request->sent ? 1u : 0u,
                         "completions of a request");
            if (request->mdl != nullptr) {
                KS_UnlockAndFreeMdl(request->mdl);
            }
            return true;
        });
    }

    // The transport's own thread, which is none of the kernel's, may be in the last steps of a request.
    bool IsAtRest() const
    {
        const auto isFree = [](const auto& slot) { return slot.Count() == 0; };
        return requests_.empty() && std::ranges::all_of(endpoints_, isFree) &&
               std::ranges::all_of(addresses_, isFree) && machine::TakeCensus().requests == 0;
    }

    void PutBack()
    {
        machine::ClearTransportAnswers();
        machine::ReleaseTransportRequests();
        for (Endpoint& endpoint : endpoints_) {
            endpoint.Close();
        }
        for (Address& address : addresses_) {
            address.Close();
        }
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(50);
        for (; !IsAtRest(); Settle()) {
            Require(std::chrono::steady_clock::now() < end, "requests end, and what is closed comes free");
            std::this_thread::yield();
        }
    }

    Input* input_ = nullptr;
    std::array<Address, kRecords> addresses_;
    std::array<Endpoint, kRecords> endpoints_;
    std::list<std::unique_ptr<Request>> requests_;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return RunOn<Fixture>(data, size);
}
