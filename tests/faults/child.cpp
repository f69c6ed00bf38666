#include "child.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <thread>

#include <sys/wait.h>
#include <unistd.h>

#ifdef NDISFILTER_COVERAGE
extern "C" void __gcov_dump();
#endif

namespace faults
{
namespace
{

constexpr unsigned kSeconds = 60; // that a piece of work may take

struct Child {
    size_t number;
    FILE* output; // files without a name
    FILE* errors;
};

[[noreturn]] void Work(const std::string& text, FILE* output)
{
    if (fwrite(text.data(), 1, text.size(), output) != text.size() || fflush(output) != 0) {
        _exit(2);
    }
#ifdef NDISFILTER_COVERAGE
    __gcov_dump();
#endif
    _exit(0); // without the destructors of what threads of the machine still use
}

std::string ReadAll(FILE* file)
{
    std::string text;
    char buffer[4096];
    rewind(file);
    for (size_t count; (count = fread(buffer, 1, sizeof(buffer), file)) > 0;) {
        text.append(buffer, count);
    }
    fclose(file);
    return text;
}

std::string Describe(int status)
{
    if (WIFSIGNALED(status)) {
        return WTERMSIG(status) == SIGALRM ? "no end within " + std::to_string(kSeconds) + " s"
                                           : "signal " + std::to_string(WTERMSIG(status));
    }
    return WEXITSTATUS(status) == 0 ? "" : "exit status " + std::to_string(WEXITSTATUS(status));
}

} // namespace

std::vector<ChildResult> RunChildren(size_t count, const std::function<std::string(size_t)>& work)
{
    std::vector<ChildResult> results(count);
    std::map<pid_t, Child> running;
    for (size_t next = 0; next < count || !running.empty();) {
        if (next < count && running.size() < std::max(1u, std::thread::hardware_concurrency())) {
            const Child child = {next, tmpfile(), tmpfile()};
            fflush(nullptr);
            const pid_t process = child.output != nullptr && child.errors != nullptr ? fork() : -1;
            if (process < 0) {
                perror("faults: no file or process for a run");
                exit(2);
            }
            if (process == 0) {
                dup2(fileno(child.errors), STDERR_FILENO);
                alarm(kSeconds); // its default action ends the process
                Work(work(next), child.output);
            }
            running[process] = child;
            ++next;
        } else {
            int status = 0;
            const Child child = running.extract(wait(&status)).mapped();
            results[child.number] = {ReadAll(child.output), ReadAll(child.errors), Describe(status)};
        }
    }
    return results;
}

} // namespace faults
