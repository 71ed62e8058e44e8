// The XID dump of the trace: format identifier, then the global transaction id and the
// branch qualifier as lower-case hexadecimal, three lines through one open of the file.
#include "trace/trace.h"

#include <algorithm>

namespace {

// Hex digits of the XID data bytes from index `first` on, `length` of them. The lengths come
// from the caller's XID unchecked, so only bytes inside the 128-byte data area are printed:
// a length of 0 or less prints nothing, and bytes outside the data area are left out.
void hexOf(char (&out)[2 * XIDDATASIZE + 1], const XID &xid, long first, long length) {
    const __int128 end = static_cast<__int128>(first) + length;
    const __int128 from = std::max<__int128>(first, 0);
    const __int128 to = std::min<__int128>(end, XIDDATASIZE);
    int used = 0;
    for (__int128 at = from; at < to; ++at) {
        used += std::snprintf(out + used, sizeof out - static_cast<size_t>(used), "%02x",
                              static_cast<unsigned char>(xid.data[static_cast<int>(at)]));
    }
    out[used] = '\0';
}

}  // namespace

extern "C" void traceJMSformattedXID(const char *prefix, const char *component,
                                     const char *function, const XID *xid) {
    if (prefix == nullptr || !xajms::trace::on(prefix)) {
        return;
    }
    xajms::trace::ErrnoKeeper keep;
    xajms::trace::Columns c;
    xajms::trace::fillColumns(c);
    std::FILE *file = xajms::trace::openTraceFile(prefix);
    if (file == nullptr) {
        return;
    }
    if (component != nullptr && function != nullptr && xid != nullptr) {
        char hex[2 * XIDDATASIZE + 1];
        std::fprintf(file, "%s %s %s %s   %s %s   Xid Format : %d\n", c.stamp, c.pid, "      ",
                     c.pad, component, function, static_cast<int>(xid->formatID));
        std::fflush(file);
        hexOf(hex, *xid, 0, xid->gtrid_length);
        std::fprintf(file, "%s %s %s %s   %s %s   Xid gtrid length=%d  data=%s\n", c.stamp, c.pid,
                     "      ", c.pad, component, function, static_cast<int>(xid->gtrid_length),
                     hex);
        std::fflush(file);
        hexOf(hex, *xid, xid->gtrid_length, xid->bqual_length);
        std::fprintf(file, "%s %s %s %s   %s %s   Xid bqual length=%d  data=%s\n", c.stamp, c.pid,
                     "      ", c.pad, component, function, static_cast<int>(xid->bqual_length),
                     hex);
        std::fflush(file);
    }
    std::fclose(file);
}
