// SPDX-License-Identifier: MIT
#pragma once

#include <QObject>
#include <QString>

/**
 * A viewer that has been let in, with its own connection to the X server. Owned by the front door, lives on the main
 * thread.
 */
class ViewerClient : public QObject
{
    Q_OBJECT

public:
    /** @param address  the viewer's, as the log names it */
    explicit ViewerClient(QString address, QObject *parent = nullptr)
        : QObject(parent)
        , peer(std::move(address))
    {
    }

    /** Connects to the X server's socket at @p backendPath. ended() follows, never during this call. */
    virtual void start(const QString &backendPath) = 0;

    [[nodiscard]] const QString &address() const { return peer; }

signals:
    /** The viewer is disconnected. Emitted once. @p reason is a few words to log. */
    void ended(const QString &reason);

private:
    const QString peer;
};
