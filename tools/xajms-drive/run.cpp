// The calls of the sequence: the entry each verb reaches, the arguments it passes, the line
// printed for it, and the threads that repeat the sequence. Lines are written whole under
// one lock, so that threads never interleave within a line. A call that took seconds is
// explained on standard error, from the registry file.
#include "run.h"

#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "wait_reason.h"
#include "xa_names.h"

namespace xajms::drive {

namespace {

using Clock = std::chrono::steady_clock;

// What one thread owns: its copy of the XID and its recover array, which the library may
// write into.
struct Workspace {
    XID xid{};
    std::vector<XID> recovered;
};

// Everything the threads share.
struct Shared {
    const xa_switch_t &record;
    const Options &options;
    std::FILE *out;
    std::mutex outLock;
    std::atomic<long> unexpected{0};
    std::atomic<long> calls{0};
    // The registry file before the first call, then after each slow call, and the last
    // explanation printed (printed once in a row).
    std::optional<tools::Snapshot> registry;
    std::string lastReason;
};

int invoke(const xa_switch_t &sw, const Call &call, int rmid, Workspace &w) {
    std::string info = call.info;
    switch (call.verb) {
        case Verb::open:
            return sw.xa_open_entry(info.data(), rmid, call.flags);
        case Verb::close:
            return sw.xa_close_entry(info.data(), rmid, call.flags);
        case Verb::start:
            return sw.xa_start_entry(&w.xid, rmid, call.flags);
        case Verb::end:
            return sw.xa_end_entry(&w.xid, rmid, call.flags);
        case Verb::prepare:
            return sw.xa_prepare_entry(&w.xid, rmid, call.flags);
        case Verb::commit:
            return sw.xa_commit_entry(&w.xid, rmid, call.flags);
        case Verb::rollback:
            return sw.xa_rollback_entry(&w.xid, rmid, call.flags);
        case Verb::recover:
            return sw.xa_recover_entry(w.recovered.empty() ? nullptr : w.recovered.data(),
                                       static_cast<long>(w.recovered.size()), rmid, call.flags);
        case Verb::forget:
            return sw.xa_forget_entry(&w.xid, rmid, call.flags);
        case Verb::complete: {
            int handle = 0;
            int result = 0;
            return sw.xa_complete_entry(&handle, &result, rmid, call.flags);
        }
    }
    return XAER_INVAL;
}

// "commit rmid=1 xid=4711:g:b flags=TMNOFLAGS", the call as it is made.
std::string describe(const Call &call, const Options &o) {
    std::string text(verbName(call.verb));
    text += " rmid=" + std::to_string(o.rmid);
    if (call.verb != Verb::open && call.verb != Verb::close && call.verb != Verb::recover &&
        call.verb != Verb::complete) {
        text += " xid=" + o.xidText;  // printable already, and pasted back as it is
    }
    text += " flags=" + flagNames(call.flags);
    if (call.verb == Verb::open || call.verb == Verb::close) {
        text += " string='" + printable(call.info) + "'";
    }
    if (call.verb == Verb::recover) {
        text += " count=" + std::to_string(o.recoverCount);
    }
    return text;
}

// "XA_OK", or "2 xids" for a recover that returned a count.
std::string resultText(Verb verb, int rc) {
    if (verb == Verb::recover && rc >= 0) {
        return std::to_string(rc) + (rc == 1 ? " xid" : " xids");
    }
    return codeName(rc);
}

bool asExpected(const Expectation &e, int rc) {
    return e.anyCount ? rc >= 0 : rc == e.code;
}

void runOne(Shared &s, const Call &call, Workspace &w, const std::string &prefix) {
    const Expectation &wanted = s.options.expect[static_cast<std::size_t>(call.verb)];
    w.xid = s.options.xid.value_or(XID{});
    const Clock::time_point begin = Clock::now();
    const int rc = invoke(s.record, call, s.options.rmid, w);
    const std::chrono::duration<double, std::milli> took = Clock::now() - begin;
    char timing[48];
    std::snprintf(timing, sizeof timing, " %.3f ms", took.count());
    std::string line = prefix + describe(call, s.options) + " -> " + resultText(call.verb, rc);
    line += timing;
    if (!asExpected(wanted, rc)) {
        line += " (expected ";
        line += wanted.anyCount ? "a count of xids" : codeName(wanted.code);
        line += ")";
        s.unexpected.fetch_add(1);
    }
    line += "\n";
    s.calls.fetch_add(1);
    const std::lock_guard<std::mutex> hold(s.outLock);
    std::fwrite(line.data(), 1, line.size(), s.out);
    if (took.count() < kSlowCallMs) {
        return;
    }
    std::string why;
    std::optional<tools::Snapshot> now = registryNow(why);
    const std::string reason = waitReason(s.registry, now, why, took.count());
    s.registry = std::move(now);
    if (reason != s.lastReason) {
        std::fflush(s.out);
        std::fprintf(stderr, "xajms-drive: %s%s took %.1f s: %s\n", prefix.c_str(),
                     std::string(verbName(call.verb)).c_str(), took.count() / 1000, reason.c_str());
        s.lastReason = reason;
    }
}

void runThread(Shared &s, int thread) {
    Workspace w;
    w.recovered.resize(static_cast<std::size_t>(s.options.recoverCount));
    const bool numbered = s.options.threads > 1 || s.options.repeat > 1;
    for (int round = 1; round <= s.options.repeat; ++round) {
        const std::string prefix =
            numbered ? "thread=" + std::to_string(thread) + " round=" + std::to_string(round) + " "
                     : std::string();
        for (const Call &call : s.options.calls) {
            runOne(s, call, w, prefix);
        }
    }
}

}  // namespace

std::string printable(std::string_view text) {
    std::string shown;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\\' || c == '\'') {
            shown += '\\';
            shown += c;
        } else if (byte >= 0x20 && byte < 0x7f) {
            shown += c;
        } else {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02x", byte);
            shown += hex;
        }
    }
    return shown;
}

std::string missingEntry(const xa_switch_t &sw, const Options &options) {
    const std::array<bool, kVerbs> present = {
        sw.xa_open_entry != nullptr,     sw.xa_close_entry != nullptr,
        sw.xa_start_entry != nullptr,    sw.xa_end_entry != nullptr,
        sw.xa_prepare_entry != nullptr,  sw.xa_commit_entry != nullptr,
        sw.xa_rollback_entry != nullptr, sw.xa_recover_entry != nullptr,
        sw.xa_forget_entry != nullptr,   sw.xa_complete_entry != nullptr,
    };
    for (const Call &call : options.calls) {
        if (!present[static_cast<std::size_t>(call.verb)]) {
            return "xa_" + std::string(verbName(call.verb)) + "_entry";
        }
    }
    return {};
}

long runCalls(const xa_switch_t &record, const Options &options, std::FILE *out) {
    Shared shared{record, options, out, {}, {}, {}, {}, {}};
    std::string why;
    shared.registry = registryNow(why);
    const Clock::time_point begin = Clock::now();
    if (options.threads == 1) {
        runThread(shared, 1);
    } else {
        std::vector<std::jthread> threads;
        for (int t = 1; t <= options.threads; ++t) {
            threads.emplace_back([&shared, t] { runThread(shared, t); });
        }
    }
    if (options.threads > 1 || options.repeat > 1) {
        const std::chrono::duration<double> took = Clock::now() - begin;
        std::fprintf(out, "total calls=%ld unexpected=%ld seconds=%.3f\n", shared.calls.load(),
                     shared.unexpected.load(), took.count());
    }
    return shared.unexpected.load();
}

}  // namespace xajms::drive
