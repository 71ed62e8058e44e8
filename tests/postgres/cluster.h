// What the execution group's tests share: the throwaway cluster that scripts/pg-fixture
// started for the test process, a fresh database on it, the companion's table, the
// registry row of a process, and single requests sent to a listener port.
#pragma once

#include <libpq-fe.h>
#include <xajms/eg.h>
#include <xajms/xajms.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "registry/registry.h"
#include "support/loopback.h"
#include "support/orlom.h"

namespace xajms::test {

// The cluster's directory (also its socket directory), or empty when no fixture runs.
inline std::string clusterDir() {
    const char *dir = std::getenv("XAJMS_PG_DIR");
    return dir != nullptr ? dir : "";
}

// Enters the test's private /var/orlom and keeps descriptor 0 away from its sockets. Returns
// why the test cannot run here (no cluster, no private /var/orlom), or empty. Call it first.
inline std::string enterPostgresTest() {
    const std::string why =
        clusterDir().empty() ? "no cluster (run under scripts/pg-fixture)" : enterPrivateOrlom();
    occupyDescriptorZero();
    return why;
}

// Runs scripts/pg-fixture with the verb (start, stop, kill) on the cluster; true on success.
inline bool cluster(const std::string &verb) {
    const std::string command = XAJMS_PG_FIXTURE " " + verb + " " + clusterDir();
    return std::system(command.c_str()) == 0;
}

// A database of its own for a test, and a connection to it for checking what it holds.
class Database {
  public:
    explicit Database(const std::string &base)
        : name(base + std::to_string(++made())),
          conninfo("host=" + clusterDir() + " user=postgres dbname=" + name) {
        PGconn *admin =
            PQconnectdb(("host=" + clusterDir() + " user=postgres dbname=postgres").c_str());
        PQclear(PQexec(admin, "SET client_min_messages = warning"));
        PQclear(PQexec(admin, ("DROP DATABASE IF EXISTS " + name).c_str()));
        PQclear(PQexec(admin, ("CREATE DATABASE " + name).c_str()));
        PQfinish(admin);
        exec("CREATE TABLE work (tag text, n int UNIQUE DEFERRABLE INITIALLY DEFERRED)");
    }
    ~Database() { PQfinish(pg_); }
    Database(const Database &) = delete;
    Database &operator=(const Database &) = delete;

    // Runs a statement, connecting again after a restart of the server; false when refused.
    bool exec(const std::string &sql) {
        for (int attempt = 0; attempt < 2; ++attempt) {
            if (pg_ == nullptr || PQstatus(pg_) != CONNECTION_OK) {
                PQfinish(pg_);
                pg_ = PQconnectdb(conninfo.c_str());
            }
            PGresult *r = PQexec(pg_, sql.c_str());
            const ExecStatusType s = PQresultStatus(r);
            last_ = s == PGRES_TUPLES_OK && PQntuples(r) > 0
                        ? std::strtol(PQgetvalue(r, 0, 0), nullptr, 10)
                        : -1;
            PQclear(r);
            if (s == PGRES_COMMAND_OK || s == PGRES_TUPLES_OK) {
                return true;
            }
            if (PQstatus(pg_) != CONNECTION_BAD) {
                return false;
            }
        }
        return false;
    }
    // The first value of a query as a number; -1 when it failed.
    long count(const std::string &sql) { return exec(sql) ? last_ : -1; }
    long committed(const std::string &tag) {
        return count("SELECT count(*) FROM work WHERE tag = '" + tag + "'");
    }
    long prepared() {
        return count("SELECT count(*) FROM pg_prepared_xacts WHERE database = current_database()");
    }
    // Rolls back every transaction prepared in the database.
    void clearPrepared() {
        std::vector<std::string> gids;
        PGresult *r = PQexec(pg_,
                             "SELECT gid FROM pg_prepared_xacts WHERE database = "
                             "current_database()");
        for (int i = 0; i < PQntuples(r); ++i) {
            gids.emplace_back(PQgetvalue(r, i, 0));
        }
        PQclear(r);
        for (const std::string &gid : gids) {
            exec("ROLLBACK PREPARED '" + gid + "'");
        }
    }

    const std::string name;  // unique in the process: the base and a count
    const std::string conninfo;

  private:
    static int &made() {
        static int count = 0;
        return count;
    }
    PGconn *pg_ = nullptr;
    long last_ = -1;
};

// The companion's table, as libxajms gets it (the test executable links the companion).
inline JNISwitchJMS &companion() {
    return *JNIStartJMS();
}

// The registry row of the process, or null; read from a copy of the file.
inline bool registryRow(pid_t pid, registry::Row &out) {
    registry::File file{};
    const int fd = ::open(registry::kPath, O_RDONLY);
    const bool read = fd >= 0 && ::pread(fd, &file, sizeof file, 0) == sizeof file;
    if (fd >= 0) {
        ::close(fd);
    }
    for (int i = 0; read && i < registry::rowsExclusive(file.header.rowCount); ++i) {
        if (file.row[static_cast<std::size_t>(i)].pid == pid &&
            file.row[static_cast<std::size_t>(i)].mode != registry::kModeEmpty) {
            out = file.row[static_cast<std::size_t>(i)];
            return true;
        }
    }
    return false;
}

inline int registeredPort(pid_t pid) {
    registry::Row row{};
    return registryRow(pid, row) ? row.port : 0;
}

// Sends one request on a fresh connection and reads its 4-byte answer: the XA code, or -99
// when the listener closed the connection without one or gave none within 20 seconds.
inline int ask(int port, const unsigned char *request, std::size_t length) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    unsigned char answer[4] = {};
    const timeval patience{20, 0};  // a listener that hangs fails the test, not ctest's clock
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    const bool ok = ::connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 &&
                    ::send(fd, request, length, MSG_NOSIGNAL) == static_cast<ssize_t>(length) &&
                    ::recv(fd, answer, sizeof answer, MSG_WAITALL) == sizeof answer;
    ::close(fd);
    return ok ? getInt_jms(answer) : -99;
}

// A completion request (msgType 0x2002 prepare, 0x2003 commit, 0x2004 rollback, 0x2008
// forget) for the XID, as the library writes it.
inline int ask(int port, int msgType, const XID &xid, int rmid, long flags) {
    unsigned char request[200] = {};
    const int size = flattenXIDtoJavaTypes_jms(request + 20, &xid);
    buildHeader_jms(request, 20 + size, msgType, rmid, flags);
    return ask(port, request, static_cast<std::size_t>(20 + size));
}

inline XID testXid(int n) {
    XID xid{4711, 6, 2, {}};
    std::snprintf(xid.data, sizeof xid.data, "gtr%03db%d", n % 1000, n % 10);
    return xid;
}

}  // namespace xajms::test
