#include "replay.h"

#include "traffic.h"

#include <algorithm>

namespace lab
{

Report Replay(const LabOptions& options, const std::atomic<bool>& stop)
{
    return RunSession(options, [&](Lanes& lanes, Report& report) {
        Traffic(options, lanes, stop).Run(report);
        const auto isStall = [](const Failure& failure) { return failure.code == ExitCode::Stalled; };
        if (stop && std::ranges::none_of(report.failures, isStall)) {
            report.Fail(ExitCode::Interrupted, "interrupted; the numbers are those up to then");
        }
    });
}

} // namespace lab
