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
 * Serves JSON-RPC 2.0 on one byte stream: reads NetString frames, runs one request at a time on the global thread pool
 * and writes the answers in the order of the requests. It is also the method "system.describe", and holds the server's
 * idle timer while it exists.
 *
 * Lives on the main thread, which does all reading and writing. Its memory is bounded, whatever the peer does: it takes
 * the next request only when the last one is answered and the peer reads its answers.
 */
class Handler : public QObject, public RpcMethod
{
    Q_OBJECT

public:
    /**
     * @param device   the open stream; must outlive the handler, or be its parent
     * @param methods  by exact name; the handler takes ownership of them
     */
    Handler(QIODevice *device, const QMap<QString, RpcMethod *> &methods, QObject *parent);
    /** Waits for a request that is still running. */
    ~Handler() override;

    /**
     * Handles the payload of one frame. Runs on a pool thread.
     * @return the answer as a frame; empty if there is none to send
     */
    [[nodiscard]] QByteArray processMessage(const QByteArray &payload);

    bool execute(const Json::Value &params, Json::Value &result) override;
    [[nodiscard]] Json::Value describe() const override;

public slots:
    /**
     * Pushes one whole frame to the peer. A lagging peer gets only the newest frame, once it has caught up: each frame
     * contains the whole state, so the older ones are useless.
     */
    void writeToDevice(QByteArray msg);

    /**
     * Called when the peer is gone. Deletes the device, and so the handler, once no request runs any more. A request
     * may take half a minute, and waiting for it in the destructor would block all other connections.
     */
    void retire();

private slots:
    void Device_readyRead();
    void Watcher_finished();
    void Device_bytesWritten();

private:
    /** Whether the peer has too many unread answers. If so, goOnAfterLag() is called once it has caught up. */
    [[nodiscard]] bool peerLags();
    void goOnAfterLag();
    void startRequest(const QByteArray &payload);
    [[nodiscard]] Json::Value processBatch(const Json::Value &requests);
    [[nodiscard]] Json::Value handleRequest(const Json::Value &request);
    [[nodiscard]] static Json::Value makeErrorResponse(const Json::Value &error, const Json::Value &id);

    QIODevice *device;
    QByteArray buffer;                  ///< received, but no frame taken from it yet
    QFutureWatcher<void> *watcher;      ///< void, because a result would wake the main thread twice
    QByteArray answer;                  ///< to the running request; its thread writes this
    bool retired = false;               ///< no further request is taken
    bool busy = false;                  ///< a request runs or its answer is not written yet
    bool isHeldUp = false;              ///< goOnAfterLag() has to be called once the peer has caught up
    QMap<QString, RpcMethod *> methods; ///< not changed once the first request has started
    QByteArray pendingUpdate;           ///< the newest frame, held back from a lagging peer
};
