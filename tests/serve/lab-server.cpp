#include "lab-server.h"

#include <filesystem>

#include <gtest/gtest.h>

using support::Program;
using support::ProgramResult;

LabServer::LabServer(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), "serve");
    arguments.insert(arguments.end(), {"--json", "--socket", Socket()});
    program_ = std::make_unique<Program>(NDISFILTER_LAB, arguments, directory_.Path());
    EXPECT_TRUE(Eventually([&] { return HasSaid("serving on " + Socket()) || program_->HasEnded(); }));
    EXPECT_FALSE(program_->HasEnded()) << Errors();
}

LabServer::~LabServer()
{
    if (program_ != nullptr) {
        Stop();
    }
}

nlohmann::json LabServer::Stop(int signal)
{
    program_->Signal(signal);
    const ProgramResult result = program_->Wait();
    program_ = nullptr;
    EXPECT_EQ(result.exitCode, 0) << result.errors;
    EXPECT_FALSE(std::filesystem::exists(Socket()));
    nlohmann::json report = result.Json();
    EXPECT_TRUE(report["balance"]["holds"]);
    EXPECT_EQ(report["balance"]["stillOut"], 0);
    return report;
}

bool LabServer::HasSaid(const std::string& text) const
{
    return Errors().find(text) != std::string::npos;
}

std::unique_ptr<ndisfilter::Device> LabServer::Open() const
{
    std::string error;
    auto device = ndisfilter::OpenDevice(Socket(), &error);
    EXPECT_NE(device, nullptr) << error;
    return device;
}

ProgramResult LabServer::Ctl(std::vector<std::string> arguments,
                             const std::function<bool()>& interruptWhen) const
{
    arguments.insert(arguments.begin(), {"--device", Socket()});
    return support::RunProgram(NDISFILTERCTL, arguments, ctlDirectory_.Path(), interruptWhen);
}

ProgramResult LabServer::Shell(const std::string& line) const
{
    const std::string script = "ctl='" NDISFILTERCTL " --device " + Socket() + "'\nset -o pipefail\n" + line;
    return support::RunProgram("bash", {"-c", script}, ctlDirectory_.Path());
}
