// Start and stop of the framework, the hook driver and the transport.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace lab
{

// A value under a driver's registry key.
struct Setting {
    std::string service;
    std::string name;
    std::string text;
    bool isNumber = false; // a REG_DWORD value, `number`, instead of a REG_SZ one
    uint32_t number = 0;
};

constexpr char kFrameworkService[] = "NdisFilter";

// The registry filled in, the framework loaded and the hook driver bound to it, until the end or Stop.
class MachineRoom
{
  public:
    // `packetLimit`: packets that exist at a time, at most. `sockets`: drivers find a transport. Throws LabError.
    MachineRoom(const std::vector<Setting>& settings, uint32_t packetLimit, bool sockets);
    ~MachineRoom();
    MachineRoom(const MachineRoom&) = delete;
    MachineRoom& operator=(const MachineRoom&) = delete;
    void Stop(); // the hook driver first

  private:
    bool running_ = true;
    const bool sockets_;
};

} // namespace lab
