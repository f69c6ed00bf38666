// A `ndisfilter-lab serve` of its own for a benchmark, on a core of its own.
#pragma once

#include "contest.h"
#include "processors.h"

#include <string>
#include <vector>

#include <nlohmann/json.hpp>
#include <sys/types.h>

namespace bench
{

// The directory of a benchmark's files; removed at the end.
class Directory
{
  public:
    Directory();
    ~Directory();
    Directory(const Directory&) = delete;
    Directory& operator=(const Directory&) = delete;
    std::string File(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

class LabProcess
{
  public:
    // Returns when programs can connect; ends the benchmark when that does not come to be.
    LabProcess(int processor, std::vector<std::string> arguments);
    ~LabProcess(); // by Stop, if need be
    LabProcess(const LabProcess&) = delete;
    LabProcess& operator=(const LabProcess&) = delete;
    std::string Socket() const { return directory_.File("lab.sock"); }
    nlohmann::json Stop(); // its report; the lab's complaint ends the benchmark

  private:
    Directory directory_;
    pid_t process_ = -1;
};

} // namespace bench
