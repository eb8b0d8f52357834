// SPDX-License-Identifier: MIT
#include "base/filelogging.h"
#include "base/lockedfile.h"
#include "base/logging.h"
#include "server/qtmessages.h"
#include "server/qtsinglecoreapplication.h"

#include <QFile>

#include <cstdio>
#include <cstring>
#include <string>

#include <sys/resource.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

/*
 * The other process in tests. Writes one line to standard output for each step, and ends when its standard input
 * ends.
 *
 *   other_process lock FILE           locks the file and appends its standard input to it
 *   other_process log FILE NAME LINES BYTES
 *                                     opens the log, and writes so many lines after the first line of its input; the
 *                                     log is rotated at this size
 *   other_process single ID           asks twice whether another process holds the id
 *   other_process single-user ID UID  the same as the user UID; needs root
 *   other_process single-parent ID    the same, with a child process that goes on when this one has ended
 *   other_process single-twice ID     the same after another application object had the id
 *   other_process fatal TEXT          ends with this fatal message of Qt
 *   other_process fatal-logged TEXT   the same with a logger, which writes to standard output
 */

namespace {

void say(const std::string &line)
{
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

void waitForEndOfInput()
{
    while (std::getchar() != EOF) {
    }
}

int holdFileLock(const char *path)
{
    LockedFile file(QFile::decodeName(path));
    if (!file.open(QIODevice::WriteOnly | QIODevice::Append)) {
        return 1;
    }
    file.lockForWriting();
    say("locked");
    for (int c = std::getchar(); c != EOF; c = std::getchar()) {
        file.putChar(static_cast<char>(c));
    }
    return file.flush() ? 0 : 1;
}

int writeLog(char **argv)
{
    FileLogging logger;
    logger.setMaxBytes(std::stoll(argv[5]));
    QString error;
    if (!logger.open(QFile::decodeName(argv[2]), &error)) {
        return 1;
    }
    say("open");
    while (std::getchar() != '\n') {
    }
    for (int number = 0; number < std::stoi(argv[4]); ++number) {
        logger.log(LogInfo, u"%1 line %2"_s.arg(QString::fromLocal8Bit(argv[3])).arg(number));
    }
    return 0;
}

/** Starts a child that goes on when this process is killed. */
void startChild()
{
    const pid_t child = ::fork();
    if (child == 0) {
        ::close(STDIN_FILENO);
        ::close(STDOUT_FILENO);
        ::execlp("sleep", "sleep", "600", nullptr);
        ::_exit(1);
    }
    say(std::to_string(child));
}

class OutputLogger final : public Logging
{
public:
    void write(int level, const QString &text) override { say((levelName(level) + u": "_s + text).toStdString()); }
};

[[noreturn]] void endFatally(const char *text, bool isLogged)
{
    const rlimit noCoreFile = {};
    ::setrlimit(RLIMIT_CORE, &noCoreFile);
    OutputLogger logger;
    if (isLogged) {
        Logging::setInstance(&logger);
    }
    logQtMessages();
    qFatal("%s", text);
}

const char *answer(bool isRunning)
{
    return isRunning ? "taken" : "free";
}

int beSingle(const QString &id, int argc, char **argv)
{
    QtSingleCoreApplication application(id, argc, argv);
    say(answer(application.isRunning()));
    say(answer(application.isRunning()));
    if (std::strcmp(argv[1], "single-parent") == 0) {
        startChild();
    }
    waitForEndOfInput();
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 3) {
        return 2;
    }
    const std::string mode = argv[1];
    const QString argument = QString::fromLocal8Bit(argv[2]);
    if (mode == "lock") {
        return holdFileLock(argv[2]);
    }
    if (mode == "log") {
        return writeLog(argv);
    }
    if (mode == "fatal" || mode == "fatal-logged") {
        endFatally(argv[2], mode == "fatal-logged");
    }
    if (mode == "single-user" && ::setuid(static_cast<uid_t>(std::stoul(argv[3]))) != 0) {
        return 1;
    }
    if (mode == "single-twice") { // one object at a time
        QtSingleCoreApplication first(argument, argc, argv);
        say(answer(first.isRunning()));
    }
    return beSingle(argument, argc, argv);
}
