# Compiler and linker flags, as interface targets:
#   memm_flags               everything that is compiled here: language, warnings, sanitizers
#   memm_library_flags       the library's own sources on top of that
#   memm_shared_link_flags   linking the shared library
#   memm_coverage            linking a program whose forked children write their counts too
include(CheckCXXCompilerFlag)

set(CMAKE_C_STANDARD 11)
set(CMAKE_C_EXTENSIONS OFF)
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
    set(CMAKE_BUILD_TYPE Release CACHE STRING "Debug, Release, ..." FORCE)
endif()

set(clang $<CXX_COMPILER_ID:Clang>)
set(cxx $<COMPILE_LANGUAGE:CXX>)

add_library(memm_flags INTERFACE)
target_compile_options(memm_flags INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wundef -Wvla -Wcast-qual
    $<${clang}:-Wno-sign-conversion>  # as g++, which leaves it out of -Wconversion
    $<${cxx}:-Wold-style-cast> $<${cxx}:-Wnon-virtual-dtor>)
target_compile_definitions(memm_flags INTERFACE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
if(MEMM_SANITIZE)
    target_compile_options(memm_flags INTERFACE
        -fsanitize=${MEMM_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(memm_flags INTERFACE -fsanitize=${MEMM_SANITIZE})
endif()

add_library(memm_library_flags INTERFACE)
target_link_libraries(memm_library_flags INTERFACE memm_flags)
target_compile_options(memm_library_flags INTERFACE
    -Wformat=2 -Wno-format-nonliteral
    -fno-exceptions -fno-rtti -fno-threadsafe-statics -fvisibility=hidden -fvisibility-inlines-hidden
    -ffp-contract=off)  # a fused multiply-add would print other last digits on targets that have it
if(MEMM_SANITIZE MATCHES undefined)
    target_compile_options(memm_library_flags INTERFACE -fno-sanitize=vptr)  # needs RTTI
endif()
if(MEMM_FUZZ)
    target_compile_options(memm_library_flags INTERFACE -fsanitize=fuzzer-no-link)
endif()

if(MEMM_SANITIZE MATCHES thread AND CMAKE_CXX_COMPILER_ID STREQUAL GNU)
    target_compile_options(memm_library_flags INTERFACE -Wno-tsan)  # fences order atomic words only, no plain data
endif()

# Hardening, each where compiler and target know it. A sanitizer brings checks of its own and does not go with
# _FORTIFY_SOURCE, which in turn needs an optimised build.
foreach(flag -fstack-protector-strong -fstack-clash-protection -fcf-protection -mbranch-protection=standard)
    string(MAKE_C_IDENTIFIER "MEMM_HAS${flag}" known)
    check_cxx_compiler_flag("-Werror ${flag}" ${known})
    if(${known})
        target_compile_options(memm_library_flags INTERFACE ${flag})
    endif()
endforeach()
if(NOT MEMM_SANITIZE)
    target_compile_options(memm_library_flags INTERFACE
        $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE> $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>)
endif()

add_library(memm_shared_link_flags INTERFACE)
target_link_libraries(memm_shared_link_flags INTERFACE memm_flags)
target_link_options(memm_shared_link_flags INTERFACE
    -static-libgcc  # helper routines of the target come with the library, hidden by the version script
    LINKER:-z,relro LINKER:-z,now LINKER:-z,noexecstack
    LINKER:-z,nodelete)  # pools, signal handlers and fork handlers stay until the process ends
if(NOT (MEMM_SANITIZE AND CMAKE_CXX_COMPILER_ID STREQUAL Clang))  # clang leaves its sanitizers to the program
    target_link_options(memm_shared_link_flags INTERFACE LINKER:-z,defs)
endif()

add_library(memm_coverage INTERFACE)
if(CMAKE_CXX_FLAGS MATCHES --coverage)
    add_library(coverage_of_children STATIC ${PROJECT_SOURCE_DIR}/cmake/coverage.c)
    target_link_libraries(memm_coverage INTERFACE -Wl,--undefined=__wrap__exit coverage_of_children)
    target_link_options(memm_coverage INTERFACE LINKER:--wrap=_exit)
endif()
