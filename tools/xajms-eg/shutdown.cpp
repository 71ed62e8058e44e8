// The close request goes straight to the group's own port: the library sends its close only to
// a start-up recovery listener, and the execution group's listener is a broker's.
#include "shutdown.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <xajms/eg.h>
#include <xajms/xajms.h>

#include <cstring>

#include "common/descriptor.h"
#include "registry/registry.h"

namespace xajms::eg_host {

namespace {

constexpr char kCloseText[] = "Cleanup Java Process";
constexpr int kCloseType = 0x2005;
constexpr int kHeaderSize = 20;

// The port of the broker row of this process, or 0.
int ownPort() {
    registry::File file{};
    const tools::Descriptor fd(::open(registry::kPath, O_RDONLY | O_CLOEXEC));
    if (!fd || ::pread(fd.get(), &file, sizeof file, 0) != static_cast<ssize_t>(sizeof file)) {
        return 0;
    }
    for (int i = 0; i < registry::rowsExclusive(file.header.rowCount); ++i) {
        const registry::Row &row = file.row[static_cast<std::size_t>(i)];
        if (row.pid == ::getpid() && row.mode == registry::kModeBroker) {
            return row.port;
        }
    }
    return 0;
}

bool sendClose(int port) {
    unsigned char request[kHeaderSize + sizeof kCloseText - 1] = {};
    buildHeader_jms(request, sizeof request, kCloseType, 0, TMNOFLAGS);
    std::memcpy(request + kHeaderSize, kCloseText, sizeof kCloseText - 1);
    const tools::Descriptor fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return fd && ::connect(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 &&
           ::send(fd.get(), request, sizeof request, MSG_NOSIGNAL) ==
               static_cast<ssize_t>(sizeof request);
}

}  // namespace

bool stopListener() {
    const int port = ownPort();
    return port > 0 && sendClose(port) && xajms_eg_wait_closed(5000) == 1;
}

}  // namespace xajms::eg_host
