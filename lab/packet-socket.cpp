#include "packet-socket.h"

#include "checksum.h"
#include "lab-error.h"

#include <cstring>

#include <arpa/inet.h>
#include <fmt/format.h>
#include <hook/virtual-adapters.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>

namespace lab
{
namespace
{

// Each slot holds the kernel's header and a whole frame; a ring is as long as what a busy program leaves for some
// milliseconds at a million frames a second.
constexpr uint32_t kSlotBytes = 2048;
constexpr uint32_t kSlots = 4096;
constexpr uint32_t kRingBytes = kSlotBytes * kSlots;
constexpr uint32_t kBlockBytes = 1 << 16;
constexpr uint32_t kSendOffset = TPACKET2_HDRLEN - sizeof(sockaddr_ll);
constexpr size_t kAddressBytes = 12; // a VLAN tag stands behind both addresses
constexpr size_t kTagBytes = 4;
static_assert(kSendOffset + hook::kLongestFrame <= kSlotBytes);

[[noreturn]] void Throw(const Interface& interface, const char* what)
{
    throw LabError(ExitCode::Interface,
                   fmt::format("{}: cannot {}: {}", interface.Name(), what, DescribeSystemError()));
}

} // namespace

void PacketSocket::SetOption(int option, const void* value, uint32_t length, const char* what) const
{
    if (setsockopt(socket_.Get(), SOL_PACKET, option, value, length) < 0) {
        Throw(interface_, what);
    }
}

PacketSocket::PacketSocket(const Interface& interface)
    : interface_(interface), socket_(socket(AF_PACKET, SOCK_RAW, 0)) // bound below: nothing arrives before
{
    if (!socket_.IsOpen()) {
        Throw(interface, "open a packet socket");
    }
    const int version = TPACKET_V2;
    SetOption(PACKET_VERSION, &version, sizeof(version), "choose the kind of ring");
    const int on = 1;
    SetOption(PACKET_IGNORE_OUTGOING, &on, sizeof(on), "leave out its own frames");
    SetOption(PACKET_QDISC_BYPASS, &on, sizeof(on), "send past its queue");
    const tpacket_req ring = {.tp_block_size = kBlockBytes,
                              .tp_block_nr = kRingBytes / kBlockBytes,
                              .tp_frame_size = kSlotBytes,
                              .tp_frame_nr = kSlots};
    SetOption(PACKET_RX_RING, &ring, sizeof(ring), "make a receive ring");
    SetOption(PACKET_TX_RING, &ring, sizeof(ring), "make a send ring");
    void* const memory = mmap(nullptr, 2 * static_cast<size_t>(kRingBytes), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_POPULATE, socket_.Get(), 0);
    if (memory == MAP_FAILED) {
        Throw(interface, "map the rings");
    }
    receiveRing_ = static_cast<uint8_t*>(memory);
    sendRing_ = receiveRing_ + kRingBytes;

    sockaddr_ll address = {};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = interface.Index();
    if (bind(socket_.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) < 0) {
        Throw(interface, "receive its frames");
    }
    packet_mreq membership = {};
    membership.mr_ifindex = interface.Index();
    membership.mr_type = PACKET_MR_PROMISC;
    SetOption(PACKET_ADD_MEMBERSHIP, &membership, sizeof(membership), "receive frames for other stations");
}

PacketSocket::~PacketSocket()
{
    if (receiveRing_ != nullptr) {
        munmap(receiveRing_, 2 * static_cast<size_t>(kRingBytes));
    }
}

tpacket2_hdr* PacketSocket::Slot(uint8_t* ring, uint32_t index) const
{
    return reinterpret_cast<tpacket2_hdr*>(ring + static_cast<size_t>(index % kSlots) * kSlotBytes);
}

void PacketSocket::Wait(int milliseconds)
{
    pollfd wanted = {socket_.Get(), POLLIN, 0};
    poll(&wanted, 1, milliseconds);
}

// The frame of a slot as it is on the wire; empty when it is too long.
std::span<const uint8_t> PacketSocket::Prepare(tpacket2_hdr& slot)
{
    uint8_t* const frame = reinterpret_cast<uint8_t*>(&slot) + slot.tp_mac;
    const bool isTagged = (slot.tp_status & TP_STATUS_VLAN_VALID) != 0;
    const size_t length = slot.tp_len + (isTagged ? kTagBytes : 0);
    if (slot.tp_len != slot.tp_snaplen || length > hook::kLongestFrame || slot.tp_len < kAddressBytes) {
        ++tooLong_;
        return {};
    }
    if ((slot.tp_status & TP_STATUS_CSUMNOTREADY) != 0) {
        CompleteChecksum({frame, slot.tp_len});
        ++completedChecksums_;
    }
    if (!isTagged) {
        return {frame, length};
    }
    if (taggedUsed_ == tagged_.size()) {
        tagged_.emplace_back(hook::kLongestFrame);
    }
    uint8_t* const copy = tagged_[taggedUsed_++].data();
    const uint16_t type =
        (slot.tp_status & TP_STATUS_VLAN_TPID_VALID) != 0 ? slot.tp_vlan_tpid : uint16_t{ETH_P_8021Q};
    const uint16_t tag[] = {htons(type), htons(slot.tp_vlan_tci)};
    std::memcpy(copy, frame, kAddressBytes);
    std::memcpy(copy + kAddressBytes, tag, sizeof(tag));
    std::memcpy(copy + kAddressBytes + kTagBytes, frame + kAddressBytes, slot.tp_len - kAddressBytes);
    return {copy, length};
}

std::span<const std::span<const uint8_t>> PacketSocket::Receive(size_t most)
{
    frames_.clear();
    taggedUsed_ = 0;
    while (taken_ < most) {
        tpacket2_hdr* const slot = Slot(receiveRing_, nextReceived_);
        // The kernel sets the status behind the frame.
        if ((std::atomic_ref(slot->tp_status).load(std::memory_order_acquire) & TP_STATUS_USER) == 0) {
            break;
        }
        const std::span<const uint8_t> frame = Prepare(*slot);
        if (!frame.empty()) {
            frames_.push_back(frame);
        }
        ++nextReceived_;
        ++taken_;
    }
    return frames_;
}

void PacketSocket::Release()
{
    for (; taken_ > 0; --taken_) {
        tpacket2_hdr* const slot = Slot(receiveRing_, nextReceived_ - taken_);
        std::atomic_ref(slot->tp_status).store(TP_STATUS_KERNEL, std::memory_order_release);
    }
}

void PacketSocket::Send(std::span<const uint8_t> frame)
{
    std::lock_guard lock(sendMutex_);
    tpacket2_hdr* const slot = Slot(sendRing_, nextSent_);
    const auto isFree = [slot] {
        const uint32_t status = std::atomic_ref(slot->tp_status).load(std::memory_order_acquire);
        return status == TP_STATUS_AVAILABLE || status == TP_STATUS_WRONG_FORMAT;
    };
    if (!isFree()) {
        Flush();
    }
    if (!isFree()) {
        ++lostSent_;
        return;
    }
    std::memcpy(reinterpret_cast<uint8_t*>(slot) + kSendOffset, frame.data(), frame.size());
    slot->tp_len = static_cast<uint32_t>(frame.size());
    // The kernel looks at the status before the frame.
    std::atomic_ref(slot->tp_status).store(TP_STATUS_SEND_REQUEST, std::memory_order_release);
    ++nextSent_;
    unsent_.store(true, std::memory_order_release);
}

void PacketSocket::Flush()
{
    if (unsent_.exchange(false, std::memory_order_acq_rel) &&
        send(socket_.Get(), nullptr, 0, MSG_DONTWAIT) < 0) {
        unsent_.store(true, std::memory_order_release); // no room for now; the next flush tries again
    }
}

PacketSocket::Counters PacketSocket::Count()
{
    tpacket_stats statistics = {};
    socklen_t length = sizeof(statistics);
    getsockopt(socket_.Get(), SOL_PACKET, PACKET_STATISTICS, &statistics, &length);
    std::lock_guard lock(sendMutex_);
    return {completedChecksums_, tooLong_, statistics.tp_drops, lostSent_};
}

} // namespace lab
