// A switch load file for driving xajms-drive in tests: each entry returns the codes listed for
// its verb in XAJMS_TEST_SCRIPT ("commit=-7,0;recover=2": the codes in turn, the last one
// repeated; 0 for a verb not listed) and appends a line with its arguments to the file
// named by XAJMS_TEST_CALL_LOG. ScriptedStart gives the switch, NullStart none, and
// PartialStart one without a complete entry.
#include <fcntl.h>
#include <unistd.h>

#include <xajms/xa.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string_view>
#include <vector>

namespace {

constexpr std::array<std::string_view, 10> kVerbs = {"open",    "close",   "start",    "end",
                                                     "prepare", "commit",  "rollback", "recover",
                                                     "forget",  "complete"};

struct Script {
    std::array<std::vector<int>, kVerbs.size()> codes;
    std::array<std::atomic<int>, kVerbs.size()> calls{};
};

// "verb=c1,c2;verb=c1": anything malformed is left out.
void parseEntry(Script &script, std::string_view entry) {
    const std::size_t eq = entry.find('=');
    for (std::size_t v = 0; v < kVerbs.size() && eq != std::string_view::npos; ++v) {
        if (entry.substr(0, eq) != kVerbs[v]) {
            continue;
        }
        std::string_view list = entry.substr(eq + 1);
        while (!list.empty()) {
            int code = 0;
            const auto [end, ec] = std::from_chars(list.data(), list.data() + list.size(), code);
            if (ec != std::errc()) {
                return;
            }
            script.codes[v].push_back(code);
            list.remove_prefix(static_cast<std::size_t>(end - list.data()));
            if (!list.empty()) {
                list.remove_prefix(1);
            }
        }
    }
}

// Read once from the environment. The script is a static object, not a heap block, so that
// unloading the library leaves nothing behind.
Script &script() {
    static Script loaded;
    static std::once_flag once;
    std::call_once(once, [] {
        const char *text = std::getenv("XAJMS_TEST_SCRIPT");
        std::string_view rest = text != nullptr ? text : "";
        while (!rest.empty()) {
            const std::size_t cut = rest.find(';');
            parseEntry(loaded, rest.substr(0, cut));
            rest = cut == std::string_view::npos ? std::string_view() : rest.substr(cut + 1);
        }
    });
    return loaded;
}

void logLine(const char *format, ...) __attribute__((format(printf, 1, 2)));

void logLine(const char *format, ...) {
    const char *log = std::getenv("XAJMS_TEST_CALL_LOG");
    if (log == nullptr) {
        return;
    }
    char line[512];
    va_list args;
    va_start(args, format);
    const int n = std::vsnprintf(line, sizeof line - 1, format, args);
    va_end(args);
    const std::size_t length = n < 0 ? 0 : std::min<std::size_t>(n, sizeof line - 2);
    line[length] = '\n';
    const int fd = ::open(log, O_WRONLY | O_APPEND | O_CREAT, 0600);
    if (fd >= 0) {
        (void)!::write(fd, line, length + 1);
        ::close(fd);
    }
}

// The next scripted code of the verb.
int next(std::size_t verb) {
    Script &s = script();
    const std::vector<int> &codes = s.codes[verb];
    const auto nth = static_cast<std::size_t>(s.calls[verb].fetch_add(1));
    return codes.empty() ? 0 : codes[std::min(nth, codes.size() - 1)];
}

int withString(std::size_t verb, const char *text, int rmid, long flags) {
    logLine("%s rmid=%d flags=0x%lx string=%s", kVerbs[verb].data(), rmid, flags,
            text != nullptr ? text : "(null)");
    return next(verb);
}

int withXid(std::size_t verb, const XID *x, int rmid, long flags) {
    const int g = static_cast<int>(x->gtrid_length);
    const int b = static_cast<int>(x->bqual_length);
    logLine("%s rmid=%d flags=0x%lx xid=%ld:%.*s:%.*s", kVerbs[verb].data(), rmid, flags,
            x->formatID, g, x->data, b, x->data + g);
    return next(verb);
}

template <std::size_t V>
int stringEntry(char *text, int rmid, long flags) {
    return withString(V, text, rmid, flags);
}

template <std::size_t V>
int xidEntry(XID *xid, int rmid, long flags) {
    return withXid(V, xid, rmid, flags);
}

int recoverEntry(XID *, long count, int rmid, long flags) {
    logLine("recover rmid=%d flags=0x%lx count=%ld", rmid, flags, count);
    return next(7);
}

int completeEntry(int *, int *, int rmid, long flags) {
    logLine("complete rmid=%d flags=0x%lx", rmid, flags);
    return next(9);
}

xa_switch_t full = {
    "SCRIPTED",   TMNOMIGRATE, 0,           stringEntry<0>, stringEntry<1>, xidEntry<2>,
    xidEntry<3>,  xidEntry<6>, xidEntry<4>, xidEntry<5>,    recoverEntry,   xidEntry<8>,
    completeEntry};

}  // namespace

extern "C" {

__attribute__((visibility("default"))) xa_switch_t *ScriptedStart(void) {
    return &full;
}

__attribute__((visibility("default"))) xa_switch_t *NullStart(void) {
    return nullptr;
}

__attribute__((visibility("default"))) xa_switch_t *PartialStart(void) {
    static xa_switch_t partial = full;
    partial.xa_complete_entry = nullptr;
    return &partial;
}

__attribute__((visibility("default"))) long ZJavaInitSwitchJMS(void) {
    logLine("ZJavaInitSwitchJMS");
    return 0;
}

}  // extern "C"
