// SPDX-License-Identifier: MIT
#include "client/reach/showing.h"

#include "client/reach/remotepipe.h"
#include "client/reach/viewergate.h"

namespace {

bool failGate(const QString &error, Failure *failure)
{
    return fail(failure, ExitCode::NoViewer, error + u'.');
}

} // namespace

bool showLocally(Viewer &viewer, const ViewerSocket &socket, Failure *failure)
{
    if (viewer.knowsLocalSockets()) {
        return viewer.showSocket(socket.directory(), socket.name(), failure);
    }
    int stream = -1;
    if (!socket.connect(&stream, failure)) {
        return false;
    }
    ViewerGate gate(stream);
    QString error;
    return gate.openPort(&error) ? viewer.showPort(gate.port(), {}, failure) : failGate(error, failure);
}

bool showStarted(Viewer &viewer, const QString &directory, const ConnectionOffer &offer, Failure *failure)
{
    ViewerSocket socket;
    Failure ignored;
    if (socket.open(directory, &ignored) && socket.answers()) {
        return showLocally(viewer, socket, failure);
    }
    return viewer.showPort(offer.port, offer.password, failure);
}

bool showRemotely(Viewer &viewer, const RemoteHost &host, const QString &id, Failure *failure)
{
    RemotePipe pipe(host);
    if (!pipe.open(id, failure)) {
        return false;
    }
    ViewerGate gate(pipe.takeStream(), pipe.begin());
    QString error;
    if (viewer.knowsLocalSockets()) {
        return gate.openSocket(&error) ? viewer.showSocket(gate.directory(), gate.socketName(), failure)
                                       : failGate(error, failure);
    }
    return gate.openPort(&error) ? viewer.showPort(gate.port(), {}, failure) : failGate(error, failure);
}
