// User processes, their handles and their requests.
#include "process.h"

#include "file.h"
#include "irp.h"
#include "machine.h"
#include "mdl.h"
#include "object.h"
#include "thread.h"
#include "verifier.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace kernel
{

namespace
{

// The identifier and the name that it has on every machine.
_EPROCESS systemProcess = {.id = 4, .mapPages = {}, .imageName = "System", .searched = {}};

} // namespace

uint32_t CurrentProcessId()
{
    return IoGetCurrentProcess()->id;
}

ProcessScope::ProcessScope() : ProcessScope(nullptr) {}

ProcessScope::ProcessScope(PEPROCESS process) : before_(t_thread.process)
{
    t_thread.process = process;
}

ProcessScope::~ProcessScope()
{
    t_thread.process = before_;
}

} // namespace kernel

PEPROCESS IoGetCurrentProcess(VOID)
{
    PEPROCESS process = kernel::t_thread.process;
    return process != nullptr ? process : &kernel::systemProcess;
}

HANDLE PsGetCurrentProcessId(VOID)
{
    return reinterpret_cast<HANDLE>(static_cast<uintptr_t>(IoGetCurrentProcess()->id));
}

namespace machine
{

using kernel::Outcome;

struct Request::State {
    std::shared_ptr<Outcome> outcome; // null: refused before a driver saw it
    Status refused = STATUS_SUCCESS;
};

struct Process::State : _EPROCESS {
    std::mutex mutex;
    std::vector<std::weak_ptr<File::State>> files;
};

struct File::State {
    std::shared_ptr<Process::State> process;
    FILE_OBJECT* file = nullptr;

    std::mutex mutex;
    std::condition_variable idle;
    bool closed = false;
    size_t sending = 0;                            // threads inside a dispatch routine
    std::vector<std::shared_ptr<Outcome>> pending; // may hold complete ones as well

    std::shared_ptr<Request::State> Send(kernel::RequestParameters parameters);
    void Close();
};

std::shared_ptr<Request::State> File::State::Send(kernel::RequestParameters parameters)
{
    auto request = std::make_shared<Request::State>();
    {
        std::lock_guard lock(mutex);
        if (closed) {
            request->refused = STATUS_INVALID_HANDLE;
            return request;
        }
        ++sending;
    }
    parameters.file = file;
    {
        const kernel::ProcessScope scope(process.get());
        request->outcome = kernel::SendRequest(file->DeviceObject, parameters);
    }
    std::lock_guard lock(mutex);
    std::erase_if(pending, [](const auto& outcome) { return outcome->IsComplete(); });
    if (!request->outcome->IsComplete()) {
        pending.push_back(request->outcome);
    }
    --sending;
    idle.notify_all();
    return request;
}

// The close request follows only when nothing of the handle is under way any more, as each request keeps its file.
void File::State::Close()
{
    constexpr std::chrono::seconds kPatience{30};
    {
        std::lock_guard lock(mutex);
        if (closed) {
            return;
        }
        closed = true;
    }
    const kernel::ProcessScope scope(process.get());
    kernel::CleanupFile(file);
    std::vector<std::shared_ptr<Outcome>> left;
    {
        std::unique_lock lock(mutex);
        idle.wait(lock, [this] { return sending == 0; });
        left.swap(pending);
    }
    for (const auto& outcome : left) {
        outcome->Cancel();
    }
    for (const auto& outcome : left) {
        if (!outcome->Wait(kPatience)) {
            kernel::Report("irp-never-completed", "CloseHandle",
                           "a request was neither completed nor cancelled %d s after its handle was closed",
                           static_cast<int>(kPatience.count()));
            return; // the file stays open, as its request refers to it
        }
    }
    kernel::DereferenceObject(file);
}

// ---------------------------------------------------------------------------------------------------- requests

Request::Request(std::shared_ptr<State> state) : state_(std::move(state)) {}
Request::Request(Request&&) noexcept = default;

Request& Request::operator=(Request&& other) noexcept
{
    if (this != &other) {
        Request previous(std::move(*this)); // waits, as the destructor does
        state_ = std::move(other.state_);
    }
    return *this;
}

Request::~Request()
{
    if (state_ != nullptr && state_->outcome != nullptr) {
        state_->outcome->Wait(std::nullopt);
    }
}

bool Request::IsComplete() const
{
    return state_->outcome == nullptr || state_->outcome->IsComplete();
}

std::optional<Request::Result> Request::Wait(uint32_t timeoutMs)
{
    if (state_->outcome == nullptr) {
        return Result{state_->refused, 0};
    }
    if (!state_->outcome->Wait(std::chrono::milliseconds(timeoutMs))) {
        return std::nullopt;
    }
    const IO_STATUS_BLOCK result = state_->outcome->Result();
    return Result{result.Status, static_cast<size_t>(result.Information)};
}

void Request::Cancel()
{
    if (state_->outcome != nullptr) {
        state_->outcome->Cancel();
    }
}

Status Request::DispatchStatus() const
{
    return state_->outcome == nullptr ? state_->refused : state_->outcome->DispatchStatus();
}

std::span<const uint8_t> Request::Output() const
{
    if (state_->outcome == nullptr || !state_->outcome->IsComplete()) {
        return {};
    }
    return state_->outcome->Output();
}

// ------------------------------------------------------------------------------------------------------- files

File::File(std::shared_ptr<State> state) : state_(std::move(state)) {}

File::~File()
{
    Close();
}

void File::Close()
{
    state_->Close();
}

Request File::Send(uint32_t code, std::span<const uint8_t> input, size_t outputLength)
{
    return Request(state_->Send({.major = IRP_MJ_DEVICE_CONTROL,
                                 .mode = UserMode,
                                 .code = code,
                                 .input = input.data(),
                                 .inputBytes = input.size(),
                                 .inputLength = static_cast<ULONG>(input.size()),
                                 .outputLength = static_cast<ULONG>(outputLength)}));
}

Request File::SendInternal(uint32_t code, std::span<const uint8_t> buffer, size_t inputLength,
                           size_t outputLength)
{
    return Request(state_->Send({.major = IRP_MJ_INTERNAL_DEVICE_CONTROL,
                                 .mode = KernelMode,
                                 .code = code,
                                 .input = buffer.data(),
                                 .inputBytes = buffer.size(),
                                 .inputLength = static_cast<ULONG>(inputLength),
                                 .outputLength = static_cast<ULONG>(outputLength),
                                 .noBuffer = buffer.data() == nullptr}));
}

Request File::SendShutdown()
{
    return Request(state_->Send({.major = IRP_MJ_SHUTDOWN, .mode = KernelMode}));
}

Request::Result File::Control(uint32_t code, std::span<const uint8_t> input, std::span<uint8_t> output)
{
    const Request request = Send(code, input, output.size());
    if (request.state_->outcome == nullptr) {
        return {request.state_->refused, 0};
    }
    const Outcome& outcome = *request.state_->outcome;
    outcome.Wait(std::nullopt);
    const size_t bytes = std::min(output.size(), outcome.Output().size());
    if (bytes != 0) {
        std::memcpy(output.data(), outcome.Output().data(), bytes);
    }
    const IO_STATUS_BLOCK result = outcome.Result();
    return {result.Status, static_cast<size_t>(result.Information)};
}

// --------------------------------------------------------------------------------------------------- processes

Process::Process() : Process(nullptr) {}

Process::Process(MapPages mapPages) : state_(std::make_shared<State>())
{
    static std::atomic<uint32_t> next{1000};
    state_->id = next.fetch_add(4); // as all process identifiers, a multiple of 4
    state_->mapPages = std::move(mapPages);
    std::strncpy(state_->imageName, program_invocation_short_name, sizeof(state_->imageName) - 1);
}

Process::~Process()
{
    std::vector<std::weak_ptr<File::State>> files;
    {
        std::lock_guard lock(state_->mutex);
        files.swap(state_->files);
    }
    for (const auto& weak : files) {
        if (const auto file = weak.lock()) {
            file->Close();
        }
    }
    kernel::EndViews(state_->id);
}

uint32_t Process::Id() const
{
    return state_->id;
}

std::unique_ptr<File> Process::Open(const std::string& name, Status* status)
{
    auto file = std::make_shared<File::State>();
    file->process = state_;
    NTSTATUS opened;
    {
        const kernel::ProcessScope scope(state_.get());
        opened = kernel::OpenFile(name, UserMode, &file->file);
    }
    if (status != nullptr) {
        *status = opened;
    }
    if (!NT_SUCCESS(opened)) {
        return nullptr;
    }
    std::lock_guard lock(state_->mutex);
    std::erase_if(state_->files, [](const auto& weak) { return weak.expired(); });
    state_->files.push_back(file);
    return std::unique_ptr<File>(new File(std::move(file)));
}

} // namespace machine
