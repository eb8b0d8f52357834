// SPDX-License-Identifier: MIT
#include "client/sessions/peertrust.h"
#include "client/sessions/sessionchanges.h"
#include "client/sessions/sessionfollower.h"
#include "client/sessions/sessiontable.h"
#include "client/verbs/verbs.h"

#include <QSocketNotifier>
#include <QTime>

#include <algorithm>
#include <csignal>
#include <memory>

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

/** Redraws the terminal with these sessions. */
void drawTable(Console &console, const SessionList &sessions)
{
    const QString table = sessionTable(sessions, {.width = Console::outputWidth(),
                                                  .legend = true,
                                                  .colour = Console::useColour(),
                                                  .localHost = localHostName()});
    QStringList lines = table.split(u'\n', Qt::SkipEmptyParts);
    const QString time = QTime::currentTime().toString(u"hh:mm:ss"_s);
    lines.prepend(u"Sessions at %1 (Ctrl-C ends this)"_s.arg(time));
    if (const int height = Console::outputHeight(); height > 1) {
        lines = lines.first(std::min<qsizetype>(lines.size(), height - 1));
    }
    console.print(u"\x1b[H\x1b[J"_s + lines.join(u'\n') + u'\n');
}

/**
 * Wakes the follower when the terminal is resized and when the reader of the output closes it. A write would fail
 * without a reader too, but nothing is written until a session changes.
 */
class OutputWatch
{
public:
    explicit OutputWatch(SessionFollower *follower)
        : reader(STDOUT_FILENO, QSocketNotifier::Exception)
    {
        QObject::connect(&reader, &QSocketNotifier::activated, follower, [this, follower] {
            pollfd state = {STDOUT_FILENO, 0, 0};
            hasNoReader = ::poll(&state, 1, 0) == 1 && (state.revents & (POLLERR | POLLHUP)) != 0;
            reader.setEnabled(false);
            follower->wake();
        });
        sigset_t resize;
        ::sigemptyset(&resize);
        ::sigaddset(&resize, SIGWINCH);
        ::sigprocmask(SIG_BLOCK, &resize, nullptr);
        descriptor = ::signalfd(-1, &resize, SFD_CLOEXEC | SFD_NONBLOCK);
        if (descriptor == -1) {
            return;
        }
        size = std::make_unique<QSocketNotifier>(descriptor, QSocketNotifier::Read);
        QObject::connect(size.get(), &QSocketNotifier::activated, follower, [this, follower] {
            signalfd_siginfo ignored = {};
            while (::read(descriptor, &ignored, sizeof ignored) > 0) {
            }
            follower->wake();
        });
    }
    ~OutputWatch()
    {
        size.reset();
        if (descriptor != -1) {
            ::close(descriptor);
        }
    }
    Q_DISABLE_COPY_MOVE(OutputWatch)

    [[nodiscard]] bool isClosed() const { return hasNoReader; }

private:
    QSocketNotifier reader;
    std::unique_ptr<QSocketNotifier> size;
    int descriptor = -1;
    bool hasNoReader = false;
};

void printChanges(Console &console, const SessionList &before, const SessionList &after)
{
    for (const SessionChange &change : sessionChanges(before, after)) {
        console.printJson(change.toJson());
    }
}

ExitCode follow(ClientContext &context, Failure *failure)
{
    SessionFollower follower(&context, kNoDeadline);
    const OutputWatch output(&follower);
    SessionList shown;
    for (;;) {
        SessionList sessions;
        switch (follower.next(kNoDeadline, &sessions, failure)) {
        case SessionFollower::Event::List:
            markTrust(context.files, &sessions);
            if (Console::outputIsTerminal()) {
                drawTable(context.console, sessions);
            } else {
                printChanges(context.console, shown, sessions);
            }
            shown = sessions;
            if (!context.console.flush()) {
                return ExitCode::Done; // the reader has gone, or main() reports the write error
            }
            break;
        case SessionFollower::Event::Lost:
            context.console.note(u"The server has ended; waiting for the next one."_s);
            break;
        case SessionFollower::Event::Woken:
            if (output.isClosed()) {
                return ExitCode::Done;
            }
            if (Console::outputIsTerminal()) {
                drawTable(context.console, shown);
                [[maybe_unused]] const bool isWritten = context.console.flush();
            }
            break;
        case SessionFollower::Event::TimedOut:
            break;
        case SessionFollower::Event::Failed:
            return context.console.report(*failure);
        }
    }
}

ExitCode run(const QCommandLineParser &line, ClientContext &context)
{
    Failure failure;
    if (!context.connectToServer(startMode(line), &failure)) {
        return context.console.report(failure);
    }
    return follow(context, &failure);
}

} // namespace

Verb watchVerb()
{
    return {
        .name = u"watch"_s,
        .summary = u"Show every change of the sessions as it happens."_s,
        .description =
            u"On a terminal, shows the table of sessions and keeps it up to date. Otherwise prints one JSON object\n"
            "per line for each change, at first for each session. When the server ends, waits for the next one."_s,
        .examples = {u"zarvoctl watch"_s, u"zarvoctl watch | jq --unbuffered .event"_s},
        .options = {noStartOption()},
        .run = run};
}
