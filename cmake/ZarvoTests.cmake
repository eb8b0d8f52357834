# SPDX-License-Identifier: MIT
# zarvo_tests(FOLDER SOURCES tst_a.cpp tst_b.cpp... LINK targets...)
#
# One test program per folder: linking Qt once per class costs minutes on a small machine. Every
# source defines one test class and names it with ZARVO_TEST(Class) from tests/testmain.h; each class is a
# CTest test of its own, so that they run side by side and fail by name.
function(zarvo_tests folder)
    cmake_parse_arguments(ARG "" "" "SOURCES;LINK" ${ARGN})
    set(program tst_${folder})
    add_executable(${program} ${ARG_SOURCES} "${PROJECT_SOURCE_DIR}/tests/testmain.cpp")
    target_link_libraries(${program} PRIVATE ${ARG_LINK} Qt6::Test)
    foreach(source IN LISTS ARG_SOURCES)
        get_filename_component(name "${source}" NAME_WE)
        if(name MATCHES "^tst_")
            add_test(NAME ${folder}.${name} COMMAND ${program} ${name})
            set_tests_properties(${folder}.${name} PROPERTIES TIMEOUT 120)
        endif()
    endforeach()
endfunction()
