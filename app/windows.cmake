# ndisfilterctl.exe, with the compiler of mingw-w64: the toolchain of the drivers makes no programs. Included by
# driver/windows/drivers.cmake.
find_program(NDISFILTER_PROGRAM_COMPILER x86_64-w64-mingw32-g++-posix REQUIRED)
set(app ${CMAKE_CURRENT_LIST_DIR})
set(program_directory ${CMAKE_CURRENT_BINARY_DIR}/program)

# The header-only libraries of this system, without its other headers.
foreach(library IN ITEMS CLI nlohmann fmt)
    find_path(NDISFILTER_${library}_INCLUDE ${library} PATHS /usr/include NO_DEFAULT_PATH REQUIRED)
    file(MAKE_DIRECTORY ${program_directory}/include)
    file(CREATE_LINK ${NDISFILTER_${library}_INCLUDE}/${library} ${program_directory}/include/${library} SYMBOLIC)
endforeach()

file(GLOB program_sources CONFIGURE_DEPENDS ${app}/client-*.cpp ${app}/device-windows.cpp ${app}/ctl/*.cpp)
list(REMOVE_ITEM program_sources ${app}/ctl/capture-pcap.cpp)
set(program_objects "")
foreach(source IN LISTS program_sources)
    cmake_path(GET source STEM name)
    set(object ${program_directory}/${name}.o)
    add_custom_command(OUTPUT ${object}
        COMMAND ${NDISFILTER_PROGRAM_COMPILER} -std=c++20 -O2 -Wall -Wextra -Werror -DNDEBUG -DFMT_HEADER_ONLY
            -D_WIN32_WINNT=0x0600 -ffile-prefix-map=${PROJECT_SOURCE_DIR}=.
            -I ${app} -I ${app}/ctl -I ${PROJECT_SOURCE_DIR}/driver/kernel/filter/include
            -isystem ${program_directory}/include -MD -MF ${object}.d -c ${source} -o ${object}
        DEPENDS ${source} DEPFILE ${object}.d VERBATIM)
    list(APPEND program_objects ${object})
endforeach()
set(program ${program_directory}/ndisfilterctl.exe)
add_custom_command(OUTPUT ${program}
    COMMAND ${NDISFILTER_PROGRAM_COMPILER} -static -s -Wl,--no-insert-timestamp ${program_objects} -lntdll -o ${program}
    DEPENDS ${program_objects} VERBATIM)
add_custom_target(control-program ALL DEPENDS ${program})
install(PROGRAMS ${program} DESTINATION .)
