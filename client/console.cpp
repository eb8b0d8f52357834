// SPDX-License-Identifier: MIT
#include "client/console.h"

#include "client/textwidth.h"
#include "support/json.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <sys/ioctl.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

void writeTo(std::FILE *stream, const QByteArray &bytes)
{
    std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stream);
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
    writeTo(stdout, text.toUtf8());
}

void Console::printJson(const Json::Value &value)
{
    writeTo(stdout, writeJson(value));
}

void Console::note(const QString &text)
{
    // What was printed before comes first, also when both streams lead to the same place.
    std::fflush(stdout);
    writeTo(stderr, (text + u'\n').toUtf8());
}

ExitCode Console::report(const Failure &failure)
{
    if (!failure.text.isEmpty()) {
        note(u"zarvoctl: "_s + failure.text);
    }
    return failure.code;
}

bool Console::flush()
{
    errno = 0;
    const bool isWritten = std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
    if (!isWritten && firstWriteError == 0) {
        firstWriteError = errno != 0 ? errno : EIO;
    }
    return isWritten;
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
    writeTo(stderr, (question + u" [y/N] "_s).toUtf8());
    std::array<char, 64> line{};
    if (!std::fgets(line.data(), line.size(), stdin)) {
        writeTo(stderr, "\n");
        return false;
    }
    const QByteArray answer = QByteArray(line.data()).trimmed().toLower();
    return answer == "y" || answer == "yes";
}
