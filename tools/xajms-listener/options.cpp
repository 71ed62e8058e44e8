// Parsing of xajms-listener's command line into Options, the rule that picks a request's
// behaviour, and the --help text. Every refusal is a UsageError with a one-line reason.
#include "options.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <filesystem>
#include <functional>

namespace xajms::listener {

namespace {

constexpr std::string_view kHelp =
    R"(usage: xajms-listener [options]

An execution-group XA listener for exercising the XA switch load file without a broker.
It listens on 127.0.0.1, registers its port as a row of the registry file, logs one line
per request and answers each request as the options below say.

Registration:
  --port N            TCP port to listen on; 0 (the default) picks a free one. Once
                      listening, the line "port=N" is printed on standard output.
  --mode MODE         registry mode of the row: broker (default), pending or recovery.
  --name NAME         execution group name stored in the row, at most 128 bytes
                      (default "xajms-listener").
  --registry PATH     registry file (default /var/orlom/XA_SWITCH_MMF). It is created
                      and formatted when absent, short, or without its signature; its
                      directory must exist. A warning on standard error names the other
                      live processes that use the file (registered in it or mapping it).
  --no-register       do not touch the registry file.
  The row taken is the first empty row below the row count, else the row at the row
  count, which is then raised by one. On exit the row is emptied (mode, pid, port 0).

Answers:
  --prepare N         XA code answered to prepare (default 0); likewise
  --commit N          commit,
  --rollback N        rollback and
  --forget N          forget. N is a signed decimal number, e.g. --rollback -4.
  --answer XID=N      answer N to every prepare, commit, rollback and forget for this
                      XID (written as for --xid), whatever the type's code is;
                      repeatable, a later rule for the same XID wins.
  --xid F:GTRID:BQUAL add an XID to the recover answer (repeatable, in order), written
                      as every xajms tool writes XIDs: F the formatID in decimal,
                      optionally negative; GTRID and BQUAL each printable text without
                      ':', or 0x and the bytes in hex, e.g. --xid 4660:abc:0x00ff.
                      Lengths are not limited to 64, so that over-long records can be
                      sent on purpose.
  --recover-count N   send N as the recover answer's xidcount instead of the number of
                      XIDs (the records sent stay those of --xid).
  --recover-size N    send N as the recover answer's xiddatasize instead of the true size.

Misbehaviour (TARGET is a request type: prepare, commit, rollback, forget or recover, or
a request number n >= 1, counted over all requests of every type and connection; a rule
for a request number wins over a rule for a type, a later rule over an earlier one):
  --late TARGET:S     answer S seconds late (decimal, e.g. 0.25; at most 3600). Later
                      requests on that connection wait behind the late answer.
  --never TARGET      never answer; the connection stays open and later requests on it
                      are answered.
  --drop TARGET       close the connection instead of answering.
  --half TARGET       send the first half of the answer, then close the connection.
  --drop-every N      close the connection instead of answering every request whose
                      number is a multiple of N (N >= 1); a rule for that number wins.

Other requests: close is logged; with the text "Cleanup Java Process" the listener
empties its row and exits with status 0. A request of an unknown type or size is logged
and its connection closed.

Output:
  --log FILE          append the request lines to FILE (default standard output). A line
                      is "#n TYPE rmid=R flags=0x... xid=F:GTRID:BQUAL -> ANSWER", the XID
                      as --xid takes it ("xid=none" without one), and text="..." for close.
  --quiet             log no request lines.
  -h, --help          print this text and exit.

Examples (in xajms-sandbox, so that no live queue manager sends them its transactions):
  xajms-listener --mode broker --name EG1 &
  xajms-listener --mode pending --name EG2 --never commit --xid 4660:abc:0x00ff &

Exit status: 0 after a cleanup close, SIGTERM or SIGINT; 1 when the listener cannot
listen or register; 2 for a bad command line or a registry directory that does not exist.
)";

using Handler = std::function<void(Options &, std::string_view)>;

struct OptionEntry {
    std::string_view name;
    bool takesValue;
    Handler apply;
};

[[noreturn]] void fail(std::string_view option, std::string_view what) {
    throw UsageError(std::string(option) + ": " + std::string(what));
}

template <typename T>
T parseNumber(std::string_view text, std::string_view option, int base) {
    T value{};
    const auto *end = text.data() + text.size();
    const auto [ptr, ec] = std::from_chars(text.data(), end, value, base);
    if (text.empty() || ec != std::errc() || ptr != end) {
        fail(option, "not a number in range: '" + std::string(text) + "'");
    }
    return value;
}

// An XID in the tools' notation. Its parts may be longer than 64 bytes, so that over-long
// records can be sent on purpose.
XidParts xidOption(std::string_view text, std::string_view option = "--xid") {
    std::string why;
    std::optional<XidParts> xid = tools::parseXid(text, why);
    if (!xid) {
        fail(option, why + ", got '" + std::string(text) + "'");
    }
    return std::move(*xid);
}

int parseMilliseconds(std::string_view text, std::string_view option) {
    double seconds = 0;
    const auto *end = text.data() + text.size();
    const auto [ptr, ec] = std::from_chars(text.data(), end, seconds, std::chars_format::fixed);
    if (text.empty() || ec != std::errc() || ptr != end || !std::isfinite(seconds) || seconds < 0 ||
        seconds > 3600) {
        fail(option, "seconds must be between 0 and 3600: '" + std::string(text) + "'");
    }
    return static_cast<int>(std::lround(seconds * 1000));
}

// Stores a behaviour for TARGET: a request type by name, or a request number from 1.
void setBehaviour(Options &o, std::string_view target, Behaviour b, std::string_view option) {
    if (const auto type = answeredTypeFromName(target)) {
        o.byType[static_cast<std::size_t>(*type)] = b;
        return;
    }
    if (!target.empty() && target.front() >= '0' && target.front() <= '9') {
        const auto n = parseNumber<std::uint64_t>(target, option, 10);
        if (n == 0) {
            fail(option, "request numbers start at 1");
        }
        o.byNumber[n] = b;
        return;
    }
    fail(option, "unknown target '" + std::string(target) +
                     "' (prepare, commit, rollback, forget, recover or a request number)");
}

void applyLate(Options &o, std::string_view value) {
    const auto colon = value.rfind(':');
    if (colon == std::string_view::npos) {
        fail("--late", "expected TARGET:SECONDS, got '" + std::string(value) + "'");
    }
    const Behaviour b{Misbehaviour::late, parseMilliseconds(value.substr(colon + 1), "--late")};
    setBehaviour(o, value.substr(0, colon), b, "--late");
}

Handler misbehave(Misbehaviour kind, std::string_view option) {
    return [kind, option](Options &o, std::string_view v) {
        setBehaviour(o, v, {kind, 0}, option);
    };
}

Handler answerCode(RequestType type, std::string_view option) {
    return [type, option](Options &o, std::string_view v) {
        o.codes[static_cast<std::size_t>(type)] = parseNumber<std::int32_t>(v, option, 10);
    };
}

void applyAnswer(Options &o, std::string_view v) {
    const auto eq = v.rfind('=');
    if (eq == std::string_view::npos) {
        fail("--answer", "expected F:GTRID:BQUAL=N, got '" + std::string(v) + "'");
    }
    o.answers.emplace_back(xidOption(v.substr(0, eq), "--answer"),
                           parseNumber<std::int32_t>(v.substr(eq + 1), "--answer", 10));
}

void applyDropEvery(Options &o, std::string_view v) {
    o.dropEvery = parseNumber<std::uint64_t>(v, "--drop-every", 10);
    if (o.dropEvery == 0) {
        fail("--drop-every", "request numbers start at 1");
    }
}

void applyMode(Options &o, std::string_view v) {
    constexpr std::array<std::pair<std::string_view, Mode>, 3> kModes = {
        {{"broker", Mode::broker}, {"pending", Mode::pending}, {"recovery", Mode::recovery}}};
    for (const auto &[name, mode] : kModes) {
        if (name == v) {
            o.mode = mode;
            return;
        }
    }
    fail("--mode", "expected broker, pending or recovery, got '" + std::string(v) + "'");
}

void applyName(Options &o, std::string_view v) {
    if (v.size() > kNameSize) {
        fail("--name", "longer than 128 bytes");
    }
    o.name = v;
}

void applyPath(std::string &to, std::string_view v, std::string_view option) {
    if (v.empty()) {
        fail(option, "empty path");
    }
    to = v;
}

const std::vector<OptionEntry> &optionTable() {
    static const std::vector<OptionEntry> table = {
        {"--port", true,
         [](Options &o, std::string_view v) {
             o.port = parseNumber<std::uint16_t>(v, "--port", 10);
         }},
        {"--mode", true, applyMode},
        {"--name", true, applyName},
        {"--registry", true,
         [](Options &o, std::string_view v) { applyPath(o.registry, v, "--registry"); }},
        {"--no-register", false, [](Options &o, std::string_view) { o.registerRow = false; }},
        {"--prepare", true, answerCode(RequestType::prepare, "--prepare")},
        {"--commit", true, answerCode(RequestType::commit, "--commit")},
        {"--rollback", true, answerCode(RequestType::rollback, "--rollback")},
        {"--forget", true, answerCode(RequestType::forget, "--forget")},
        {"--answer", true, applyAnswer},
        {"--xid", true, [](Options &o, std::string_view v) { o.xids.push_back(xidOption(v)); }},
        {"--recover-count", true,
         [](Options &o, std::string_view v) {
             o.recoverCount = parseNumber<std::int32_t>(v, "--recover-count", 10);
         }},
        {"--recover-size", true,
         [](Options &o, std::string_view v) {
             o.recoverDataSize = parseNumber<std::int32_t>(v, "--recover-size", 10);
         }},
        {"--late", true, applyLate},
        {"--never", true, misbehave(Misbehaviour::never, "--never")},
        {"--drop", true, misbehave(Misbehaviour::drop, "--drop")},
        {"--half", true, misbehave(Misbehaviour::half, "--half")},
        {"--drop-every", true, applyDropEvery},
        {"--log", true, [](Options &o, std::string_view v) { applyPath(o.logPath, v, "--log"); }},
        {"--quiet", false, [](Options &o, std::string_view) { o.quiet = true; }},
        {"--help", false, [](Options &o, std::string_view) { o.help = true; }},
        {"-h", false, [](Options &o, std::string_view) { o.help = true; }},
    };
    return table;
}

const OptionEntry &findOption(std::string_view name) {
    for (const auto &entry : optionTable()) {
        if (entry.name == name) {
            return entry;
        }
    }
    if (!name.starts_with("--")) {
        throw UsageError("unexpected argument '" + std::string(name) + "' (see --help)");
    }
    throw UsageError("unknown option '" + std::string(name) + "' (see --help)");
}

}  // namespace

Options parseOptions(int argc, const char *const *argv) {
    Options o;
    for (int i = 0; i < argc; ++i) {
        std::string_view arg = argv[i];
        std::optional<std::string_view> inlineValue;
        if (const auto eq = arg.find('='); arg.starts_with("--") && eq != std::string_view::npos) {
            inlineValue = arg.substr(eq + 1);
            arg = arg.substr(0, eq);
        }
        const OptionEntry &entry = findOption(arg);
        if (!entry.takesValue) {
            if (inlineValue) {
                fail(arg, "takes no value");
            }
            entry.apply(o, {});
            continue;
        }
        if (!inlineValue && i + 1 >= argc) {
            fail(arg, "missing value");
        }
        entry.apply(o, inlineValue ? *inlineValue : std::string_view(argv[++i]));
    }
    return o;
}

void checkRegistryDirectory(const Options &o) {
    if (!o.registerRow) {
        return;
    }
    const std::filesystem::path dir =
        std::filesystem::absolute(o.registry).lexically_normal().parent_path();
    std::error_code error;
    if (!std::filesystem::is_directory(dir, error)) {
        throw UsageError("registry file " + o.registry + ": no directory " + dir.string() +
                         " (xajms-sandbox gives a private /var/orlom to try things in)");
    }
}

Behaviour behaviourFor(const Options &o, std::uint64_t n, RequestType type) {
    if (const auto it = o.byNumber.find(n); it != o.byNumber.end()) {
        return it->second;
    }
    if (o.dropEvery != 0 && n % o.dropEvery == 0) {
        return {Misbehaviour::drop, 0};
    }
    const auto index = static_cast<std::size_t>(type);
    return index < o.byType.size() ? o.byType[index] : Behaviour{};
}

std::int32_t codeFor(const Options &o, RequestType type, std::span<const std::uint8_t> payload) {
    XidView v{};
    if (!o.answers.empty() && decodeXid(payload, v) == XidStatus::valid) {
        for (auto it = o.answers.rbegin(); it != o.answers.rend(); ++it) {
            const XidParts &x = it->first;
            const auto byte = [](char c, std::uint8_t b) {
                return static_cast<std::uint8_t>(c) == b;
            };
            if (x.formatID == v.formatId && std::ranges::equal(x.gtrid, v.gtrid, byte) &&
                std::ranges::equal(x.bqual, v.bqual, byte)) {
                return it->second;
            }
        }
    }
    return o.codes[static_cast<std::size_t>(type)];
}

std::string_view helpText() {
    return kHelp;
}

}  // namespace xajms::listener
