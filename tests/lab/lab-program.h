// Runs the lab as a person does and keeps what it says.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

struct LabResult {
    int exitCode = -1;
    std::string output; // standard output
    std::string errors; // standard error
    nlohmann::json Json() const;
};

// Runs the program in `directory`. `interruptWhen`: Ctrl-C is pressed as soon as it answers true.
LabResult RunLab(const std::string& directory, const std::vector<std::string>& arguments,
                 const std::function<bool()>& interruptWhen = nullptr);
