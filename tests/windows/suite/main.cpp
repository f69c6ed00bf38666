// ndisfilter-test.exe GROUP DRIVERS DEBUG-OUTPUT [SEED]: runs the tests of a group, one line each.
//
// DRIVERS is the directory of the .sys files, DEBUG-OUTPUT the file that the drivers' debug output is written
// to. Ends with the line "N passed, N failed, N skipped" and answers 1 when a test failed or none ran.
#include "suite.h"

#include <cstdio>

namespace suite
{

namespace
{

struct Case {
    std::string group;
    const char* name;
    Test test;
};

std::vector<Case>& Cases()
{
    static std::vector<Case> cases;
    return cases;
}

struct Tally {
    int passed = 0;
    int failed = 0;
    int skipped = 0;
};

void Run(const Case& test, Tally& tally)
{
    const ULONGLONG begin = GetTickCount64();
    try {
        test.test();
        ++tally.passed;
        printf("passed   %s.%s (%llu ms)\n", test.group.c_str(), test.name, GetTickCount64() - begin);
    } catch (const Skipped& reason) {
        ++tally.skipped;
        printf("skipped  %s.%s: %s\n", test.group.c_str(), test.name, reason.what());
    } catch (const std::exception& failure) {
        ++tally.failed;
        printf("FAILED   %s.%s: %s\n", test.group.c_str(), test.name, failure.what());
    }
}

} // namespace

Registration::Registration(const char* group, const char* name, Test test)
{
    Cases().push_back({group, name, test});
}

} // namespace suite

int wmain(int count, wchar_t** arguments)
{
    setvbuf(stdout, nullptr, _IONBF, 0);
    if (count < 4) {
        fprintf(stderr, "usage: ndisfilter-test GROUP DRIVERS DEBUG-OUTPUT [SEED]\n");
        return 2;
    }
    const std::wstring wanted = arguments[1];
    suite::options.drivers = arguments[2];
    suite::options.debugOutput = arguments[3];
    if (count > 4) {
        suite::options.seed = wcstoul(arguments[4], nullptr, 10);
    }

    suite::Tally tally;
    for (const suite::Case& test : suite::Cases()) {
        if (std::wstring(test.group.begin(), test.group.end()) == wanted) {
            suite::Run(test, tally);
        }
    }
    printf("%d passed, %d failed, %d skipped\n", tally.passed, tally.failed, tally.skipped);
    return tally.failed == 0 && tally.passed > 0 ? 0 : 1;
}
