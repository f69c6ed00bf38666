# Language level, warnings, sanitizers, and the flags of driver code.

set(CMAKE_C_STANDARD 11)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_C_EXTENSIONS OFF)
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

# g++'s full -Wshadow also reports parameters that are named like a member function.
add_compile_options(
    -Wall
    -Wextra
    $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wshadow=local>
    $<$<COMPILE_LANG_AND_ID:CXX,Clang>:-Wshadow>
    $<$<BOOL:${NDISFILTER_WERROR}>:-Werror>)

if(NDISFILTER_SANITIZE)
    add_compile_options(-fsanitize=${NDISFILTER_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${NDISFILTER_SANITIZE})
    # g++ takes half as long again to follow variables through what the sanitizers add.
    add_compile_options($<$<COMPILE_LANG_AND_ID:CXX,GNU>:-fno-var-tracking>)
endif()

if(NDISFILTER_COVERAGE)
    add_link_options(--coverage)
endif()

# Code that also runs in a real kernel: no C++ runtime. Records overlay raw frames and shared memory, which
# type-based alias analysis does not allow for.
add_library(driver-code INTERFACE)
target_compile_options(driver-code INTERFACE
    -fno-exceptions
    -fno-rtti
    -fno-threadsafe-statics
    -fno-strict-aliasing
    -ffunction-sections
    $<$<BOOL:${NDISFILTER_COVERAGE}>:--coverage>)
