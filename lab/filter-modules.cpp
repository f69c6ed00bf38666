#include "filter-modules.h"

#include "lab-error.h"

#include <algorithm>

#include <dlfcn.h>
#include <fmt/format.h>
#include <machine.h>

namespace lab
{
namespace
{

namespace fs = std::filesystem;

bool IsPath(const std::string& name)
{
    return name.find('/') != std::string::npos || name.ends_with(".so");
}

fs::path FindModule(const std::string& name, const std::vector<fs::path>& directories)
{
    std::error_code error;
    if (IsPath(name)) {
        if (!fs::is_regular_file(name, error)) {
            throw LabError(ExitCode::Filter, fmt::format("filter {}: no such file", name));
        }
        return fs::absolute(name);
    }
    std::string searched;
    for (const fs::path& directory : directories) {
        const fs::path file = directory / (name + ".so");
        if (fs::is_regular_file(file, error)) {
            return fs::absolute(file);
        }
        searched += fmt::format("{}{}", searched.empty() ? "" : ", ", directory.string());
    }
    throw LabError(ExitCode::Filter,
                   fmt::format("filter {}: no {}.so in {}; build it, name its directory with --filter-path, or give "
                               "its path",
                               name, name, searched));
}

} // namespace

std::vector<FilterModule> FindFilterModules(const std::vector<std::string>& names,
                                            const std::vector<fs::path>& directories)
{
    std::vector<FilterModule> modules;
    for (const std::string& name : names) {
        const fs::path file = FindModule(name, directories);
        const std::string service = file.stem().string();
        if (std::ranges::any_of(modules, [&](const FilterModule& other) { return other.service == service; })) {
            throw LabError(ExitCode::Usage, fmt::format("filter {}: given twice; a driver is loaded once", service));
        }
        modules.push_back({service, file});
    }
    return modules;
}

LoadedFilters::~LoadedFilters()
{
    Unload();
}

void LoadedFilters::Load(const FilterModule& module)
{
    std::string error;
    const machine::Status status = machine::LoadDriverModule(module.file.string(), &error);
    if (!error.empty()) {
        throw LabError(ExitCode::Filter, fmt::format("filter {}: cannot load it: {}", module.service, error));
    }
    if (status < 0) {
        machine::DiscardDriver(module.service);
        throw LabError(ExitCode::Filter,
                       fmt::format("filter {}: its entry routine failed with status 0x{:08X}; --debug-output - shows "
                                   "what it printed",
                                   module.service, static_cast<uint32_t>(status)));
    }
    loaded_.push_back(module);
}

void LoadedFilters::Unload()
{
    for (; !loaded_.empty(); loaded_.pop_back()) {
        machine::UnloadDriver(loaded_.back().service);
    }
}

void LoadedFilters::CheckEachHasFilter(const std::vector<FilterCounters>& filters) const
{
    for (const FilterModule& module : loaded_) {
        if (std::ranges::none_of(filters, [&](const FilterCounters& filter) {
                return ModuleOfFilter(filter) == module.service;
            })) {
            throw LabError(ExitCode::Filter,
                           fmt::format("filter {}: was loaded but has registered no packet filter; --debug-output - "
                                       "shows what it printed",
                                       module.service));
        }
    }
}

std::string ModuleOfFilter(const FilterCounters& filter)
{
    Dl_info info = {};
    if (filter.procedure == 0 || dladdr(reinterpret_cast<const void*>(filter.procedure), &info) == 0) {
        return "";
    }
    return fs::path(info.dli_fname).stem().string();
}

} // namespace lab
