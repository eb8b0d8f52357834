// SPDX-License-Identifier: MIT
#pragma once

#include "rpc/rpcmethod.h"

#include <QStringList>

#include <span>

class LiveMethod;
class SessionStore;

/** What the table of methods says of one method. A constant that lives as long as the program. */
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
    const char *returns; ///< what the answer is; null when it is always null
};

/**
 * What the methods on sessions have in common: the parameters, the description, the error objects. A method keeps
 * nothing but its entry and the SessionStore, which it does not own, so that one object may run on several pool threads
 * at once.
 */
class LiveMethod : public RpcMethod
{
public:
    LiveMethod(const LiveMethodEntry &entry, SessionStore *store);

    bool execute(const Json::Value &params, Json::Value &result) final;
    [[nodiscard]] Json::Value describe() const final;

protected:
    /**
     * Does what the method is for.
     * @param values  the parameters in the order of the entry
     * @param result  null on entry; the answer, which counts only on success
     * @return SessionOk or a SessionError
     */
    [[nodiscard]] virtual int act(const QStringList &values, Json::Value *result) = 0;

    SessionStore *const store;

private:
    const LiveMethodEntry &entry;
};
