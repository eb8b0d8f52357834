# SPDX-License-Identifier: MIT
# What every target of the project shares: language level, warnings, sanitizers, output folders.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_AUTOMOC ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
    set(CMAKE_BUILD_TYPE Release CACHE STRING "Debug, Release, RelWithDebInfo" FORCE)
endif()

option(ZARVO_WERROR "Treat warnings as errors" OFF)
set(ZARVO_SANITIZE "" CACHE STRING "Sanitizers to build with, as in -fsanitize=, for example address,undefined")

# Saves most of the build time, which goes into Qt's headers. Off by default, so that a missing include is an error.
option(ZARVO_PCH "Precompile the headers that nearly every file needs" OFF)

find_program(ZARVO_CCACHE ccache)
if(ZARVO_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    # Without this ccache would not cache files that use a precompiled header.
    set(CMAKE_CXX_COMPILER_LAUNCHER
        "${CMAKE_COMMAND}" -E env CCACHE_SLOPPINESS=pch_defines,time_macros "${ZARVO_CCACHE}")
endif()
if(ZARVO_PCH AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    add_compile_options(-fpch-preprocess)
elseif(ZARVO_PCH)
    # Clang would write times into the precompiled header, so a new build folder would find nothing in ccache.
    add_compile_options("SHELL:-Xclang -fno-pch-timestamp")
endif()

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow)
if(ZARVO_WERROR)
    add_compile_options(-Werror)
endif()

add_compile_definitions(
    QT_NO_CAST_FROM_ASCII
    QT_NO_CAST_TO_ASCII
    QT_NO_CAST_FROM_BYTEARRAY
    QT_NO_URL_CAST_FROM_STRING
    QT_NO_NARROWING_CONVERSIONS_IN_CONNECT
    QT_NO_CONTEXTLESS_CONNECT
    QT_NO_FOREACH
    QT_STRICT_ITERATORS)

if(ZARVO_SANITIZE)
    add_compile_options(-fsanitize=${ZARVO_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${ZARVO_SANITIZE})
endif()
if(ZARVO_SANITIZE MATCHES "thread")
    add_library(separate_children OBJECT "${CMAKE_CURRENT_LIST_DIR}/separatechildren.cpp")
    set_target_properties(separate_children PROPERTIES AUTOMOC OFF)
    link_libraries(separate_children)
endif()

# Includes are written from the root of the project.
include_directories("${PROJECT_SOURCE_DIR}")

# zarvo_precompile(TARGET HEADERS...): a target whose precompiled headers others reuse.
function(zarvo_precompile name)
    if(NOT ZARVO_PCH)
        return()
    endif()
    file(WRITE "${CMAKE_CURRENT_BINARY_DIR}/${name}.cpp" "")
    add_library(${name} OBJECT "${CMAKE_CURRENT_BINARY_DIR}/${name}.cpp")
    set_target_properties(${name} PROPERTIES AUTOMOC OFF)
    target_link_libraries(${name} PRIVATE Qt6::Core Qt6::Network)
    target_precompile_headers(${name} PRIVATE ${ARGN})
endfunction()

# zarvo_reuse(TARGET FROM): compiles TARGET with the headers of zarvo_precompile(FROM).
function(zarvo_reuse name from)
    if(ZARVO_PCH)
        target_precompile_headers(${name} REUSE_FROM ${from})
    endif()
endfunction()

# zarvo_library(NAME SOURCES... [LINK targets...]): the static library of a folder.
function(zarvo_library name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LINK" ${ARGN})
    add_library(${name} STATIC ${ARG_SOURCES})
    target_link_libraries(${name} PUBLIC ${ARG_LINK})
    zarvo_reuse(${name} zarvo_headers)
endfunction()

# zarvo_program(NAME FOLDER SOURCES... LINK...): an executable in <build>/<FOLDER>.
function(zarvo_program name folder)
    cmake_parse_arguments(ARG "" "" "SOURCES;LINK" ${ARGN})
    add_executable(${name} ${ARG_SOURCES})
    target_link_libraries(${name} PRIVATE ${ARG_LINK})
    set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/${folder}")
endfunction()
