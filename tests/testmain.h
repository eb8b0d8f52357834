// SPDX-License-Identifier: MIT
#pragma once

#include <QObject>

#include <functional>

/**
 * Adds a test class to the program that its folder builds. Used through ZARVO_TEST, at namespace level, on
 * the main thread before main() runs.
 */
bool addTestClass(const char *sourceFile, std::function<QObject *()> make);

/** Registers @p Class under the name of the source file that it stands in. */
#define ZARVO_TEST(Class)                                                                                              \
    static const bool Class##IsRegistered = addTestClass(__FILE__, []() -> QObject * { return new Class; });
