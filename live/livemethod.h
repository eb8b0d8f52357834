// SPDX-License-Identifier: MIT
#pragma once

#include "rpc/rpcmethod.h"

#include <QStringList>

#include <span>

class LiveMethod;
class SessionStore;

/** An entry of the table of methods. A constant that lives as long as the program. */
struct LiveMethodEntry
{
    /** Every parameter is a string. */
    struct Parameter
    {
        const char *name;
        const char *description;
    };

    const char *name;                                                       ///< as clients call it
    LiveMethod *(*make)(const LiveMethodEntry &entry, SessionStore *store); ///< a new object of the method's class
    const char *description;
    std::span<const Parameter> parameters;
    const char *returns; ///< describes the answer; null if the answer is always null
};

/**
 * What the methods on sessions have in common: it reads the parameters, describes the method and makes the error
 * objects. A method keeps only its entry and the SessionStore, which it does not own, so one object may run on several
 * pool threads at once.
 */
class LiveMethod : public RpcMethod
{
public:
    LiveMethod(const LiveMethodEntry &entry, SessionStore *store);

    bool execute(const Json::Value &params, Json::Value &result) final;
    [[nodiscard]] Json::Value describe() const final;

protected:
    /**
     * Carries out the method. May block; called on a pool thread.
     * @param values  the parameters in the order of the entry
     * @param result  null on entry; the answer, ignored on failure
     * @return SessionOk or a SessionError
     */
    [[nodiscard]] virtual int act(const QStringList &values, Json::Value *result) = 0;

    SessionStore *const store;

private:
    const LiveMethodEntry &entry;
};
