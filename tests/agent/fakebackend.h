// SPDX-License-Identifier: MIT
#pragma once

#include "support/localendpoint.h"

#include <QByteArray>
#include <QLocalSocket>
#include <QObject>

#include <memory>
#include <vector>

/**
 * Replaces the X server's socket: accepts every connection without a password and then echoes what it receives. Can
 * also refuse, send nothing, or stop reading.
 */
class FakeBackend final : public QObject
{
public:
    enum class Manner { Echo, Refuse, Silent, DoNotRead };

    explicit FakeBackend(Manner manner_)
        : manner(manner_)
    {
        connect(&endpoint, &LocalEndpoint::accepted, this, &FakeBackend::accept);
    }

    [[nodiscard]] bool listen(const QString &path)
    {
        QString error;
        return endpoint.listen(path, &error);
    }

    std::vector<std::unique_ptr<QLocalSocket>> sockets;

private:
    void accept(int descriptor)
    {
        sockets.push_back(std::make_unique<QLocalSocket>());
        QLocalSocket *const socket = sockets.back().get();
        socket->setSocketDescriptor(descriptor);
        if (manner == Manner::Silent) {
            return;
        }
        // Version, security types and result at once, because the client's answers in between are always the same.
        socket->write(QByteArray("RFB 003.008\n") + QByteArray::fromHex("0101") +
                      QByteArray::fromHex(manner == Manner::Refuse ? "00000001" : "00000000"));
        if (manner == Manner::DoNotRead) {
            socket->setReadBufferSize(1);
            return;
        }
        connect(socket, &QLocalSocket::readyRead, this, [socket, skipped = qint64{0}]() mutable {
            constexpr qint64 kHandshakeBytes = 13;
            skipped += socket->skip(kHandshakeBytes - skipped);
            if (skipped == kHandshakeBytes) {
                socket->write(socket->readAll());
            }
        });
    }

    Manner manner;
    LocalEndpoint endpoint;
};
