// SPDX-License-Identifier: MIT
#pragma once

#include <QList>
#include <QObject>
#include <QSocketNotifier>

#include <memory>

/**
 * For as long as it lives, SIGINT, SIGTERM and SIGHUP do not end the program on the spot: they end the wait that is
 * going on, as if its time were over, so that what was made is cleaned up. A later wait is none of theirs. At the end
 * of its life the signal that has come ends the program. Signals that the program was started to ignore stay ignored.
 * One at a time; used on the main thread.
 */
class Interruption : public QObject
{
    Q_OBJECT

public:
    explicit Interruption(QObject *parent = nullptr);
    ~Interruption() override;

    /** The one that lives; null when there is none. */
    [[nodiscard]] static Interruption *current();

    [[nodiscard]] bool hasCome() const { return number != 0; }

signals:
    void came();

private:
    void Notifier_activated();

    int ends[2] = {-1, -1}; ///< the handler's and ours
    std::unique_ptr<QSocketNotifier> notifier;
    QList<int> caught;
    int number = 0; ///< of the signal that has come
};
