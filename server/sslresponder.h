// SPDX-License-Identifier: MIT
#pragma once

#include <QObject>

class HandlerFactory;

/**
 * Gives every connection of a TLS server its handler, which goes with the socket when the client does. Lives
 * on the main thread.
 */
class SslResponder : public QObject
{
    Q_OBJECT

public:
    /** @param factory  not owned */
    SslResponder(HandlerFactory *factory, QObject *parent);

public slots:
    /** Connected to the server's signal of the same name. */
    void newConnection();

private:
    HandlerFactory *factory;
};
