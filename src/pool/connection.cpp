// Opening a TCP connection from this process to an execution group's XA listener on the
// local host. The pool is the only caller and owns every descriptor handed back from here.
#include "pool/pool.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "trace/trace.h"

extern "C" {
int flSocketInit_jms = 0;
}

namespace {

using xajms::trace::kXASocket;

constexpr char kFunction[] = "makeConnection";

// Room for the host entry of "localhost": its names, aliases and addresses.
constexpr size_t kHostBufferSize = 8192;

// Resolves "localhost" afresh and fills the IPv4 socket address for the port. The address
// copied is the host entry's first one, at most the four bytes an IPv4 address holds.
// Returns false when the name does not resolve to an IPv4 address.
bool localhostAddress(int port, sockaddr_in &address) {
    hostent entry;
    hostent *found = nullptr;
    int error = 0;
    char buffer[kHostBufferSize];
    const int rc = gethostbyname_r("localhost", &entry, buffer, sizeof buffer, &found, &error);
    if (rc != 0 || found == nullptr || found->h_addr_list == nullptr ||
        found->h_addr_list[0] == nullptr || found->h_length < 0) {
        return false;
    }
    std::memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    size_t length = static_cast<size_t>(found->h_length);
    if (length > sizeof address.sin_addr) {
        length = sizeof address.sin_addr;
    }
    std::memcpy(&address.sin_addr, found->h_addr_list[0], length);
    address.sin_port = htons(static_cast<uint16_t>(port));
    return true;
}

// Ends a failed attempt: the next attempt traces the start line again.
int failed(const char *text) {
    flSocketInit_jms = 0;
    traceJMSExitData(sockettraceJMSfile, kXASocket, kFunction, text);
    return xajms::pool::kNoSocket;
}

}  // namespace

extern "C" {

// Returns the connected descriptor (> 0), or 0 when the host name does not resolve, no
// socket can be had or the connect fails. A socket that failed to connect stays open, except
// in a hardened process, which closes it: a listener that refuses connections would
// otherwise cost the host three descriptors a request.
int makeConnection_jms(int port) {
    const bool tracing = xajms::trace::on(sockettraceJMSfile);
    if (tracing) {
        xajms::trace::entryData(sockettraceJMSfile, kXASocket, kFunction, "port=%d", port);
    }
    if (flSocketInit_jms == 0) {
        traceJMSData(sockettraceJMSfile, kXASocket, kFunction, "Unix socket Starting");
        flSocketInit_jms = 1;
    }
    if (tracing) {
        xajms::trace::data(sockettraceJMSfile, kXASocket, kFunction,
                           "Attempting to connect to Java listener on port = %d", port);
    }
    sockaddr_in address;
    if (!localhostAddress(port, address)) {
        return failed("<ERROR> failed while getting host ");
    }
    const int sockfd = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (sockfd < 0) {
        return failed("<ERROR> failed while opening socket on port ");
    }
    const int noDelay = 1;
    const int optRc = setsockopt(sockfd, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay);
    if (optRc != 0 && tracing) {
        xajms::trace::data(sockettraceJMSfile, kXASocket, kFunction, "<ERROR> setsockopt rcode =%d",
                           optRc);
    }
    if (connect(sockfd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        if (xajms::pool::hardened()) {
            close(sockfd);
        }
        return failed("<ERROR> failed while connecting on port");
    }
    if (tracing) {
        xajms::trace::exitData(sockettraceJMSfile, kXASocket, kFunction,
                               "now socket connected to Java listener sokfd=%d on port=%d", sockfd,
                               port);
    }
    return sockfd;
}

}  // extern "C"
