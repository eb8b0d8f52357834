// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <QtGlobal>

struct VisitorOrder;

/**
 * Receives visitors outside of this process. An interface, because tests receive them in threads. Used on the main
 * thread.
 */
class Reception
{
public:
    Reception() = default;
    virtual ~Reception() = default;
    Q_DISABLE_COPY_MOVE(Reception)

    /** The certificate in PEM form that visitors see from now on; empty: there is none. */
    virtual void setCertificate(const QByteArray &pem) = 0;

    /**
     * Has a visitor received.
     *
     * @param client   the visitor's socket, non-blocking; stays the caller's
     * @param control  the other end of the caller's control socket; stays the caller's
     * @param error    set only on failure: one sentence
     */
    [[nodiscard]] virtual bool receive(const VisitorOrder &order, int client, int control, QString *error) = 0;

    /** Ends the process of a visitor, if it still runs. */
    virtual void end(quint32 id) = 0;
};
