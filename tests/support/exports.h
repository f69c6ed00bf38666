// The lists of what the drivers export.
#pragma once

#include <fstream>
#include <set>
#include <stdexcept>
#include <string>

namespace support
{

// The names at the beginnings of a file's lines; behind a prefix, when only lines with it name something.
inline std::set<std::string> NamesIn(const std::string& path, const std::string& prefix = "")
{
    std::ifstream file(path);
    std::set<std::string> names;
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with(prefix)) {
            line.erase(0, prefix.size());
            names.insert(line.substr(0, line.find_first_of("=# ")));
        }
    }
    names.erase("");
    if (names.empty()) {
        throw std::runtime_error("no names in " + path);
    }
    return names;
}

} // namespace support
