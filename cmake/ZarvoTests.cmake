# SPDX-License-Identifier: MIT
# Does not link Qt6::Test itself: that target defines macros with the folders of each program, so no two programs could
# share precompiled headers. No test needs the macros.
function(zarvo_use_qt_test target)
    target_include_directories(${target} SYSTEM PRIVATE $<TARGET_PROPERTY:Qt6::Test,INTERFACE_INCLUDE_DIRECTORIES>)
    target_link_libraries(${target} PRIVATE $<TARGET_LINKER_FILE:Qt6::Test>)
endfunction()

# zarvo_tests(FOLDER SOURCES tst_a.cpp tst_b.cpp... LINK targets...)
#
# One test program per folder, because linking one per class takes minutes on a small machine. Each source defines one
# test class and registers it with ZARVO_TEST(Class) from tests/testmain.h. Each class is a test of its own for CTest, so
# that classes run in parallel and a failure has a name.
function(zarvo_tests folder)
    cmake_parse_arguments(ARG "" "" "SOURCES;LINK" ${ARGN})
    set(program tst_${folder})
    add_executable(${program} ${ARG_SOURCES} "${PROJECT_SOURCE_DIR}/tests/testmain.cpp")
    target_link_libraries(${program} PRIVATE ${ARG_LINK})
    zarvo_use_qt_test(${program})
    zarvo_reuse(${program} zarvo_test_headers)
    foreach(source IN LISTS ARG_SOURCES)
        get_filename_component(name "${source}" NAME_WE)
        if(name MATCHES "^tst_")
            add_test(NAME ${folder}.${name} COMMAND ${program} ${name})
            set_tests_properties(${folder}.${name} PROPERTIES TIMEOUT 120)
        endif()
    endforeach()
endfunction()
