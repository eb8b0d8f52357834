// SPDX-License-Identifier: MIT
#include "fuzz/environment.h"
#include "fuzz/mutation.h"
#include "fuzz/target.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <csignal>
#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

/** Makes every finding end in abort(), because the handler of SIGABRT keeps the input. */
extern "C" const char *__asan_default_options()
{
    return "abort_on_error=1";
}

extern "C" const char *__ubsan_default_options()
{
    return "abort_on_error=1:print_stacktrace=1";
}

namespace {

QByteArray current;
QByteArray findingFile;

/** Writes the present input to a file. Calls only functions that a signal handler may call. */
void writeFinding(int)
{
    const int file = ::open(findingFile.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const bool written = ::write(file, current.constData(), static_cast<size_t>(current.size())) == current.size();
    static constexpr char kWritten[] = "The input is kept in the working directory, as fuzz-finding-TARGET.\n";
    if (written && ::write(STDERR_FILENO, kWritten, sizeof kWritten - 1) > 0) {
        ::close(file);
    }
}

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        qFatal("Failed to open %s", qPrintable(path));
    }
    return file.readAll();
}

QByteArrayList contentsOf(const QString &directory)
{
    QByteArrayList contents;
    const QFileInfoList files = QDir(directory).entryInfoList(QDir::Files, QDir::Name);
    for (const QFileInfo &file : files) {
        contents.append(contentOf(file.filePath()));
    }
    return contents;
}

void replay(FuzzFunction target, const QByteArray &input)
{
    current = input;
    target(input);
}

void replayAll(FuzzFunction target, const QDir &folder, const QString &name, unsigned mutations)
{
    const QByteArrayList inputs = contentsOf(folder.filePath(u"corpus/"_s + name));
    if (inputs.isEmpty()) {
        qFatal("There are no inputs for %s", qPrintable(name));
    }
    for (const QByteArray &input : inputs) {
        replay(target, input);
    }
    const QByteArrayList words = dictionaryWords(contentOf(folder.filePath(u"dict/%1.dict"_s.arg(name))));
    for (unsigned number = 0; number < mutations; ++number) {
        replay(target, mutatedInput(inputs, words, number));
    }
}

} // namespace

// Usage:
//
//   PROGRAM TARGET FOLDER MUTATIONS
//     Replays the kept inputs and then MUTATIONS changed ones.
//
//   PROGRAM TARGET FILE
//     Replays one input.
int main(int argc, char **argv)
{
    FuzzEnvironment environment(argc, argv);
    const QString name = QString::fromLocal8Bit(argc > 1 ? argv[1] : "");
    const FuzzFunction target = fuzzTarget(name);
    if (!target || argc < 3) {
        std::fprintf(stderr, "Usage: %s TARGET FOLDER MUTATIONS | TARGET FILE\n", argv[0]);
        return 2;
    }
    findingFile = "fuzz-finding-" + QFile::encodeName(name);
    ::signal(SIGABRT, writeFinding);
    const QString path = QString::fromLocal8Bit(argv[2]);
    if (argc > 3) {
        replayAll(target, QDir(path), name, QByteArray(argv[3]).toUInt());
    } else {
        replay(target, contentOf(path));
    }
    return 0;
}
