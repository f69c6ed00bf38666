// A program that sends what it likes: every code with any lengths and contents, from two threads, with traffic.
#include "requests.h"

#include <atomic>
#include <random>
#include <thread>

using namespace requests;
using namespace support;

namespace
{

struct HostileRequestsTest : RequestsTest {
    HostileRequestsTest() : RequestsTest(WithTrace(0)) {}
};

constexpr size_t kLengths[] = {0,  1,  2,   4,   6,   7,    8,    10,   39,   40,
                               41, 64, 223, 224, 228, 1023, 1024, 1036, 9028, 9029};

uint32_t AnyCode(std::mt19937& random)
{
    const uint32_t index = random() % 26; // of the framework's own, and some that are nobody's
    return index == 0 ? IOCTL_NDIS_FILTER_DIAG : NDIS_FILTER_CTL_CODE(0x8C7 + index);
}

Bytes AnyInput(std::mt19937& random)
{
    static const std::string kWords[] = {"filter show ", "driver ", "adapter ", "shmem ",
                                         "filter ",      "help  ",  "\x90 "};
    Bytes input;
    const size_t length = kLengths[random() % std::size(kLengths)];
    const uint32_t kind = random() % 3;
    while (input.size() < length) {
        if (kind == 0) {
            input.push_back(static_cast<uint8_t>(random()));
        } else if (kind == 1) {
            const std::string& word = kWords[random() % std::size(kWords)];
            input.insert(input.end(), word.begin(), word.end());
        } else { // identifiers, counts and addresses that exist
            const Bytes likely{static_cast<uint8_t>(random() % 4), 0, 0, 0, 0,
                               static_cast<uint8_t>(random() % 3)};
            input.insert(input.end(), likely.begin(), likely.end());
        }
    }
    input.resize(length);
    return input;
}

TEST_F(HostileRequestsTest, AnyLengthAndContentIsAnsweredWithinTheBuffer)
{
    FilterAdapter* adapter = AddAdapter();
    TestDriver driver;
    std::atomic<bool> stop = false;
    std::thread traffic([&] {
        for (ULONG i = 0; !stop; i++) {
            EXPECT_EQ(hook::DeliverReceived(adapter, UdpFrame()), hook::Accepted::Yes);
            if (i % 16 == 0) {
                const FilterEventHead head = {i, adapter, i, i, 0, i, i};
                Filter_ReportEventEx(i, i, sizeof(head), &head);
            }
        }
    });
    std::vector<std::thread> programs;
    for (uint32_t seed = 1; seed <= 2; seed++) {
        programs.emplace_back([&, seed] {
            std::mt19937 random(seed);
            machine::Process process;
            std::unique_ptr<machine::File> file = process.Open(kDeviceName);
            ASSERT_NE(file, nullptr);
            for (int i = 0; i < 3000; i++) {
                const uint32_t code = AnyCode(random);
                const Bytes input = AnyInput(random);
                const size_t length = kLengths[random() % std::size(kLengths)];
                // What is written behind the output, and read before the input, the sanitizer and the pool see.
                machine::Request request = file->Send(code, input, length);
                if (!request.Wait(0)) {
                    EXPECT_EQ(code, IOCTL_NDIS_FILTER_READ_SHARE);
                    request.Cancel();
                }
                const std::optional<Result> result = request.Wait();
                ASSERT_TRUE(result.has_value()) << std::hex << code;
                if (result->status == STATUS_SUCCESS) {
                    EXPECT_LE(result->information, length) << std::hex << code;
                }
            }
        });
    }
    for (std::thread& program : programs) {
        program.join();
    }
    stop = true;
    traffic.join();
    ExpectNoLockHeld("requests of a hostile program");
    ASSERT_TRUE(machine::WaitIdle());
    EXPECT_TRUE(hook::TakeBalance().IsEven());
    // The framework is as good as before.
    Bytes output(100);
    EXPECT_EQ(Control(IOCTL_NDIS_FILTER_DIAG, Bytes{'x'}, output).information, 40u);
    UserAdapterList list;
    EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_GET_TCPIP_INTERFACES, {}, Out(list)), STATUS_SUCCESS);
    EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_STOP_ETHRLOG, {}), STATUS_SUCCESS);
}

} // namespace
