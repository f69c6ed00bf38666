// Tests of the kernel fail on every broken rule that they did not provoke and name.
#pragma once

#include "machine.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

// The rules broken since the last look, in order; `detail` receives the last one's.
inline std::vector<std::string> BrokenRules(std::string* detail = nullptr)
{
    std::vector<std::string> rules;
    for (const machine::Violation& violation : machine::TakeViolations()) {
        rules.push_back(violation.rule);
        if (detail != nullptr) {
            *detail = violation.detail;
        }
    }
    return rules;
}

// Exactly one rule has been broken since the last look. Answers the detail.
inline std::string ExpectRule(const std::string& rule)
{
    std::string detail;
    EXPECT_THAT(BrokenRules(&detail), testing::ElementsAre(rule));
    return detail;
}

class KernelTest : public testing::Test
{
  protected:
    void SetUp() override
    {
        machine::TakeViolations();
        machine::PrintViolations(false);
    }
    void TearDown() override
    {
        machine::ClearFaults();
        EXPECT_THAT(BrokenRules(), testing::IsEmpty());
        machine::PrintViolations(true);
    }
};
