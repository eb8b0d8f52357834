// SPDX-License-Identifier: MIT
#pragma once

#include <QObject>

class HandlerFactory;

/**
 * Gives each connection of a TLS server its handler. Handler and socket are deleted after the client has gone. Lives on
 * the main thread.
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
