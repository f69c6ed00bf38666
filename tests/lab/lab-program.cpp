#include "lab-program.h"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

using namespace std::chrono_literals;

constexpr auto kLongestRun = 120s;

std::string ReadFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void Redirect(int descriptor, const std::string& path)
{
    dup2(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), descriptor);
}

pid_t Start(const std::string& directory, const std::vector<std::string>& arguments,
            const std::string& output, const std::string& errors)
{
    std::vector<char*> argv = {const_cast<char*>(NDISFILTER_LAB)};
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        Redirect(STDOUT_FILENO, output);
        Redirect(STDERR_FILENO, errors);
        if (chdir(directory.c_str()) == 0) {
            execv(NDISFILTER_LAB, argv.data());
        }
        _exit(127);
    }
    return child;
}

} // namespace

nlohmann::json LabResult::Json() const
{
    nlohmann::json object = nlohmann::json::parse(output, nullptr, false);
    EXPECT_TRUE(object.is_object()) << output << errors;
    return object;
}

LabResult RunLab(const std::string& directory, const std::vector<std::string>& arguments,
                 const std::function<bool()>& interruptWhen)
{
    const std::string output = directory + "/stdout";
    const std::string errors = directory + "/stderr";
    const pid_t child = Start(directory, arguments, output, errors);
    const auto deadline = std::chrono::steady_clock::now() + kLongestRun;
    bool interrupted = interruptWhen == nullptr;
    int status = 0;
    while (waitpid(child, &status, WNOHANG) == 0) {
        if (!interrupted && interruptWhen()) {
            kill(child, SIGINT);
            interrupted = true;
        }
        if (std::chrono::steady_clock::now() > deadline) {
            kill(child, SIGKILL);
            ADD_FAILURE() << "the lab did not end in time";
        }
        std::this_thread::sleep_for(1ms);
    }
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status), ReadFile(output), ReadFile(errors)};
}
