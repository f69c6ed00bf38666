// The transport of the host, loaded for a test and unloaded behind it. A test fails when it breaks a rule of the kernel that
// it did not ask for, or leaves anything behind.
#pragma once

#include "echo-client.h"

#include "support/framework.h"

#include <tdi-client.h>

class TdiTest : public testing::Test
{
  protected:
    void SetUp() override
    {
        machine::TakeViolations();
        machine::PrintViolations(false);
        before_ = machine::TakeCensus();
        ASSERT_EQ(machine::LoadTransport(), STATUS_SUCCESS);
    }
    void TearDown() override
    {
        machine::ClearFaults();
        machine::ClearTransportAnswers();
        machine::CheckReturnToUser("the end of the test");
        EXPECT_TRUE(machine::WaitIdle());
        EXPECT_EQ(machine::UnloadTransport(), STATUS_SUCCESS);
        for (const machine::Violation& violation : machine::TakeViolations()) {
            ADD_FAILURE() << violation.rule << " in " << violation.function << ": " << violation.detail;
        }
        const machine::Census after = machine::TakeCensus();
        EXPECT_TRUE(after == before_) << "left behind: " << machine::DescribeCensus(after)
                                      << "\nbefore: " << machine::DescribeCensus(before_);
        machine::PrintViolations(true);
    }

  private:
    machine::Census before_;
};
