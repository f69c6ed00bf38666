#include "lab-process.h"

#include "contest.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace bench
{

Directory::Directory()
{
    std::string name = (std::filesystem::temp_directory_path() / "ndisfilter-bench-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) {
        Fail(name + ": " + std::strerror(errno));
    }
    path_ = name;
}

Directory::~Directory()
{
    std::error_code error;
    std::filesystem::remove_all(path_, error);
}

LabProcess::LabProcess(int processor, std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), {NDISFILTER_LAB, "serve", "--json", "--socket", Socket()});
    std::vector<char*> argv;
    for (std::string& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    const std::string output = directory_.File("report");
    const std::string errors = directory_.File("errors");
    process_ = fork();
    if (process_ == 0) {
        RunOn(processor);
        dup2(open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
        dup2(open(errors.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
        execv(argv[0], argv.data());
        _exit(127);
    }
    for (int look = 0; look < 10'000; ++look) {
        std::ifstream lines(errors);
        for (std::string line; std::getline(lines, line);) {
            if (line.starts_with("serving on ")) {
                return;
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    Fail("the lab does not begin to serve: " + std::string(NDISFILTER_LAB));
}

LabProcess::~LabProcess()
{
    if (process_ > 0) {
        Stop();
    }
}

nlohmann::json LabProcess::Stop()
{
    kill(process_, SIGINT);
    int status = -1;
    waitpid(process_, &status, 0);
    process_ = -1;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        std::ifstream errors(directory_.File("errors"));
        Fail("the lab: " + std::string(std::istreambuf_iterator<char>(errors), {}));
    }
    std::ifstream report(directory_.File("report"));
    return nlohmann::json::parse(report);
}

} // namespace bench
