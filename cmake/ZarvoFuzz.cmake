# SPDX-License-Identifier: MIT
# Two ways to run the same targets. If ZARVO_SANITIZE contains "fuzzer", each target is a program that looks for new
# inputs. With the address sanitizer alone one program has all targets, and CTest replays the kept inputs and a fixed
# number of changed ones, the same ones every time.

# zarvo_fuzz_support(SOURCES files... LINK targets...): the code that all targets share.
function(zarvo_fuzz_support)
    cmake_parse_arguments(ARG "" "" "SOURCES;LINK" ${ARGN})
    zarvo_library(fuzz_support SOURCES ${ARG_SOURCES} LINK ${ARG_LINK})
    if(NOT ZARVO_SANITIZE MATCHES "fuzzer")
        add_executable(fuzz_replay main_replay.cpp mutation.cpp)
        target_link_libraries(fuzz_replay PRIVATE fuzz_support)
        zarvo_reuse(fuzz_replay zarvo_headers)
    endif()
endfunction()

# zarvo_fuzz(NAME REPLAYS count [SOURCES files...] [LINK targets...] [OPTIONS link options...])
#
# The target in fuzz_NAME.cpp, with dict/NAME.dict and corpus/NAME/. REPLAYS is the number of changed inputs for CTest.
function(zarvo_fuzz name)
    cmake_parse_arguments(ARG "" "REPLAYS" "SOURCES;LINK;OPTIONS" ${ARGN})
    if(ZARVO_SANITIZE MATCHES "fuzzer")
        set(program fuzz_${name})
        add_executable(${program} main_libfuzzer.cpp)
        target_link_libraries(${program} PRIVATE fuzz_support)
        target_link_options(${program} PRIVATE -fsanitize=fuzzer)
    else()
        set(program fuzz_replay)
        add_test(NAME fuzz.${name} COMMAND fuzz_replay ${name} "${CMAKE_CURRENT_SOURCE_DIR}" ${ARG_REPLAYS})
        set_tests_properties(fuzz.${name} PROPERTIES TIMEOUT 120)
    endif()
    target_sources(${program} PRIVATE fuzz_${name}.cpp ${ARG_SOURCES})
    target_link_libraries(${program} PRIVATE ${ARG_LINK})
    target_link_options(${program} PRIVATE ${ARG_OPTIONS})
endfunction()
