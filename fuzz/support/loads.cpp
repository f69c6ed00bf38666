// What clang reports of each load in the framework (-fsanitize-coverage=trace-loads). Those of the kernel, which has the
// functions that may read memory of programs, are not reported.
#include "fuzz.h"

namespace
{

uintptr_t forbiddenBegin = 0,
          forbiddenSize = 0; // set while no other thread of the framework has anything to do

inline void Check(const void* address)
{
    if (__builtin_expect(reinterpret_cast<uintptr_t>(address) - forbiddenBegin < forbiddenSize, 0)) {
        fuzz::Fail("a plain read of shared memory, at offset %zu, by %p",
                   static_cast<size_t>(reinterpret_cast<uintptr_t>(address) - forbiddenBegin),
                   __builtin_return_address(0));
    }
}

} // namespace

namespace fuzz
{

void ForbidPlainLoads(const void* begin, size_t size)
{
    forbiddenBegin = reinterpret_cast<uintptr_t>(begin);
    forbiddenSize = size;
}

} // namespace fuzz

// Of each width.
extern "C" {
void __sanitizer_cov_load1(const void* address)
{
    Check(address);
}
void __sanitizer_cov_load2(const void*) __attribute__((alias("__sanitizer_cov_load1")));
void __sanitizer_cov_load4(const void*) __attribute__((alias("__sanitizer_cov_load1")));
void __sanitizer_cov_load8(const void*) __attribute__((alias("__sanitizer_cov_load1")));
void __sanitizer_cov_load16(const void*) __attribute__((alias("__sanitizer_cov_load1")));
}
