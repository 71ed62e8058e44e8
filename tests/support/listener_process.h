// The built tools as child processes of a test: run to their end, or xajms-listener kept
// running with its log read line by line. Children are read with read() and ppoll(), never
// through the faked recv and poll.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace xajms::test {

// The built tools; an empty string for one that is not part of this build (the caller skips).
inline std::string listenerPath() {
    return XAJMS_LISTENER_PATH;
}
inline std::string drivePath() {
    return XAJMS_DRIVE_PATH;
}
inline std::string registryToolPath() {
    return XAJMS_REGISTRY_PATH;
}
inline std::string traceToolPath() {
    return XAJMS_TRACE_PATH;
}

struct ToolRun {
    int status = -1;  // exit status, 128 + signal, or -1 when it did not end within 20 s
    std::string out;
    std::string err;
};

// Runs the program with the arguments until it exits; kills it after 20 seconds.
ToolRun runTool(const std::string &path, const std::vector<std::string> &args);

// A running xajms-listener, started and waited for up to 10 s until its "port=N" line came
// (else started() is false and its stderr tells why); stopped when the object goes. Its log
// blocks it once the pipe holds 64 KiB: a test that reads no lines passes --quiet.
class ListenerProcess {
  public:
    explicit ListenerProcess(const std::vector<std::string> &args);
    ~ListenerProcess();
    ListenerProcess(const ListenerProcess &) = delete;
    ListenerProcess &operator=(const ListenerProcess &) = delete;

    bool started() const { return port_ > 0; }
    int port() const { return port_; }
    pid_t pid() const { return pid_; }

    // The next line of its output; nothing when no whole line came in time or it ended.
    std::optional<std::string> nextLine(int timeoutMs = 5000);

    // Sends the signal and reaps the listener (killed when not ended within 10 s); returns
    // its exit status, 128 + the killing signal, or -1 when it was reaped already.
    int stop(int sig = SIGTERM);

    // Reaps the listener once it ended by itself within the time; its status as stop() has it.
    std::optional<int> waitForExit(int timeoutMs = 5000);

  private:
    pid_t pid_ = -1;
    int out_ = -1;
    int port_ = 0;
    std::string buffered_;
};

}  // namespace xajms::test
