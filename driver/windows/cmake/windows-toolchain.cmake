# CMake toolchain: kernel drivers for Windows x86-64, built on Linux with clang 19, lld 19 and the headers of
# mingw-w64. An executable of such a project is a driver image; see windows-driver.cmake for how it is linked.
set(CMAKE_SYSTEM_NAME Generic)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)

set(CMAKE_C_COMPILER clang-19)
set(CMAKE_CXX_COMPILER clang-19)
set(CMAKE_C_COMPILER_TARGET x86_64-w64-windows-gnu)
set(CMAKE_CXX_COMPILER_TARGET x86_64-w64-windows-gnu)
