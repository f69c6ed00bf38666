#include "serve.h"

#include "control-server.h"
#include "traffic.h"

#include <chrono>
#include <thread>

#include <fmt/format.h>

namespace lab
{

Report Serve(const LabOptions& options, const std::string& socketPath, const std::atomic<bool>& stop)
{
    ControlServer server(socketPath); // first: programs that are started together with the lab wait there
    const auto say = [&](const std::string& line) {
        if (!options.quiet) {
            fmt::print(stderr, "{}\n", line);
        }
    };
    return RunSession(options, [&](Lanes& lanes, Report& report) {
        const auto start = std::chrono::steady_clock::now();
        say("serving on " + socketPath);
        {
            const std::jthread replay([&] {
                Traffic(options, lanes, stop).Run(report);
                if (!stop && !options.captures.empty()) {
                    say(report.failures.empty() ? "the captures are through"
                                                : report.failures.back().message);
                }
            });
            server.Serve(stop, say);
        }
        report.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        report.notes.push_back(fmt::format("programs connected: {}", server.Programs()));
    });
}

} // namespace lab
