// ndisfilter-test.exe GROUP DRIVERS DEBUG-OUTPUT [SEED]: runs the tests of a group.
//
// DRIVERS is the directory of the .sys files, DEBUG-OUTPUT the file that the drivers' debug output is written to.
#include "suite.h"

#include <cstdio>

int wmain(int count, wchar_t** arguments)
{
    setvbuf(stdout, nullptr, _IONBF, 0);
    testing::InitGoogleTest(&count, arguments);
    if (count < 4) {
        fprintf(stderr, "usage: ndisfilter-test GROUP DRIVERS DEBUG-OUTPUT [SEED]\n");
        return 2;
    }
    testing::GTEST_FLAG(filter) = suite::Narrow(arguments[1]) + ".*";
    suite::options.drivers = arguments[2];
    suite::options.debugOutput = arguments[3];
    if (count > 4) {
        suite::options.seed = wcstoul(arguments[4], nullptr, 10);
    }
    return RUN_ALL_TESTS();
}
