# What an application can see of the built libraries. With a cross compiler the checks run for its target.
find_program(CLANG clang)
set(compilers ${CMAKE_C_COMPILER})

function(border_test name)
    add_test(NAME border.${name} COMMAND ${ARGN})
    set_tests_properties(border.${name} PROPERTIES LABELS border TIMEOUT 300)
endfunction()

set(scripts ${PROJECT_SOURCE_DIR}/scripts)
border_test(include_directions ${scripts}/check-includes ${PROJECT_SOURCE_DIR}/src)
border_test(exported_symbols ${scripts}/check-exports ${CMAKE_C_COMPILER} ${CMAKE_NM} $<TARGET_FILE:memmanager>)
border_test(needs_only_the_c_library ${scripts}/check-needs ${CMAKE_READELF} $<TARGET_FILE:memmanager>)
if(NOT CMAKE_CROSSCOMPILING)
    list(APPEND compilers ${CLANG})
    list(FILTER compilers EXCLUDE REGEX NOTFOUND)
    border_test(installed_package ${scripts}/check-package ${PROJECT_BINARY_DIR})
endif()
foreach(compiler IN LISTS compilers)
    cmake_path(GET compiler FILENAME name)
    border_test(headers.${name} ${scripts}/check-headers ${compiler})
    border_test(replacement.${name} ${scripts}/check-replacement ${compiler} ${PROJECT_BINARY_DIR}
        ${CMAKE_EXE_LINKER_FLAGS_INIT} -- ${CMAKE_CROSSCOMPILING_EMULATOR})
endforeach()
if(CLANG)
    border_test(layouts_of_a_32_bit_target ${CLANG} --target=i686-linux-gnu -ffreestanding -fsyntax-only
        -x c -std=c11 -I${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/tests/border/layouts.h)
endif()
