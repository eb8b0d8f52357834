// SPDX-License-Identifier: MIT
#pragma once

#include "client/terminal/console.h"

#include <json/value.h>

#include <QString>

/** What a viewer needs to get into a session. A plain value that holds a password: never to be logged. */
struct ConnectionOffer
{
    QString id;
    QString host; ///< where the port is
    quint16 port = 0;
    QString password;   ///< good for one connection
    QString geometry;   ///< WxH or "rootless"
    QString windowMode; ///< empty when the server did not say

    /** What the server answers to Live.Start, Live.Resume and Live.Replay; false when port or password lack. */
    [[nodiscard]] bool readAnswer(const Json::Value &answer);

    /** The form that --json prints: the documented and stable one. */
    [[nodiscard]] Json::Value toJson() const;

    /** Prints it for people, or as JSON for programs. */
    void print(Console &console, bool asJson) const;
};

/** Fails with what is to be said about an answer that makes no sense. */
bool failAnswer(Failure *failure);
