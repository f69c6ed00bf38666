#include "lab-server.h"

#include <support/captures.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace std::chrono_literals;

namespace
{

std::string ReadText(const std::string& path)
{
    const support::Bytes bytes = support::ReadFile(path);
    return {bytes.begin(), bytes.end()};
}

pid_t Start(const std::string& directory, const std::vector<std::string>& arguments)
{
    std::vector<char*> argv = {const_cast<char*>(NDISFILTER_LAB)};
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    const std::string output = directory + "/stdout";
    const std::string errors = directory + "/stderr";
    const pid_t child = fork();
    if (child == 0) {
        dup2(open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
        dup2(open(errors.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
        execv(NDISFILTER_LAB, argv.data());
        _exit(127);
    }
    return child;
}

} // namespace

bool Eventually(const std::function<bool()>& condition)
{
    for (const auto deadline = std::chrono::steady_clock::now() + 30s; !condition();) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

LabServer::LabServer(std::vector<std::string> arguments)
{
    std::string name = (std::filesystem::temp_directory_path() / "serve-test-XXXXXX").string();
    directory_ = mkdtemp(name.data());
    socket_ = directory_ + "/lab.sock";
    arguments.insert(arguments.begin(), "serve");
    arguments.insert(arguments.end(), {"--json", "--socket", socket_});
    process_ = Start(directory_, arguments);
    EXPECT_TRUE(Eventually([&] { return Errors().find("serving on " + socket_) != std::string::npos; }))
        << Errors();
}

LabServer::~LabServer()
{
    if (process_ > 0) {
        Stop();
    }
    std::filesystem::remove_all(directory_);
}

nlohmann::json LabServer::Stop(int signal)
{
    kill(process_, signal);
    int status = -1;
    if (!Eventually([&] { return waitpid(process_, &status, WNOHANG) == process_; })) {
        ADD_FAILURE() << "the lab did not end in time";
        kill(process_, SIGKILL);
        waitpid(process_, &status, 0);
    }
    process_ = -1;
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << Errors();
    EXPECT_FALSE(std::filesystem::exists(socket_));
    nlohmann::json report = nlohmann::json::parse(ReadText(directory_ + "/stdout"), nullptr, false);
    EXPECT_TRUE(report.is_object()) << Errors();
    EXPECT_TRUE(report["balance"]["holds"]);
    EXPECT_EQ(report["balance"]["stillOut"], 0);
    return report;
}

std::string LabServer::Errors() const
{
    return ReadText(directory_ + "/stderr");
}

std::unique_ptr<ndisfilter::Device> LabServer::Open() const
{
    std::string error;
    auto device = ndisfilter::OpenDevice(socket_, &error);
    EXPECT_NE(device, nullptr) << error;
    return device;
}
