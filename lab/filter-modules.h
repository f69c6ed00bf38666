// Client filter drivers as loadable modules: found, loaded in the order given, unloaded in the opposite one.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "filter-counters.h"

namespace lab
{

struct FilterModule {
    std::string service;        // name of the driver: the file's name without directory and extension
    std::filesystem::path file; // as found; may be a link
};

// Finds modules by name ("blocker": blocker.so in one of the directories, the first that has it) or path.
// Throws LabError for one that is not there or given twice.
std::vector<FilterModule> FindFilterModules(const std::vector<std::string>& names,
                                            const std::vector<std::filesystem::path>& directories);

// The loaded modules; unloads them at the end.
class LoadedFilters
{
  public:
    LoadedFilters() = default;
    ~LoadedFilters();
    LoadedFilters(const LoadedFilters&) = delete;
    LoadedFilters& operator=(const LoadedFilters&) = delete;
    void Load(const FilterModule& module); // throws LabError
    void Unload();
    // The services of the loaded modules of which no filter is in a chain.
    std::vector<std::string> WithoutFilter(const std::vector<FilterCounters>& filters) const;
    // The service of the loaded module that a filter's procedure lies in; empty when it lies in none.
    std::string ServiceOf(const FilterCounters& filter) const;

  private:
    std::vector<FilterModule> loaded_;
};

} // namespace lab
