// Helpers for the mobile push tests: framing messages as the mobile client does, a client
// that writes a byte stream into the receiver's Unix socket from a thread of its own, a
// controller that records the payloads, and a host handler that answers the notices.
#pragma once

#include <json/json.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/fetcher.h"
#include "mobile/mobilereceiverctrler.h"

namespace mobiletest {

// One message as the client frames it; a negative timestamp leaves the line out.
inline std::string Message(const std::string& type, const std::string& payload,
                           long long timestampUs = -1) {
    std::string m =
        "Content-Type: " + type + "\r\nContent-Length: " + std::to_string(payload.size()) + "\r\n";
    if (timestampUs >= 0)
        m += "TimeStamp: " + std::to_string(timestampUs) + "\r\n";
    return m + "\r\n" + payload;
}

// A receiver id no other test process uses at the same time.
inline int UniqueReceiverId() {
    static int counter = 0;
    return static_cast<int>(getpid() % 100000) * 100 + counter++;
}

inline bool FileExists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

// Connects to a Unix socket (waiting up to ten seconds for it to appear), writes the chunks
// with a short pause between them so that they arrive as separate reads, then closes.
class PushClient {
public:
    PushClient(std::string path, std::vector<std::string> chunks)
        : m_thread([this, path = std::move(path), chunks = std::move(chunks)]() {
              Run(path, chunks);
          }) {}
    ~PushClient() { Join(); }
    void Join() {
        if (m_thread.joinable())
            m_thread.join();
    }
    bool Connected() const { return m_connected; }

private:
    void Run(const std::string& path, const std::vector<std::string>& chunks) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        int fd = -1;
        while (std::chrono::steady_clock::now() < deadline) {
            fd = socket(AF_UNIX, SOCK_STREAM, 0);
            sockaddr_un addr{};
            addr.sun_family = AF_UNIX;
            strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
            if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0)
                break;
            close(fd);
            fd = -1;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        if (fd < 0)
            return;
        m_connected = true;
        for (const std::string& c : chunks) {
            size_t done = 0;
            while (done < c.size()) {
                ssize_t n = send(fd, c.data() + done, c.size() - done, MSG_NOSIGNAL);
                if (n <= 0)
                    break;
                done += static_cast<size_t>(n);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        close(fd);
    }

    bool m_connected = false;
    std::thread m_thread;
};

struct Delivery {
    std::string type;
    std::string payload;
    long long timestampUs;
};

class RecordingCtrler : public MobileReceiverCtrler {
public:
    void RecvData(char* data, unsigned int size, std::string contentType,
                  timeval timestamp) override {
        deliveries.push_back({contentType, std::string(data, size),
                              timestamp.tv_sec * 1000000LL + timestamp.tv_usec});
    }
    std::vector<Delivery> deliveries;
};

// Answers the start and stop notices and records them; media blocks are freed.
class NoticeHandler : public MediaDataHandler {
public:
    explicit NoticeHandler(Json::Value startReply = SuccessReply())
        : m_startReply(std::move(startReply)) {}
    static Json::Value SuccessReply() {
        Json::Value r(Json::objectValue);
        r["success"] = true;
        return r;
    }
    static Json::Value Refusal(const std::string& message) {
        Json::Value r(Json::objectValue);
        r["success"] = false;
        r["errorMsg"] = message;
        return r;
    }
    int TransNotice2Mobile(const Json::Value& notice, Json::Value* reply) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        notices.push_back(notice);
        *reply = notice["type"].asString() == "startStream" ? m_startReply : SuccessReply();
        return 0;
    }
    void InitHandler(const ESFormat& video, const ESFormat& audio) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        initVideo.push_back(video);
        initAudio.push_back(audio);
    }
    int ProcessMediaBlock(ESFormat&, MediaBlock* block) override {
        delete block;
        return 0;
    }
    size_t Inits() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return initVideo.size();
    }
    std::vector<std::string> NoticeTypes() {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<std::string> types;
        for (const Json::Value& n : notices)
            types.push_back(n["type"].asString());
        return types;
    }

    std::vector<Json::Value> notices;
    std::vector<ESFormat> initVideo;
    std::vector<ESFormat> initAudio;

private:
    std::mutex m_mutex;
    Json::Value m_startReply;
};

}  // namespace mobiletest
