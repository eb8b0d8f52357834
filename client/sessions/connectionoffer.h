// SPDX-License-Identifier: MIT
#pragma once

#include "client/terminal/console.h"

#include <json/value.h>

#include <QString>

/** What a viewer needs to connect to a session. A plain value; never log it, because it holds a password. */
struct ConnectionOffer
{
    QString id;
    QString host; ///< the host of the port
    quint16 port = 0;
    QString password;   ///< good for one connection
    QString geometry;   ///< WxH or "rootless"
    QString windowMode; ///< empty if the answer has none

    /** Reads the answer to Live.Start, Live.Resume or Live.Replay. Returns false if it has no port or no password. */
    [[nodiscard]] bool readAnswer(const Json::Value &answer);

    /** The form that --json prints. It is documented, so it must stay. */
    [[nodiscard]] Json::Value toJson() const;

    /** Prints it as lines for people, or as JSON. */
    void print(Console &console, bool asJson) const;
};

/** Fails because the server's answer has not the expected form. */
bool failAnswer(Failure *failure);
