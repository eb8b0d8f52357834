// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QProcess>
#include <QStringList>

/** Runs the program of main_otherprocess.cpp. Used on the main thread. */
class OtherProcess final
{
public:
    /** Starts the program. @p temporaryPath, if not empty, is its temporary directory. */
    explicit OtherProcess(const QStringList &arguments, const QString &temporaryPath = QString());
    ~OtherProcess();
    Q_DISABLE_COPY_MOVE(OtherProcess)

    /** The next line of its output, without the line end; null after its end or a timeout. */
    [[nodiscard]] QByteArray nextLine();
    void send(const QByteArray &bytes);
    /** Closes its standard input and waits for its end. */
    [[nodiscard]] bool finish();
    /** Kills the program and waits for its end. */
    [[nodiscard]] bool kill();

private:
    QProcess process;
};
