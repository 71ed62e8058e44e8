// Parsing of xajms-drive's command line into Options, and the --help text. Every refusal is
// a UsageError with a one-line reason.
#include "options.h"

#include <charconv>
#include <cstring>
#include <functional>

#include "common/xid_notation.h"
#include "xa_names.h"

namespace xajms::drive {

namespace {

constexpr std::string_view kHelp =
    R"(usage: xajms-drive [options] VERB...

Drives an XA switch load file as a transaction manager would: loads the library, calls its
start function for the switch record, then calls the switch's entries for the verbs given,
in order, and prints one line per call with its arguments, its return code by name and how
long it took.

Verbs (flags are names joined by '|' or '+', or a number; the defaults are shown):
  open[=STRING]       xa_open with the open string (default empty), TMNOFLAGS
  close[=STRING]      xa_close with the close string (default empty), TMNOFLAGS
  start[=FLAGS]       xa_start with the XID, TMNOFLAGS
  end[=FLAGS]         xa_end with the XID, TMSUCCESS
  prepare[=FLAGS]     xa_prepare with the XID, TMNOFLAGS
  commit[=FLAGS]      xa_commit with the XID, TMNOFLAGS (commit=TMONEPHASE for one phase)
  rollback[=FLAGS]    xa_rollback with the XID, TMNOFLAGS
  recover[=FLAGS]     xa_recover into an array of --count XIDs, TMSTARTRSCAN|TMENDRSCAN;
                      the line shows how many XIDs came back
  forget[=FLAGS]      xa_forget with the XID, TMNOFLAGS
  complete[=FLAGS]    xa_complete, TMNOFLAGS

Options:
  --library PATH      switch load file to load (default the libxajms.so.1 built with the
                      tool: in its build tree, or in the installed library directory)
  --start NAME        start function returning the switch record (default OrloStart)
  --broker            call ZJavaInitSwitchJMS of the library first, as a broker process does
  --rmid N            resource manager id passed to every call (default 1)
  --xid F:GTRID:BQUAL the XID of start, end, prepare, commit, rollback and forget, as
                      every xajms tool writes XIDs: the formatID in decimal, then the
                      transaction id and branch qualifier (at most 64 bytes each), each
                      printable text without ':', or 0x and the bytes in hex, e.g.
                      4711:gtrid01:bqual01 or 4711:gtrid01:0x00ff. An XID that
                      xajms-registry --in-doubt lists can be pasted here as it is.
  --count N           size of the recover array, 0 to 100000 (default 64)
  --expect VERB=CODE  the code VERB must return, by name (XAER_RMFAIL) or number (-7);
                      default XA_OK, and for recover any count of XIDs. Repeatable.
  --repeat N          run the verbs N times in a row (default 1)
  --threads N         run the repeated verbs on N threads at once (default 1, at most 256)
                      With --repeat or --threads above 1, each line starts with
                      "thread=T round=R" and a last line gives the totals.
  --reload            load the library before each of the --repeat rounds and unload it
                      after, as a transaction manager that loads the switch per client
                      does; a last line gives the descriptors and file mappings the process
                      gained after the first unload, and any gain counts as unexpected
  -h, --help          print this text and exit

Start and end go to Java in-process through the companion library libPellux.so, which
only a broker process has (--broker); in a queue-manager process they return XAER_RMERR.
A call that takes a second or more is explained on standard error: no listener registered
(the library looks 3 times, a second apart, then returns XAER_RMFAIL), a port that refused
connections (3 attempts, then its row is marked dead), or the listeners whose answers it
waited for (up to 60 s each, then XAER_RMFAIL).

Example (in xajms-sandbox, with a listener started by xajms-listener --name EG1 &):
  xajms-drive --rmid 1 --xid 4711:gtrid01:bqual01 open='qm=QM1' prepare commit close

Exit status: 0 when every call returned what was expected, 1 otherwise or when the library
returns no usable switch, 2 for a bad command line or a library that cannot be loaded.
)";

constexpr long kMaxRecoverCount = 100000;
constexpr int kMaxThreads = 256;
constexpr int kMaxRepeat = 100000000;

struct VerbEntry {
    std::string_view name;
    Verb verb;
    long defaultFlags;
    bool takesString;
};

constexpr std::array<VerbEntry, kVerbs> kVerbTable{{
    {"open", Verb::open, TMNOFLAGS, true},
    {"close", Verb::close, TMNOFLAGS, true},
    {"start", Verb::start, TMNOFLAGS, false},
    {"end", Verb::end, TMSUCCESS, false},
    {"prepare", Verb::prepare, TMNOFLAGS, false},
    {"commit", Verb::commit, TMNOFLAGS, false},
    {"rollback", Verb::rollback, TMNOFLAGS, false},
    {"recover", Verb::recover, TMSTARTRSCAN | TMENDRSCAN, false},
    {"forget", Verb::forget, TMNOFLAGS, false},
    {"complete", Verb::complete, TMNOFLAGS, false},
}};

[[noreturn]] void fail(std::string_view option, std::string_view what) {
    throw UsageError(std::string(option) + ": " + std::string(what));
}

std::string quoted(std::string_view text) {
    return "'" + std::string(text) + "'";
}

const VerbEntry *findVerb(std::string_view name) {
    for (const VerbEntry &entry : kVerbTable) {
        if (entry.name == name) {
            return &entry;
        }
    }
    return nullptr;
}

template <typename T>
T parseNumber(std::string_view text, std::string_view option, T low, T high) {
    T value{};
    const char *end = text.data() + text.size();
    const auto [ptr, ec] = std::from_chars(text.data(), end, value);
    if (text.empty() || ec != std::errc() || ptr != end || value < low || value > high) {
        fail(option, "expected a number from " + std::to_string(low) + " to " +
                         std::to_string(high) + ", got " + quoted(text));
    }
    return value;
}

// F:GTRID:BQUAL in the tools' notation, each part at most 64 bytes. xidText keeps the XID
// as the tools print it, so that the call lines name it as the listener's log does.
void applyXid(Options &o, std::string_view text) {
    std::string why;
    const std::optional<tools::XidParts> parts = tools::parseXid(text, why);
    if (!parts) {
        fail("--xid", why + ", got " + quoted(text));
    }
    if (parts->gtrid.size() > MAXGTRIDSIZE || parts->bqual.size() > MAXBQUALSIZE) {
        fail("--xid", "transaction id and branch qualifier are at most 64 bytes each");
    }
    XID xid{};
    xid.formatID = parts->formatID;
    xid.gtrid_length = static_cast<long>(parts->gtrid.size());
    xid.bqual_length = static_cast<long>(parts->bqual.size());
    std::memcpy(xid.data, parts->gtrid.data(), parts->gtrid.size());
    std::memcpy(xid.data + parts->gtrid.size(), parts->bqual.data(), parts->bqual.size());
    o.xid = xid;
    o.xidText = tools::formatXid(*parts);
}

void applyExpect(Options &o, std::string_view text) {
    const std::size_t eq = text.find('=');
    const VerbEntry *entry = findVerb(text.substr(0, eq));
    if (eq == std::string_view::npos || entry == nullptr) {
        fail("--expect", "expected VERB=CODE with an XA verb, got " + quoted(text));
    }
    const std::optional<int> code = parseCode(text.substr(eq + 1));
    if (!code) {
        fail("--expect", "unknown XA code " + quoted(text.substr(eq + 1)));
    }
    o.expect[static_cast<std::size_t>(entry->verb)] = Expectation{false, *code};
}

using Handler = std::function<void(Options &, std::string_view)>;

struct OptionEntry {
    std::string_view name;
    bool takesValue;
    Handler apply;
};

const std::vector<OptionEntry> &optionTable() {
    static const std::vector<OptionEntry> table = {
        {"--library", true,
         [](Options &o, std::string_view v) {
             if (v.empty()) {
                 fail("--library", "empty path");
             }
             o.library = v;
         }},
        {"--start", true,
         [](Options &o, std::string_view v) {
             if (v.empty()) {
                 fail("--start", "empty function name");
             }
             o.startFunction = v;
         }},
        {"--broker", false, [](Options &o, std::string_view) { o.broker = true; }},
        {"--rmid", true,
         [](Options &o, std::string_view v) {
             o.rmid = parseNumber<int>(v, "--rmid", -2147483647 - 1, 2147483647);
         }},
        {"--xid", true, applyXid},
        {"--count", true,
         [](Options &o, std::string_view v) {
             o.recoverCount = parseNumber<long>(v, "--count", 0, kMaxRecoverCount);
         }},
        {"--expect", true, applyExpect},
        {"--repeat", true,
         [](Options &o, std::string_view v) {
             o.repeat = parseNumber<int>(v, "--repeat", 1, kMaxRepeat);
         }},
        {"--threads", true,
         [](Options &o, std::string_view v) {
             o.threads = parseNumber<int>(v, "--threads", 1, kMaxThreads);
         }},
        {"--reload", false, [](Options &o, std::string_view) { o.reload = true; }},
        {"--help", false, [](Options &o, std::string_view) { o.help = true; }},
    };
    return table;
}

const OptionEntry *findOption(std::string_view name) {
    for (const OptionEntry &entry : optionTable()) {
        if (entry.name == name) {
            return &entry;
        }
    }
    return nullptr;
}

// VERB or VERB=ARGUMENT: the argument is the string of open and close, else the flags.
Call parseVerb(std::string_view arg) {
    const std::size_t eq = arg.find('=');
    const VerbEntry *entry = findVerb(arg.substr(0, eq));
    if (entry == nullptr) {
        throw UsageError("unknown verb " + quoted(arg.substr(0, eq)) + " (see --help)");
    }
    Call call{entry->verb, entry->defaultFlags, {}};
    if (eq == std::string_view::npos) {
        return call;
    }
    const std::string_view value = arg.substr(eq + 1);
    if (entry->takesString) {
        call.info = value;
        return call;
    }
    const std::optional<long> flags = parseFlags(value);
    if (!flags) {
        fail(entry->name, "unknown flags " + quoted(value));
    }
    call.flags = *flags;
    return call;
}

bool needsXid(Verb verb) {
    return verb != Verb::open && verb != Verb::close && verb != Verb::recover &&
           verb != Verb::complete;
}

// Checks what only the whole command line can tell.
void checkComplete(const Options &o) {
    if (o.calls.empty()) {
        throw UsageError("no verb given (see --help)");
    }
    for (const Call &call : o.calls) {
        if (needsXid(call.verb) && !o.xid) {
            fail(verbName(call.verb), "needs --xid FORMAT:GTRID:BQUAL");
        }
    }
}

}  // namespace

std::string_view verbName(Verb verb) {
    return kVerbTable[static_cast<std::size_t>(verb)].name;
}

Options parseOptions(int argc, const char *const *argv) {
    Options o;
    o.expect[static_cast<std::size_t>(Verb::recover)].anyCount = true;
    for (int i = 0; i < argc; ++i) {
        std::string_view arg = argv[i];
        if (arg == "-h") {
            o.help = true;
            continue;
        }
        if (!arg.starts_with("--")) {
            o.calls.push_back(parseVerb(arg));
            continue;
        }
        std::optional<std::string_view> inlineValue;
        if (const std::size_t eq = arg.find('='); eq != std::string_view::npos) {
            inlineValue = arg.substr(eq + 1);
            arg = arg.substr(0, eq);
        }
        const OptionEntry *entry = findOption(arg);
        if (entry == nullptr) {
            throw UsageError("unknown option " + quoted(arg) + " (see --help)");
        }
        if (!entry->takesValue && inlineValue) {
            fail(arg, "takes no value");
        }
        if (entry->takesValue && !inlineValue && i + 1 >= argc) {
            fail(arg, "missing value");
        }
        const std::string_view value = !entry->takesValue ? std::string_view()
                                       : inlineValue      ? *inlineValue
                                                          : argv[++i];
        entry->apply(o, value);
    }
    if (!o.help) {
        checkComplete(o);
    }
    return o;
}

std::string_view helpText() {
    return kHelp;
}

}  // namespace xajms::drive
