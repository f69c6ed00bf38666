#include "child.h"

#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#ifdef NDISFILTER_COVERAGE
extern "C" void __gcov_dump();
#endif

namespace faults
{
namespace
{

struct Child {
    pid_t process;
    size_t number;
    int output;
    FILE* errors; // a file without a name
};

[[noreturn]] void Work(const std::function<std::string(size_t)>& work, size_t number, int output, int errors,
                       unsigned seconds)
{
    dup2(errors, STDERR_FILENO);
    alarm(seconds); // its default action ends the process
    const std::string text = work(number);
    for (size_t done = 0; done < text.size();) {
        const ssize_t written = write(output, text.data() + done, text.size() - done);
        if (written <= 0) {
            _exit(2);
        }
        done += static_cast<size_t>(written);
    }
#ifdef NDISFILTER_COVERAGE
    __gcov_dump();
#endif
    _exit(0); // without the destructors of what threads of the machine still use
}

Child Start(const std::function<std::string(size_t)>& work, size_t number, unsigned seconds)
{
    int ends[2];
    FILE* errors = tmpfile();
    if (errors == nullptr || pipe2(ends, O_CLOEXEC) != 0) {
        perror("faults: no file or pipe for a process");
        exit(2);
    }
    fflush(nullptr);
    const pid_t process = fork();
    if (process < 0) {
        perror("faults: fork");
        exit(2);
    }
    if (process == 0) {
        Work(work, number, ends[1], fileno(errors), seconds);
    }
    close(ends[1]);
    return {process, number, ends[0], errors};
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

// Takes what is there of the output. False: it has ended.
bool Drain(const Child& child, std::string& output)
{
    char buffer[65536];
    const ssize_t count = read(child.output, buffer, sizeof(buffer));
    if (count > 0) {
        output.append(buffer, static_cast<size_t>(count));
    }
    return count > 0;
}

std::string Finish(const Child& child, unsigned seconds)
{
    int status = 0;
    close(child.output);
    waitpid(child.process, &status, 0);
    if (WIFSIGNALED(status)) {
        return WTERMSIG(status) == SIGALRM ? "no end within " + std::to_string(seconds) + " s"
                                           : "signal " + std::to_string(WTERMSIG(status));
    }
    return WEXITSTATUS(status) == 0 ? "" : "exit status " + std::to_string(WEXITSTATUS(status));
}

} // namespace

std::vector<ChildResult> RunChildren(size_t count, const std::function<std::string(size_t)>& work,
                                     unsigned jobs, unsigned seconds)
{
    std::vector<ChildResult> results(count);
    std::vector<Child> running;
    for (size_t next = 0; next < count || !running.empty();) {
        while (next < count && running.size() < jobs) {
            running.push_back(Start(work, next++, seconds));
        }
        std::vector<pollfd> waits;
        for (const Child& child : running) {
            waits.push_back({child.output, POLLIN, 0});
        }
        poll(waits.data(), waits.size(), -1);
        for (size_t i = waits.size(); i-- > 0;) {
            ChildResult& result = results[running[i].number];
            if (waits[i].revents != 0 && !Drain(running[i], result.output)) {
                result.end = Finish(running[i], seconds);
                result.errors = ReadAll(running[i].errors);
                running.erase(running.begin() + static_cast<std::ptrdiff_t>(i));
            }
        }
    }
    return results;
}

} // namespace faults
