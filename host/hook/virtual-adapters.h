// The hook driver of the host: network adapters that exist in memory only.
//
// It binds to the framework as any NDIS hook driver does, hands it frames that an adapter "received" or a
// protocol "sent", and takes what the framework delivers on either side. There is one such driver in a
// machine; everything below starts anew each time it is loaded.
//
// Only plain C++ types stand here, so that callers need no kernel headers. A FilterAdapter* is the adapter
// handle that client drivers see. Functions may be called from any host thread at PASSIVE_LEVEL; those marked
// (D) also at DISPATCH_LEVEL, for instance from a filter procedure or a sink.
#pragma once

#include "machine.h"

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

struct FilterAdapter;
struct FilterPacket;

// The driver's entry routine, a machine::DriverEntry. Reads the registry value PacketLimit.
extern "C" int32_t HookDriverEntry(_DRIVER_OBJECT* driver, _UNICODE_STRING* registryPath);

namespace hook
{

using machine::Status;
using MacAddress = std::array<uint8_t, 6>;

inline constexpr char kServiceName[] = "VirtualHook";

// ---------------------------------------------------------------------------------------------------- driver

struct LoadOptions {
    uint32_t packetLimit = 8192; // packets that exist at most; the pool grows up to it on demand
};

Status Load(const LoadOptions& options = {});

// Closes the adapters, unbinds and takes back the packets that are still out: afterwards nobody may touch one
// of them, an adapter or a request any more. Their release callbacks do not run.
Status Unload();
bool IsLoaded();

// --------------------------------------------------------------------------------------------------- binding

// The functions that the driver gives to the framework, in the order of the binding record.
enum class Function {
    GetOsVersion,
    HandleIoControl,
    AllocatePacket,
    FreePacket,
    InjectPacketToAdapter,
    InjectPacketToProtocol,
    AllocateRequest,
    MakeNdisRequest,
    FreeRequest,
    SetAdapterStatus,
    GetAdapterStatus,
    GetTcpIpBoundAdapters,
    MmMapLockedPages,
    MmUnmapLockedPages,
    Count
};

// What the binding request says. Everything but the defaults is for tests of its refusal.
struct BindOptions {
    std::vector<Function> without = {}; // given as NULL
    uint32_t size = 168;                // m_Size
    uint16_t majorVersion = 1;
    uint16_t minorVersion = 0;
    uint32_t inputLength = 168;
    uint32_t outputLength = 168;
    bool watched = false; // the framework's calls are counted, and can be made to fail
};

// Sends the request and, on success, starts to use the framework's callbacks. May be repeated while bound. A
// status of STATUS_OBJECT_NAME_NOT_FOUND means that the framework is not loaded; STATUS_DEVICE_NOT_READY:
// this driver is not.
Status Bind(const BindOptions& options = {});

enum class UnbindMode {
    Drained, // deliveries under way end first, so that none of their packets is released while unbound
    Abrupt,  // the request goes out in the middle of them
};

// Stops deliveries and sends the request, also when not bound. When the framework refuses it, deliveries go
// on.
Status Unbind(UnbindMode mode = UnbindMode::Drained, const BindOptions& options = {});
bool IsBound();

// ---------------------------------------------------------------------------------- functions that are to fail

enum class Failure {
    Answered, // what the function answers when it fails; one that answers nothing does its work all the same
    Raised,   // an access violation: behind its work where that is to free, unmap or take over
};

// (D) The n-th call of a function from now, starting at 1, fails; of a binding that is watched. One at a time.
void FailCall(Function function, uint64_t n, Failure how);
void ClearFaults();
uint64_t CallsOf(Function function); // (D) since the last ClearFaults
bool FaultHit();                     // (D) the armed call has happened

// -------------------------------------------------------------------------------------------------- adapters

struct AdapterOptions {
    std::string name =
        {}; // begins with the network-configuration instance id; at most 255 bytes of it are in the table
    MacAddress address = {};
    std::optional<MacAddress> permanentAddress = {}; // default: the same
    uint16_t mtu = 1500;                             // bytes of payload
    uint32_t medium = 0;                             // NDIS_MEDIUM; 0 is Ethernet
    bool ndisWan = false;
    bool boundToTcpIp = true; // shows up in the framework's adapter table
    bool connected = true;
};

// A new, closed adapter, or null without memory. Its record stays where it is until the driver unloads, also
// when the adapter has been removed, as client drivers and packets may still refer to it.
FilterAdapter* AddAdapter(const AdapterOptions& options);

// Opens or closes an adapter and reports it when bound. Nothing happens when it is so already. A closed
// adapter accepts no frames on any side.
void OpenAdapter(FilterAdapter* adapter);
void CloseAdapter(FilterAdapter* adapter);
void RemoveAdapter(FilterAdapter* adapter); // closes it if need be

// (D) Indicates an NDIS status; connect (0x4001000B) and disconnect (0x4001000C) also set the media state: 0
// connected, 1 disconnected. A state that the framework forces is indicated by the driver's own thread, a
// little later.
void IndicateStatus(FilterAdapter* adapter, uint32_t ndisStatus);
uint32_t MediaState(FilterAdapter* adapter);

FilterAdapter* FindAdapter(const MacAddress& address); // (D) by current address; null when there is none

// --------------------------------------------------------------------------------------------------- traffic

struct FrameOptions {
    // Not given: the whole frame lies in the packet's buffer and there is no NDIS packet. Given: only so many
    // of its first bytes do, and the whole frame is in an NDIS packet.
    std::optional<uint32_t> presentBytes = {};
    // Bytes of each buffer of that NDIS packet, 0 for an empty one; what is left of the frame makes one more.
    // They lie apart in memory and in reverse order.
    std::vector<uint32_t> pieces = {};
    // The buffers are locked pages that have no system address yet.
    bool unmappedBuffers = false;
    // How long a delivery waits for a packet when all are out. It never waits at DISPATCH_LEVEL.
    uint32_t waitMs = 10000;
    // A batch ends at the first frame that has got no packet, instead of going on behind it.
    bool endWithoutPacket = false;
};

inline constexpr uint32_t kLongestFrame = 1648; // bytes, what a packet's buffer holds

enum class Accepted { Yes, NotBound, AdapterClosed, TooLong, NoPacket, NoMemory };

struct BatchResult {
    size_t accepted = 0;
    size_t notBound = 0;
    size_t adapterClosed = 0;
    size_t tooLong = 0;  // over kLongestFrame
    size_t noPacket = 0; // all packets were out, and none came back in time
    size_t noMemory = 0;
    // All but those without a packet.
    size_t Ended() const { return accepted + notBound + adapterClosed + tooLong + noMemory; }
};

// (D) Hands frames to the framework at DISPATCH_LEVEL, as an adapter's interrupt path does. A batch is raised
// once.
Accepted DeliverReceived(FilterAdapter* adapter, std::span<const uint8_t> frame,
                         const FrameOptions& options = {});
Accepted DeliverSent(FilterAdapter* adapter, std::span<const uint8_t> frame,
                     const FrameOptions& options = {});

using Frames = std::span<const std::span<const uint8_t>>;
BatchResult DeliverReceivedBatch(FilterAdapter* adapter, Frames frames, const FrameOptions& options = {});
BatchResult DeliverSentBatch(FilterAdapter* adapter, Frames frames, const FrameOptions& options = {});

// ------------------------------------------------------------------------------ what the framework delivers

enum class Side { Adapter, Protocols }; // sent on the adapter, indicated to the protocols
enum class Origin { Received, Sent, Allocated };

struct Delivery {
    FilterAdapter* adapter;
    Side side;
    Origin origin; // how the packet came to be
    bool dirty;    // the frame is the packet's own buffer, which somebody has changed
    FilterPacket* packet;
};

// Gets each frame as it would go out: the packet's buffer when it is dirty or there is no NDIS packet, else
// the NDIS packet's bytes. Runs at DISPATCH_LEVEL, on several processors at once; it must not wait nor throw.
using Sink = std::function<void(std::span<const uint8_t> frame, const Delivery& delivery)>;

// An empty sink: frames are counted only. When this returns, the sink before is not running any more; so it
// must not be called from inside a sink.
void SetSink(FilterAdapter* adapter, Side side, Sink sink);

enum class Behaviour {
    Accept,
    Refuse, // takes the packet back and answers NDIS_STATUS_FAILURE
    Fault,  // takes the packet back and raises an access violation
};
void SetBehaviour(FilterAdapter* adapter, Side side, Behaviour behaviour); // (D)

// -------------------------------------------------------------------------------------------------- counters

struct Traffic {
    uint64_t frames = 0;
    uint64_t bytes = 0;
};

// (D) Counted on each processor and summed here: exact while no traffic runs.
struct AdapterCounters {
    Traffic received;    // accepted by DeliverReceived
    Traffic sent;        // accepted by DeliverSent
    Traffic toAdapter;   // delivered by the framework
    Traffic toProtocols; // delivered by the framework
};
AdapterCounters CountersOf(FilterAdapter* adapter);

// The life of all packets since the load. After the unload: what it came to.
struct Balance {
    // How packets came to be.
    uint64_t received = 0;
    uint64_t sent = 0;
    uint64_t allocated = 0; // by the framework and its clients
    // How they ended.
    uint64_t deliveredToAdapter = 0;
    uint64_t deliveredToProtocols = 0;
    uint64_t refused = 0;  // by Behaviour, a closed or an unknown adapter
    uint64_t freed = 0;    // released without delivery
    uint64_t stranded = 0; // taken back by the unload
    // Counted in the pool, not computed from the numbers above.
    uint64_t outstanding = 0; // held by a filter, queued, or released while unbound

    uint64_t Born() const { return received + sent + allocated; }
    uint64_t Ended() const { return deliveredToAdapter + deliveredToProtocols + refused + freed + stranded; }
    bool IsEven() const { return Born() == Ended() + outstanding; }
    bool operator==(const Balance&) const = default;
};
Balance TakeBalance();

// One line for each packet that is out: who holds it is unknown, but not where it comes from.
std::vector<std::string> Outstanding();

uint32_t PacketsInPool(); // packets that the pool has grown to

// What the driver was asked to do wrong: a packet freed or delivered twice, a packet that is none, a request
// freed while it is pending, a sink that faults. Also printed to standard error. Empties the list.
std::vector<std::string> TakeMisuses();

// ----------------------------------------------------------------------------------------- control requests

// Answers control requests that the framework does not know, at PASSIVE_LEVEL. Input and output are one
// buffer, which may be null. Default and empty: STATUS_NOT_SUPPORTED.
using IoControlHandler = std::function<Status(uint32_t code, const void* input, uint32_t inputLength,
                                              void* output, uint32_t outputLength, uint32_t* bytesReturned)>;
void SetIoControlHandler(IoControlHandler handler);

// --------------------------------------------------------------------------------------------- NDIS requests

// What a client driver finds behind a request handle. The driver's own thread answers a request some time
// after it was made: it stores the result, then the status, and calls `completed` last, at PASSIVE_LEVEL.
// From making the request until then it belongs to the driver. Queries: OID_GEN_MAXIMUM_FRAME_SIZE,
// OID_GEN_CURRENT_PACKET_FILTER, OID_GEN_MEDIA_CONNECT_STATUS, OID_GEN_XMIT_OK and OID_GEN_RCV_OK (4 bytes,
// or 8 when the buffer has room), OID_802_3_PERMANENT_ADDRESS, OID_802_3_CURRENT_ADDRESS. Settings:
// OID_GEN_CURRENT_PACKET_FILTER, which is only kept.
struct NdisRequest {
    uint32_t type;              //  0  0 query, 1 set
    uint32_t oid;               //  4
    void* information;          //  8  buffer for the result, or the value to set
    uint32_t informationLength; // 16  its bytes
    uint32_t bytesDone;         // 20  bytes written or read; written by the driver
    uint32_t bytesNeeded;       // 24  what a buffer too short lacks; written by the driver
    int32_t status;             // 28  NDIS_STATUS_PENDING (0x103) until answered; written by the driver
    void (*completed)(NdisRequest* request, void* context); // 32  may be null
    void* reserved;                                         // 40
};

enum class Answering {
    Later,   // by the driver's own thread: the default
    AtOnce,  // before the request has been made, at DISPATCH_LEVEL
    Failing, // later, with NDIS_STATUS_FAILURE
    Never,   // until another way is set: then requests that wait are answered later
};
void SetAnswering(Answering how); // (D) for requests made or answered from now on

} // namespace hook
