// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

/** What one server tells the others in a datagram. A plain value; its functions are callable from any thread. */
struct Announcement
{
    QString method; ///< "HELLO" of a server that has just started, "UPDATE" when its sessions changed
    quint16 port;   ///< the TCP port of the sender's service
    QString user;   ///< whose server it is

    [[nodiscard]] QByteArray toDatagram() const;

    /**
     * Reads a datagram.
     * @param isJson  set to whether it was JSON at all
     * @return nothing for anything but an announcement
     */
    [[nodiscard]] static std::optional<Announcement> fromDatagram(const QByteArray &datagram, bool *isJson);
};
