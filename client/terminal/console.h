// SPDX-License-Identifier: MIT
#pragma once

#include "client/terminal/exitcode.h"

#include <json/value.h>

#include <QString>

/**
 * The program's three streams: data goes to standard output, everything else to standard error. Knows what a
 * terminal can show. Used on the main thread.
 */
class Console
{
public:
    /** Writes @p text to standard output as it is, in UTF-8. */
    void print(const QString &text);
    void printLine(const QString &text) { print(text + u'\n'); }

    /** The same for text that other programs have written: on a terminal it loses what that would obey. */
    void printForeign(const QString &text);

    /** Writes @p value to standard output, on one line. */
    void printJson(const Json::Value &value);

    /** Writes a line to standard error. */
    void note(const QString &text);

    /**
     * Tells the user why something failed, and returns the exit code for it. What others have put into the sentence
     * loses what a terminal would obey.
     */
    ExitCode report(const Failure &failure);

    /** Writes what is still buffered; false when standard output took less than everything, now or earlier. */
    [[nodiscard]] bool flush();

    /** The system's number for the reason of the first output that was not taken; 0 when there was none. */
    [[nodiscard]] int writeError() const { return firstWriteError; }

    [[nodiscard]] static bool inputIsTerminal();
    [[nodiscard]] static bool outputIsTerminal();
    [[nodiscard]] static bool errorIsTerminal();

    /** Columns of the terminal on standard output; 0 when there is none or it does not tell. */
    [[nodiscard]] static int outputWidth();

    /** Lines of the terminal on standard output; 0 when there is none or it does not tell. */
    [[nodiscard]] static int outputHeight();

    /** Whether to use colour on standard output: only on a terminal, and not with NO_COLOR. */
    [[nodiscard]] static bool useColour();

    /** Asks a question on the terminal and waits for the line of the answer; true for yes. */
    [[nodiscard]] bool confirm(const QString &question);

private:
    void write(const QByteArray &bytes);
    void recordWriteError();

    int firstWriteError = 0;
};
