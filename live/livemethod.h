// SPDX-License-Identifier: MIT
#pragma once

#include "rpc/rpcmethod.h"

#include <QStringList>

#include <initializer_list>
#include <optional>

class SessionStore;

/**
 * What the methods on sessions have in common. They keep nothing but the registry, which they do not own, so
 * that one object may run on several pool threads at once.
 */
class LiveMethod : public RpcMethod
{
public:
    explicit LiveMethod(SessionStore *store);

protected:
    struct Parameter
    {
        const char *name;
        const char *description;
    };

    /** The texts for "system.describe"; a null @p returns says that there is no result. */
    [[nodiscard]] static Json::Value describeMethod(const char *description,
                                                    std::initializer_list<Parameter> parameters, const char *returns);

    /** The values of these parameters, all strings, by position or by name; nothing when they are not all there. */
    [[nodiscard]] static std::optional<QStringList> readParameters(const Json::Value &params,
                                                                   std::initializer_list<const char *> names);

    /*
     * Whole methods that take an "id" and differ in the registry's action alone.
     */
    using ConnectionAction = int (SessionStore::*)(const QString &id, QString &windowMode, QString &geometry,
                                                   QString &password, quint16 &port);
    using PlainAction = int (SessionStore::*)(const QString &id);
    /** Answers with what a client needs to connect. */
    [[nodiscard]] bool answerConnection(const Json::Value &params, ConnectionAction action, Json::Value &result);
    /** Answers with null. */
    [[nodiscard]] bool answerNothing(const Json::Value &params, PlainAction action, Json::Value &result);

    /** Leave the error object in @p result and return false, as execute() does on failure. */
    [[nodiscard]] static bool failParameters(Json::Value &result);
    [[nodiscard]] static bool failSession(int code, Json::Value &result);

    SessionStore *store;
};
