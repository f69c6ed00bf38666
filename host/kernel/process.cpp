// User processes, their handles and their requests.
#include "process.h"

#include "dispatcher.h"
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
#include <new>

namespace kernel
{

namespace
{

void DestroyProcess(void* body)
{
    static_cast<PEPROCESS>(body)->~_EPROCESS();
}

_OBJECT_TYPE processType = {"Process", DestroyProcess, nullptr, true};

PEPROCESS NewProcess(uint32_t id, const char* imageName)
{
    void* body = CreateObject(&processType, sizeof(_EPROCESS));
    if (body == nullptr) {
        throw std::bad_alloc();
    }
    auto* process = new (body) _EPROCESS{};
    InitializeHeader(&process->Header, kProcessObject, sizeof(DISPATCHER_HEADER), false);
    process->id = id;
    std::strncpy(process->imageName, imageName, sizeof(process->imageName) - 1);
    return process;
}

// With the identifier and the name that it has on every machine. It never ends.
PEPROCESS SystemProcess()
{
    static const PEPROCESS process = NewProcess(4, "System");
    return process;
}

// The process that the thread belongs to, attached or not.
PEPROCESS OwnProcess()
{
    return t_thread.process != nullptr ? t_thread.process : SystemProcess();
}

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
    const kernel::ThreadState& thread = kernel::t_thread;
    return thread.attachment != nullptr ? thread.attached : kernel::OwnProcess();
}

HANDLE PsGetCurrentProcessId(VOID)
{
    return reinterpret_cast<HANDLE>(static_cast<uintptr_t>(kernel::OwnProcess()->id));
}

VOID KeStackAttachProcess(PRKPROCESS Process, PRKAPC_STATE ApcState)
{
    using namespace kernel;
    RequireIrqlAtMost(APC_LEVEL, "KeStackAttachProcess");
    *ApcState = {};
    if (TypeOfObject(Process, "KeStackAttachProcess") != &processType) {
        return; // its detach is reported
    }
    ThreadState& thread = t_thread;
    ApcState->ApcListHead[0].Flink = reinterpret_cast<PLIST_ENTRY>(thread.attachment);
    ApcState->Process = thread.attached;
    thread.attachment = ApcState;
    thread.attached = Process;
}

VOID KeUnstackDetachProcess(PRKAPC_STATE ApcState)
{
    using namespace kernel;
    RequireIrqlAtMost(APC_LEVEL, "KeUnstackDetachProcess");
    ThreadState& thread = t_thread;
    if (thread.attachment != ApcState) {
        Report("process-not-attached", "KeUnstackDetachProcess",
               "state %p is not that of the thread's innermost attachment", static_cast<void*>(ApcState));
        return;
    }
    thread.attachment = reinterpret_cast<PKAPC_STATE>(ApcState->ApcListHead[0].Flink);
    thread.attached = ApcState->Process;
}

namespace machine
{

using kernel::Outcome;

struct Request::State {
    std::shared_ptr<Outcome> outcome; // null: refused before a driver saw it
    Status refused = STATUS_SUCCESS;
};

namespace
{

// An open file, which its handles share.
struct OpenFile {
    FILE_OBJECT* file = nullptr;
    std::atomic<size_t> handles{1};
};

} // namespace

struct Process::State {
    struct Handle {
        std::weak_ptr<File::State> file; // expired: closed and given up
        std::weak_ptr<OpenFile> open;
    };

    explicit State(uint32_t id) : process(kernel::NewProcess(id, program_invocation_short_name)) {}
    ~State() { kernel::DereferenceObject(process); }
    State(const State&) = delete;
    State& operator=(const State&) = delete;
    std::unique_ptr<File> Keep(std::shared_ptr<File::State> file);

    const PEPROCESS process;
    std::mutex mutex;
    std::vector<Handle> handles; // of files that are open still, perhaps in another process alone
};

struct File::State {
    std::shared_ptr<Process::State> process;
    std::shared_ptr<OpenFile> open; // referenced by each of its handles

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
    parameters.file = open->file;
    {
        const kernel::ProcessScope scope(process->process);
        request->outcome = kernel::SendRequest(open->file->DeviceObject, parameters);
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

// The cleanup request belongs to the last handle. The close request follows only when nothing of the handles is under
// way any more, as each request keeps its file.
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
    const kernel::ProcessScope scope(process->process);
    if (--open->handles == 0) {
        kernel::CleanupFile(open->file);
    }
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
    kernel::DereferenceObject(open->file);
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

std::unique_ptr<File> File::DuplicateFor(Process& process)
{
    auto duplicate = std::make_shared<State>();
    {
        std::lock_guard lock(state_->mutex);
        if (state_->closed) {
            return nullptr;
        }
        duplicate->open = state_->open;
        ++duplicate->open->handles;
        kernel::ReferenceObject(duplicate->open->file);
    }
    duplicate->process = process.state_;
    return process.state_->Keep(std::move(duplicate));
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

Process::Process(MapPages mapPages)
{
    static std::atomic<uint32_t> next{1000};
    state_ = std::make_shared<State>(next.fetch_add(4)); // as all process identifiers, a multiple of 4
    state_->process->mapPages = std::move(mapPages);
}

Process::~Process()
{
    std::vector<State::Handle> handles;
    {
        std::lock_guard lock(state_->mutex);
        handles.swap(state_->handles);
    }
    bool left = false;
    for (const auto& handle : handles) {
        if (const auto file = handle.file.lock()) {
            file->Close();
        }
        const auto open = handle.open.lock();
        left = left || (open != nullptr && open->handles != 0);
    }
    kernel::EndViews(state_->process->id, left);
    state_->process->mapPages =
        nullptr; // a driver may keep the object longer than what that refers to is there
    std::lock_guard lock(kernel::TheDispatcher().mutex);
    kernel::Signal(&state_->process->Header);
}

uint32_t Process::Id() const
{
    return state_->process->id;
}

std::unique_ptr<File> Process::Open(const std::string& name, Status* status)
{
    auto file = std::make_shared<File::State>();
    file->process = state_;
    file->open = std::make_shared<OpenFile>();
    NTSTATUS opened;
    {
        const kernel::ProcessScope scope(state_->process);
        opened = kernel::OpenFile(name, UserMode, &file->open->file);
    }
    if (status != nullptr) {
        *status = opened;
    }
    if (!NT_SUCCESS(opened)) {
        return nullptr;
    }
    return state_->Keep(std::move(file));
}

std::unique_ptr<File> Process::State::Keep(std::shared_ptr<File::State> file)
{
    std::lock_guard lock(mutex);
    std::erase_if(handles, [](const Handle& handle) { return handle.open.expired(); });
    handles.push_back({file, file->open});
    return std::unique_ptr<File>(new File(std::move(file)));
}

} // namespace machine
