// SPDX-License-Identifier: MIT
#include "tests/helpers/otherprocess.h"

#include <QCoreApplication>
#include <QDir>

using namespace Qt::StringLiterals;

namespace {

constexpr int kPatienceMs = 30000;

} // namespace

OtherProcess::OtherProcess(const QStringList &arguments, const QString &temporaryPath)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    if (!temporaryPath.isEmpty()) {
        environment.insert(u"TMPDIR"_s, temporaryPath);
    }
    process.setProcessEnvironment(environment);
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.start(QDir(QCoreApplication::applicationDirPath()).filePath(u"../other_process"_s), arguments);
}

OtherProcess::~OtherProcess()
{
    [[maybe_unused]] const bool ended = kill();
}

QByteArray OtherProcess::nextLine()
{
    while (!process.canReadLine()) {
        if (!process.waitForReadyRead(kPatienceMs)) {
            return {};
        }
    }
    return process.readLine().chopped(1);
}

void OtherProcess::send(const QByteArray &bytes)
{
    process.write(bytes);
    process.waitForBytesWritten(kPatienceMs);
}

bool OtherProcess::finish()
{
    process.closeWriteChannel();
    return process.waitForFinished(kPatienceMs) && process.exitStatus() == QProcess::NormalExit &&
           process.exitCode() == 0;
}

bool OtherProcess::kill()
{
    if (process.state() == QProcess::NotRunning) {
        return true;
    }
    process.kill();
    return process.waitForFinished(kPatienceMs);
}
