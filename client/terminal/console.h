// SPDX-License-Identifier: MIT
#pragma once

#include "client/terminal/exitcode.h"

#include <json/value.h>

#include <QString>

/**
 * The program's three streams: data goes to standard output, everything else to standard error. Removes control
 * characters before a terminal gets text of others. Used on the main thread.
 */
class Console
{
public:
    /** Writes @p text to standard output as it is, in UTF-8. */
    void print(const QString &text);
    void printLine(const QString &text) { print(text + u'\n'); }

    /** The same for text that other programs have written: on a terminal, its control characters are replaced. */
    void printForeign(const QString &text);

    /** Writes @p value to standard output, on one line. */
    void printJson(const Json::Value &value);

    /** Writes a line to standard error. */
    void note(const QString &text);

    /**
     * Tells the user why something failed, and returns the exit code for it. Control characters are replaced, because
     * parts of the sentence may come from others.
     */
    ExitCode report(const Failure &failure);

    /** Writes what is still buffered. Returns false if any write to standard output has failed, now or earlier. */
    [[nodiscard]] bool flush();

    /** The errno of the first write to standard output that failed; 0 if none failed. */
    [[nodiscard]] int writeError() const { return firstWriteError; }

    [[nodiscard]] static bool inputIsTerminal();
    [[nodiscard]] static bool outputIsTerminal();
    [[nodiscard]] static bool errorIsTerminal();

    /** Columns of the terminal on standard output; 0 if it is no terminal or does not report its size. */
    [[nodiscard]] static int outputWidth();

    /** Lines of the terminal on standard output; 0 if it is no terminal or does not report its size. */
    [[nodiscard]] static int outputHeight();

    /** Whether to use colour on standard output: only on a terminal, and only without NO_COLOR. */
    [[nodiscard]] static bool useColour();

    /** Asks a question on the terminal and waits for the line of the answer; true for yes. */
    [[nodiscard]] bool confirm(const QString &question);

private:
    void write(const QByteArray &bytes);
    void recordWriteError();

    int firstWriteError = 0;
};
