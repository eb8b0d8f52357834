// SPDX-License-Identifier: MIT
#include "server/handlerfactory.h"

#include "live/livemethods.h"
#include "rpc/handler.h"
#include "workers/sessionupdater.h"

HandlerFactory::HandlerFactory(SessionStore *store_, SessionUpdater *updater_)
    : store(store_)
    , updater(updater_)
{
}

Handler *HandlerFactory::createHandler(QIODevice *device) const
{
    auto *handler = new Handler(device, makeLiveMethods(store), nullptr);
    QObject::connect(updater, &SessionUpdater::sendUpdates, handler, &Handler::writeToDevice);
    return handler;
}
