// SPDX-License-Identifier: MIT
#pragma once

#include "rpc/rpcmethod.h"

#include <QByteArray>
#include <QFutureWatcher>
#include <QMap>
#include <QObject>
#include <QString>

class QIODevice;

/**
 * Serves JSON-RPC 2.0 on one byte stream: takes NetString frames from it, runs one request at a time on the
 * global thread pool and writes the answers in the order of the requests. It is itself the method
 * "system.describe", and while it lives it holds the server's idle timer.
 *
 * Lives on the main thread, which does all reading and writing. What the peer can make it keep is bounded: a
 * request is taken up only when its predecessor is answered and the peer reads its answers.
 */
class Handler : public QObject, public RpcMethod
{
    Q_OBJECT

public:
    /**
     * @param device   the open stream; must outlive the handler, or be its parent
     * @param methods  by exact name; the handler takes ownership of the objects
     */
    Handler(QIODevice *device, const QMap<QString, RpcMethod *> &methods, QObject *parent);
    /** Waits for a request that is still running. */
    ~Handler() override;

    /** The payload of one frame in, the framed answer out; empty when none is due. Runs on a pool thread. */
    [[nodiscard]] QByteArray processMessage(const QByteArray &payload);

    bool execute(const Json::Value &params, Json::Value &result) override;
    [[nodiscard]] Json::Value describe() const override;

public slots:
    /**
     * Pushes one whole frame to the peer. To a peer that lags behind only the newest frame is sent, once it has
     * caught up: every frame tells the whole state, so an older one is of no use any more.
     */
    void writeToDevice(QByteArray msg);

    /**
     * The peer is gone: deletes the device, and the handler with it, as soon as no request runs any more. A request
     * may take half a minute, for which the destructor would hold up every other connection.
     */
    void retire();

private slots:
    void Device_readyRead();
    void Watcher_finished();
    void Device_bytesWritten();

private:
    /** Whether the peer has too much to read; if so, goOnAfterLag() follows once it has not. */
    [[nodiscard]] bool peerLags();
    void goOnAfterLag();
    void startRequest(const QByteArray &payload);
    [[nodiscard]] Json::Value processBatch(const Json::Value &requests);
    [[nodiscard]] Json::Value handleRequest(const Json::Value &request);
    [[nodiscard]] static Json::Value makeErrorResponse(const Json::Value &error, const Json::Value &id);

    QIODevice *device;
    QByteArray buffer;             ///< received and not yet taken as a frame
    QFutureWatcher<void> *watcher; ///< of the request; a future with a result would wake the main thread twice
    QByteArray answer;             ///< the request's; written by its thread while it runs
    bool retired = false;          ///< nothing is taken up any more
    bool busy = false;             ///< from the start of a request until its answer is written; the future ends earlier
    bool isHeldUp = false;         ///< the peer lagged when it was looked at; goOnAfterLag() is due once it does not
    QMap<QString, RpcMethod *> methods; ///< only read once the first request has started
    QByteArray pendingUpdate;           ///< the newest frame that a lagging peer has still to get
};
