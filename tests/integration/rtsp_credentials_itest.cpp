// Credentials never leave the library in readable form: every log line written while the
// fetchers talk to cameras that demand a password (right or wrong) is searched for it, and
// the mobile receiver's socket is not open to other users.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <memory>
#include <thread>

#include "core/fetcher.h"
#include "host/hostlog.h"
#include "log_capture.h"
#include "process.h"
#include "rtsp_itest_support.h"

namespace {

const char kSecret[] = "Pa55-w0rd-xyzzy";

class Credentials : public ::testing::Test {
protected:
    void SetUp() override {
        camfetch_host::LogInit(LOG_LEVEL_TRACE);  // every message, the chattiest level
    }
    void TearDown() override { camfetch_host::LogClear(); }

    void ExpectNoSecretIn(const LogCapture& log) {
        auto records = log.Records();
        EXPECT_GT(records.size(), 0u);
        for (const auto& r : records)
            EXPECT_EQ(r.text.find(kSecret), std::string::npos) << r.file << ": " << r.text;
    }
};

TEST_F(Credentials, RtspDigestRightAndWrongPasswordsStayOutOfTheLog) {
    for (const std::string& password : {std::string(kSecret), std::string(kSecret) + "-wrong"}) {
        Json::Value scenario;
        scenario["describe_auth"] = "digest";
        scenario["password"] = kSecret;
        rtspitest::ScriptedServer server;
        ASSERT_TRUE(server.Start(scenario));
        LogCapture log;
        FETCH_PARAM p;
        p.strHost = "127.0.0.1";
        p.iPort = server.Port();
        p.strPath = "/cam";
        p.strUser = "admin";
        p.strPassword = password;
        p.iProtocol = 2;
        p.iTimeout = 3;
        std::unique_ptr<FetcherBase> f(FetcherFactory(1, p));
        rtspitest::CollectingHandler handler;
        rtspitest::FetchFor(*f, handler, 3);
        ExpectNoSecretIn(log);
    }
}

TEST_F(Credentials, MultipartBasicAndDigestStayOutOfTheLog) {
    const int port = testsupport::FreeLoopbackPort();
    testsupport::ServerProcess camera;
    ASSERT_TRUE(camera.Start(
        {"python3", TEST_DATA_DIR "/multipart_camera.py", std::to_string(port), "60"}, 90));
    ASSERT_TRUE(testsupport::WaitForTcpPort(port, 15));
    LogCapture log;
    for (const char* auth : {"basic", "digest"}) {
        for (const std::string& password : {std::string(kSecret), std::string("secret")}) {
            FETCH_PARAM p;
            p.strHost = "127.0.0.1";
            p.iPort = port;
            p.strPath = std::string("/stream?parts=2&auth=") + auth;
            p.strUser = "admin";
            p.strPassword = password;
            p.iTimeout = 3;
            p.iStreamMode = 1;
            std::unique_ptr<FetcherBase> f(FetcherFactory(3, p));
            f->TestConnect();
            unsigned size = 0;
            int kind = 0;
            f->NextPartInfo(size, nullptr, 0, kind);
        }
    }
    ExpectNoSecretIn(log);
}

TEST_F(Credentials, MobileSocketIsNotOpenToOtherUsers) {
    // A handler that accepts the start notice and looks at the socket while it exists.
    struct Host : MediaDataHandler {
        int TransNotice2Mobile(const Json::Value& notice, Json::Value* reply) override {
            if (notice["type"].asString() == "startStream")
                socketName = "/tmp/" + notice["dstSockName"].asString() + ".sock";
            (*reply)["success"] = true;
            return 0;
        }
        int ProcessMediaBlock(ESFormat&, MediaBlock* b) override {
            delete b;
            return 0;
        }
        std::string socketName;
    } host;
    FETCH_PARAM p;
    p.iMobileOpt = 4711;
    p.iTimeout = 2;
    std::unique_ptr<FetcherBase> f(FetcherFactory(6, p));
    std::thread loop([&] { f->DoFetchLoop(&host); });
    struct stat st {};
    bool seen = false;
    for (int i = 0; i < 100 && !seen; ++i) {
        usleep(20000);
        seen = !host.socketName.empty() && stat(host.socketName.c_str(), &st) == 0;
    }
    f->StopFetchLoop();
    loop.join();
    ASSERT_TRUE(seen) << host.socketName;
    EXPECT_EQ(st.st_mode & 0007, 0u) << "others may not connect to a camera's push socket";
}

}  // namespace
