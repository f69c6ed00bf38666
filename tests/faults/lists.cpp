#include "lists.h"

#include <fstream>
#include <set>
#include <sstream>
#include <stdexcept>

namespace faults
{
namespace
{

constexpr const char* kExports[] = {NDISFILTER_SOURCE "/driver/kernel/filter/ndisfilter.exports",
                                    NDISFILTER_SOURCE "/driver/kernel/tdi/tdi-client.exports"};
constexpr const char* kRequests = NDISFILTER_SOURCE "/driver/kernel/filter/include/ndisfilter-user.h";

std::ifstream Open(const char* path)
{
    std::ifstream file(path);
    if (!file) {
        throw std::runtime_error(std::string("cannot read ") + path);
    }
    return file;
}

std::set<std::string> Expected()
{
    std::set<std::string> names;
    std::string line;
    for (const char* path : kExports) {
        for (std::ifstream file = Open(path); std::getline(file, line);) {
            const std::string name = line.substr(0, line.find_first_of("=# "));
            if (!name.empty()) {
                names.insert(name);
            }
        }
    }
    std::ifstream header = Open(kRequests);
    while (std::getline(header, line)) {
        std::istringstream words(line);
        std::string define;
        std::string name;
        words >> define >> name;
        if (define == "#define" && name.starts_with("IOCTL_")) {
            names.insert(name);
        }
    }
    return names;
}

} // namespace

std::vector<std::string> MissingFrom(const std::vector<Entry>& entries)
{
    std::set<std::string> names = Expected();
    for (const Entry& entry : entries) {
        names.erase(entry.name);
    }
    return {names.begin(), names.end()};
}

} // namespace faults
