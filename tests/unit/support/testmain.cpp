// SPDX-License-Identifier: MIT
#include "testmain.h"

#include <QtCore/QCoreApplication>
#include <QtTest/QtTest>

#include <cstdio>
#include <cstdlib>

// Present only in builds that are instrumented for it.
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
    if (__lsan_do_recoverable_leak_check && __lsan_do_recoverable_leak_check() != 0)
        status = EXIT_FAILURE;
#ifdef HOPLANE_COVERAGE
    // The library's counts are written at its unloading, which comes before Qt's.
    std::exit(status);
#else
    std::_Exit(status);
#endif
}
