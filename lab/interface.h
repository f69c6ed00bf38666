// A Linux network interface: what it is, and its offloads, which live traffic must not have.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "capture-reader.h"
#include "socket.h"

struct ifreq;

namespace lab
{

// "Operation not permitted; ...": the text of errno, and what to do where rights are missing.
std::string DescribeSystemError();

class Interface
{
  public:
    // Throws LabError when there is none of this name, or it is no Ethernet interface that is up.
    explicit Interface(std::string name);
    ~Interface(); // the offloads are again as they were found
    Interface(const Interface&) = delete;
    Interface& operator=(const Interface&) = delete;

    // Throws LabError when its frames may be longer than a packet's buffer.
    void CheckMtu() const;
    // Frames must be as they are on the wire: no merged ones, no checksums left to the adapter. Answers the
    // names of the offloads that were on, as ethtool has them. Throws LabError when one stays on.
    std::vector<std::string> SwitchOffloadsOff();

    const std::string& Name() const { return name_; }
    int Index() const { return index_; }
    const MacAddress& Address() const { return address_; }

  private:
    void Ask(unsigned long request, ifreq& answer, const char* what) const;
    bool ReadOffload(uint32_t command) const;
    bool WriteOffload(uint32_t command, bool on) const;

    std::string name_;
    Socket control_;
    int index_ = 0;
    MacAddress address_ = {};
    std::vector<size_t> switchedOff_; // places in the table of offloads
};

} // namespace lab
