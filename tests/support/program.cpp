#include "program.h"

#include "captures.h"
#include "eventually.h"

#include <csignal>
#include <filesystem>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace support
{

namespace
{

std::string ReadText(const std::string& path)
{
    const Bytes bytes = ReadFile(path);
    return {bytes.begin(), bytes.end()};
}

int Create(const std::string& path)
{
    return open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
}

} // namespace

TemporaryDirectory::TemporaryDirectory()
{
    std::string name = (std::filesystem::temp_directory_path() / "ndisfilter-test-XXXXXX").string();
    path_ = mkdtemp(name.data());
}

TemporaryDirectory::~TemporaryDirectory()
{
    std::filesystem::remove_all(path_);
}

nlohmann::json ProgramResult::Json() const
{
    nlohmann::json json = nlohmann::json::parse(output, nullptr, false);
    EXPECT_FALSE(json.is_discarded()) << output << errors;
    return json;
}

Program::Program(const std::string& path, std::vector<std::string> arguments, std::string directory)
    : directory_(std::move(directory))
{
    arguments.insert(arguments.begin(), path);
    std::vector<char*> argv;
    for (std::string& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    const int output =
        Create(directory_ + "/stdout"); // before it starts: nobody sees what an earlier one said
    const int errors = Create(directory_ + "/stderr");
    process_ = fork();
    if (process_ == 0) {
        dup2(output, STDOUT_FILENO);
        dup2(errors, STDERR_FILENO);
        if (chdir(directory_.c_str()) == 0) {
            execvp(argv[0], argv.data());
        }
        _exit(127);
    }
    close(output);
    close(errors);
}

Program::~Program()
{
    if (process_ > 0) {
        kill(process_, SIGKILL);
        waitpid(process_, nullptr, 0);
    }
}

void Program::Signal(int signal) const
{
    kill(process_, signal);
}

bool Program::HasEnded() const
{
    siginfo_t info = {};
    return waitid(P_PID, static_cast<id_t>(process_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid != 0;
}

ProgramResult Program::Wait()
{
    if (!Eventually([this] { return HasEnded(); })) {
        ADD_FAILURE() << "a program did not end in time";
        Signal(SIGKILL);
    }
    int status = -1;
    waitpid(process_, &status, 0);
    process_ = -1;
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status), Output(), Errors()};
}

std::string Program::Output() const
{
    return ReadText(directory_ + "/stdout");
}

std::string Program::Errors() const
{
    return ReadText(directory_ + "/stderr");
}

ProgramResult RunProgram(const std::string& path, const std::vector<std::string>& arguments,
                         const std::string& directory, const std::function<bool()>& interruptWhen)
{
    Program program(path, arguments, directory);
    if (interruptWhen != nullptr) {
        EXPECT_TRUE(Eventually([&] { return interruptWhen() || program.HasEnded(); }));
        program.Signal(SIGINT);
    }
    return program.Wait();
}

} // namespace support
