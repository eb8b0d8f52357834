// SPDX-License-Identifier: MIT
#pragma once

#include <QObject>
#include <QTest>

#include <functional>

// Qt's own wait 5 seconds for what is to come, which is little on a busy machine, and makes nothing faster where it
// comes.
#undef QTRY_VERIFY
#undef QTRY_COMPARE
#define QTRY_VERIFY(expression) QTRY_VERIFY_WITH_TIMEOUT(expression, 30000)
#define QTRY_COMPARE(actual, expected) QTRY_COMPARE_WITH_TIMEOUT(actual, expected, 30000)

/**
 * Adds a test class to the program that its folder builds. Used through ZARVO_TEST, at namespace level, on
 * the main thread before main() runs.
 */
bool addTestClass(const char *sourceFile, std::function<QObject *()> make);

/** Registers @p Class under the name of the source file that it stands in. */
#define ZARVO_TEST(Class)                                                                                              \
    static const bool Class##IsRegistered = addTestClass(__FILE__, []() -> QObject * { return new Class; });
