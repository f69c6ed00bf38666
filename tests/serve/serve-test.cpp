// Programs of other processes at the lab's control device: requests, the share, their death.
#include "lab-server.h"
#include "program.h"

#include <support/captures.h>

#include <atomic>
#include <random>
#include <thread>

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <ndisfilter-client.hpp>

#include "../../samples/indicator/indicator.h"

namespace
{

using ndisfilter::ControlResult;
using ndisfilter::Device;
using support::In;
using support::Out;
using testing::HasSubstr;

TEST(Serve, AProgramAsksAndIsAnswered)
{
    LabServer lab(kOneAdapter);
    struct stat status = {};
    ASSERT_EQ(stat(lab.Socket().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);

    const auto device = lab.Open();
    ASSERT_NE(device, nullptr);
    EXPECT_EQ(AskVersion(*device), kSuccess);
    UserAdapterList list = {};
    EXPECT_EQ(device->Control(IOCTL_NDIS_FILTER_GET_TCPIP_INTERFACES, {}, Out(list)).returned, sizeof(list));
    ASSERT_EQ(list.m_nAdapterCount, 1u);
    EXPECT_STREQ(list.m_Adapters[0].m_szAdapterName, "lan0");
    // A failed request returns nothing, a code that nobody knows fails.
    uint8_t output[64] = {};
    const ControlResult unknown = device->Control(NDIS_FILTER_CTL_CODE(0xABC), output, output);
    EXPECT_LT(unknown.status, 0);
    EXPECT_EQ(unknown.returned, 0u);
    const nlohmann::json report = lab.Stop(SIGTERM);
    EXPECT_EQ(report["adapters"][0]["mac"], "02:00:00:00:00:0a");
    EXPECT_EQ(AskVersion(*device), kNotConnected);
}

TEST(Serve, TheShareIsTheSameMemoryOnBothSides)
{
    const LabServer lab(kOneAdapter);
    const auto device = lab.Open();
    const uint32_t adapter = FirstAdapter(*device);
    for (int round = 0; round < 3; ++round) {
        SharedMemory* memory = StartShare(*device);
        ASSERT_NE(memory, nullptr);
        EXPECT_EQ(memory->KernelModeOutput.m_iBlockCount, NDIS_FILTER_BLOCK_COUNT);
        for (uint8_t content = 1; content <= 200; ++content) {
            SendLoopBack(*device, *memory, adapter, content);
            ASSERT_TRUE(Eventually([&] { return !support::IsEmpty(memory->KernelModeOutput); }));
            EXPECT_EQ(support::NextOutput(*memory).m_nAdapterId, adapter);
            EXPECT_EQ(support::NextOutput(*memory).m_Data[59], content);
            support::Advance(memory->KernelModeOutput.m_iRead);
        }
        int32_t status = -1;
        EXPECT_EQ(device->StartShare(1, &status), nullptr); // it has it already, and keeps it
        EXPECT_EQ(status, kSuccess);
        EXPECT_TRUE(support::IsEmpty(memory->KernelModeOutput));
        EXPECT_EQ(device->StopShare().status, kSuccess);
    }
}

TEST(Serve, AParkedReadIsWokenAndCancelled)
{
    const LabServer lab(kOneAdapter);
    const auto device = lab.Open();
    const uint32_t adapter = FirstAdapter(*device);
    EXPECT_EQ(device->Control(IOCTL_NDIS_FILTER_READ_SHARE, {}, {}).status, kUnsuccessful); // not the owner
    SharedMemory* memory = StartShare(*device);
    ASSERT_NE(memory, nullptr);

    auto read = device->Send(IOCTL_NDIS_FILTER_READ_SHARE);
    auto other = device->Send(IOCTL_NDIS_FILTER_READ_SHARE); // the lab may come to it first
    ASSERT_TRUE(Eventually([&] { return read->Wait(0).has_value() || other->Wait(0).has_value(); }));
    if (read->Wait(0).has_value()) {
        std::swap(read, other);
    }
    EXPECT_EQ(other->Wait(0)->status, kUnsuccessful); // one is parked
    EXPECT_FALSE(read->Wait(0).has_value());
    SendLoopBack(*device, *memory, adapter, 1);
    EXPECT_EQ(StatusOf(*read), kSuccess);
    read->Cancel(); // too late, and harmless
    support::Advance(memory->KernelModeOutput.m_iRead);

    for (int round = 0; round < 200; ++round) { // also while the lab is still at parking it
        read = device->Send(IOCTL_NDIS_FILTER_READ_SHARE);
        read->Cancel();
        ASSERT_EQ(StatusOf(*read), kCancelled);
    }
    read = device->Send(IOCTL_NDIS_FILTER_READ_SHARE);
    std::thread stopper([&] { EXPECT_EQ(device->StopShare().status, kSuccess); });
    const auto status = StatusOf(*read);
    stopper.join();
    EXPECT_TRUE(status == kSuccess ||
                status == kUnsuccessful); // parked before the stop, or refused behind it
}

TEST(Serve, ClosingTheDeviceCompletesItsRead)
{
    const LabServer lab(kOneAdapter);
    auto device = lab.Open();
    ASSERT_NE(StartShare(*device), nullptr);
    const auto read = device->Send(IOCTL_NDIS_FILTER_READ_SHARE);
    EXPECT_FALSE(read->Wait(0).has_value());
    device.reset();
    EXPECT_TRUE(read->Wait(kWaitMs).has_value());
    // When the handle is closed the share is free at once.
    device = lab.Open();
    EXPECT_NE(StartShare(*device), nullptr);
}

TEST(Serve, AKilledProgramLeavesTheShareFree)
{
    // Without traffic its read stays parked.
    for (const std::vector<std::string>& arguments : {kTraffic, kOneAdapter}) {
        const LabServer lab(arguments);
        const auto device = lab.Open();
        {
            const support::Program watcher(NDISFILTERCTL, {"--device", lab.Socket(), "watch"},
                                           lab.CtlDirectory());
            EXPECT_TRUE(Eventually([&] { return watcher.Errors().find("watching") != std::string::npos; }));
            EXPECT_EQ(StartShare(*device), nullptr); // the other one has it
        }                                            // it is killed
        SharedMemory* memory = nullptr;
        EXPECT_TRUE(Eventually([&] { return (memory = StartShare(*device)) != nullptr; }));
        const auto read = device->Send(IOCTL_NDIS_FILTER_READ_SHARE); // the dead one's is no longer parked
        SendLoopBack(*device, *memory, FirstAdapter(*device), 1);
        EXPECT_EQ(StatusOf(*read), kSuccess);
    }
}

// Fills the whole mapping with nonsense until told to stop: small numbers, which an index or an identifier may be, and
// any others.
void Scribble(SharedMemory* memory, uint32_t seed, const std::atomic<bool>& stop)
{
    auto* const words = reinterpret_cast<uint32_t*>(reinterpret_cast<uint8_t*>(memory) -
                                                    offsetof(MappedMemory, m_SharedMemory));
    std::mt19937 random(seed);
    while (!stop) {
        for (size_t i = 0; i < NDIS_FILTER_MAPPED_MEMORY_SIZE / sizeof(uint32_t); ++i) {
            const uint32_t value = random();
            std::atomic_ref(words[i]).store(value % 4 == 0 ? value >> 20 : value, std::memory_order_relaxed);
        }
    }
}

TEST(Serve, AProgramThatScribblesOverTheSharedMemoryDisturbsNobodyElse)
{
    LabServer lab({kCapture, kCapture, "--rate", "800", "--filter", "indicator"});
    auto device = lab.Open();
    SharedMemory* const memory = StartShare(*device);
    ASSERT_NE(memory, nullptr);
    {
        std::atomic<bool> stop = false;
        const std::jthread first([&] { Scribble(memory, 1, stop); });
        const std::jthread second([&] { Scribble(memory, 2, stop); });
        const auto neighbour = lab.Open();
        EXPECT_TRUE(Eventually([&] {
            const auto read = device->Send(IOCTL_NDIS_FILTER_READ_SHARE);
            device->Control(IOCTL_NDIS_FILTER_WRITE_SHARE, {}, {});
            read->Cancel();
            EXPECT_TRUE(read->Wait(kWaitMs).has_value());
            EXPECT_EQ(AskVersion(*neighbour), kSuccess);
            return lab.HasSaid("the captures are through") || testing::Test::HasFailure();
        }));
        stop = true;
    }
    device.reset();

    // The next program has rings that work.
    ndisfilter::Client next(lab.Socket());
    next.StartShare();
    const std::vector<uint8_t> bytes(60, 0x5A);
    ndisfilter_frame frame = {};
    frame.adapter_id = next.Adapters().at(0).m_nAdapterId;
    frame.direction = NDIS_FILTER_DIRECTION_TO_APPLICATION;
    frame.data = bytes.data();
    frame.size = static_cast<uint32_t>(bytes.size());
    EXPECT_EQ(next.Send({&frame, 1}), 1u);
    std::vector<ndisfilter_block> room(1);
    ASSERT_EQ(next.Receive(room, kWaitMs).size(), 1u);
    EXPECT_EQ(std::memcmp(room[0].content.frame.m_Data, bytes.data(), bytes.size()), 0);

    const nlohmann::json report = lab.Stop();
    const uint64_t frames = 2 * support::ReadCapture(kCapture).size();
    EXPECT_EQ(report["balance"]["received"].get<uint64_t>() + report["balance"]["sent"].get<uint64_t>(),
              frames);
    uint64_t filtered = 0;
    for (const nlohmann::json& filter : report["filters"]) {
        EXPECT_EQ(filter["bypass"], filter["process"]);
        filtered += filter["process"].get<uint64_t>();
    }
    EXPECT_EQ(filtered, frames);
}

TEST(Serve, TheIndicatorShowsFramesOfAPortAndAnswersForItself)
{
    const LabServer lab({kCapture, "--loop", "--rate", "5000", "--filter", "indicator", "--set-dword",
                         "indicator.IndicatePort=53", "--set-dword", "indicator.SignalEvery=3"});
    ndisfilter::Client client(lab.Socket());
    client.StartShare();
    std::vector<ndisfilter_block> room(16);
    int frames = 0;
    int signals = 0;
    while ((frames < 20 || signals < 5) && !HasFailure()) {
        const auto blocks = client.Receive(room, kWaitMs);
        ASSERT_FALSE(blocks.empty());
        for (const ndisfilter_block& received : blocks) {
            const SharedBlock& block = received.content.frame;
            if (received.is_signal == 0) {
                constexpr size_t kSourcePort = 34; // behind an IPv4 header without options
                ++frames;
                EXPECT_TRUE(block.m_Data[kSourcePort + 1] == 53 || block.m_Data[kSourcePort + 3] == 53);
                EXPECT_EQ(block.m_nIndicateCode, block.m_nDirection == NDIS_FILTER_DIRECTION_TO_PROTOCOL
                                                     ? INDICATOR_CODE_RECEIVED
                                                     : INDICATOR_CODE_SENT);
            } else {
                IndicatorSignal signal;
                std::memcpy(&signal, received.content.signal, sizeof(signal));
                ++signals;
                EXPECT_EQ(signal.m_nSignature, INDICATOR_SIGNATURE);
                EXPECT_EQ(signal.m_nIndicated % 3, 0u);
                EXPECT_EQ(signal.m_Text, std::to_string(signal.m_nIndicated) + " frames indicated");
            }
        }
    }

    const auto device = lab.Open();
    uint32_t port = 80;
    EXPECT_EQ(device->Control(IOCTL_INDICATOR_SET_PORT, In(port), {}).status, kSuccess);
    IndicatorCounters counters = {};
    EXPECT_EQ(device->Control(IOCTL_INDICATOR_GET_COUNTERS, {}, Out(counters)).returned, sizeof(counters));
    EXPECT_EQ(counters.m_nPort, 80u);
    EXPECT_GE(counters.m_nIndicated, 20u);
    port = 65536;
    EXPECT_LT(device->Control(IOCTL_INDICATOR_SET_PORT, In(port), {}).status, 0);

    const auto diagnose = [&](std::vector<std::string> words) {
        words.insert(words.begin(), "diag");
        return lab.Ctl(words).output;
    };
    EXPECT_THAT(diagnose({"Indicator", "PORT", "0"}), HasSubstr("port 0\n"));
    EXPECT_THAT(diagnose({"indicator"}), HasSubstr("port 0, "));
    EXPECT_THAT(diagnose({"indicator", "port", "65536"}), HasSubstr("counters - "));
    EXPECT_THAT(diagnose({"driver"}), HasSubstr("indicator - shows frames"));
}

TEST(Serve, ALoopOverACaptureStaysWithinTheRate)
{
    constexpr double kRate = 20'000;
    LabServer loop({kCapture, "--loop", "--rate", std::to_string(static_cast<int>(kRate)), "--filter",
                    "indicator", "--adapter", "lan0=02:00:00:00:00:0c"});
    const auto device = loop.Open();
    IndicatorCounters counters = {};
    EXPECT_TRUE(Eventually([&] {
        device->Control(IOCTL_INDICATOR_GET_COUNTERS, {}, Out(counters));
        return counters.m_nIndicated > 2 * support::ReadCapture(kCapture).size();
    }));
    const nlohmann::json report = loop.Stop();
    const double passed =
        report["balance"]["received"].get<double>() + report["balance"]["sent"].get<double>();
    EXPECT_LE(passed, kRate * report["seconds"].get<double>() + 1);
    EXPECT_EQ(report["adapters"][1]["received"]["framesIn"], 0); // it has no capture
}

TEST(Serve, ASocketThatCannotBeHadIsRefused)
{
    const LabServer lab(kOneAdapter);
    const auto run = [&](const std::string& socket) {
        return support::RunProgram(NDISFILTER_LAB, {"serve", "--socket", socket}, lab.CtlDirectory())
            .exitCode;
    };
    EXPECT_EQ(run(lab.Socket()), 7); // another lab is there
    EXPECT_EQ(run(lab.Directory().Path()), 7);
    EXPECT_EQ(run(lab.Directory().File("no/such/directory")), 7);
    EXPECT_NE(lab.Open(), nullptr); // still
}

} // namespace
