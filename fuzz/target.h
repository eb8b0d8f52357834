// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>

#include <cstdio>
#include <cstdlib>

/**
 * Runs the code under test on one input, that is on bytes that somebody else chooses, and checks what must hold for all
 * inputs. Called on the main thread, many thousand times in one process, so it must leave nothing behind.
 */
using FuzzFunction = void (*)(const QByteArray &input);

/** Adds a target. Used through ZARVO_FUZZ, at namespace level, on the main thread before main() runs. */
bool addFuzzTarget(const char *sourceFile, FuzzFunction function);

/** The target with this name. An empty name means the only target. Null if there is none. */
[[nodiscard]] FuzzFunction fuzzTarget(const QString &name);

/** Registers a function under the name of its source file: "handler" in fuzz_handler.cpp. */
#define ZARVO_FUZZ(function) static const bool function##IsRegistered = addFuzzTarget(__FILE__, function);

/** Reports a finding by ending the process if the condition does not hold. */
#define FUZZ_CHECK(condition)                                                                                          \
    do {                                                                                                               \
        if (!(condition)) {                                                                                            \
            std::fprintf(stderr, "%s:%d: does not hold: %s\n", __FILE__, __LINE__, #condition);                        \
            std::abort();                                                                                              \
        }                                                                                                              \
    } while (false)
