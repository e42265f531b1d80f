#include "process.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

extern char** environ;

namespace testsupport {
namespace {

double Now() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

std::vector<char*> CStrings(std::vector<std::string>& strings) {
    std::vector<char*> out;
    for (auto& s : strings)
        out.push_back(&s[0]);
    out.push_back(nullptr);
    return out;
}

// Runs argv under coreutils `timeout` so that a child outlives no test by more than
// maxSeconds, whatever happens to the test process.
std::vector<std::string> Bounded(const std::vector<std::string>& argv, int maxSeconds) {
    std::vector<std::string> full = {"timeout", "-k", "5", std::to_string(maxSeconds)};
    full.insert(full.end(), argv.begin(), argv.end());
    return full;
}

std::vector<std::string> Environment(const std::vector<std::string>& extra) {
    std::vector<std::string> env;
    for (char** e = environ; *e; ++e)
        env.emplace_back(*e);
    env.insert(env.end(), extra.begin(), extra.end());
    return env;
}
}  // namespace

bool ServerProcess::Start(const std::vector<std::string>& argv, int maxSeconds,
                          const std::string& logPath, const std::vector<std::string>& extraEnv) {
    Stop();
    std::vector<std::string> args = Bounded(argv, maxSeconds);
    std::vector<std::string> env = Environment(extraEnv);
    auto cargs = CStrings(args);
    auto cenv = CStrings(env);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND,
                                     0644);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    int rc = posix_spawnp(&m_pid, cargs[0], &actions, nullptr, cargs.data(), cenv.data());
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0)
        m_pid = -1;
    return rc == 0;
}

bool ServerProcess::WaitExit(double seconds, int* status) {
    if (m_pid <= 0)
        return true;
    double deadline = Now() + seconds;
    do {
        pid_t r = waitpid(m_pid, &m_status, WNOHANG);
        if (r == m_pid) {
            m_pid = -1;
            if (status)
                *status = m_status;
            return true;
        }
        usleep(20000);
    } while (Now() < deadline);
    return false;
}

bool ServerProcess::Running() {
    return m_pid > 0 && !WaitExit(0);
}

int ServerProcess::Stop() {
    if (m_pid <= 0)
        return m_status;
    // `timeout` passes SIGTERM on to the server it runs.
    kill(m_pid, SIGTERM);
    if (!WaitExit(5)) {
        kill(m_pid, SIGKILL);
        WaitExit(5);
    }
    return m_status;
}

int FreeLoopbackPort() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    int port = -1;
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0) {
        socklen_t len = sizeof(addr);
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
        port = ntohs(addr.sin_port);
    }
    close(fd);
    return port;
}

bool WaitForTcpPort(int port, double seconds) {
    double deadline = Now() + seconds;
    do {
        int fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        addr.sin_port = htons(static_cast<uint16_t>(port));
        bool ok = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
        close(fd);
        if (ok)
            return true;
        usleep(50000);
    } while (Now() < deadline);
    return false;
}

CommandResult RunCommand(const std::vector<std::string>& argv, int maxSeconds) {
    CommandResult result;
    int outPipe[2], errPipe[2];
    if (pipe(outPipe) != 0)
        return result;
    if (pipe(errPipe) != 0) {
        close(outPipe[0]);
        close(outPipe[1]);
        return result;
    }
    std::vector<std::string> args = Bounded(argv, maxSeconds);
    auto cargs = CStrings(args);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
    posix_spawn_file_actions_adddup2(&actions, errPipe[1], 2);
    posix_spawn_file_actions_addclose(&actions, outPipe[0]);
    posix_spawn_file_actions_addclose(&actions, errPipe[0]);
    pid_t pid = -1;
    int rc = posix_spawnp(&pid, cargs[0], &actions, nullptr, cargs.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(outPipe[1]);
    close(errPipe[1]);
    if (rc == 0) {
        pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
        std::string* sinks[2] = {&result.out, &result.err};
        int open = 2;
        char buf[65536];
        while (open > 0 && poll(fds, 2, -1) > 0) {
            for (int i = 0; i < 2; ++i) {
                if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR)))
                    continue;
                ssize_t n = read(fds[i].fd, buf, sizeof(buf));
                if (n > 0) {
                    sinks[i]->append(buf, static_cast<size_t>(n));
                } else {
                    fds[i].fd = -1;
                    --open;
                }
            }
        }
        int status = 0;
        waitpid(pid, &status, 0);
        result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    close(outPipe[0]);
    close(errPipe[0]);
    return result;
}

bool HaveTool(const std::string& name) {
    return RunCommand({"sh", "-c", "command -v " + name}, 10).exitCode == 0;
}

TempDir::TempDir() {
    char pattern[] = "/tmp/camfetch-test-XXXXXX";
    if (char* p = mkdtemp(pattern))
        m_path = p;
}

TempDir::~TempDir() {
    if (!m_path.empty())
        RunCommand({"rm", "-rf", m_path}, 30);
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

bool WriteFile(const std::string& path, const std::string& data) {
    std::ofstream out(path, std::ios::binary);
    out << data;
    return static_cast<bool>(out);
}

}  // namespace testsupport
