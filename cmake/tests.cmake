# What the programs in tests/ are made of, and how each is made.
include(test_framework)

if(MEMM_EXAMPLES)
    add_test(NAME examples COMMAND ${PROJECT_SOURCE_DIR}/scripts/check-examples ${PROJECT_BINARY_DIR}/examples
        ${CMAKE_CROSSCOMPILING_EMULATOR})
endif()

add_library(test_flags INTERFACE)
target_include_directories(test_flags INTERFACE
    ${CMAKE_CURRENT_SOURCE_DIR} ${CMAKE_CURRENT_BINARY_DIR} ${PROJECT_SOURCE_DIR}/src)
target_link_libraries(test_flags INTERFACE memm_flags memmanager::memmanager_static gtest_main memm_coverage)
# Tests of printf-like calls make up their formats, and name the options of a pool that they want.
target_compile_options(test_flags INTERFACE -Wno-format-security -Wno-missing-field-initializers)
set(test_environment TSAN_OPTIONS=suppressions=${CMAKE_CURRENT_LIST_DIR}/tsan.supp UBSAN_OPTIONS=print_stacktrace=1)

add_library(test_support OBJECT support/file_calls.cpp)
add_library(test_recording OBJECT support/recording_platform.cpp)
target_link_libraries(test_support PRIVATE test_flags)
target_link_libraries(test_recording PRIVATE test_flags)

# All sources of a folder, in one program.
function(memm_test folder)
    file(GLOB sources CONFIGURE_DEPENDS ${folder}/*.cpp)
    add_executable(test_${folder} ${sources})
    target_link_libraries(test_${folder} PRIVATE test_flags ${ARGN})
    gtest_discover_tests(test_${folder} TEST_PREFIX ${folder}. DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60
        PROPERTIES TIMEOUT ${MEMM_TEST_TIMEOUT} LABELS ${folder} ENVIRONMENT "${test_environment}")
endfunction()

# A decoder and its model, with a program for each source of streams.
add_custom_target(soaks)
add_custom_target(fuzzers)
function(memm_family family)
    add_library(model_${family} OBJECT models/${family}.cpp)
    target_link_libraries(model_${family} PUBLIC test_flags)
    target_compile_definitions(model_${family} PUBLIC
        MEMM_FAMILY="${family}" MEMM_CORPUS="${PROJECT_SOURCE_DIR}/corpus/${family}")
    foreach(driver replay soak fuzz)
        set(program ${driver}_${family})
        add_executable(${program} EXCLUDE_FROM_ALL models/drivers/${driver}.cpp)
        target_link_libraries(${program} PRIVATE model_${family} test_support test_recording)
    endforeach()
    set_target_properties(replay_${family} PROPERTIES OUTPUT_NAME test_model_${family} EXCLUDE_FROM_ALL OFF)
    gtest_discover_tests(replay_${family} TEST_PREFIX models.${family}. DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60
        PROPERTIES TIMEOUT ${MEMM_TEST_TIMEOUT} LABELS models ENVIRONMENT "${test_environment}")
    target_link_options(fuzz_${family} PRIVATE -fsanitize=fuzzer)
    add_dependencies(soaks soak_${family})
    add_dependencies(fuzzers fuzz_${family})
endfunction()
