// The camfetch tool's contract as a user meets it: exit codes and the one-line causes.
#include <gtest/gtest.h>

#include "process.h"

namespace {

using testsupport::RunCommand;

testsupport::CommandResult Tool(std::vector<std::string> args) {
    args.insert(args.begin(), CAMFETCH_TOOL);
    return RunCommand(args, 120);
}

TEST(ToolCli, BadArgumentsExitTwo) {
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"grab", "rtsp://127.0.0.1/"},
             {"fetch", "gopher://127.0.0.1/"},
             {"fetch", "rtsp://127.0.0.1/", "--kind", "carrier-pigeon"},
             {"fetch", "rtsp://127.0.0.1/", "--transport", "smoke"},
         }) {
        auto r = Tool(args);
        EXPECT_EQ(r.exitCode, 2) << args[0] << " " << args[1] << "\n" << r.err;
        EXPECT_NE(r.err.find("camfetch: "), std::string::npos);
        EXPECT_NE(r.err.find("usage:"), std::string::npos);
    }
    EXPECT_EQ(Tool({"--help"}).exitCode, 0);
}

TEST(ToolCli, RefusedConnectionExitsOneAndHidesThePassword) {
    const int port = testsupport::FreeLoopbackPort();
    for (const std::string scheme : {"rtsp", "http"}) {
        testsupport::TempDir dir;
        auto r = Tool({"fetch", scheme + "://admin:s3cret@127.0.0.1:" + std::to_string(port) + "/x",
                       "-o", dir.File("out")});
        EXPECT_EQ(r.exitCode, 1) << r.err;
        EXPECT_NE(r.err.find("connection refused"), std::string::npos) << r.err;
        EXPECT_EQ(r.err.find("s3cret"), std::string::npos) << r.err;
        EXPECT_EQ(r.out.find("s3cret"), std::string::npos) << r.out;
    }
}

TEST(ToolCli, ProbeOfAClosedPortSaysWhy) {
    const int port = testsupport::FreeLoopbackPort();
    auto r = Tool({"probe", "rtsp://127.0.0.1:" + std::to_string(port) + "/"});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_NE(r.out.find("\"connect\""), std::string::npos) << r.out;
    EXPECT_NE(r.err.find("connection refused"), std::string::npos) << r.err;
}

}  // namespace
