// SPDX-License-Identifier: MIT
#include "server/handlerfactory.h"

#include "live/getversionmethod.h"
#include "live/listlocalsessionsmethod.h"
#include "live/listsessionsmethod.h"
#include "live/replaymethod.h"
#include "live/resumemethod.h"
#include "live/startmethod.h"
#include "live/suspendmethod.h"
#include "live/terminatemethod.h"
#include "rpc/handler.h"
#include "workers/sessionupdater.h"

using namespace Qt::StringLiterals;

HandlerFactory::HandlerFactory(SessionStore *store_, SessionUpdater *updater_)
    : store(store_)
    , updater(updater_)
{
}

Handler *HandlerFactory::createHandler(QIODevice *device) const
{
    const QMap<QString, RpcMethod *> methods = {
        {u"Live.GetVersion"_s, new GetVersionMethod(store)},
        {u"Live.ListSessions"_s, new ListSessionsMethod(store)},
        {u"Live.ListLocalSessions"_s, new ListLocalSessionsMethod(store)},
        {u"Live.Start"_s, new StartMethod(store)},
        {u"Live.Resume"_s, new ResumeMethod(store)},
        {u"Live.Replay"_s, new ReplayMethod(store)},
        {u"Live.Suspend"_s, new SuspendMethod(store)},
        {u"Live.Terminate"_s, new TerminateMethod(store)},
    };
    auto *handler = new Handler(device, methods, nullptr);
    QObject::connect(updater, &SessionUpdater::sendUpdates, handler, &Handler::writeToDevice);
    return handler;
}
