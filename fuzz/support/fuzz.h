// What the fuzzers share: the input read as numbers and bytes, the machine that they run in, and what is asked of it
// behind every input. Whatever does not hold ends the process, which libFuzzer takes for a finding.
#pragma once

#include <support/frames.h>

#include <ntddk.h>

#include <ndis.h>

#include <ndisfilter.h>

#include <hook/virtual-adapters.h>
#include <machine.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

namespace fuzz
{

// The input, read from its front. Behind its end everything is zero.
class Input
{
  public:
    Input(const uint8_t* data, size_t size) : left_(data, size) {}

    bool IsEmpty() const { return left_.empty(); }
    size_t Size() const { return left_.size(); }

    template <class Number>
    Number Get()
    {
        Number number{};
        const auto bytes = Take(sizeof(number));
        std::copy(bytes.begin(), bytes.end(), reinterpret_cast<uint8_t*>(&number));
        return number;
    }
    uint8_t Byte() { return Get<uint8_t>(); }
    bool Flag() { return (Byte() & 1) != 0; }
    // 0 to limit - 1.
    uint32_t Below(uint32_t limit) { return (limit <= 256 ? Byte() : Get<uint16_t>()) % limit; }
    template <class Table>
    const auto& OneOf(const Table& table)
    {
        return std::data(table)[Below(static_cast<uint32_t>(std::size(table)))];
    }
    template <class List>
    typename List::iterator At(List& list)
    {
        return std::next(list.begin(), Below(static_cast<uint32_t>(list.size())));
    }
    // The next bytes, as many as there are.
    std::span<const uint8_t> Take(size_t count)
    {
        const auto taken = left_.first(count < left_.size() ? count : left_.size());
        left_ = left_.subspan(taken.size());
        return taken;
    }

  private:
    std::span<const uint8_t> left_;
};

[[noreturn]] void Fail(const char* format, ...) __attribute__((format(printf, 1, 2)));

inline void Require(bool holds, const char* what)
{
    if (!holds) {
        Fail("%s", what);
    }
}

template <class Number>
void RequireEqual(Number is, std::type_identity_t<Number> expected, const char* what)
{
    if (is != expected) {
        Fail("%s: is %lld (0x%llX), expected %lld", what, static_cast<long long>(is),
             static_cast<unsigned long long>(is), static_cast<long long>(expected));
    }
}

// Until all work that is queued is done and the threads of the kernel have nothing to do.
void AwaitRest();

// A counted string for the calls that take names; the text is the caller's.
inline STRING Counted(std::string_view text)
{
    const auto length = static_cast<USHORT>(text.size());
    return {length, length, const_cast<PCHAR>(text.data())};
}

inline constexpr char kDevice[] = "\\\\.\\NdisFilter";
inline constexpr support::MacAddress kAddresses[] = {{0x02, 0, 0, 0, 0, 0x01}, {0x02, 0, 0, 0, 0, 0x02}};
inline constexpr size_t kAdapters = std::size(kAddresses);

// The framework and the hook driver, loaded and bound once in a process, with a stopped clock and open adapters.
class Machine
{
  public:
    Machine();
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    // Behind every input: no rule is broken, no lock held, every packet accounted for, and as much is alive as before
    // the first input.
    void CheckAtRest();
    // As much may be alive from now on as is at this moment.
    void Accept() { before_ = machine::TakeCensus(); }

    FilterAdapter* adapters[kAdapters] = {};
    ULONG adapterIds[kAdapters] = {};

  private:
    machine::Census before_;
};

// From now on the framework may read these bytes by the kernel's functions for memory that programs may change alone.
void ForbidPlainLoads(const void* begin, size_t size);

// Registers a client driver.
FilterDriver* RegisterDriver(const char* name, void* context = nullptr);

// With some client drivers, whose context it is.
template <size_t kCount>
class DriversMachine : public Machine
{
  protected:
    DriversMachine()
    {
        for (size_t i = 0; i < kCount; ++i) {
            Register(i);
        }
        Accept();
    }
    void Register(size_t index)
    {
        drivers_[index] =
            RegisterDriver(("driver " + std::to_string(index)).c_str(), static_cast<Machine*>(this));
    }

    std::array<FilterDriver*, kCount> drivers_ = {};
};

// A packet of an adapter with a frame in it and its headers parsed.
FilterPacket* MakePacket(FilterAdapter* adapter, std::span<const uint8_t> frame);

// An input for a fixture that is made once and lives as long as the process: for what libFuzzer calls.
template <class Fixture>
int RunOn(const uint8_t* data, size_t size)
{
    static Fixture& fixture = *new Fixture;
    fixture.Run({data, size});
    return 0;
}

} // namespace fuzz
