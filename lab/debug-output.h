// Where the debug output of the drivers goes.
#pragma once

#include <cstdio>
#include <string>

namespace lab
{

// While it lives, debug prints go to a file.
class DebugOutput
{
  public:
    static constexpr char kStandardError[] = "/dev/stderr";
    // A path, "-" for standard output, or empty: the output is dropped. Throws LabError.
    explicit DebugOutput(const std::string& path);
    ~DebugOutput();
    DebugOutput(const DebugOutput&) = delete;
    DebugOutput& operator=(const DebugOutput&) = delete;

  private:
    FILE* file_ = nullptr;
};

} // namespace lab
