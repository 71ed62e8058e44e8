// The command line of xajms-listener: what it registers, how it answers each request type,
// which requests it answers late, never or by closing the connection, and where it logs.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "common/wire.h"
#include "common/xid_notation.h"
#include "registry_row.h"

namespace xajms::listener {

// The wire format and the XID notation, which the listener uses throughout.
using namespace xajms::tools;

enum class Misbehaviour { none, late, never, drop, half };

struct Behaviour {
    Misbehaviour kind = Misbehaviour::none;
    int lateMs = 0;
};

struct Options {
    int port = 0;
    Mode mode = Mode::broker;
    std::string name = "xajms-listener";
    std::string registry{kDefaultRegistry};
    bool registerRow = true;
    // Answer codes of prepare, commit, rollback and forget, indexed by RequestType.
    std::array<std::int32_t, 4> codes{};
    // Answer codes for given XIDs, whatever the completion request; a later rule wins.
    std::vector<std::pair<XidParts, std::int32_t>> answers;
    std::array<Behaviour, kAnsweredTypes> byType{};
    // Behaviour of the nth request (counted from 1 over all types); wins over byType.
    std::map<std::uint64_t, Behaviour> byNumber;
    // Every request whose number is a multiple of this is dropped (0: none); byNumber wins.
    std::uint64_t dropEvery = 0;
    std::vector<XidParts> xids;
    std::optional<std::int32_t> recoverCount;
    std::optional<std::int32_t> recoverDataSize;
    std::string logPath;
    bool quiet = false;
    bool help = false;
};

// A bad command line; what() is the one-line reason.
class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Parses the arguments after the program name. Throws UsageError on anything it does not
// accept; later occurrences of an option override earlier ones, except --xid, which adds.
Options parseOptions(int argc, const char *const *argv);

// Throws UsageError when the listener is to register and the directory of its registry file
// does not exist: a mistyped path is refused rather than created.
void checkRegistryDirectory(const Options &options);

// What a request numbered n of this type is to suffer: the rule for n, else a drop when n is
// a multiple of dropEvery, else the rule for the type.
Behaviour behaviourFor(const Options &o, std::uint64_t n, RequestType type);

// The code answered to a completion request of this type whose payload is `payload`: the
// last --answer rule for its XID, else the type's code.
std::int32_t codeFor(const Options &o, RequestType type, std::span<const std::uint8_t> payload);

std::string_view helpText();

}  // namespace xajms::listener
