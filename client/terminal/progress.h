// SPDX-License-Identifier: MIT
#pragma once

#include <QElapsedTimer>
#include <QString>
#include <QTimer>

/**
 * Shows a text and the elapsed time in one line of the terminal, until its destruction erases the line. Work that ends
 * within 200 ms shows nothing, and neither does a standard error that is no terminal. Needs a running event loop.
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
