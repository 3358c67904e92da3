// SPDX-License-Identifier: MIT
#ifndef TESTMAIN_H
#define TESTMAIN_H

#include <QtCore/QObject>

/**
 * Runs the test functions of @p test in a QCoreApplication named "unittest" and ends the process
 * with _Exit, since a library object whose threads run cannot be destroyed. Refuses to run outside
 * script/sandbox, where a test could touch the machine's own documents and network.
 */
int runTest(int argc, char **argv, QObject *test);

#define HOPLANE_TEST_MAIN(TestClass) \
    int main(int argc, char **argv) \
    { \
        TestClass test; \
        return runTest(argc, argv, &test); \
    }

#endif
