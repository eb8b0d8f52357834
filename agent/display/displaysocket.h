// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

#include <sys/stat.h>

/**
 * The local socket by which programs reach a display, made by us so that its names are ours before the X server runs.
 * The X server inherits it.
 *
 * Programs try the abstract name first, and then the file of the same name. An abstract name has no owner, so every
 * user of the machine could connect, and 256 connections without a cookie are all that an X server takes. So the name
 * is taken but refuses connections, and the X server listens at the file, which only this user can connect to.
 *
 * If somebody else owns the folder of the files, or the file, he could put his own socket there. Then the X server
 * listens at the abstract name alone: programs find it there and never try the file. Owned by XServer.
 */
class DisplaySocket final
{
public:
    /** @param folder  where programs look for the sockets of displays; tests use another one */
    explicit DisplaySocket(QString folder);
    /** Removes the file. */
    ~DisplaySocket();
    Q_DISABLE_COPY_MOVE(DisplaySocket)

    /**
     * Takes the names of @p display and listens. Called once.
     *
     * @param error  set only on failure: one sentence
     */
    [[nodiscard]] bool listen(quint16 display, QString *error);

    /** The listening socket, until handedOver(). */
    [[nodiscard]] int descriptor() const { return listener; }
    /** Closes our copy of the listening socket, so that programs are refused once the X server has ended. */
    void handedOver();

    /** Why every user of the machine can connect, as one sentence; empty when only this user can. */
    [[nodiscard]] const QString &weakness() const { return reason; }

private:
    bool listenAtFile(QString *error);
    [[nodiscard]] bool prepareFolder(QString *error) const;

    QString folder;
    QString path;
    int listener = -1;
    int abstractName = -1; ///< keeps the name from others
    std::optional<struct stat> file;
    QString reason;
};
