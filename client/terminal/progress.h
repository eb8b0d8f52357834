// SPDX-License-Identifier: MIT
#pragma once

#include <QElapsedTimer>
#include <QString>
#include <QTimer>

/**
 * Shows on the terminal that something goes on, from a moment after its construction until its destruction, when
 * the line is wiped. Shows nothing when standard error is no terminal. Needs a running event loop.
 */
class Progress
{
public:
    explicit Progress(const QString &text);
    ~Progress();
    Q_DISABLE_COPY_MOVE(Progress)

private:
    void show();

    const QString text;
    QTimer timer;
    QElapsedTimer elapsed;
    bool isShown = false;
};
