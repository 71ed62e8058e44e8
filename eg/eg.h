// Internal interface of the PostgreSQL execution group: the open string, the gid naming a
// branch inside PostgreSQL, the log, the libpq calls, the opened resources and their
// connections, the branch table, the completion outcomes and the listener thread.
// Declarations only; each file owns its own state.
#pragma once

#include <libpq-fe.h>
#include <xajms/xa.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "common/wire.h"

namespace xajms::listener {
// The wire format and the XID notation of the tools, as the listener tool uses them.
using namespace xajms::tools;
}  // namespace xajms::listener

namespace xajms::eg {

// ---- open string: open_string.cpp ---------------------------------------------------------

struct OpenString {
    std::string eg;        // the execution group's name, as its registry row shows it
    std::string conninfo;  // a libpq connection string
    std::string log;       // a file that error lines are appended to; empty for none
};

// Parses `eg=NAME conninfo='...' [log=PATH]`: blank-separated key=value pairs, a value
// bare or single-quoted (\' and \\ escape inside quotes). Returns nothing and sets why when
// the text is malformed, a key unknown or repeated, or eg or conninfo missing.
std::optional<OpenString> parseOpenString(std::string_view text, std::string &why);

// ---- gid: gid.cpp ---------------------------------------------------------------------------

// PostgreSQL's limit on a prepared transaction's identifier.
inline constexpr std::size_t kMaxGidLength = 199;

// The 32-bit tag of an execution group's name that its gids carry.
std::uint32_t groupTag(std::string_view eg);

// The gid of a branch: "xj", the group tag, the rmid, the formatID and the gtrid length in
// fixed-width hex, then gtrid and bqual in unpadded base64url. Empty when the XID cannot be
// a branch: formatID -1 or outside 32 bits, a length outside 0..64, an empty gtrid.
std::string encodeGid(const XID &xid, std::uint32_t group, int rmid);

// The start of every gid of one group and rmid, as recover selects them.
std::string gidPrefix(std::uint32_t group, int rmid);

struct GidParts {
    XID xid;
    std::uint32_t group;
    int rmid;
};

// Takes a gid apart; nothing when it is not one that encodeGid wrote.
std::optional<GidParts> decodeGid(std::string_view gid);

// ---- log: report.cpp --------------------------------------------------------------------------

// Names the file that report() appends to from now on; an empty path appends nowhere.
void setLogPath(const std::string &path);

// Writes one line, "xajms-eg[pid]: " and the text, to standard error and to the log file.
__attribute__((format(printf, 1, 2))) void report(const char *format, ...);

// ---- libpq: pq.cpp ----------------------------------------------------------------------------

struct ResultFree {
    void operator()(PGresult *r) const { PQclear(r); }
};
using Result = std::unique_ptr<PGresult, ResultFree>;

// How a statement ended: done (its command tag in tag), refused by the server (SQLSTATE in
// state; also kept when the refusal came with the connection's end), or lost with the
// connection.
enum class Ended { done, refused, lost };

struct Reply {
    Ended ended = Ended::lost;
    std::string tag;
    std::string state;
    Result result;
};

// Runs one statement, with text parameters when given.
Reply run(PGconn *pg, const char *sql, const std::vector<std::string> &params = {});

// The replies to statements sent as one query string, in order, as far as they came back. The
// server runs none after one it refused. sent is false when the string could not be sent.
struct Series {
    bool sent = false;
    std::vector<Reply> replies;
};
Series runSeries(PGconn *pg, const std::string &sql);

// The first line of libpq's message about the connection.
std::string connectionError(PGconn *pg);

// ---- resources and connections: resources.cpp ---------------------------------------------

// A connection of an rmid's database; busy while a branch or a request holds it. Connections
// live as long as the process.
struct Connection {
    PGconn *pg = nullptr;
    int rmid = 0;
    bool busy = false;
};

// Records the rmid's database for this process and checks that it can be reached and can
// prepare. Returns XA_OK (also for a repeated open with the same string), XAER_INVAL when
// the process serves another execution group or the rmid another database, XAER_RMERR when
// the database cannot be reached; every refusal is reported.
int openResource(const OpenString &open, int rmid);

// Forgets an rmid that openResource has just added, closing its connections.
void dropResource(int rmid);

// The execution group this process serves: its name and tag; empty and 0 before any open.
std::string groupName();
std::uint32_t group();

// Whether the rmid has been opened in this process.
bool resourceOpen(int rmid);

enum class Taken { ok, unknownRmid, unreachable };

// Takes a free connection of the rmid, preferring the one given, else any free one, else a
// new one; a broken connection is reset first. Sets taken; null unless it is ok.
Connection *acquire(int rmid, Connection *preferred, Taken &taken);

// Gives a connection back to its rmid's free connections.
void release(Connection *c);

// ---- branches: branches.cpp -----------------------------------------------------------------

enum class BranchState { active, suspended, idle, failed, prepared };

// A branch of the process: from its start until its outcome. Its mutex serialises the
// requests on it; removed is set once it has left the table.
struct Branch {
    std::mutex m;
    std::string gid;
    int rmid = 0;
    Connection *conn = nullptr;  // null once prepared: the transaction left the session
    BranchState state = BranchState::active;
    bool removed = false;
};

int startBranch(const XID *xid, int rmid, long flags);
int endBranch(const XID *xid, int rmid, long flags);

// The connection of the calling thread's associated branch of the rmid, or null.
PGconn *threadConnection(int rmid);

// The branch of the gid, or null.
std::shared_ptr<Branch> findBranch(const std::string &gid);

// Takes a branch out of the table and gives its connection back; its mutex is held.
void retireBranch(Branch &b);

// The request that ended a branch without a prepared transaction to show for it.
enum class Ending { prepare, onePhaseCommit };

// Remembers the code that ended a branch, so that the same request retried after its answer
// was lost (the hardened start function retries once) gets the same code. The last 4096
// endings are kept.
void rememberEnding(Ending how, const std::string &gid, int code);

// The code remembered for the gid and request, if any.
std::optional<int> rememberedEnding(Ending how, const std::string &gid);

// ---- outcomes: outcomes.cpp -----------------------------------------------------------------

int prepareBranch(const XID &xid, int rmid);
int commitBranch(const XID &xid, int rmid, bool onePhase);
int rollbackBranch(const XID &xid, int rmid);

// The prepared branches of this group and rmid that PostgreSQL holds. False when the
// database cannot be asked.
bool recoverBranches(int rmid, std::vector<listener::XidParts> &out);

// ---- listener: listener.cpp -----------------------------------------------------------------

// Starts the listener thread unless one runs. Returns an empty text, or why it cannot start.
std::string startListener(const std::string &eg);

// See xajms_eg_wait_closed.
bool waitClosed(int timeoutMs);

}  // namespace xajms::eg
