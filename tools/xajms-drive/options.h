// The command line of xajms-drive: which switch load file and start function to use, the
// XA verbs to run in order with their flags or open strings, the rmid and XID they carry,
// the results expected of them, and how often and on how many threads to run them.
#pragma once

#include <xajms/xa.h>

#include <array>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace xajms::drive {

enum class Verb { open, close, start, end, prepare, commit, rollback, recover, forget, complete };
inline constexpr std::size_t kVerbs = 10;

std::string_view verbName(Verb verb);

// One XA call of the sequence: open and close carry a string, the others flags.
struct Call {
    Verb verb = Verb::open;
    long flags = TMNOFLAGS;
    std::string info;
};

// What a call of a verb must return. Recover succeeds with any count of XIDs unless a
// code was given for it.
struct Expectation {
    bool anyCount = false;
    int code = XA_OK;
};

struct Options {
    std::string library;  // empty: libxajms.so.1 on the tool's own library path
    std::string startFunction = "OrloStart";
    int rmid = 1;
    std::optional<XID> xid;
    std::string xidText;  // the XID in the tools' notation, as the call lines print it
    long recoverCount = 64;
    bool broker = false;
    std::array<Expectation, kVerbs> expect{};
    int repeat = 1;
    int threads = 1;
    bool reload = false;  // load and unload the library around each round
    std::vector<Call> calls;
    bool help = false;
};

// A bad command line; what() is the one-line reason.
class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Parses the arguments after the program name. Throws UsageError on anything it does not
// accept. Later occurrences of an option override earlier ones.
Options parseOptions(int argc, const char *const *argv);

std::string_view helpText();

}  // namespace xajms::drive
