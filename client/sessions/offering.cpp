// SPDX-License-Identifier: MIT
#include "client/sessions/offering.h"

#include "client/terminal/progress.h"
#include "contract/sessionerror.h"

#include <utility>

using namespace Qt::StringLiterals;

namespace {

/** Which verb fits the state. */
QString hintFor(EntryState state)
{
    switch (state) {
    case EntryState::Connected:
        return u" A viewer is connected; \"zarvoctl suspend\" disconnects it."_s;
    case EntryState::Offered:
        return u" A password is offered already; \"zarvoctl replay\" prints it."_s;
    case EntryState::Suspended:
        return u" No password is offered; \"zarvoctl resume\" makes one."_s;
    case EntryState::Unknown:
        break;
    }
    return {};
}

/** Asks for the state again: a viewer may have connected or disconnected since the session was listed. */
EntryState stateNow(ClientContext &context, const QString &id)
{
    SessionList sessions;
    Failure ignored;
    if (context.listLocal(&sessions, &ignored)) {
        for (const SessionEntry &session : std::as_const(sessions)) {
            if (session.id == id) {
                return session.state();
            }
        }
    }
    return EntryState::Unknown;
}

} // namespace

bool requestOffer(ClientContext &context, const QString &method, const SessionEntry &session, ConnectionOffer *offer,
                  Failure *failure)
{
    Json::Value answer;
    const Progress progress(u"Asking for a password"_s);
    if (!context.callWithId(method, session.id, &answer, failure)) {
        if (failure->code == ExitCode::WrongState) {
            failure->text += hintFor(stateNow(context, session.id));
        }
        return false;
    }
    ConnectionOffer made;
    if (!made.readAnswer(answer)) {
        return failAnswer(failure);
    }
    made.id = session.id;
    made.host = localHostName();
    *offer = made;
    return true;
}

bool failConnected(Failure *failure)
{
    return fail(failure, ExitCode::WrongState, errorMessage(InvalidState) + hintFor(EntryState::Connected));
}
