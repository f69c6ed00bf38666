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
    throw LabError(
        ExitCode::Filter,
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
        if (std::ranges::any_of(modules,
                                [&](const FilterModule& other) { return other.service == service; })) {
            throw LabError(ExitCode::Usage,
                           fmt::format("filter {}: given twice; a driver is loaded once", service));
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
    if (machine::LoadDriverModule(module.file.string(), &error) < 0) {
        machine::DiscardDriver(module.service);
        throw LabError(ExitCode::Filter,
                       fmt::format("filter {}: {}; --debug-output FILE keeps what drivers print",
                                   module.service, error));
    }
    loaded_.push_back(module);
}

void LoadedFilters::Unload()
{
    for (; !loaded_.empty(); loaded_.pop_back()) {
        machine::UnloadDriver(loaded_.back().service);
    }
}

std::vector<std::string> LoadedFilters::WithoutFilter(const std::vector<FilterCounters>& filters) const
{
    std::vector<std::string> services;
    for (const FilterModule& module : loaded_) {
        const auto isOfModule = [&](const FilterCounters& filter) {
            return ServiceOf(filter) == module.service;
        };
        if (std::ranges::none_of(filters, isOfModule)) {
            services.push_back(module.service);
        }
    }
    return services;
}

std::string LoadedFilters::ServiceOf(const FilterCounters& filter) const
{
    Dl_info info = {};
    if (filter.procedure == 0 || dladdr(reinterpret_cast<const void*>(filter.procedure), &info) == 0) {
        return "";
    }
    for (const FilterModule& module : loaded_) {
        std::error_code error;
        if (fs::equivalent(module.file, info.dli_fname, error)) {
            return module.service;
        }
    }
    return "";
}

} // namespace lab
