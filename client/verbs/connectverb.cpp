// SPDX-License-Identifier: MIT
#include "client/reach/remotehost.h"
#include "client/reach/tunnel.h"
#include "client/reach/viewer.h"
#include "client/sessions/connectionoffer.h"
#include "client/sessions/offering.h"
#include "client/sessions/sessionstarter.h"
#include "client/sessions/sessiontarget.h"
#include "client/terminal/interruption.h"
#include "client/verbs/verbs.h"

#include <optional>

using namespace Qt::StringLiterals;

namespace {

/** One run of the verb: its state, and its steps in order. */
class Connecting
{
public:
    Connecting(const QCommandLineParser &line_, ClientContext &context_)
        : line(line_)
        , context(context_)
        , prints(line_.isSet(u"print"_s))
    {
    }

    bool run(Failure *failure)
    {
        return checkUsage(failure) && (prints || viewer.find(failure)) &&
               context.connectToServer(startMode(line), failure) && makeOffer(failure) && show(failure);
    }

    /** Whether a signal has ended the run. */
    [[nodiscard]] bool isInterrupted() const { return interruption && interruption->hasCaughtSignal(); }

private:
    bool checkUsage(Failure *failure) const
    {
        const qsizetype count = line.positionalArguments().size();
        if (line.isSet(u"json"_s) && !prints) {
            return fail(failure, ExitCode::Usage, u"--json needs --print."_s);
        }
        if (line.isSet(u"new"_s)) {
            return count > 0 ? checkStart(line.positionalArguments(), line.value(u"geometry"_s), failure)
                             : fail(failure, ExitCode::Usage, u"--new needs a command: connect --new -- COMMAND…"_s);
        }
        if (line.isSet(u"geometry"_s)) {
            return fail(failure, ExitCode::Usage, u"--geometry needs --new."_s);
        }
        return count <= 1 || fail(failure, ExitCode::Usage, u"connect takes one session."_s);
    }

    bool makeOffer(Failure *failure)
    {
        if (line.isSet(u"new"_s)) {
            return startNewSession(context, line.positionalArguments(), line.value(u"geometry"_s), &offer, failure);
        }
        SessionEntry session;
        bool isLocal = false;
        return findAnywhere(&session, &isLocal, failure) &&
               (isLocal ? offerLocal(session, failure) : offerRemote(session, failure));
    }

    /** A session of this host wins over one of the same name elsewhere. */
    bool findAnywhere(SessionEntry *session, bool *isLocal, Failure *failure)
    {
        SessionList local;
        SessionList all;
        if (!context.listLocal(&local, failure)) {
            return false;
        }
        const QString target = firstArgument(line);
        *isLocal = findSession(local, target, session, failure);
        if (*isLocal || failure->code != ExitCode::NoSuchSession) {
            return *isLocal;
        }
        return context.listAll(&all, failure) && findSession(all, target, session, failure);
    }

    bool offerLocal(const SessionEntry &session, Failure *failure)
    {
        const bool isOffered = session.state() == EntryState::Offered;
        const QString method = isOffered ? u"Live.Replay"_s : u"Live.Resume"_s;
        const QString other = isOffered ? u"Live.Resume"_s : u"Live.Replay"_s;
        // The state may have changed since the listing. Then the other method fits.
        return requestOffer(context, method, session, &offer, failure) ||
               (failure->code == ExitCode::WrongState && session.state() != EntryState::Connected &&
                requestOffer(context, other, session, &offer, failure));
    }

    bool offerRemote(const SessionEntry &session, Failure *failure)
    {
        remote = RemoteHost::fromLocation(session.location);
        if (!remote) {
            return fail(
                failure, ExitCode::WrongState,
                u"Session %1 is on another host, but its location names no host that ssh can reach: \"%2\"."_s.arg(
                    session.id, session.location));
        }
        interruption.emplace();
        return remote->requestOffer(session.id, &offer, failure);
    }

    bool show(Failure *failure)
    {
        if (prints) {
            offer.print(context.console, line.isSet(u"json"_s));
            return true;
        }
        if (!remote) {
            return viewer.run(offer.port, offer.password, failure);
        }
        Tunnel tunnel(remote->streamCommand(offer.port));
        QString error;
        if (!tunnel.open(&error)) {
            return fail(failure, ExitCode::NoViewer, error + u'.');
        }
        return viewer.run(tunnel.port(), offer.password, failure);
    }

    const QCommandLineParser &line;
    ClientContext &context;
    const bool prints;
    Viewer viewer;
    std::optional<Interruption> interruption; ///< set while there is something to clean up after a signal
    std::unique_ptr<RemoteHost> remote;       ///< set for a session on another host
    ConnectionOffer offer;
};

ExitCode run(const QCommandLineParser &line, ClientContext &context)
{
    Failure failure;
    Connecting connecting(line, context);
    if (connecting.run(&failure)) {
        return ExitCode::Done;
    }
    return connecting.isInterrupted() ? failure.code : context.console.report(failure);
}

} // namespace

Verb connectVerb()
{
    return {
        .name = u"connect"_s,
        .arguments = u"[SESSION]"_s,
        .summary = u"Open a session in a VNC viewer."_s,
        .description =
            u"Runs a VNC viewer on a session, or on a new one with --new -- COMMAND…. The viewer is the command in\n"
            "ZARVO_VIEWER, else xtigervncviewer, else vncviewer. A session on another host is reached through ssh,\n"
            "or the command in ZARVO_SSH. --print prints what another viewer needs instead."_s,
        .examples = {u"zarvoctl connect --new -- openbox-session"_s, u"zarvoctl connect 3f2a"_s,
                     u"zarvoctl connect --print --json xterm"_s},
        .maxArguments = -1,
        .options = {{u"new"_s, u"Start a session of a command first."_s},
                    geometryOption(),
                    {u"print"_s, u"Print host, port and password instead."_s},
                    jsonOption(),
                    noStartOption()},
        .run = run};
}
