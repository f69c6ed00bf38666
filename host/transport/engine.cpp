#include "engine.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace transport
{
namespace
{

constexpr int kEvents = 64; // fetched by one call

[[noreturn]] void Die(const char* what)
{
    std::perror(what); // requests would wait without end
    std::abort();
}

} // namespace

Engine::Engine() : epoll_(epoll_create1(EPOLL_CLOEXEC)), wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    epoll_event event = {.events = EPOLLIN, .data = {.u64 = 0}};
    if (epoll_ < 0 || wake_ < 0 || epoll_ctl(epoll_, EPOLL_CTL_ADD, wake_, &event) != 0) {
        Die("transport: cannot watch sockets");
    }
    thread_ = std::thread([this] { Run(); });
}

void Engine::Stop()
{
    {
        const std::lock_guard lock(mutex_);
        stop_ = true;
    }
    eventfd_write(wake_, 1);
    thread_.join();
}

Engine::~Engine()
{
    close(wake_);
    close(epoll_);
}

uint64_t Engine::Watch(int socket, std::weak_ptr<Watcher> watcher)
{
    uint64_t number;
    {
        const std::lock_guard lock(mutex_);
        number = next_++;
        watchers_[number] = std::move(watcher);
    }
    epoll_event event = {.events = EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET, .data = {.u64 = number}};
    if (epoll_ctl(epoll_, EPOLL_CTL_ADD, socket, &event) != 0) {
        Die("transport: cannot watch a socket");
    }
    return number;
}

void Engine::Forget(uint64_t number)
{
    const std::lock_guard lock(mutex_);
    watchers_.erase(number);
}

void Engine::Schedule(std::shared_ptr<Watcher> watcher)
{
    bool wake;
    {
        const std::lock_guard lock(mutex_);
        wake = scheduled_.empty() && !IsThisThread();
        scheduled_.push_back(std::move(watcher));
    }
    if (wake) {
        eventfd_write(wake_, 1);
    }
}

void Engine::RunScheduled()
{
    std::vector<std::shared_ptr<Watcher>> batch;
    {
        const std::lock_guard lock(mutex_);
        batch.swap(scheduled_);
    }
    for (const auto& watcher : batch) {
        watcher->OnReady();
    }
}

void Engine::Run()
{
    pthread_setname_np(pthread_self(), "transport");
    epoll_event events[kEvents];
    for (;;) {
        bool busy;
        {
            const std::lock_guard lock(mutex_);
            busy = !scheduled_.empty();
            if (stop_ && !busy) {
                return;
            }
        }
        const int count = epoll_wait(epoll_, events, kEvents, busy ? 0 : -1);
        for (int i = 0; i < count; ++i) {
            const uint64_t number = events[i].data.u64; // the event's own is packed
            if (number == 0) {
                eventfd_t value;
                eventfd_read(wake_, &value);
                continue;
            }
            std::shared_ptr<Watcher> watcher;
            {
                const std::lock_guard lock(mutex_);
                const auto found = watchers_.find(number);
                watcher = found != watchers_.end() ? found->second.lock() : nullptr;
            }
            if (watcher != nullptr) {
                watcher->OnReady();
            }
        }
        RunScheduled();
    }
}

Socket::~Socket()
{
    if (number_ != 0) {
        TheEngine()->Forget(number_);
    }
    close(descriptor_);
}

void Socket::Watch(std::weak_ptr<Watcher> watcher)
{
    number_ = TheEngine()->Watch(descriptor_, std::move(watcher));
}

void Socket::ResetOnClose()
{
    const linger reset = {.l_onoff = 1, .l_linger = 0};
    setsockopt(descriptor_, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
}

} // namespace transport
