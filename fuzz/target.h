// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>

#include <cstdio>
#include <cstdlib>

/**
 * What is fuzzed: takes one input, the bytes that somebody else decides about, and checks what must hold for any of
 * them. Called on the main thread, many thousand times in one process, so it leaves nothing behind.
 */
using FuzzFunction = void (*)(const QByteArray &input);

/** Adds a target. Used through ZARVO_FUZZ, at namespace level, on the main thread before main() runs. */
bool addFuzzTarget(const char *sourceFile, FuzzFunction function);

/** The target of this name; of the only one when there is one and the name is empty. Null when there is none. */
[[nodiscard]] FuzzFunction fuzzTarget(const QString &name);

/** Registers a function under the name of its source file: "handler" in fuzz_handler.cpp. */
#define ZARVO_FUZZ(function) static const bool function##IsRegistered = addFuzzTarget(__FILE__, function);

/** Ends the process, which is how a finding is told, when what must hold does not. */
#define FUZZ_CHECK(condition)                                                                                          \
    do {                                                                                                               \
        if (!(condition)) {                                                                                            \
            std::fprintf(stderr, "%s:%d: does not hold: %s\n", __FILE__, __LINE__, #condition);                        \
            std::abort();                                                                                              \
        }                                                                                                              \
    } while (false)
