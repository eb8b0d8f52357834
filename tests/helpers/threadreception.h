// SPDX-License-Identifier: MIT
#pragma once

#include "agent/confined/tlsidentity.h"
#include "agent/door/reception.h"

#include <QByteArray>
#include <QList>
#include <QString>

#include <memory>
#include <mutex>
#include <thread>
#include <vector>

/**
 * Receives visitors as the confined processes do, but in threads of this process. Can also fail on demand. Its threads
 * end with it.
 */
class ThreadReception final : public Reception
{
public:
    ThreadReception();
    ~ThreadReception() override;
    Q_DISABLE_COPY_MOVE(ThreadReception)

    void setCertificate(const QByteArray &pem) override;
    [[nodiscard]] bool receive(const VisitorOrder &order, int client, int control, QString *error) override;
    void end(quint32 id) override;

    /** What receive() fails with from now on; empty: it does not fail. */
    QString failure;
    /** The PEM texts that setCertificate() got. */
    QList<QByteArray> certificates;
    /** How many visitors it has received. */
    int receivedCount = 0;

private:
    struct Visit
    {
        quint32 id = 0;
        int client = -1;  ///< -1 once the thread has closed it
        int control = -1; ///< likewise
        std::thread thread;
    };

    void breakOff(Visit *visit);

    std::shared_ptr<const TlsIdentity> identity;
    std::mutex mutex; ///< guards the descriptors: the threads close them
    std::vector<std::unique_ptr<Visit>> visits;
};
