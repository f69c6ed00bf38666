// A capture of 1 GB through a filter with the output discarded: the lab with a client driver that blocks a port, beside
// tcpdump with the same condition. The capture is made on the spot. Wall-clock time of the whole processes.
#include "contest.h"
#include "lab-process.h"

#include <chrono>
#include <cstring>
#include <fstream>
#include <memory>

#include <pcap/pcap.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

constexpr uint64_t kCaptureBytes = 1'000'000'000;
constexpr uint16_t kBlockedPort = 23;

std::unique_ptr<bench::Directory> g_directory;

std::string Capture()
{
    return g_directory->File("capture.pcap");
}

// UDP and TCP in the sizes of the "simple IMIX": seven of 64 bytes to four of 576 to one of 1,514. One frame in 64 goes
// to the blocked port.
void MakeCapture()
{
    constexpr uint32_t kSizes[] = {64, 576, 64, 64, 576, 64, 1514, 64, 576, 64, 64, 576};
    pcap_t* const ethernet = pcap_open_dead(DLT_EN10MB, 65535);
    pcap_dumper_t* const file = pcap_dump_open(ethernet, Capture().c_str());
    if (file == nullptr) {
        bench::Fail(pcap_geterr(ethernet));
    }
    uint8_t frame[1514] = {2, 0, 0, 0, 0, 0x0B, 2, 0, 0, 0, 0, 0x0A, 0x08, 0};
    uint8_t* const ip = frame + 14;
    ip[0] = 0x45;
    ip[8] = 64;
    ip[20 + 12] = 5 << 4; // TCP header length
    uint64_t bytes = 24;
    for (uint32_t number = 0; bytes < kCaptureBytes; number++) {
        const uint32_t size = kSizes[number % std::size(kSizes)];
        ip[2] = static_cast<uint8_t>((size - 14) >> 8);
        ip[3] = static_cast<uint8_t>(size - 14);
        ip[9] = number % 2 == 0 ? 6 : 17;
        std::memcpy(ip + 12, &number, sizeof(number));
        const uint16_t port = number % 64 == 0 ? kBlockedPort : static_cast<uint16_t>(1024 + number % 50'000);
        ip[20] = 0xC0;
        ip[20 + 2] = static_cast<uint8_t>(port >> 8);
        ip[20 + 3] = static_cast<uint8_t>(port);
        const pcap_pkthdr header = {
            {static_cast<time_t>(number / 1'000'000), number % 1'000'000}, size, size};
        pcap_dump(reinterpret_cast<u_char*>(file), &header, frame);
        bytes += 16 + size;
    }
    if (pcap_dump_flush(file) != 0) {
        bench::Fail("the capture cannot be written to " + Capture());
    }
    pcap_dump_close(file);
    pcap_close(ethernet);
}

// Runs a program with its output in a file, and answers how long it took.
double RunProgram(std::vector<std::string> words, const std::string& output)
{
    std::vector<char*> arguments;
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    const auto begin = std::chrono::steady_clock::now();
    const pid_t process = fork();
    if (process == 0) {
        if (std::freopen(output.c_str(), "w", stdout) != nullptr &&
            std::freopen((output + ".err").c_str(), "w", stderr)) {
            execvp(arguments[0], arguments.data());
        }
        _exit(127);
    }
    int status = 0;
    waitpid(process, &status, 0);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    if (status != 0) {
        std::ifstream errors(output + ".err");
        bench::Fail(words[0] + ": " + std::string(std::istreambuf_iterator<char>(errors), {}));
    }
    return seconds;
}

std::vector<std::string> TcpdumpWith(std::initializer_list<std::string> words)
{
    std::vector<std::string> command = {"tcpdump", "-r", Capture()};
    if (geteuid() == 0) {
        command.insert(command.end(), {"-Z", "root"}); // otherwise it could not read in a directory of ours
    }
    command.insert(command.end(), words);
    command.push_back("not port " + std::to_string(kBlockedPort));
    return command;
}

void Lab(benchmark::State& state)
{
    const std::string report = g_directory->File("report");
    for (auto _ : state) {
        state.SetIterationTime(
            RunProgram({NDISFILTER_LAB, "replay", Capture(), "--filter", "blocker", "--set",
                        "blocker.BlockPorts=" + std::to_string(kBlockedPort), "--quiet", "--json"},
                       report));
    }
    std::ifstream file(report);
    bench::SetWork(state, nlohmann::json::parse(file)["balance"]["delivered"].get<uint64_t>());
}

void Tcpdump(benchmark::State& state)
{
    for (auto _ : state) {
        state.SetIterationTime(RunProgram(TcpdumpWith({"-w", "/dev/null"}), g_directory->File("tcpdump")));
    }
    RunProgram(TcpdumpWith({"--count"}), g_directory->File("count"));
    std::ifstream file(g_directory->File("count"));
    uint64_t frames = 0;
    file >> frames;
    bench::SetWork(state, frames);
}

// What nothing that reads the capture can do without.
void Read(benchmark::State& state)
{
    for (auto _ : state) {
        state.SetIterationTime(
            RunProgram({"dd", "if=" + Capture(), "of=/dev/null", "bs=256k"}, g_directory->File("dd")));
    }
}

} // namespace

int main(int argc, char** argv)
{
    g_directory = std::make_unique<bench::Directory>();
    const auto once = [](const char* name, void (*run)(benchmark::State&)) {
        benchmark::RegisterBenchmark(name,
                                     [run](benchmark::State& state) {
                                         static bool made = (MakeCapture(), true);
                                         benchmark::DoNotOptimize(made);
                                         run(state);
                                     })
            ->UseManualTime()
            ->Iterations(1);
    };
    once("replay/framework/1 GB", Lab);
    once("replay/tcpdump/1 GB", Tcpdump);
    once("read/dd/1 GB", Read);
    const int result = bench::Run(argc, argv);
    g_directory.reset(); // with the capture
    return result;
}
