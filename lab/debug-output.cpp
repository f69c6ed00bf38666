#include "debug-output.h"

#include "lab-error.h"

#include <cerrno>
#include <cstring>
#include <string_view>

#include <fmt/format.h>
#include <machine.h>

namespace lab
{

DebugOutput::DebugOutput(const std::string& path)
{
    if (path.empty()) {
        return;
    }
    file_ = path == "-" ? stdout : path == kStandardError ? stderr : std::fopen(path.c_str(), "w");
    if (file_ == nullptr) {
        throw LabError(ExitCode::Usage, fmt::format("--debug-output {}: {}", path, std::strerror(errno)));
    }
    std::setvbuf(file_, nullptr, _IOLBF, BUFSIZ); // a person may be watching it grow
    // Prints come from several threads; a stream keeps each of them whole.
    machine::SetDebugSink(
        [file = file_](std::string_view text) { std::fwrite(text.data(), 1, text.size(), file); });
}

DebugOutput::~DebugOutput()
{
    if (file_ == nullptr) {
        return;
    }
    machine::SetDebugSink(nullptr);
    if (file_ != stdout && file_ != stderr) {
        std::fclose(file_);
    }
}

} // namespace lab
