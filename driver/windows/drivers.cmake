# The drivers for Windows x86-64: the framework, the loop-back hook driver, the sample client drivers, and what the
# tests under Wine need.
# Included by the top CMakeLists.txt under the Windows toolchain, so that objects are named by paths below the top.
set(windows ${CMAKE_CURRENT_LIST_DIR})
set(filter ${PROJECT_SOURCE_DIR}/driver/kernel/filter)
set(tdi ${PROJECT_SOURCE_DIR}/driver/kernel/tdi)
set(NDISFILTER_KERNEL_INCLUDE ${windows}/include)
include(${windows}/cmake/windows-driver.cmake)

set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
add_compile_options(-Werror)

# In the command line, so that the files are compiled anew when it changes: clang takes the texts of __DATE__ and
# __TIME__ from it.
if(NDISFILTER_SOURCE_DATE)
    set_property(GLOBAL PROPERTY RULE_LAUNCH_COMPILE "env SOURCE_DATE_EPOCH=${NDISFILTER_SOURCE_DATE}")
endif()

# The lists of exports make the module definition.
set(exports "")
foreach(list IN ITEMS ${filter}/ndisfilter.exports ${tdi}/tdi-client.exports)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${list})
    file(STRINGS ${list} names REGEX "^[^#]")
    list(APPEND exports ${names})
endforeach()
list(JOIN exports "\n    " exports)
file(CONFIGURE OUTPUT ndisfilter.def CONTENT "LIBRARY ndisfilter.sys\nEXPORTS\n    ${exports}\n")

file(GLOB sources CONFIGURE_DEPENDS ${filter}/*.cpp ${tdi}/*.cpp)
add_windows_driver(ndisfilter
    SOURCES ${sources}
    EXPORTS ${CMAKE_CURRENT_BINARY_DIR}/ndisfilter.def
    RESOURCE ${windows}/ndisfilter.rc)
target_include_directories(ndisfilter PRIVATE ${filter} ${filter}/include ${tdi} ${tdi}/include)
target_link_options(ndisfilter PRIVATE /version:1.0)

set(driver_names ndisfilter loophook)
# Folders with sources; support/ is what they share.
file(GLOB samples CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/samples/*/*.cpp)
list(TRANSFORM samples REPLACE "/[^/]*$" "")
list(REMOVE_DUPLICATES samples)
foreach(sample IN LISTS samples)
    cmake_path(GET sample FILENAME name)
    file(GLOB sources CONFIGURE_DEPENDS ${sample}/*.cpp)
    list(APPEND driver_names ${name})
    add_windows_driver(${name} SOURCES ${sources} LIBRARIES ndisfilter)
    target_include_directories(${name} PRIVATE ${filter}/include ${tdi}/include)
endforeach()

add_windows_driver(loophook SOURCES ${windows}/loophook/loophook.cpp)
target_include_directories(loophook PRIVATE ${filter}/include)

# Every public header compiles alone, as C and as C++; the one for user programs also beside those of a program.
file(GLOB headers CONFIGURE_DEPENDS ${filter}/include/*.h ${tdi}/include/*.h)
add_library(public-headers-alone OBJECT)
target_include_directories(public-headers-alone PRIVATE ${filter}/include ${tdi}/include)
target_link_libraries(public-headers-alone PRIVATE windows-kernel)
add_library(user-header-in-program OBJECT)
target_include_directories(user-header-in-program PRIVATE ${filter}/include)
target_include_directories(user-header-in-program SYSTEM PRIVATE ${NDISFILTER_MINGW_INCLUDE})
target_compile_options(user-header-in-program PRIVATE -Wall -Wextra)
foreach(language IN ITEMS c cpp)
    foreach(header IN LISTS headers)
        cmake_path(GET header FILENAME name)
        set(unit ${CMAKE_CURRENT_BINARY_DIR}/headers/${name}.${language})
        file(CONFIGURE OUTPUT ${unit} CONTENT "#include <${name}>\n")
        target_sources(public-headers-alone PRIVATE ${unit})
    endforeach()
    set(unit ${CMAKE_CURRENT_BINARY_DIR}/headers/user-program.${language})
    file(CONFIGURE OUTPUT ${unit} CONTENT "#include <winsock2.h>\n#include <ndisfilter-user.h>\n")
    target_sources(user-header-in-program PRIVATE ${unit})
endforeach()

add_subdirectory(tests/windows)

include(${PROJECT_SOURCE_DIR}/app/windows.cmake)

# What users and developers of client drivers get.
foreach(name IN LISTS driver_names)
    install(FILES $<TARGET_FILE:${name}> ${CMAKE_CURRENT_BINARY_DIR}/${name}.pdb DESTINATION .)
endforeach()
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/ndisfilter.lib ${windows}/ndisfilter.inf DESTINATION .)
install(FILES ${headers} ${windows}/loophook/loophook.h DESTINATION include)
install(FILES ${windows}/include/ntddk.h ${windows}/include/ndis.h DESTINATION kernel-include)
install(FILES ${windows}/cmake/windows-driver.cmake ${windows}/cmake/windows-toolchain.cmake DESTINATION cmake)
