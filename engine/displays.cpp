// SPDX-License-Identifier: MIT
#include "engine/displays.h"

#include "engine/session.h"

#include <QDir>
#include <QFile>
#include <QHostAddress>
#include <QMutexLocker>
#include <QTcpSocket>

using namespace Qt::StringLiterals;

namespace {

constexpr int kConnectTimeoutMs = 1000;

quint16 displayPort(quint16 display)
{
    return static_cast<quint16>(6000 + display);
}

QString displaySocketPath(quint16 display)
{
    return QDir::temp().filePath(u".X11-unix/X%1"_s.arg(display));
}

QString displayLockPath(quint16 display)
{
    return u"/tmp/.X%1-lock"_s.arg(display);
}

bool isDisplayOpen(quint16 display)
{
    return isPortFree(displayPort(display)) && !QFile::exists(displaySocketPath(display)) &&
           isPortFree(agentPort(display)) && !QFile::exists(displayLockPath(display)) &&
           !QFile::exists(agentSocketPath(display));
}

} // namespace

bool isPortFree(quint16 port)
{
    QTcpSocket socket;
    socket.connectToHost(QHostAddress(QHostAddress::LocalHost), port);
    return !socket.waitForConnected(kConnectTimeoutMs) && socket.error() == QAbstractSocket::ConnectionRefusedError;
}

bool DisplayReservations::insert(quint16 display)
{
    const QMutexLocker locker(&mutex);
    if (displays.contains(display)) {
        return false;
    }
    displays.insert(display);
    return true;
}

void DisplayReservations::remove(quint16 display)
{
    const QMutexLocker locker(&mutex);
    displays.remove(display);
}

DisplayReservation::DisplayReservation(DisplayReservations *all_)
    : all(all_)
{
}

DisplayReservation::~DisplayReservation()
{
    release();
}

bool DisplayReservation::take(quint16 display)
{
    release();
    if (!all->insert(display)) {
        return false;
    }
    held = display;
    return true;
}

void DisplayReservation::release()
{
    if (held) {
        all->remove(*held);
        held.reset();
    }
}

std::optional<quint16> findOpenDisplay(quint16 base, quint16 limit, DisplayReservation *reservation)
{
    for (quint16 display = base; display != limit; ++display) {
        if (reservation && !reservation->take(display)) {
            continue;
        }
        if (isDisplayOpen(display)) {
            return display;
        }
    }
    if (reservation) {
        reservation->release();
    }
    return std::nullopt;
}
