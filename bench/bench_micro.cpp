// SPDX-License-Identifier: MIT
// Measures the parts of a request and of a refresh one by one.
#include "contract/application.h"
#include "contract/geometry.h"
#include "engine/agentlog.h"
#include "engine/session.h"
#include "live/livemethods.h"
#include "live/sessioninfo.h"
#include "rpc/handler.h"
#include "rpc/netstring.h"
#include "support/json.h"

#include <QBuffer>
#include <QCoreApplication>
#include <QTemporaryFile>

#include <benchmark/benchmark.h>

using namespace Qt::StringLiterals;

namespace {

constexpr auto kGetVersion = R"({"jsonrpc":"2.0","id":1,"method":"Live.GetVersion"})";
constexpr qsizetype kLogBytes = 1024 * 1024;

void encodeFrame(benchmark::State &state)
{
    const QByteArray payload(state.range(0), 'x');
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(encodeNetString(payload));
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void decodeFrame(benchmark::State &state)
{
    const QByteArray frame = encodeNetString(QByteArray(state.range(0), 'x'));
    for ([[maybe_unused]] auto _ : state) {
        QByteArray buffer = frame;
        QByteArray payload;
        QString error;
        benchmark::DoNotOptimize(decodeNetString(buffer, payload, error));
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void handleRequest(benchmark::State &state)
{
    QBuffer device;
    Handler handler(&device, makeLiveMethods(nullptr), nullptr);
    const QByteArray payload(kGetVersion);
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(handler.processMessage(payload));
    }
}

QByteArray agentLog()
{
    QByteArray text("RDP initialized at '2026-01-31T11:59:00'\nScreen resized to '1280x800'\n");
    while (text.size() < kLogBytes) {
        text += "Added new password 0123456789abcdef\n"
                "Client authenticated from '192.0.2.17' at '2026-01-31T12:00:00' with password '0123456789abcdef'\n"
                "A line that means nothing to the server, as most of them do\n"
                "Client disconnected from '192.0.2.17' at '2026-01-31T12:30:00'\n";
    }
    return text;
}

void readLog(benchmark::State &state)
{
    QTemporaryFile file;
    if (!file.open() || file.write(agentLog()) < kLogBytes || !file.flush()) {
        state.SkipWithError("no log could be written");
        return;
    }
    for ([[maybe_unused]] auto _ : state) {
        Session session;
        QString error;
        if (!readAgentLog(&session, file.fileName(), &error)) {
            state.SkipWithError("the log could not be read");
        }
    }
    state.SetBytesProcessed(state.iterations() * file.size());
}

QList<SessionInfo> someSessions(qint64 count)
{
    Session session;
    session.windowMode = WindowMode::kDesktop;
    session.name = u"xterm"_s;
    session.started = QDateTime::currentDateTime();
    session.lastConnect = session.started;
    QList<SessionInfo> sessions;
    for (qint64 number = 0; number < count; ++number) {
        sessions.append(SessionInfo(u"%1"_s.arg(number, 32, 16, QChar(u'0')), QString(), session));
    }
    return sessions;
}

void writeListing(benchmark::State &state)
{
    const QList<SessionInfo> sessions = someSessions(state.range(0));
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(encodeNetString(writeJson(sessionListToJson(sessions))));
    }
}

} // namespace

BENCHMARK(encodeFrame)->Arg(64)->Arg(65536);
BENCHMARK(decodeFrame)->Arg(64)->Arg(65536);
BENCHMARK(handleRequest);
BENCHMARK(readLog)->Unit(benchmark::kMicrosecond);
BENCHMARK(writeListing)->Arg(1)->Arg(200)->Unit(benchmark::kMicrosecond);

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    nameApplication();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}
