// Peers for the listener-protocol tests: a listener on 127.0.0.1 that answers each request
// from a script, the rows of the registry file in the test's private /var/orlom, and a poll
// script under which a listener that never answers costs no real seconds. The listener
// thread uses read, write and ppoll, never the faked recv and poll.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace xajms::test {

using Bytes = std::vector<unsigned char>;

// What the listener does with one request: send bytes, say nothing, or close the connection.
struct Reply {
    enum class Kind { send, silent, close } kind = Kind::send;
    Bytes bytes;
};

// The bare 4-byte answer to a completion request.
Reply answer(int code);
// A recover reply: msgType 0x2006, xidcount, an unused field, xiddatasize, then the records.
Reply recoverReply(int xidcount, int xiddatasize, const Bytes &records);
// A flattened XID as a listener sends it: formatID, the two lengths, then the data.
Bytes flatXid(int64_t formatId, int64_t gtridLength, int64_t bqualLength, const Bytes &data);
// Big-endian bytes of a value of the given width.
void putBig(Bytes &out, uint64_t value, int width);

class ScriptedListener {
  public:
    // Request n (from 0, over all connections) gets replies[n]; later requests are met with
    // silence. A request is a 20-byte header and msgSize - 20 more bytes when msgSize > 20.
    explicit ScriptedListener(std::vector<Reply> replies);
    ~ScriptedListener();
    ScriptedListener(const ScriptedListener &) = delete;
    ScriptedListener &operator=(const ScriptedListener &) = delete;

    int port() const { return port_; }
    // The requests received so far, whole, after waiting up to 5 seconds for `atLeast`.
    std::vector<Bytes> requests(std::size_t atLeast = 0);
    int connections();

  private:
    void serve();
    bool readRequest(int fd);

    int listenFd_ = -1;
    int stopFds_[2] = {-1, -1};
    int port_ = 0;
    std::vector<Reply> replies_;
    std::mutex lock_;
    std::condition_variable arrived_;
    std::vector<Bytes> requests_;
    int connections_ = 0;
    std::thread thread_;
};

// Writes the registry file /var/orlom/XA_SWITCH_MMF afresh: signature, one row per
// (mode, port) pair in order, row count = number of rows. Call inside enterPrivateOrlom().
void writeRegistry(const std::vector<std::pair<int, int>> &rows);
// The mode of a row as the file holds it now.
int registryMode(int row);

// Makes every poll of the process on a socket connected to one of the listeners time out
// (result 0) as soon as that listener holds a request; other polls run as usual. Waiting
// for the request first keeps the listener's own descriptors out of the way of the
// library's clean-up. Arm only around the act step.
void timeOutPollsTo(std::vector<ScriptedListener *> listeners);

}  // namespace xajms::test
