// The transport's own thread. It watches the sockets and does everything that the transport does by itself:
// requests that could not be completed at once, calls of event handlers. Both at DISPATCH_LEVEL, as a network
// stack would.
#pragma once

#include <ntddk.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

namespace transport
{

// Something that wants to be called when its socket has changed.
class Watcher
{
  public:
    virtual ~Watcher() = default;
    virtual void OnReady() = 0; // on the engine's thread
};

class Engine
{
  public:
    Engine();
    ~Engine(); // stopped; nothing is watched any more
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    // Does what is scheduled and ends the thread, which needs TheEngine() until then.
    void Stop();

    // Reports each change of a socket, and once how it is now. The number is for Forget, before the socket is
    // closed.
    uint64_t Watch(int socket, std::weak_ptr<Watcher> watcher);
    void Forget(uint64_t number);

    // Has it called soon, as if its socket had changed.
    void Schedule(std::shared_ptr<Watcher> watcher);
    bool IsThisThread() const { return std::this_thread::get_id() == thread_.get_id(); }

  private:
    void Run();
    void RunScheduled();

    int epoll_;
    int wake_; // an eventfd
    std::mutex mutex_;
    std::unordered_map<uint64_t, std::weak_ptr<Watcher>> watchers_;
    std::vector<std::shared_ptr<Watcher>> scheduled_;
    uint64_t next_ = 1; // 0 is the eventfd
    bool stop_ = false;
    std::thread thread_;
};

// The engine of the loaded transport; null when none is loaded.
Engine* TheEngine();

// A socket of the host, watched from the moment it is told to until it is closed.
class Socket
{
  public:
    explicit Socket(int descriptor) : descriptor_(descriptor) {}
    ~Socket();
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    int Descriptor() const { return descriptor_; }
    void Watch(std::weak_ptr<Watcher> watcher);
    void ResetOnClose(); // the peer sees a reset instead of an orderly end

  private:
    const int descriptor_;
    uint64_t number_ = 0;
};

// Raises the thread to DISPATCH_LEVEL while it lives.
class Raised
{
  public:
    Raised() : before_(KfRaiseIrql(DISPATCH_LEVEL)) {}
    ~Raised() { KeLowerIrql(before_); }
    Raised(const Raised&) = delete;
    Raised& operator=(const Raised&) = delete;

  private:
    const KIRQL before_;
};

} // namespace transport
