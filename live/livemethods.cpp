// SPDX-License-Identifier: MIT
#include "live/livemethods.h"

#include "live/getversionmethod.h"
#include "live/listlocalsessionsmethod.h"
#include "live/listsessionsmethod.h"
#include "live/replaymethod.h"
#include "live/resumemethod.h"
#include "live/startmethod.h"
#include "live/suspendmethod.h"
#include "live/terminatemethod.h"

using namespace Qt::StringLiterals;

QMap<QString, RpcMethod *> makeLiveMethods(SessionStore *store)
{
    return {
        {u"Live.GetVersion"_s, new GetVersionMethod(store)},
        {u"Live.ListSessions"_s, new ListSessionsMethod(store)},
        {u"Live.ListLocalSessions"_s, new ListLocalSessionsMethod(store)},
        {u"Live.Start"_s, new StartMethod(store)},
        {u"Live.Resume"_s, new ResumeMethod(store)},
        {u"Live.Replay"_s, new ReplayMethod(store)},
        {u"Live.Suspend"_s, new SuspendMethod(store)},
        {u"Live.Terminate"_s, new TerminateMethod(store)},
    };
}
