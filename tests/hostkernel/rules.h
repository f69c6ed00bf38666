// Tests of the kernel fail on every broken rule that they did not provoke and name.
#pragma once

#include "machine.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

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
        machine::PrintViolations(true);
        for (const machine::Violation& violation : machine::TakeViolations())
            ADD_FAILURE() << violation.rule << " in " << violation.function << ": " << violation.detail;
    }
    // Exactly one rule has been broken since the last look. Answers the detail.
    static std::string ExpectRule(const std::string& rule)
    {
        std::vector<machine::Violation> violations = machine::TakeViolations();
        if (violations.size() != 1 || violations[0].rule != rule) {
            ADD_FAILURE() << "expected " << rule << ", got " << violations.size() << " violations"
                          << (violations.empty() ? "" : ", first " + violations[0].rule);
            return {};
        }
        return violations[0].detail;
    }
};
