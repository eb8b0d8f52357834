// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QtGlobal>

#include <optional>

/** Changes an environment variable and restores it when it is destroyed. Used on the main thread. */
class EnvironmentVariable final
{
public:
    /** Without a value it unsets the variable. */
    explicit EnvironmentVariable(const QByteArray &name_, const std::optional<QByteArray> &value = std::nullopt)
        : name(name_)
    {
        if (qEnvironmentVariableIsSet(name.constData())) {
            previous = qgetenv(name.constData());
        }
        set(value);
    }
    ~EnvironmentVariable() { set(previous); }
    Q_DISABLE_COPY_MOVE(EnvironmentVariable)

private:
    void set(const std::optional<QByteArray> &value) const
    {
        if (value) {
            qputenv(name.constData(), *value);
        } else {
            qunsetenv(name.constData());
        }
    }

    const QByteArray name;
    std::optional<QByteArray> previous;
};
