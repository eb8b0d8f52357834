// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

/** The datagram in which a server announces itself. A plain value; its functions are callable from any thread. */
struct Announcement
{
    QString method; ///< "HELLO" after the start of a server, "UPDATE" after a change of its sessions
    quint16 port;   ///< the TCP port of the sender's service
    QString user;   ///< the owner of the server

    [[nodiscard]] QByteArray toDatagram() const;

    /**
     * Reads a datagram.
     * @param isJson  set to whether the datagram is JSON at all
     * @return none if the datagram is not an announcement
     */
    [[nodiscard]] static std::optional<Announcement> fromDatagram(const QByteArray &datagram, bool *isJson);
};
