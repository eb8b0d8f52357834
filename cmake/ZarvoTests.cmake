# SPDX-License-Identifier: MIT
# The target Qt6::Test gives each program the names of its folders as macros, and then no two could share precompiled
# headers; nothing here asks for them.
function(zarvo_use_qt_test target)
    target_include_directories(${target} SYSTEM PRIVATE $<TARGET_PROPERTY:Qt6::Test,INTERFACE_INCLUDE_DIRECTORIES>)
    target_link_libraries(${target} PRIVATE $<TARGET_LINKER_FILE:Qt6::Test>)
endfunction()

# zarvo_tests(FOLDER SOURCES tst_a.cpp tst_b.cpp... LINK targets...)
#
# One test program per folder: linking Qt once per class costs minutes on a small machine. Every
# source defines one test class and names it with ZARVO_TEST(Class) from tests/testmain.h; each class is a
# CTest test of its own, so that they run side by side and fail by name.
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
