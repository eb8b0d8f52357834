// SPDX-License-Identifier: MIT
#include "client/terminal/progress.h"

#include "client/terminal/console.h"
#include "client/terminal/textwidth.h"

#include <chrono>
#include <cstdio>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

/** Shorter work shows no progress line, because it would only flicker. */
constexpr auto kInterval = 200ms;

} // namespace

Progress::Progress(const QString &text_)
    : text(printable(text_))
{
    elapsed.start();
    if (Console::errorIsTerminal()) {
        QObject::connect(&timer, &QTimer::timeout, &timer, [this] { show(); });
        timer.start(kInterval);
    }
}

Progress::~Progress()
{
    if (isShown) {
        std::fputs("\r\x1b[K", stderr);
    }
}

void Progress::show()
{
    isShown = true;
    const QString time = QString::number(static_cast<double>(elapsed.elapsed()) / 1000, 'f', 1);
    const int width = Console::outputWidth();
    const QString line = u"%1… %2 s"_s.arg(text, time);
    std::fputs("\r\x1b[K", stderr);
    std::fputs((width > 1 ? elided(line, width - 1) : line).toUtf8().constData(), stderr);
}
