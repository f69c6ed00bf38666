#include "verifier.h"

#include <ntddk.h>

#include <algorithm>
#include <mutex>
#include <shared_mutex>
#include <thread>
#include <utility>

namespace
{

constexpr size_t kLongestPrint = 512; // of one call, as documented; the rest is cut off

struct Capture {
    std::function<void(std::string_view)> take;
    std::thread::id thread; // whose prints it takes; none: everybody's
};

struct Sinks {
    // Prints share it; whoever changes the sinks waits until prints under way have left the old one.
    std::shared_mutex mutex;
    std::function<void(std::string_view)> sink;
    std::vector<Capture> captures; // the last one that takes a thread's prints alone receives them
    std::atomic<bool> any{false};

    void Update() { any = sink != nullptr || !captures.empty(); }
};

Sinks& TheSinks()
{
    static Sinks& sinks = *new Sinks; // never destroyed: other threads may still run at exit
    return sinks;
}

void Print(const char* format, va_list arguments)
{
    Sinks& sinks = TheSinks();
    if (!sinks.any.load(std::memory_order_relaxed))
        return;
    char text[kLongestPrint];
    int length = _vsnprintf(text, sizeof(text), format, arguments);
    std::string_view view(text, length < 0 ? sizeof(text) : static_cast<size_t>(length));
    std::shared_lock lock(sinks.mutex);
    const auto capture =
        std::find_if(sinks.captures.rbegin(), sinks.captures.rend(), [](const Capture& each) {
            return each.thread == std::thread::id() || each.thread == std::this_thread::get_id();
        });
    if (capture != sinks.captures.rend())
        capture->take(view);
    else if (sinks.sink)
        sinks.sink(view);
}

} // namespace

ULONG DbgPrint(PCSTR Format, ...)
{
    va_list arguments;
    va_start(arguments, Format);
    Print(Format, arguments);
    va_end(arguments);
    return STATUS_SUCCESS;
}

ULONG DbgPrintEx(ULONG, ULONG, PCSTR Format, ...)
{
    va_list arguments;
    va_start(arguments, Format);
    Print(Format, arguments);
    va_end(arguments);
    return STATUS_SUCCESS;
}

namespace machine
{

void SetDebugSink(std::function<void(std::string_view)> sink)
{
    Sinks& sinks = TheSinks();
    std::lock_guard lock(sinks.mutex);
    sinks.sink = std::move(sink);
    sinks.Update();
}

struct DebugCapture::State {
    mutable std::mutex mutex;
    std::string text;
};

DebugCapture::DebugCapture(Threads threads) : state_(std::make_unique<State>())
{
    Sinks& sinks = TheSinks();
    std::lock_guard lock(sinks.mutex);
    const auto take = [state = state_.get()](std::string_view text) {
        std::lock_guard guard(state->mutex);
        state->text += text;
    };
    sinks.captures.push_back(
        {take, threads == Threads::Own ? std::this_thread::get_id() : std::thread::id()});
    sinks.Update();
}

DebugCapture::~DebugCapture()
{
    Sinks& sinks = TheSinks();
    std::lock_guard lock(sinks.mutex);
    sinks.captures.pop_back();
    sinks.Update();
}

std::string DebugCapture::Text() const
{
    std::lock_guard lock(state_->mutex);
    return state_->text;
}

std::string DebugCapture::Take()
{
    std::lock_guard lock(state_->mutex);
    return std::exchange(state_->text, {});
}

bool DebugCapture::Contains(std::string_view text) const
{
    std::lock_guard lock(state_->mutex);
    return state_->text.find(text) != std::string::npos;
}

} // namespace machine
