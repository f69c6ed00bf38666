// The one door to the host kernel for tests and programs: load and unload drivers, open the control device as a
// user process does, inject faults, step the clock, read the debug output and ask the verifier.
//
// There is one machine in a process. Everything here speaks UTF-8 and plain C++ types, so that callers need neither
// kernel headers nor 16-bit wide characters. Unless said otherwise a function may be called from any host thread at
// PASSIVE_LEVEL.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

struct _DRIVER_OBJECT; // of the kernel headers, for the type of entry routines
struct _UNICODE_STRING;

namespace machine
{

using Status = int32_t; // NTSTATUS; negative values are errors

// ---------------------------------------------------------------------------------------------------- drivers

// The entry routine of a driver.
using DriverEntry = Status (*)(_DRIVER_OBJECT* driver, _UNICODE_STRING* registryPath);

// Loads a driver that is linked into this program under a service name, for instance "NdisFilter". The registry
// path handed to it is \Registry\Machine\System\CurrentControlSet\Services\<service>. Returns what the entry routine
// returned, or STATUS_IMAGE_ALREADY_LOADED. A driver whose entry fails is not loaded; devices that it left behind stay
// until DiscardDriver, out of reach for everybody.
Status LoadDriver(const std::string& service, DriverEntry entry);

// Loads a driver from a shared object whose entry routine is exported as DriverEntry. The service name is the file's
// name without directory and extension. `error` receives one line when the file cannot be loaded; the status is
// then STATUS_OBJECT_NAME_NOT_FOUND (no such file) or STATUS_INVALID_IMAGE_FORMAT (no loadable module, no entry).
Status LoadDriverModule(const std::string& path, std::string* error);

// Calls the driver's unload routine and drops its image. STATUS_OBJECT_NAME_NOT_FOUND when not loaded,
// STATUS_INVALID_DEVICE_REQUEST when it has no unload routine. STATUS_PENDING while one of its devices is open: no new
// handle is given out, and the unload runs on the thread that gives back the last handle or reference.
// The verifier then reports what the driver left: its devices and links at once; memory, threads, timers and the like,
// which do not know their driver, when the last driver is gone, compared with what was alive when the first one came.
Status UnloadDriver(const std::string& service);

// Frees devices and links that a driver left behind whose entry routine failed. Returns how many objects it freed.
size_t DiscardDriver(const std::string& service);

bool IsDriverLoaded(const std::string& service);

// --------------------------------------------------------------------------------------------------- registry

// Values under the service key of a driver; they may be set before it is loaded.
void SetRegistryDword(const std::string& service, const std::string& name, uint32_t value);
void SetRegistryString(const std::string& service, const std::string& name, const std::string& value);
void DeleteRegistryKey(const std::string& service); // the key itself: queries then fail

// ---------------------------------------------------------------------------------------------------- drive C

// The directory that drivers see as drive C, for files opened from now on. Empty, the default: there is no such drive,
// and opening a file on it fails.
void SetDriveC(const std::string& directory);

// --------------------------------------------------------------------------------------------------- transport

// Loads the network transport: the devices \Device\Tcp, \Device\Udp and \Device\RawIp serve TDI requests with
// sockets of the host, on its loopback addresses only. A driver of the service name "Transport". Programs that call
// these functions link the target hosttransport.
Status LoadTransport();
Status UnloadTransport(); // as UnloadDriver

enum class TransportRequest {
    Create,
    Associate,
    SetEventHandler,
    Connect,
    Disconnect,
    Send,
    Receive,
    SendDatagram,
    ReceiveDatagram,
    Query,
    Set,
    Count
};
enum class TransportAnswer {
    AtOnce, // within the dispatch routine
    Later,  // by the transport's own thread
    Twice,  // at once, and then once more
    Held    // when ReleaseTransportRequests is called, or the request is cancelled
};
// The n-th request of a kind from now, starting at 1, is not carried out but completed with the status.
void AnswerTransportRequest(TransportRequest kind, uint64_t n, TransportAnswer answer, Status status);
size_t HeldTransportRequests();
void ReleaseTransportRequests();
// On: all requests for data and connections complete on the transport's own thread. Off, the default: those that can
// be completed at once, are, when their sender runs below DISPATCH_LEVEL.
void CompleteTransportRequestsLater(bool on);
void ClearTransportAnswers();                      // takes back the two above; requests that are held stay
uint64_t TransportRequests(TransportRequest kind); // requests of the kind since ClearTransportAnswers

// ------------------------------------------------------------------------------- user processes and requests

class File;

// A request that has been sent and may be pending.
class Request
{
  public:
    struct Result {
        Status status = 0;
        size_t information = 0; // bytes returned, as the driver gave them
    };
    Request(Request&&) noexcept;
    Request& operator=(Request&&) noexcept;
    ~Request(); // waits for the completion: cancel first where nobody else completes it
    bool IsComplete() const;
    // Waits at most timeoutMs; nothing when it is still pending.
    std::optional<Result> Wait(uint32_t timeoutMs = 10000);
    // Cancels as CancelIo does; harmless when the request is complete already.
    void Cancel();
    Status DispatchStatus() const; // what the dispatch routine returned
    // The bytes copied back to the program: at most the output length, at most what the driver returned.
    std::span<const uint8_t> Output() const;

  private:
    friend class File;
    struct State;
    explicit Request(std::shared_ptr<State> state);
    std::shared_ptr<State> state_;
};

// Maps part of a memory file for reading and writing in another program's address space; offset and length are
// multiples of the page size. The address there, 0 when it failed. The file stays the caller's. Called at PASSIVE_LEVEL
// on the thread of the request that maps; it may wait, with a bound.
using MapPages = std::function<uint64_t(int file, uint64_t offset, size_t length)>;

// A user process: memory mapped for it is unmapped at the latest when it ends.
class Process
{
  public:
    Process(); // a new, empty process
    // A process whose memory is that of another program: addresses handed out for it mean nothing here, and the other
    // program ends its mappings itself.
    explicit Process(MapPages mapPages);
    ~Process(); // closes its files, as the end of a process does
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    uint32_t Id() const;
    // Opens a device by its Win32 name ("\\\\.\\NdisFilter") or kernel name. Null with *status set when it fails.
    std::unique_ptr<File> Open(const std::string& name, Status* status = nullptr);

  private:
    friend class File;
    struct State;
    std::shared_ptr<State> state_;
};

// A handle of a process to a device. Closing it cancels its pending requests; closing the last one of a file sends
// cleanup and close as well, the one before the cancellations and the other behind them.
class File
{
  public:
    ~File();
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    void Close();
    // Another handle of the same file, as DuplicateHandle or inheritance gives one to a process. Null when this one is
    // closed.
    std::unique_ptr<File> DuplicateFor(Process& process);
    // METHOD_BUFFERED device control; the call waits for the completion. On an error status nothing is copied back.
    Request::Result Control(uint32_t code, std::span<const uint8_t> input, std::span<uint8_t> output);
    // The same without waiting.
    Request Send(uint32_t code, std::span<const uint8_t> input, size_t outputLength);
    // An internal device control of another driver. The lengths are given apart from the bytes, so that a test can claim
    // any; without bytes (a null span) the request has no system buffer, whatever the lengths say.
    Request SendInternal(uint32_t code, std::span<const uint8_t> buffer, size_t inputLength, size_t outputLength);
    Request SendShutdown();

  private:
    friend class Process;
    struct State;
    explicit File(std::shared_ptr<State> state);
    std::shared_ptr<State> state_;
};

// ---------------------------------------------------------------------------------------------------- verifier

// A broken kernel rule. By default each is also printed to standard error as it happens.
struct Violation {
    std::string rule;     // short stable name, for instance "irql-too-high" or "double-free"
    std::string function; // the kernel function that noticed it
    std::string detail;   // tag, object, IRQL: with names and values
};

std::vector<Violation> TakeViolations(); // those since the last call; empties the list
void PrintViolations(bool on);           // default on

// Drivers read memory that they share with programs by ReadULongAcquire and RtlCopyVolatileMemory, and announce with
// WriteULongRelease what they have written there. Builds without NDEBUG check that no byte is read twice in one
// operation, which is what a thread does under the lock that it has taken last, or while it holds none: up to the next
// lock or request. In them an observer is told of each such access just before it happens, on the thread that makes it,
// at any IRQL; it may change the memory, as a program would. One at a time; null: none.
enum class SharedAccess { Read, Announce };
using SharedAccessObserver = void (*)(SharedAccess access, const volatile void* address, size_t size);
void ObserveSharedAccess(SharedAccessObserver observer);
bool ChecksSharedAccess(); // false in builds with NDEBUG

// Counts of everything that a driver can leave behind.
struct Census {
    size_t threads = 0, threadHandles = 0, poolBlocks = 0, poolBytes = 0, lookasideLists = 0, mdls = 0, views = 0;
    size_t processReferences = 0; // of drivers
    size_t devices = 0, links = 0, drivers = 0, files = 0, requests = 0, timers = 0, workItems = 0, locksHeld = 0;
    bool operator==(const Census&) const = default;
};
Census TakeCensus();
std::string DescribeCensus(const Census& census); // "3 pool blocks (NfDA 2 x 80 bytes at ...), 1 thread ..."

// What a thread of the machine's caller has left behind: IRQL not PASSIVE_LEVEL or a lock held is a violation.
void CheckReturnToUser(const char* where);

// ------------------------------------------------------------------------------------------------------ faults

// Kernel operations that can fail. A test makes the n-th call of a kind fail, counted from now, starting at 1.
enum class Fault {
    Pool,
    Lookaside,
    Mdl,
    LockPages, // raises STATUS_ACCESS_VIOLATION
    MapPages,
    Thread,
    Device,
    SymbolicLink,
    Registry,
    File,
    Request,
    Object,     // finding the object of a handle
    NdisPacket, // pools of NDIS packets, and packets
    Count
};
void FailCall(Fault kind, uint64_t n); // one call fails; a second FailCall of the kind replaces the first
void FailCalls(Fault kind, uint64_t n, uint64_t second); // two calls fail; n < second
void FailAllFrom(Fault kind, uint64_t n);                // the n-th and every later call fails
void ClearFaults();
uint64_t FaultCalls(Fault kind); // calls of the kind since the last ClearFaults
bool FaultHit(Fault kind);       // the armed call has happened; of two the first
// Who made the armed call: function names, innermost first, as far as the loader knows them. Empty while not hit.
std::vector<std::string> FaultTrace(Fault kind);

// ------------------------------------------------------------------------------------------------ debug output

// Receives every debug print, whole texts as the driver printed them; called on the printing thread, maybe at
// DISPATCH_LEVEL. Null: the output is dropped. Default: dropped.
void SetDebugSink(std::function<void(std::string_view)> sink);

// Collects the debug output while it lives, of all threads or only of the one that made it, and passes nothing of that
// on to the sink or the capture set before.
class DebugCapture
{
  public:
    enum class Threads { All, Own };
    explicit DebugCapture(Threads threads = Threads::All);
    ~DebugCapture();
    DebugCapture(const DebugCapture&) = delete;
    DebugCapture& operator=(const DebugCapture&) = delete;
    std::string Text() const;
    std::string Take(); // the text so far; starts anew
    bool Contains(std::string_view text) const;

  private:
    struct State;
    std::unique_ptr<State> state_;
};

// ------------------------------------------------------------------------------------------------------- clock

// Stops the clock at a time in 100-ns units since 1 January 1601 (UTC). Timers and time-outs then only follow
// AdvanceClock; waits of system threads with a time-out return when the clock has passed it.
void StopClock(int64_t time);
void AdvanceClock(uint64_t milliseconds); // returns once timers due have run their deferred calls
void StartClock();                        // real time again (the default)

// -------------------------------------------------------------------------------------- threads and processors

// Holds every system thread inside its next (or present) wait while it lives, so that a test lays out what they
// find. The constructor returns once every system thread waits.
class ThreadHold
{
  public:
    ThreadHold();
    ~ThreadHold();
    ThreadHold(const ThreadHold&) = delete;
    ThreadHold& operator=(const ThreadHold&) = delete;
};

// Holds queued work items (they stay queued) while it lives.
class WorkItemHold
{
  public:
    WorkItemHold();
    ~WorkItemHold();
    WorkItemHold(const WorkItemHold&) = delete;
    WorkItemHold& operator=(const WorkItemHold&) = delete;
};

// Waits until all work items queued so far have run and every system thread sleeps in a wait; false after timeoutMs.
bool WaitIdle(uint32_t timeoutMs = 10000);

// Raises the calling thread to DISPATCH_LEVEL on the given processor (0 to 63), or on its own when negative, as an
// interrupt of an adapter does; back to the level before at the end.
class AtDispatch
{
  public:
    explicit AtDispatch(int processor = -1);
    ~AtDispatch();
    AtDispatch(const AtDispatch&) = delete;
    AtDispatch& operator=(const AtDispatch&) = delete;

  private:
    uint8_t oldIrql_;
};

} // namespace machine
