// The host's decision log: a coordinator's durable record of the transactions it decided to
// commit. A decision is appended and fsync'd after every prepare succeeded and before the
// first commit, and forgotten after the last commit; recovery commits exactly the prepared
// branches whose decision is in the log (presumed abort).
#pragma once

#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>

#include "common/descriptor.h"

namespace xajms::eg_host {

// A failure of the run; what() is the one-line reason.
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class DecisionLog {
  public:
    // Opens the file, creating it, and locks it for this process. Throws Failure when it
    // cannot be opened, or is locked by another process (the text names its pid).
    DecisionLog(const std::string &path, std::string_view group);

    // The gtrids whose commit was decided and not forgotten, from the file as it is.
    std::set<std::string> decided() const;

    // Appends the decision to commit the gtrid and waits until it is on disk. Returns false
    // when it could not be written or synced: then nothing may be committed.
    bool record(std::string_view gtrid);

    // Appends that the gtrid's branches are all committed. Not synced: a decision that a
    // crash keeps finds no prepared branch and is dropped by the next recovery.
    void forget(std::string_view gtrid);

    // Empties the file once a recovery has resolved every decision in it; false on failure.
    bool clear();

    const std::string &path() const { return path_; }

  private:
    bool append(char kind, std::string_view gtrid, bool sync);

    std::string path_;
    tools::Descriptor fd_;
    std::mutex m_;  // one append and sync at a time keeps the lines whole
};

}  // namespace xajms::eg_host
