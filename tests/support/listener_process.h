// xajms-listener as a child process of a test: started with given arguments, its "port=N"
// line read, its later output readable line by line, and stopped with SIGTERM and reaped when
// the object goes. It reads with read() and ppoll(), never through the faked recv and poll.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace xajms::test {

// The built xajms-listener, or an empty string when the tool is not part of this build
// (the caller skips).
std::string listenerPath();

// A listener that logs to standard output blocks once the pipe is full (64 KiB) until the
// test reads; a test that sends many requests and reads no lines passes --quiet or --log.
class ListenerProcess {
  public:
    // Starts the listener and waits up to 10 seconds for its "port=N" line. A listener that
    // fails to start leaves started() false (its own stderr tells why).
    explicit ListenerProcess(const std::vector<std::string> &args);
    ~ListenerProcess();
    ListenerProcess(const ListenerProcess &) = delete;
    ListenerProcess &operator=(const ListenerProcess &) = delete;

    bool started() const { return port_ > 0; }
    int port() const { return port_; }
    pid_t pid() const { return pid_; }

    // The next line of its standard output (the request log unless --log moved it), without
    // the newline; nothing when no whole line came within the time or the output ended.
    std::optional<std::string> nextLine(int timeoutMs = 5000);

    // Sends the signal (SIGTERM unless told) and reaps the listener, killing it when it has
    // not ended within 10 seconds; returns its exit status, or 128 + the signal that killed
    // it, or -1 when it was already reaped. What it wrote meanwhile stays for nextLine().
    int stop(int sig = SIGTERM);

    // Waits up to the time for the listener to end by itself and reaps it; returns its exit
    // status as stop() does, or nothing when it is still running.
    std::optional<int> waitForExit(int timeoutMs = 5000);

  private:
    int reap();
    bool drain(long long deadline);

    pid_t pid_ = -1;
    int out_ = -1;
    int port_ = 0;
    std::string buffered_;
};

// The outcome of a listener run to its end: exit status and everything it wrote.
struct ListenerRun {
    int status = -1;
    std::string out;
    std::string err;
};

// Runs the listener with the arguments until it exits (for --help and refused command
// lines); gives up and kills it after 10 seconds (status -1 then).
ListenerRun runListener(const std::vector<std::string> &args);

}  // namespace xajms::test
