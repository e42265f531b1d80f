#include "rtsp_itest_support.h"

#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "packer/streampacker.h"
#include "packetizer/mpeg4audiopacket.h"
#include "rtsp/rtspreceiver.h"

namespace rtspitest {

using testsupport::ReadFile;
using testsupport::RunCommand;

namespace {

double Now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

bool Contains(const std::string& text, const std::string& needle) {
    return text.find(needle) != std::string::npos;
}

}  // namespace

bool MakeClip(const std::string& kind, const std::string& path, double seconds) {
    const std::string t = std::to_string(seconds);
    const std::vector<std::string> video = {"-f", "lavfi", "-i", "testsrc2=size=320x240:rate=25",
                                            "-t", t};
    const std::vector<std::string> audio = {
        "-f", "lavfi", "-i", "sine=frequency=440:sample_rate=44100", "-t", t};
    std::vector<std::string> args = {"ffmpeg", "-hide_banner", "-loglevel", "error", "-y"};
    auto add = [&args](const std::vector<std::string>& more) {
        args.insert(args.end(), more.begin(), more.end());
    };
    if (kind == "h264") {
        add(video);
        add({"-c:v", "libx264", "-preset", "veryfast", "-bf", "2", "-g", "25", "-pix_fmt",
             "yuv420p", "-f", "h264"});
    } else if (kind == "hevc") {
        add(video);
        add({"-c:v", "libx265", "-preset", "ultrafast", "-x265-params", "log-level=error:keyint=25",
             "-pix_fmt", "yuv420p", "-f", "hevc"});
    } else if (kind == "m4e") {
        add(video);
        add({"-c:v", "mpeg4", "-g", "25", "-bf", "1", "-f", "m4v"});
    } else if (kind == "aac") {
        add(audio);
        add({"-c:a", "aac", "-b:a", "64k", "-f", "adts"});
    } else if (kind == "mkv") {
        add(video);
        add(audio);
        add({"-c:v", "libx264", "-preset", "veryfast", "-bf", "2", "-g", "25", "-pix_fmt",
             "yuv420p", "-c:a", "aac", "-b:a", "64k", "-f", "matroska"});
    } else if (kind == "mpeg4mkv") {
        add(video);
        add({"-c:v", "mpeg4", "-g", "25", "-f", "matroska"});
    } else {
        return false;
    }
    args.push_back(path);
    return RunCommand(args, 60).exitCode == 0;
}

std::vector<std::vector<uint8_t>> ReadNalUnits(const std::string& path) {
    const std::string data = ReadFile(path);
    std::vector<size_t> starts;
    for (size_t i = 0; i + 2 < data.size(); ++i)
        if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1) {
            starts.push_back(i + 3);
            i += 2;
        }
    std::vector<std::vector<uint8_t>> nals;
    for (size_t k = 0; k < starts.size(); ++k) {
        size_t end = k + 1 < starts.size() ? starts[k + 1] - 3 : data.size();
        while (end > starts[k] && data[end - 1] == 0)
            --end;
        if (end > starts[k])
            nals.emplace_back(data.begin() + starts[k], data.begin() + end);
    }
    return nals;
}

bool Live555Server::Start(const std::string& directory) {
    const std::string log = directory + "/live555.log";
    const std::vector<std::string> env = {
        std::string("LD_LIBRARY_PATH=") + LIVE555_LIBRARY_DIR,
        std::string("LD_PRELOAD=") + LIVE555_GLIBC_PRELOAD + " " + LOOPBACK_BIND_PRELOAD};
    // The server serves the files of its working directory.
    const std::string command =
        "cd '" + directory + "' && exec '" + std::string(LIVE555_MEDIA_SERVER) + "'";
    if (!m_process.Start({"sh", "-c", command}, 240, log, env))
        return false;
    const double deadline = Now() + 10;
    while (Now() < deadline) {
        const std::string text = ReadFile(log);
        if (Contains(text, "RTSP-over-HTTP tunneling") || Contains(text, "HTTP tunneling")) {
            m_rtspPort = Contains(text, ":8554/") ? 8554 : 554;
            for (int port : {80, 8000, 8080})
                if (Contains(text, "port " + std::to_string(port) + " for"))
                    m_httpPort = port;
            return testsupport::WaitForTcpPort(m_rtspPort, 5);
        }
        usleep(20000);
    }
    return false;
}

bool GstServer::Start(const std::vector<std::string>& extraArgs) {
    m_port = testsupport::FreeLoopbackPort();
    std::vector<std::string> argv = {SYSTEM_PYTHON3,
                                     std::string(TEST_DATA_DIR) + "/gst_rtsp_server.py", "--port",
                                     std::to_string(m_port)};
    argv.insert(argv.end(), extraArgs.begin(), extraArgs.end());
    if (!m_process.Start(argv, 240))
        return false;
    return testsupport::WaitForTcpPort(m_port, 20);
}

bool ScriptedServer::Start(const Json::Value& scenario) {
    m_port = testsupport::FreeLoopbackPort();
    Json::StreamWriterBuilder writer;
    testsupport::WriteFile(m_dir.File("scenario.json"), Json::writeString(writer, scenario));
    std::vector<std::string> argv = {
        SYSTEM_PYTHON3, std::string(TEST_DATA_DIR) + "/scripted_rtsp_server.py",
        "--port",       std::to_string(m_port),
        "--scenario",   m_dir.File("scenario.json"),
        "--record",     m_dir.File("record.jsonl")};
    if (!m_process.Start(argv, 240, m_dir.File("server.log")))
        return false;
    return testsupport::WaitForTcpPort(m_port, 10);
}

std::vector<Json::Value> ScriptedServer::Events() const {
    std::vector<Json::Value> events;
    std::istringstream lines(ReadFile(m_dir.File("record.jsonl")));
    std::string line;
    Json::CharReaderBuilder reader;
    while (std::getline(lines, line)) {
        Json::Value event;
        std::string errors;
        std::istringstream in(line);
        if (Json::parseFromStream(reader, in, &event, &errors))
            events.push_back(event);
    }
    return events;
}

bool ScriptedServer::WaitForLastEvent(const std::string& event, double seconds) const {
    const double deadline = Now() + seconds;
    do {
        const auto events = Events();
        if (!events.empty() && events.back()["event"].asString() == event)
            return true;
        usleep(20000);
    } while (Now() < deadline);
    return false;
}

std::vector<Json::Value> ScriptedServer::Requests(const std::string& method) const {
    std::vector<Json::Value> out;
    for (const Json::Value& e : Events())
        if (e["event"].asString() == "request" && e["method"].asString() == method)
            out.push_back(e);
    return out;
}

void CollectingHandler::InitHandler(const ESFormat& video, const ESFormat& audio) {
    std::lock_guard<std::mutex> lock(m_mutex);
    ESFormatCopy(m_video, video);
    ESFormatCopy(m_audio, audio);
    ++m_initCalls;
}

int CollectingHandler::ProcessMediaBlock(ESFormat& format, MediaBlock* block) {
    Block b{format.i_cat,
            format.i_codec,
            std::vector<uint8_t>(block->GetFrame(), block->GetFrame() + block->GetFrameSize()),
            block->GetPTS(),
            block->GetDTS(),
            block->GetFlags(),
            block->IsAVC1()};
    delete block;
    std::lock_guard<std::mutex> lock(m_mutex);
    if (format.i_cat == AUDIO_ES && format.i_extra > 0)
        ESFormatCopy(m_audio, format);
    m_blocks.push_back(std::move(b));
    return 0;
}

std::vector<CollectingHandler::Block> CollectingHandler::Blocks(int es) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<Block> out;
    for (const Block& b : m_blocks)
        if (b.es == es)
            out.push_back(b);
    return out;
}

size_t CollectingHandler::Count(int es) const {
    return Blocks(es).size();
}

ESFormat CollectingHandler::InitVideo() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_video;
}

ESFormat CollectingHandler::InitAudio() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_audio;
}

bool CollectingHandler::WriteStream(int es, const std::string& path) const {
    const ESFormat audio = InitAudio();
    std::string out;
    for (const Block& b : Blocks(es)) {
        if (b.avc1) {
            // Length-prefixed units back to start codes.
            size_t i = 0;
            while (i + 4 <= b.bytes.size()) {
                const size_t n = size_t(b.bytes[i]) << 24 | size_t(b.bytes[i + 1]) << 16 |
                                 size_t(b.bytes[i + 2]) << 8 | b.bytes[i + 3];
                i += 4;
                if (n > b.bytes.size() - i)
                    break;
                out += std::string("\0\0\0\1", 4);
                out.append(reinterpret_cast<const char*>(b.bytes.data() + i), n);
                i += n;
            }
            continue;
        }
        const bool rawAac =
            b.codec == kCodecMp4a && audio.i_extra >= 2 &&
            !(b.bytes.size() > 1 && b.bytes[0] == 0xFF && (b.bytes[1] & 0xF0) == 0xF0);
        if (rawAac) {
            const uint8_t* asc = audio.p_extra;
            const int object = asc[0] >> 3;
            const int rateIndex = ((asc[0] & 7) << 1) | (asc[1] >> 7);
            const int channels = (asc[1] >> 3) & 0xF;
            const size_t length = b.bytes.size() + 7;
            const uint8_t adts[7] = {
                0xFF,
                0xF1,
                static_cast<uint8_t>(((object - 1) << 6) | (rateIndex << 2) | (channels >> 2)),
                static_cast<uint8_t>(((channels & 3) << 6) | (length >> 11)),
                static_cast<uint8_t>(length >> 3),
                static_cast<uint8_t>(((length & 7) << 5) | 0x1F),
                0xFC};
            out.append(reinterpret_cast<const char*>(adts), 7);
        }
        out.append(reinterpret_cast<const char*>(b.bytes.data()), b.bytes.size());
    }
    return testsupport::WriteFile(path, out);
}

unsigned char* FrameRecorder::GetSubsessionRecvBuf(MediaSubsession* subsession,
                                                   unsigned int& size) {
    std::vector<uint8_t>& buf =
        strcmp(SubsessionMediumName(subsession), "audio") == 0 ? m_audio : m_video;
    size = static_cast<unsigned int>(buf.size());
    return buf.data();
}

uint64_t Digest(const uint8_t* data, size_t size) {
    uint64_t hash = 0xcbf29ce484222325ULL;
    for (size_t i = 0; i < size; ++i)
        hash = (hash ^ data[i]) * 0x100000001b3ULL;
    return hash;
}

void FrameRecorder::RecvMetaData(RtspReceiver* receiver, MediaSubsession* subsession,
                                 unsigned char* data, unsigned int size, timeval pts) {
    Frame f{SubsessionMediumName(subsession), SubsessionCodecName(subsession), size, pts,
            Digest(data, size)};
    size_t count;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_frames.push_back(std::move(f));
        count = m_frames.size();
    }
    if (m_stopAfter > 0 && count == static_cast<size_t>(m_stopAfter))
        receiver->StopRecvLoop(true);
}

std::vector<FrameRecorder::Frame> FrameRecorder::Frames(const std::string& medium) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<Frame> out;
    for (const Frame& f : m_frames)
        if (medium.empty() || f.medium == medium)
            out.push_back(f);
    return out;
}

double FetchFor(FetcherBase& fetcher, MediaDataHandler& handler, double seconds,
                double* stopLatency) {
    std::mutex mutex;
    std::condition_variable cv;
    bool done = false;
    const double start = Now();
    std::thread loop([&] {
        fetcher.DoFetchLoop(&handler);
        std::lock_guard<std::mutex> lock(mutex);
        done = true;
        cv.notify_all();
    });
    std::unique_lock<std::mutex> lock(mutex);
    const bool ended =
        cv.wait_for(lock, std::chrono::duration<double>(seconds), [&] { return done; });
    double latency = 0;
    if (!ended) {
        const double stopAt = Now();
        lock.unlock();
        fetcher.StopFetchLoop();
        lock.lock();
        cv.wait(lock, [&] { return done; });
        latency = Now() - stopAt;
    }
    lock.unlock();
    loop.join();
    if (stopLatency)
        *stopLatency = latency;
    return Now() - start;
}

double RecvFor(RtspReceiver& receiver, ReceiverCtrler& ctrler, double seconds) {
    std::mutex mutex;
    std::condition_variable cv;
    bool done = false;
    const double start = Now();
    std::thread stopper([&] {
        std::unique_lock<std::mutex> lock(mutex);
        if (!cv.wait_for(lock, std::chrono::duration<double>(seconds), [&] { return done; }))
            receiver.StopRecvLoop(true);
    });
    receiver.DoRecvLoop(&ctrler);
    {
        std::lock_guard<std::mutex> lock(mutex);
        done = true;
    }
    cv.notify_all();
    stopper.join();
    return Now() - start;
}

namespace {
class CountingHandler : public MediaDataHandler {
public:
    int ProcessMediaBlock(ESFormat&, MediaBlock* block) override {
        delete block;
        ++count;
        return 0;
    }
    int count = 0;
};
}  // namespace

bool VideoPacketizerWorks(uint32_t codec) {
    testsupport::TempDir dir;
    const std::string clipPath = dir.File("probe.es");
    const char* kind = codec == kCodecH264 ? "h264" : codec == kCodecHevc ? "hevc" : "m4e";
    if (!MakeClip(kind, clipPath, 1))
        return false;
    FETCH_PARAM param;
    StreamPacker packer(param);
    CountingHandler handler;
    packer.SetDataHandler(&handler);
    ESFormat video, audio;
    video.Reset(VIDEO_ES, codec);
    packer.InitPackers(video, audio);
    timeval t{1000, 0};
    auto next = [&t] {
        t.tv_usec += 40000;
        if (t.tv_usec >= 1000000) {
            ++t.tv_sec;
            t.tv_usec -= 1000000;
        }
    };
    if (codec == kCodecH264 || codec == kCodecHevc) {
        for (auto& nal : ReadNalUnits(clipPath)) {
            packer.Process(VIDEO_ES, nal.data(), static_cast<unsigned>(nal.size()), t, 0, false);
            next();
        }
    } else {
        std::string data = ReadFile(clipPath);
        for (size_t i = 0; i < data.size(); i += 4096) {
            std::string chunk = data.substr(i, 4096);
            packer.Process(VIDEO_ES, reinterpret_cast<unsigned char*>(&chunk[0]),
                           static_cast<unsigned>(chunk.size()), t, 0, false);
            next();
        }
    }
    packer.Free();
    return handler.count > 0;
}

bool AacPacketizerWorks() {
    Mpeg4AudioPacketizer packetizer;
    PACK_STREAM stream;
    stream.fmt.Reset(AUDIO_ES, kCodecMp4a);
    const uint8_t asc[2] = {0x12, 0x10};
    stream.fmt.SetExtra(asc, 2);
    stream.fmt.audio.i_rate = 44100;
    stream.fmt.audio.i_channels = 2;
    const bool works = packetizer.InitPacket(&stream) == 0 &&
                       packetizer.GetType() != Mpeg4AudioPacketizer::kModeNone;
    packetizer.FreePacket(&stream);
    return works;
}

ProbeResult Probe(const std::string& path, const std::string& format,
                  const std::vector<std::string>& inputOptions) {
    ProbeResult result;
    std::vector<std::string> probe = {"ffprobe", "-v", "error", "-f", format};
    probe.insert(probe.end(), inputOptions.begin(), inputOptions.end());
    probe.insert(probe.end(),
                 {"-count_frames", "-select_streams", "0", "-show_entries",
                  "stream=codec_name,width,height,nb_read_frames", "-of", "json", path});
    auto out = RunCommand(probe, 120);
    Json::Value root;
    Json::CharReaderBuilder reader;
    std::string errors;
    std::istringstream in(out.out);
    if (out.exitCode != 0 || !Json::parseFromStream(reader, in, &root, &errors) ||
        root["streams"].empty())
        return result;
    const Json::Value& s = root["streams"][0];
    result.ok = true;
    result.codec = s["codec_name"].asString();
    result.width = s.get("width", 0).asInt();
    result.height = s.get("height", 0).asInt();
    result.frames = atoi(s.get("nb_read_frames", "0").asString().c_str());
    std::vector<std::string> decode = {"ffmpeg", "-hide_banner", "-v", "error", "-f", format};
    decode.insert(decode.end(), inputOptions.begin(), inputOptions.end());
    decode.insert(decode.end(), {"-i", path, "-f", "null", "-"});
    result.errors = RunCommand(decode, 120).err;
    return result;
}

std::vector<int> NalTypes(const std::vector<uint8_t>& annexB, bool hevc) {
    std::vector<int> types;
    for (size_t i = 0; i + 3 < annexB.size(); ++i)
        if (annexB[i] == 0 && annexB[i + 1] == 0 && annexB[i + 2] == 1) {
            const uint8_t h = annexB[i + 3];
            types.push_back(hevc ? (h >> 1) & 0x3F : h & 0x1F);
            i += 2;
        }
    return types;
}

FETCH_PARAM LoopbackParam(int port, const std::string& path, int protocol, bool audio) {
    FETCH_PARAM p;
    p.strHost = "127.0.0.1";
    p.iPort = port;
    p.strPath = path;
    p.iProtocol = protocol;
    p.iTimeout = 10;
    p.bHasAudio = audio;
    return p;
}

}  // namespace rtspitest
