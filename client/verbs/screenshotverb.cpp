// SPDX-License-Identifier: MIT
#include "client/reach/childrun.h"
#include "client/server/serverlauncher.h"
#include "client/sessions/sessiondirectories.h"
#include "client/terminal/interruption.h"
#include "client/terminal/progress.h"
#include "client/verbs/verbs.h"
#include "contract/sessiondirectory.h"

#include <QDir>
#include <QFile>

#include <chrono>
#include <cstdio>

#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

constexpr auto kScreenshotTimeout = 20s;

/** Writes to a temporary file beside @p path and renames it, so that @p path never holds half a picture. */
bool takeScreenshot(const QString &directory, const QString &path, Failure *failure)
{
    quint16 display = 0;
    if (!readSessionDisplay(directory, &display, failure)) {
        return false;
    }
    const QString part = u"%1.%2.part"_s.arg(path, QString::number(::getpid()));
    const QString program = QDir(bundledProgramsPath()).filePath(u"take-screenshot"_s);
    const Interruption interruption;
    const Progress progress(u"Taking a picture"_s);
    ChildRun child;
    // A picture shows all that the user does, so it is private. Users who share it change the mode.
    ::umask(077);
    const bool ended =
        child.run({program, QString::number(display), QDir(directory).filePath(SessionFile::kAuthority), part},
                  kScreenshotTimeout);
    if (ended && child.exitCode() == 0 &&
        std::rename(QFile::encodeName(part).constData(), QFile::encodeName(path).constData()) == 0) {
        return true;
    }
    QFile::remove(part);
    if (interruption.hasCaughtSignal()) {
        return fail(failure, ExitCode::SessionFailed, {});
    }
    if (!ended) {
        return fail(failure, child.timedOut() ? ExitCode::TimedOut : ExitCode::SessionFailed,
                    u"Failed to take a picture: %1."_s.arg(child.problem()));
    }
    const QString reason =
        child.exitCode() == 0 ? u"Failed to write to the file \"%1\""_s.arg(path) : child.errorOutput().trimmed();
    return fail(failure, ExitCode::SessionFailed, reason + u'.');
}

ExitCode run(const QCommandLineParser &line, ClientContext &context)
{
    Failure failure;
    SessionEntry session;
    if (!context.connectToServer(startMode(line), &failure) ||
        !context.findLocal(firstArgument(line), &session, &failure)) {
        return context.console.report(failure);
    }
    const QString directory = context.files.sessionDirectory(session.id);
    if (!takeScreenshot(directory, line.positionalArguments().at(1), &failure)) {
        return context.console.report(fileFailure(directory, failure));
    }
    return ExitCode::Done;
}

} // namespace

Verb screenshotVerb()
{
    return {.name = u"screenshot"_s,
            .arguments = u"SESSION FILE.png"_s,
            .summary = u"Save a picture of a session."_s,
            .description = u"Saves a picture of the display of a session of this host as a PNG file."_s,
            .examples = {u"zarvoctl screenshot 3f2a now.png"_s},
            .minArguments = 2,
            .maxArguments = 2,
            .options = {noStartOption()},
            .run = run};
}
