// What the laid-out races share: the machine they run in, and the rules that hold at the end of each run.
#pragma once

#include <hook/virtual-adapters.h>
#include <machine.h>
#include <scheduler/search.h>
#include <scheduler/threads.h>

#include <support/frames.h>
#include <support/rings.h>

#include <ntddk.h>

#include <ndis.h>

#include <ndisfilter.h>

#include <memory>
#include <string>
#include <vector>

namespace races
{

using Bodies = std::vector<std::function<void()>>;

// Ends the run, and the search with it.
void Require(bool holds, const char* contract);
void RequireSuccess(int32_t status, const char* of);

// A driver that is registered while it lives.
class Client
{
  public:
    explicit Client(std::string name = "client");
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    FilterDriver* Handle() const { return handle_; }
    void Deregister();
    void Forget() { handle_ = nullptr; } // the framework's unload has freed it

  private:
    FilterDriver* handle_ = nullptr;
};

// The kernel alone; the clock stands still. Then the framework, and the hook driver with one adapter.
void LoadKernel();
void LoadDrivers();
void LoadMachine(); // all of them
void ReloadHook();
FilterAdapter* Adapter();
std::string DriveC(); // a directory of this process's own

// Nothing may be left over at the end of a run, no rule of the kernel broken.
class Race : public scheduler::Scene
{
  public:
    void Prepare() final;
    Bodies Threads() final { return threads; }
    void Settle() final;
    void Check() final;
    // What is left over at this moment is what the contract leaves until the unload.
    void AcceptLeftovers() { census_ = machine::TakeCensus(); }

    // Set behind Begin(): the threads that meet, and what the contract says about the outcome, before End().
    Bodies threads;
    std::function<void()> end = [] {};

  protected:
    virtual void Begin() {}
    virtual void End() {} // what holds for all races of a kind, and clearing up

  private:
    machine::Census census_;
};

struct Depths {
    uint32_t shortly; // in every test run
    uint32_t fully;   // when asked for all
};

// The body of a test.
void Search(const scheduler::SceneMaker& maker, const Depths& depths);

// Races of a kind, each laid out behind its Begin().
template <class Kind>
void Search(const Depths& depths, const std::function<void(Kind& race)>& layOut, bool divideLocks = false,
            void (*load)() = LoadMachine)
{
    struct Laid : Kind {
        explicit Laid(const std::function<void(Kind& race)>& function) : layOut_(function) {}
        void Begin() override
        {
            Kind::Begin();
            layOut_(*this);
        }
        const std::function<void(Kind& race)>& layOut_;
    };
    Search({.load = load, .make = [&] { return std::make_unique<Laid>(layOut); }, .divideLocks = divideLocks},
           depths);
}

} // namespace races
