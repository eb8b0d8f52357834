// SPDX-License-Identifier: MIT
#include "client/reach/viewergate.h"

#include <QDir>

#include <unistd.h>

using namespace Qt::StringLiterals;

ViewerGate::ViewerGate(int stream_, const QByteArray &begin_, QObject *parent)
    : QObject(parent)
    , stream(stream_)
    , begin(begin_)
{
}

ViewerGate::~ViewerGate()
{
    closeConnection();
}

bool ViewerGate::openSocket(QString *error)
{
    temporary.emplace(QDir::temp().filePath(u"zarvoctl-XXXXXX"_s));
    if (!temporary->isValid()) {
        *error = u"Failed to create a temporary directory: %1"_s.arg(temporary->errorString());
        return false;
    }
    if (!folder.open(temporary->path(), error)) {
        return false;
    }
    endpoint = std::make_unique<LocalEndpoint>();
    connect(endpoint.get(), &LocalEndpoint::accepted, this, &ViewerGate::join);
    return endpoint->listen(folder.pathOf(socketName()), error);
}

bool ViewerGate::openPort(QString *error)
{
    connect(&guardedPort, &GuardedPort::accepted, this, &ViewerGate::join);
    return guardedPort.open(error);
}

void ViewerGate::join(int connection)
{
    if (viewer != -1 || stream == -1) {
        ::close(connection);
        return;
    }
    viewer = connection;
    pump = std::make_unique<StreamPump>(viewer, viewer, stream);
    connect(pump.get(), &StreamPump::finished, this, &ViewerGate::Pump_finished, Qt::QueuedConnection);
    pump->start(begin);
}

void ViewerGate::Pump_finished()
{
    closeConnection(); // so that both sides see the end
}

void ViewerGate::closeConnection()
{
    pump.reset(); // its notifiers go before their descriptors
    for (int *descriptor : {&viewer, &stream}) {
        if (*descriptor != -1) {
            ::close(*descriptor);
            *descriptor = -1;
        }
    }
}
