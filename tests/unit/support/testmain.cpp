// SPDX-License-Identifier: MIT
#include "testmain.h"

#include <QtCore/QCoreApplication>
#include <QtTest/QtTest>

#include <cstdio>
#include <cstdlib>

// Present only in builds that are instrumented for them.
extern "C" void __gcov_dump() __attribute__((weak));
extern "C" int __lsan_do_recoverable_leak_check() __attribute__((weak));

int runTest(int argc, char **argv, QObject *test)
{
    if (qgetenv("HOME") != "/sandbox/home") {
        std::fprintf(stderr, "%s: run this through script/sandbox\n", argv[0]);
        return EXIT_FAILURE;
    }
    int status = EXIT_FAILURE;
    {
        // Never destroyed: threads of the library may still use it.
        auto *application = new QCoreApplication(argc, argv);
        QCoreApplication::setApplicationName(QStringLiteral("unittest"));
        status = QTest::qExec(test, application->arguments());
    }
    std::fflush(nullptr);
    if (__gcov_dump)
        __gcov_dump();
    if (__lsan_do_recoverable_leak_check && __lsan_do_recoverable_leak_check() != 0)
        status = EXIT_FAILURE;
    std::_Exit(status);
}
