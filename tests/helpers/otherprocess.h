// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QProcess>
#include <QStringList>

/** The test's end of a process as described in main_otherprocess.cpp. Used on the main thread. */
class OtherProcess final
{
public:
    /** Starts it; @p temporaryPath, if not empty, is its directory for temporary files. */
    explicit OtherProcess(const QStringList &arguments, const QString &temporaryPath = QString());
    ~OtherProcess();
    Q_DISABLE_COPY_MOVE(OtherProcess)

    /** Its next line, without the line end; null when it has ended or says nothing for too long. */
    [[nodiscard]] QByteArray nextLine();
    void send(const QByteArray &bytes);
    /** Ends its standard input and waits for its end. */
    [[nodiscard]] bool finish();
    /** Kills it and waits for its end. */
    [[nodiscard]] bool kill();

private:
    QProcess process;
};
