// SPDX-License-Identifier: MIT
#include "client/verbs/offerverb.h"

#include "client/sessions/offering.h"

using namespace Qt::StringLiterals;

ExitCode runOfferVerb(const QCommandLineParser &line, ClientContext &context, const QString &method)
{
    Failure failure;
    SessionEntry session;
    ConnectionOffer offer;
    if (!context.connectToServer(startMode(line), &failure) ||
        !context.findLocal(firstArgument(line), &session, &failure) ||
        !requestOffer(context, method, session, &offer, &failure)) {
        return context.console.report(failure);
    }
    offer.print(context.console, line.isSet(u"json"_s));
    return ExitCode::Done;
}
