# add_windows_driver(<name> SOURCES <file>... [EXPORTS <file.def>] [RESOURCE <file.rc>] [LIBRARIES <library>...])
#
# Builds <name>.sys and <name>.pdb in the current binary directory from C++20 (or C11) sources, and the import library
# <name>.lib when there are exports. The image imports from ntoskrnl.exe, ndis.sys and hal.dll, and from what LIBRARIES
# (targets of this function with EXPORTS, or paths of import libraries) name.
#
# Include it behind project() in a project that was configured with windows-toolchain.cmake.

set(NDISFILTER_MINGW_INCLUDE /usr/share/mingw-w64/include CACHE PATH "Headers of mingw-w64")
set(NDISFILTER_MINGW_LIB /usr/x86_64-w64-mingw32/lib CACHE PATH "Import libraries of mingw-w64")
find_program(NDISFILTER_LINKER lld-link-19 REQUIRED)
find_program(NDISFILTER_RESOURCE_COMPILER NAMES llvm-rc llvm-rc-19 llvm-rc-14 REQUIRED)

if(NOT DEFINED NDISFILTER_KERNEL_INCLUDE)
    # Mended kernel headers, in front of those of mingw-w64.
    cmake_path(SET NDISFILTER_KERNEL_INCLUDE NORMALIZE "${CMAKE_CURRENT_LIST_DIR}/../kernel-include")
endif()

set(CMAKE_C_LINK_EXECUTABLE
    "${NDISFILTER_LINKER} /nologo <LINK_FLAGS> /out:<TARGET> <OBJECTS> <LINK_LIBRARIES>")
set(CMAKE_CXX_LINK_EXECUTABLE "${CMAKE_C_LINK_EXECUTABLE}")

add_library(windows-kernel INTERFACE)
target_compile_features(windows-kernel INTERFACE c_std_11 cxx_std_20)
target_compile_definitions(windows-kernel INTERFACE _WIN32_WINNT=0x0600)
target_include_directories(windows-kernel SYSTEM INTERFACE
    ${NDISFILTER_KERNEL_INCLUDE} ${NDISFILTER_MINGW_INCLUDE}/ddk ${NDISFILTER_MINGW_INCLUDE})
# Unwind tables: without them no exception passes a function that has no __try of its own. Asynchronous exceptions:
# __try covers plain memory accesses. The rest is what a kernel lacks: a C++ runtime, a stack probe, a red zone.
target_compile_options(windows-kernel INTERFACE
    -O2 -g -gcodeview -gno-codeview-command-line
    -ffreestanding -fms-extensions -fasynchronous-unwind-tables "SHELL:-Xclang -fasync-exceptions"
    -fno-strict-aliasing -fno-stack-protector -mno-red-zone -mno-stack-arg-probe -fno-ident
    -Wall -Wextra "-Wno-#warnings"
    -ffile-prefix-map=${CMAKE_BINARY_DIR}=build -ffile-prefix-map=${CMAKE_SOURCE_DIR}=. -ffile-compilation-dir=.
    $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -fno-threadsafe-statics>)
# The image says nothing of the place or time of its build: /brepro, relative names in the PDB.
target_link_options(windows-kernel INTERFACE
    /lldmingw /nodefaultlib /machine:x64 /driver /subsystem:native,6.0 /entry:DriverEntry /base:0x180000000
    /release /brepro /nxcompat /dynamicbase /opt:ref,icf
    /merge:.xdata=.rdata /merge:.buildid=.rdata /debug /pdbsourcepath:.)
target_link_libraries(windows-kernel INTERFACE
    ${NDISFILTER_MINGW_LIB}/libntoskrnl.a ${NDISFILTER_MINGW_LIB}/libndis.a ${NDISFILTER_MINGW_LIB}/libhal.a)

function(add_windows_driver name)
    cmake_parse_arguments(PARSE_ARGV 1 driver "" "EXPORTS;RESOURCE" "SOURCES;LIBRARIES")
    add_executable(${name} ${driver_SOURCES})
    set_target_properties(${name} PROPERTIES SUFFIX .sys)
    # Beside the image, by paths relative to the top, where the linker runs: an absolute one would end up in the PDB.
    # The image itself names the PDB without a directory.
    cmake_path(RELATIVE_PATH CMAKE_CURRENT_BINARY_DIR BASE_DIRECTORY ${CMAKE_BINARY_DIR} OUTPUT_VARIABLE directory)
    target_link_options(${name} PRIVATE /pdb:${directory}/${name}.pdb /pdbaltpath:${name}.pdb)
    set(byproducts ${CMAKE_CURRENT_BINARY_DIR}/${name}.pdb)

    if(driver_EXPORTS)
        cmake_path(ABSOLUTE_PATH driver_EXPORTS)
        cmake_path(RELATIVE_PATH driver_EXPORTS BASE_DIRECTORY ${CMAKE_BINARY_DIR} OUTPUT_VARIABLE definition)
        target_link_options(${name} PRIVATE /def:${definition} /implib:${directory}/${name}.lib)
        set_property(TARGET ${name} APPEND PROPERTY LINK_DEPENDS ${driver_EXPORTS})
        list(APPEND byproducts ${CMAKE_CURRENT_BINARY_DIR}/${name}.lib)
    endif()
    add_custom_command(TARGET ${name} POST_BUILD COMMAND ${CMAKE_COMMAND} -E true BYPRODUCTS ${byproducts})

    if(driver_RESOURCE)
        cmake_path(ABSOLUTE_PATH driver_RESOURCE OUTPUT_VARIABLE script)
        cmake_path(GET script PARENT_PATH script_directory)
        cmake_path(GET script FILENAME script_name)
        # By its name alone: the compiler takes a path that starts with /c, /d or /x for an option.
        add_custom_command(OUTPUT ${name}.res
            COMMAND ${NDISFILTER_RESOURCE_COMPILER} /no-preprocess
                /fo ${CMAKE_CURRENT_BINARY_DIR}/${name}.res ${script_name}
            WORKING_DIRECTORY ${script_directory}
            DEPENDS ${script} VERBATIM)
        target_sources(${name} PRIVATE ${CMAKE_CURRENT_BINARY_DIR}/${name}.res)
        set_source_files_properties(${CMAKE_CURRENT_BINARY_DIR}/${name}.res PROPERTIES
            EXTERNAL_OBJECT TRUE GENERATED TRUE)
    endif()

    foreach(library IN LISTS driver_LIBRARIES)
        if(TARGET ${library})
            add_dependencies(${name} ${library})
            get_target_property(directory ${library} BINARY_DIR)
            set(library ${directory}/${library}.lib)
            set_property(TARGET ${name} APPEND PROPERTY LINK_DEPENDS ${library})
        endif()
        target_link_libraries(${name} PRIVATE ${library})
    endforeach()
    target_link_libraries(${name} PRIVATE windows-kernel)
endfunction()
