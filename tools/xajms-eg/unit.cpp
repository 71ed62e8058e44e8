// A unit of work: xa_start on each resource, the DELETE and INSERT on the branches'
// connections, xa_end, then one-phase commit with one resource, or prepare, decision, commit
// and forget with two. Whatever fails before the decision is on disk is rolled back; what
// fails after it is left to recovery, which commits it.
#include "unit.h"

#include <xajms/eg.h>

#include <csignal>
#include <cstdio>
#include <cstring>

#include "queue.h"
#include "xa_names.h"

namespace xajms::eg_host {

namespace {

// The branch of the unit on the rmid: the unit's gtrid, the rmid as its bqual.
XID branchXid(const std::string &gtrid, int rmid) {
    XID xid{};
    xid.formatID = kFormatId;
    const std::string bqual = "rm" + std::to_string(rmid);
    xid.gtrid_length = static_cast<long>(gtrid.size());
    xid.bqual_length = static_cast<long>(bqual.size());
    std::memcpy(xid.data, gtrid.data(), gtrid.size());
    std::memcpy(xid.data + gtrid.size(), bqual.data(), bqual.size());
    return xid;
}

// Kills or stops the process when the options name this point of this unit.
void reach(const Host &host, Phase phase, long n) {
    if (host.crash.phase == phase && host.crash.unit == n) {
        std::fflush(nullptr);
        std::raise(SIGKILL);
    }
    if (host.pause.phase == phase && host.pause.unit == n) {
        std::fprintf(stderr, "xajms-eg: stopped after %s of unit %ld\n",
                     std::string(phaseName(phase)).c_str(), n);
        std::fflush(nullptr);
        std::raise(SIGSTOP);
    }
}

std::string call(const char *verb, int rmid, int rc) {
    return std::string(verb) + " of rmid " + std::to_string(rmid) + " returned " +
           drive::codeName(rc);
}

class Unit {
  public:
    Unit(const Host &host, long n)
        : host_(host), n_(n), gtrid_("xajms-eg." + host.run + "." + std::to_string(n)) {
        for (const int rmid : host.rmids) {
            xids_.push_back(branchXid(gtrid_, rmid));
        }
    }

    UnitEnd run(std::string &why);

  private:
    XID &xid(std::size_t i) { return xids_[i]; }
    int rmid(std::size_t i) const { return host_.rmids[i]; }
    bool startAll(std::string &why);
    UnitEnd work(std::string &why);
    bool endAll(long flags, std::string &why);
    UnitEnd rollBack(std::string &why, const std::string &cause);
    UnitEnd onePhase(std::string &why);
    UnitEnd twoPhase(std::string &why);

    const Host &host_;
    const long n_;
    const std::string gtrid_;
    std::vector<XID> xids_;
    std::size_t started_ = 0;
};

bool Unit::startAll(std::string &why) {
    for (; started_ < xids_.size(); ++started_) {
        const int rc = host_.sw->xa_start_entry(&xid(started_), rmid(started_), TMNOFLAGS);
        if (rc != XA_OK) {
            why = call("xa_start", rmid(started_), rc);
            return false;
        }
    }
    return true;
}

// Ends every started branch with the flags; false with why when one refuses.
bool Unit::endAll(long flags, std::string &why) {
    bool ok = true;
    for (std::size_t i = 0; i < started_; ++i) {
        const int rc = host_.sw->xa_end_entry(&xid(i), rmid(i), flags);
        if (rc != XA_OK && ok) {
            why = call("xa_end", rmid(i), rc);
            ok = false;
        }
    }
    return ok;
}

// Rolls back every started branch. Without a decision in the log a branch that cannot be
// reached now is rolled back by the next recovery: nothing is committed on it. Returns failed,
// or empty when cause is empty (a unit that found no message).
UnitEnd Unit::rollBack(std::string &why, const std::string &cause) {
    for (std::size_t i = 0; i < started_; ++i) {
        host_.sw->xa_rollback_entry(&xid(i), rmid(i), TMNOFLAGS);
    }
    if (cause.empty()) {
        return UnitEnd::empty;
    }
    why = "unit " + std::to_string(n_) + ": " + cause + "; the unit is rolled back";
    return UnitEnd::failed;
}

UnitEnd Unit::work(std::string &why) {
    long id = 0;
    std::string body, failure;
    const Taken taken = takeMessage(xajms_eg_connection(rmid(0)), id, body, failure);
    const bool put = taken == Taken::message &&
                     putMessage(xajms_eg_connection(host_.rmids.back()), id, body, failure);
    if (taken == Taken::empty || (taken == Taken::message && put)) {
        std::string refused;
        if (!endAll(TMSUCCESS, refused)) {
            return rollBack(why, refused);
        }
        return taken == Taken::empty ? rollBack(why, "") : UnitEnd::moved;
    }
    std::string ignored;
    endAll(TMFAIL, ignored);
    return rollBack(why, failure);
}

UnitEnd Unit::onePhase(std::string &why) {
    reach(host_, Phase::prepare, n_);
    reach(host_, Phase::decision, n_);
    const int rc = host_.sw->xa_commit_entry(&xid(0), rmid(0), TMONEPHASE);
    if (rc != XA_OK) {
        why = "unit " + std::to_string(n_) + ": " + call("one-phase xa_commit", rmid(0), rc) +
              "; the message is moved or not, never both";
        return UnitEnd::failed;
    }
    reach(host_, Phase::commit, n_);
    return UnitEnd::moved;
}

UnitEnd Unit::twoPhase(std::string &why) {
    std::vector<bool> toCommit(xids_.size(), true);
    for (std::size_t i = 0; i < xids_.size(); ++i) {
        const int rc = host_.sw->xa_prepare_entry(&xid(i), rmid(i), TMNOFLAGS);
        toCommit[i] = rc == XA_OK;
        if (rc != XA_OK && rc != XA_RDONLY) {
            return rollBack(why, call("xa_prepare", rmid(i), rc));
        }
    }
    reach(host_, Phase::prepare, n_);
    if (!host_.log->record(gtrid_)) {
        return rollBack(why, "the decision could not be written to " + host_.log->path());
    }
    reach(host_, Phase::decision, n_);
    std::string failed;
    for (std::size_t i = 0; i < xids_.size(); ++i) {
        const int rc = toCommit[i] ? host_.sw->xa_commit_entry(&xid(i), rmid(i), TMNOFLAGS) : XA_OK;
        if (rc != XA_OK && failed.empty()) {
            failed = call("xa_commit", rmid(i), rc);
        }
        if (i == 0) {
            reach(host_, Phase::commit, n_);
        }
    }
    if (!failed.empty()) {
        why = "unit " + std::to_string(n_) + ": " + failed +
              "; the decision is kept and the next start commits the branch";
        return UnitEnd::failed;
    }
    host_.log->forget(gtrid_);
    return UnitEnd::moved;
}

UnitEnd Unit::run(std::string &why) {
    std::string refused;
    if (!startAll(refused)) {
        std::string ignored;
        endAll(TMFAIL, ignored);
        return rollBack(why, refused);
    }
    reach(host_, Phase::start, n_);
    const UnitEnd worked = work(why);
    if (worked != UnitEnd::moved) {
        return worked;
    }
    reach(host_, Phase::work, n_);
    return xids_.size() == 1 ? onePhase(why) : twoPhase(why);
}

}  // namespace

UnitEnd runUnit(const Host &host, long n, std::string &why) {
    Unit unit(host, n);
    return unit.run(why);
}

std::string xidText(const XID &xid) {
    const long g = xid.gtrid_length, b = xid.bqual_length;
    if (g < 0 || b < 0 || g > MAXGTRIDSIZE || b > MAXBQUALSIZE) {
        return "malformed";
    }
    auto text = [](const char *bytes, long n) {
        std::string out;
        bool printable = true;
        for (long i = 0; i < n; ++i) {
            printable = printable && bytes[i] > ' ' && bytes[i] < 127 && bytes[i] != ':';
        }
        char hex[3];
        for (long i = 0; i < n; ++i) {
            if (printable) {
                out.push_back(bytes[i]);
            } else {
                std::snprintf(hex, sizeof hex, "%02x", static_cast<unsigned char>(bytes[i]));
                out += hex;
            }
        }
        return printable ? out : "0x" + out;
    };
    char format[24];
    std::snprintf(format, sizeof format, "%lx", static_cast<unsigned long>(xid.formatID));
    return std::string(format) + ":" + text(xid.data, g) + ":" + text(xid.data + g, b);
}

}  // namespace xajms::eg_host
