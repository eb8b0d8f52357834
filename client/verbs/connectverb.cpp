// SPDX-License-Identifier: MIT
#include "client/reach/remotehost.h"
#include "client/reach/showing.h"
#include "client/reach/viewer.h"
#include "client/reach/viewersocket.h"
#include "client/sessions/connectionoffer.h"
#include "client/sessions/offering.h"
#include "client/sessions/peertrust.h"
#include "client/sessions/sessionstarter.h"
#include "client/sessions/sessiontarget.h"
#include "client/terminal/interruption.h"
#include "client/terminal/textwidth.h"
#include "client/verbs/verbs.h"

#include <memory>
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
        if (!checkUsage(failure) || (!prints && !viewer.find(failure)) ||
            !context.connectToServer(startMode(line), failure)) {
            return false;
        }
        if (line.isSet(u"new"_s)) {
            return openNew(failure);
        }
        SessionEntry session;
        bool isLocal = false;
        return findAnywhere(&session, &isLocal, failure) &&
               (isLocal ? openLocal(session, failure) : openRemote(session, failure));
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

    bool openNew(Failure *failure)
    {
        ConnectionOffer offer;
        if (!startNewSession(context, line.positionalArguments(), line.value(u"geometry"_s), &offer, failure)) {
            return false;
        }
        return prints ? print(offer) : showStarted(viewer, directoryOf(offer.id), offer, failure);
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
        if (!context.listAll(&all, failure)) {
            return false;
        }
        markTrust(context.files, &all);
        return findSession(all, target, session, failure);
    }

    /** Without a password if the agent has a socket for the user's own viewers; other agents have none. */
    bool openLocal(const SessionEntry &session, Failure *failure)
    {
        ViewerSocket socket;
        Failure ignored;
        if (!prints && socket.open(directoryOf(session.id), &ignored) && socket.answers()) {
            return !socket.hasViewers(session.state() == EntryState::Connected) ? showLocally(viewer, socket, failure)
                                                                                : failConnected(failure);
        }
        ConnectionOffer offer;
        if (!requestFittingOffer(session, &offer, failure)) {
            return false;
        }
        return prints ? print(offer) : viewer.showPort(offer.port, offer.password, failure);
    }

    bool requestFittingOffer(const SessionEntry &session, ConnectionOffer *offer, Failure *failure)
    {
        const bool isOffered = session.state() == EntryState::Offered;
        const QString method = isOffered ? u"Live.Replay"_s : u"Live.Resume"_s;
        const QString other = isOffered ? u"Live.Resume"_s : u"Live.Replay"_s;
        // The state may have changed since the listing. Then the other method fits.
        return requestOffer(context, method, session, offer, failure) ||
               (failure->code == ExitCode::WrongState && session.state() != EntryState::Connected &&
                requestOffer(context, other, session, offer, failure));
    }

    bool openRemote(const SessionEntry &session, Failure *failure)
    {
        const std::unique_ptr<RemoteHost> remote = RemoteHost::fromLocation(session.location);
        if (!remote) {
            return fail(
                failure, ExitCode::WrongState,
                u"Session %1 is on another host, but its location names no host that ssh can reach: \"%2\"."_s.arg(
                    session.id, session.location));
        }
        if (!isTrusted(session, remote->hostName(), failure)) {
            return false;
        }
        interruption.emplace();
        if (!prints) {
            return showRemotely(viewer, *remote, session.id, failure);
        }
        ConnectionOffer offer;
        return remote->requestOffer(session.id, &offer, failure) && print(offer);
    }

    /** Asks the user unless the host of the location has reported the session itself. */
    bool isTrusted(const SessionEntry &session, const QString &host, Failure *failure)
    {
        if (session.trusted || line.isSet(u"trust-location"_s)) {
            return true;
        }
        const QString problem = u"Session %1 is said to be on the host \"%2\", but another host has reported it"_s.arg(
            printable(session.id), printable(host));
        if (!Console::inputIsTerminal() || !Console::errorIsTerminal()) {
            return fail(failure, ExitCode::UntrustedLocation, problem + u"; --trust-location connects anyway."_s);
        }
        return context.console.confirm(problem + u"; connect anyway?"_s) ||
               fail(failure, ExitCode::UntrustedLocation, {});
    }

    bool print(const ConnectionOffer &offer)
    {
        offer.print(context.console, line.isSet(u"json"_s));
        return true;
    }

    [[nodiscard]] QString directoryOf(const QString &id) const { return context.files.sessionDirectory(id); }

    const QCommandLineParser &line;
    ClientContext &context;
    const bool prints;
    Viewer viewer;
    std::optional<Interruption> interruption; ///< set while there is something to clean up after a signal
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
            "or the command in ZARVO_SSH. The bundled agent needs no password for it. --print makes one, and\n"
            "prints it with what else another viewer needs. Asks on a terminal, and else fails, before it runs ssh\n"
            "to a host that has not reported the session itself."_s,
        .examples = {u"zarvoctl connect --new -- openbox-session"_s, u"zarvoctl connect 3f2a"_s,
                     u"zarvoctl connect --print --json xterm"_s},
        .maxArguments = -1,
        .options = {{u"new"_s, u"Start a session of a command first."_s},
                    geometryOption(),
                    {u"trust-location"_s, u"Do not ask whether the host of the session is the right one."_s},
                    {u"print"_s, u"Print host, port and password instead."_s},
                    jsonOption(),
                    noStartOption()},
        .run = run};
}
