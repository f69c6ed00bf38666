// Programs run as a person runs them.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>
#include <sys/types.h>

namespace support
{

// A directory of its own, removed at the end.
class TemporaryDirectory
{
  public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
    const std::string& Path() const { return path_; }
    std::string File(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

struct ProgramResult {
    int exitCode = -1;  // of a signal: its negative number
    std::string output; // standard output
    std::string errors; // standard error
    nlohmann::json Json() const;
};

// A child process. What it says goes to the files "stdout" and "stderr" of its directory, where it also runs.
class Program
{
  public:
    // `path` is looked up as a shell does.
    Program(const std::string& path, std::vector<std::string> arguments, std::string directory);
    ~Program(); // kills it
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    void Signal(int signal) const;
    bool HasEnded() const;
    ProgramResult Wait();       // for its end; kills it when that does not come
    std::string Output() const; // so far
    std::string Errors() const;

  private:
    const std::string directory_;
    pid_t process_ = -1;
};

// Runs a program to its end. `interruptWhen`: Ctrl-C is pressed as soon as it answers true.
ProgramResult RunProgram(const std::string& path, const std::vector<std::string>& arguments,
                         const std::string& directory, const std::function<bool()>& interruptWhen = nullptr);

} // namespace support
