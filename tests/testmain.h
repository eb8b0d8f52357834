// SPDX-License-Identifier: MIT
#pragma once

#include <QObject>
#include <QTest>

#include <functional>

// Qt's own timeout of 5 seconds is too short on a busy machine. A longer one costs nothing when a test passes.
#undef QTRY_VERIFY
#undef QTRY_COMPARE
#define QTRY_VERIFY(expression) QTRY_VERIFY_WITH_TIMEOUT(expression, 30000)
#define QTRY_COMPARE(actual, expected) QTRY_COMPARE_WITH_TIMEOUT(actual, expected, 30000)

/**
 * Adds a test class to the program of its folder. Used through ZARVO_TEST at namespace level, so it runs on the main
 * thread before main().
 */
bool addTestClass(const char *sourceFile, std::function<QObject *()> make);

/** Registers @p Class under the name of its source file. */
#define ZARVO_TEST(Class)                                                                                              \
    static const bool Class##IsRegistered = addTestClass(__FILE__, []() -> QObject * { return new Class; });
