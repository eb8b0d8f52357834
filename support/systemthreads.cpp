// SPDX-License-Identifier: MIT
#include "support/systemthreads.h"

#include <QSemaphore>

#include <system_error>
#include <thread>
#include <vector>

using namespace Qt::StringLiterals;

bool canHaveThreads(int count, QString *error)
{
    QSemaphore end;
    std::vector<std::thread> threads;
    bool succeeded = true;
    try {
        for (int number = 0; number < count; ++number) {
            threads.emplace_back([&end] { end.acquire(); });
        }
    } catch (const std::system_error &failure) {
        *error = u"Failed to start a thread: %1"_s.arg(QString::fromLocal8Bit(failure.code().message().c_str()));
        succeeded = false;
    }
    end.release(static_cast<int>(threads.size()));
    for (std::thread &thread : threads) {
        thread.join();
    }
    return succeeded;
}
