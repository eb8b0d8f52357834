// SPDX-License-Identifier: MIT
#include "client/terminal/console.h"

#include "client/terminal/textwidth.h"
#include "support/json.h"

#include <QStringList>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <sys/ioctl.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

bool writeTo(std::FILE *stream, const QByteArray &bytes)
{
    const auto size = static_cast<size_t>(bytes.size());
    return std::fwrite(bytes.constData(), 1, size, stream) == size;
}

/** Replaces all control characters except line feeds and tabs. */
QString printableLines(const QString &text)
{
    QStringList lines = text.split(u'\n');
    for (QString &line : lines) {
        QStringList columns = line.split(u'\t');
        for (QString &column : columns) {
            column = printable(column);
        }
        line = columns.join(u'\t');
    }
    return lines.join(u'\n');
}

winsize terminalSize()
{
    winsize size{};
    if (!Console::outputIsTerminal() || ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == -1) {
        return {};
    }
    return size;
}

} // namespace

void Console::print(const QString &text)
{
    write(text.toUtf8());
}

void Console::printForeign(const QString &text)
{
    print(outputIsTerminal() ? printableLines(text) : text);
}

void Console::printJson(const Json::Value &value)
{
    write(writeJson(value));
}

void Console::note(const QString &text)
{
    // Keeps the order when both streams lead to the same file or terminal.
    std::fflush(stdout);
    [[maybe_unused]] const bool isWritten = writeTo(stderr, (text + u'\n').toUtf8());
}

ExitCode Console::report(const Failure &failure)
{
    if (!failure.text.isEmpty()) {
        note(u"zarvoctl: "_s + printableLines(failure.text));
    }
    return failure.code;
}

bool Console::flush()
{
    errno = 0;
    if (std::fflush(stdout) != 0) {
        recordWriteError();
    }
    return firstWriteError == 0;
}

void Console::write(const QByteArray &bytes)
{
    // stdio writes large output before flush(), so a failure must be recorded here while errno still says why.
    errno = 0;
    if (!writeTo(stdout, bytes)) {
        recordWriteError();
    }
}

void Console::recordWriteError()
{
    if (firstWriteError == 0) {
        firstWriteError = errno != 0 ? errno : EIO;
    }
}

bool Console::inputIsTerminal()
{
    return ::isatty(STDIN_FILENO) == 1;
}

bool Console::outputIsTerminal()
{
    return ::isatty(STDOUT_FILENO) == 1;
}

bool Console::errorIsTerminal()
{
    return ::isatty(STDERR_FILENO) == 1;
}

int Console::outputWidth()
{
    return terminalSize().ws_col;
}

int Console::outputHeight()
{
    return terminalSize().ws_row;
}

bool Console::useColour()
{
    return outputIsTerminal() && qEnvironmentVariableIsEmpty("NO_COLOR") && qgetenv("TERM") != "dumb";
}

bool Console::confirm(const QString &question)
{
    std::fflush(stdout);
    std::fputs((question + u" [y/N] "_s).toUtf8().constData(), stderr);
    std::array<char, 64> line{};
    if (!std::fgets(line.data(), line.size(), stdin)) {
        std::fputs("\n", stderr);
        return false;
    }
    const QByteArray answer = QByteArray(line.data()).trimmed().toLower();
    return answer == "y" || answer == "yes";
}
