// Test support: real peers as child processes (started by argv, stopped by their pid,
// bounded in time), loopback ports, commands whose output is checked, scratch directories.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace testsupport {

// A child process running for the life of the object. The destructor stops it by its pid
// (SIGTERM, then SIGKILL after a grace period) and reaps it. Output goes to logPath.
class ServerProcess {
public:
    ServerProcess() = default;
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;
    ~ServerProcess() { Stop(); }

    // Starts argv[0] (looked up in PATH) with a hard time limit in seconds: the child is
    // killed by the kernel-independent alarm of `timeout` if the test forgets it.
    bool Start(const std::vector<std::string>& argv, int maxSeconds = 120,
               const std::string& logPath = "/dev/null",
               const std::vector<std::string>& extraEnv = {});
    // Stops it (no-op when not running). Returns the exit status as from waitpid.
    int Stop();
    // Waits up to seconds for the process to exit by itself; true when it did.
    bool WaitExit(double seconds, int* status = nullptr);
    bool Running();
    pid_t Pid() const { return m_pid; }

private:
    pid_t m_pid = -1;
    int m_status = 0;
};

// A TCP port on 127.0.0.1 that was free a moment ago.
int FreeLoopbackPort();
// Polls until something accepts TCP connections on 127.0.0.1:port.
bool WaitForTcpPort(int port, double seconds);

struct CommandResult {
    int exitCode = -1;
    std::string out;  // stdout
    std::string err;  // stderr
};
// Runs argv to completion (bounded by maxSeconds) and collects its output.
CommandResult RunCommand(const std::vector<std::string>& argv, int maxSeconds = 120);
// Whether an executable is on PATH.
bool HaveTool(const std::string& name);

// A fresh directory under /tmp, removed with its content by the destructor.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& Path() const { return m_path; }
    std::string File(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

std::string ReadFile(const std::string& path);
bool WriteFile(const std::string& path, const std::string& data);

}  // namespace testsupport
