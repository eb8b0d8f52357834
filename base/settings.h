// SPDX-License-Identifier: MIT
#pragma once

#include <QString>
#include <QtGlobal>

/**
 * What the user can configure, in the native settings file of the application. Missing values have defaults;
 * port and display numbers are cut to 16 bits without a word. A plain value.
 */
struct Settings
{
    QString userPath;         ///< base directory of this host's state, expanded
    QString logLevel;         ///< a level's name; anything else means Info
    quint16 displayBase;      ///< first display number of new sessions
    quint16 displayLimit;     ///< how many display numbers there are
    QString sciUrl;           ///< where peers and clients find the sessions of this host, expanded
    int suspendTimeout;       ///< minutes without a client until a session is ended; negative: never
    quint16 listenPort;       ///< TCP; 0 lets the system choose
    quint16 broadcastPort;    ///< UDP; 0 turns discovery off
    QString broadcastAddress; ///< where discovery sends to

    /** The end of the display range, in 16 bits, where it may wrap around. */
    [[nodiscard]] quint16 displayEnd() const { return static_cast<quint16>(displayBase + displayLimit); }

    /** Reads everything once. Called on the main thread after the application object has its names. */
    [[nodiscard]] static Settings read();
};
