// The texts the PostgreSQL execution group takes from outside: a gid read back from
// pg_prepared_xacts (any session of the database may have written it) and an open string.
// A gid that decodes encodes back to itself; an open string that parses names a group.
#include "common.h"
#include "eg.h"

#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string_view text(reinterpret_cast<const char *>(data), size);
    if (const auto parts = xajms::eg::decodeGid(text)) {
        xajms::fuzz::check(xajms::eg::encodeGid(parts->xid, parts->group, parts->rmid) == text,
                           "a decoded gid does not encode back to itself");
    }
    std::string why;
    const auto open = xajms::eg::parseOpenString(text, why);
    xajms::fuzz::check(open ? !open->eg.empty() && !open->conninfo.empty() : !why.empty(),
                       "an open string parsed without a group, or was refused without a reason");
    return 0;
}
