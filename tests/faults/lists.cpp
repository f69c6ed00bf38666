// What the scenario has to use: the exports of the driver and the control requests of its public header.
#include "report.h"

#include <fstream>
#include <set>
#include <stdexcept>

namespace faults
{
namespace
{

struct List {
    const char* path;
    std::string begin; // of the lines with a name, and where the name begins in them
    size_t at;
};

const List kLists[] = {
    {NDISFILTER_SOURCE "/driver/kernel/filter/ndisfilter.exports", "", 0},
    {NDISFILTER_SOURCE "/driver/kernel/tdi/tdi-client.exports", "", 0},
    {NDISFILTER_SOURCE "/driver/kernel/filter/include/ndisfilter-user.h", "#define IOCTL_", 8}};

} // namespace

std::vector<std::string> MissingFrom(const std::vector<Entry>& entries)
{
    std::set<std::string> names;
    for (const List& list : kLists) {
        std::ifstream file(list.path);
        if (!file) {
            throw std::runtime_error(std::string("cannot read ") + list.path);
        }
        for (std::string line; std::getline(file, line);) {
            if (line.starts_with(list.begin)) {
                line.erase(0, list.at);
                names.insert(line.substr(0, line.find_first_of("=# ")));
            }
        }
    }
    names.erase("");
    for (const Entry& entry : entries) {
        names.erase(entry.name);
    }
    return {names.begin(), names.end()};
}

} // namespace faults
