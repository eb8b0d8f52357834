// SPDX-License-Identifier: MIT
#include "tests/testmain.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QMap>
#include <QTest>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace {

using Makers = QMap<QString, std::function<QObject *()>>;

Makers &makers()
{
    static Makers all;
    return all;
}

int runClass(const QString &name, int argc, char **argv)
{
    // Qt's own handler gets the stack from a debugger. If the handler itself crashes, it does so again and again.
    std::string noCrashHandler = "-nocrashhandler";
    std::vector<char *> arguments(argv, argv + argc);
    arguments.push_back(noCrashHandler.data());
    const std::unique_ptr<QObject> test(makers().value(name)());
    return QTest::qExec(test.get(), argc + 1, arguments.data());
}

} // namespace

bool addTestClass(const char *sourceFile, std::function<QObject *()> make)
{
    makers().insert(QFileInfo(QString::fromLocal8Bit(sourceFile)).baseName(), std::move(make));
    return true;
}

// Usage: PROGRAM [TEST [Qt Test arguments]]. Runs one class, or all of them in order of their names.
int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    const QString wanted = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QString();
    if (makers().contains(wanted)) {
        argv[1] = argv[0];
        return runClass(wanted, argc - 1, argv + 1);
    }
    if (!wanted.isEmpty() && !wanted.startsWith(u'-')) {
        std::fprintf(stderr, "There is no test named %s\n", argv[1]);
        return 2;
    }
    int failures = 0;
    for (const QString &name : makers().keys()) {
        failures += runClass(name, argc, argv);
    }
    return failures;
}
