# SPDX-License-Identifier: MIT
# Options that make errors in memory end a program before an attacker can use them. scripts/hardening checks the built
# programs. Sanitizers find the same errors and more, and some of these options hide errors from them.
if(ZARVO_SANITIZE)
    return()
endif()

include(CheckCXXCompilerFlag)

add_compile_options(-fPIE -fstack-protector-strong)
add_compile_definitions(_GLIBCXX_ASSERTIONS)
# It needs the optimiser. Some compilers define it by themselves, and a second definition would be a warning.
add_compile_options("$<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=3>")

# Not every processor has these.
foreach(flag IN ITEMS -fstack-clash-protection -fcf-protection)
    string(MAKE_C_IDENTIFIER "ZARVO_HAS${flag}" has)
    check_cxx_compiler_flag(${flag} ${has})
    if(${has})
        add_compile_options(${flag})
    endif()
endforeach()

add_link_options(-Wl,-z,relro,-z,now,-z,noexecstack "$<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:-pie>")
