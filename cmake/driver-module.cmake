# add_driver_modules(<folder>): each subfolder <folder>/<name> with sources becomes the loadable client driver
# filters/<name>.so. It sees the public headers and the kernel's; the program that loads it resolves its symbols.
# The target <folder> builds them all.
function(add_driver_modules folder)
    set(exports ${PROJECT_SOURCE_DIR}/cmake/driver-module.map)
    add_custom_target(${folder})

    file(GLOB sources CONFIGURE_DEPENDS ${folder}/*/*.cpp)
    foreach(source IN LISTS sources)
        cmake_path(GET source PARENT_PATH directory)
        cmake_path(GET directory FILENAME name)
        if(NOT TARGET ${name})
            add_library(${name} MODULE)
            set_target_properties(${name} PROPERTIES
                PREFIX ""
                LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/filters
                LINK_DEPENDS ${exports})
            target_link_libraries(${name} PRIVATE ndisfilter-headers tdi-headers driver-code)
            target_link_options(${name} PRIVATE -Wl,--version-script=${exports})
            add_dependencies(${folder} ${name})
        endif()
        target_sources(${name} PRIVATE ${source})
    endforeach()
endfunction()
