// The workload's SQL. The source queue hands each message to one branch at a time (FOR UPDATE
// SKIP LOCKED), so that threads never wait on each other's messages, and the target queue's
// primary key refuses a message that arrives twice.
#include "queue.h"

#include <chrono>
#include <cstdlib>
#include <set>
#include <thread>

#include "decisions.h"

namespace xajms::eg_host {

namespace {

struct ResultClear {
    void operator()(PGresult *r) const { PQclear(r); }
};
using Result = std::unique_ptr<PGresult, ResultClear>;

// The first line of libpq's message about the connection or the result.
std::string firstLine(const char *text) {
    std::string line = text != nullptr ? text : "";
    const std::size_t end = line.find('\n');
    return end == std::string::npos ? line : line.substr(0, end);
}

std::string resultError(PGconn *pg, const PGresult *r) {
    const char *message = r != nullptr ? PQresultErrorMessage(r) : nullptr;
    std::string line =
        firstLine(message != nullptr && *message != '\0' ? message : PQerrorMessage(pg));
    return line.empty() ? "the connection was lost" : line;
}

// Runs statements that return no rows; throws Failure with the reason.
void execute(PGconn *pg, const std::string &sql) {
    const Result r(PQexec(pg, sql.c_str()));
    if (PQresultStatus(r.get()) != PGRES_COMMAND_OK && PQresultStatus(r.get()) != PGRES_TUPLES_OK) {
        throw Failure(resultError(pg, r.get()));
    }
}

Result query(PGconn *pg, const char *sql) {
    Result r(PQexec(pg, sql));
    if (PQresultStatus(r.get()) != PGRES_TUPLES_OK) {
        throw Failure(resultError(pg, r.get()));
    }
    return r;
}

std::set<long> ids(PGconn *pg, const char *table) {
    const Result r = query(pg, (std::string("SELECT id FROM ") + table).c_str());
    std::set<long> out;
    for (int i = 0; i < PQntuples(r.get()); ++i) {
        out.insert(std::strtol(PQgetvalue(r.get(), i, 0), nullptr, 10));
    }
    return out;
}

long firstNumber(PGconn *pg, const char *sql) {
    const Result r = query(pg, sql);
    return PQntuples(r.get()) > 0 ? std::strtol(PQgetvalue(r.get(), 0, 0), nullptr, 10) : 0;
}

constexpr char kCreateSource[] =
    "SET client_min_messages = warning; SET lock_timeout = '5s';"
    "CREATE TABLE IF NOT EXISTS source_queue (id bigint PRIMARY KEY, body text NOT NULL);"
    "CREATE TABLE IF NOT EXISTS queue_fill (total bigint NOT NULL);";
constexpr char kCreateTarget[] =
    "SET client_min_messages = warning; SET lock_timeout = '5s';"
    "CREATE TABLE IF NOT EXISTS target_queue (id bigint PRIMARY KEY, body text NOT NULL);";
constexpr char kPrepared[] =
    "SELECT count(*) FROM pg_prepared_xacts WHERE database = current_database()";

}  // namespace

Connection connectTo(const std::string &conninfo, const std::string &what) {
    Connection pg(PQconnectdb(conninfo.c_str()));
    if (PQstatus(pg.get()) != CONNECTION_OK) {
        throw Failure("cannot reach the " + what +
                      " database: " + firstLine(PQerrorMessage(pg.get())));
    }
    return pg;
}

void fillQueues(PGconn *source, PGconn *target, long n) {
    execute(source, kCreateSource);
    execute(target, kCreateTarget);
    // Prepared branches hold locks on the queues: the lock timeout refuses instead of waiting.
    execute(target, "TRUNCATE target_queue");
    execute(source,
            "BEGIN; TRUNCATE source_queue, queue_fill;"
            "INSERT INTO queue_fill VALUES (" +
                std::to_string(n) +
                ");"
                "INSERT INTO source_queue SELECT i, 'message ' || i "
                "FROM generate_series(1, " +
                std::to_string(n) + ") AS i; COMMIT");
}

Counts countQueues(PGconn *source, PGconn *target) {
    Counts c;
    c.total = firstNumber(source, "SELECT total FROM queue_fill");
    const std::set<long> a = ids(source, "source_queue"), b = ids(target, "target_queue");
    c.source = static_cast<long>(a.size());
    c.target = static_cast<long>(b.size());
    for (long id = 1; id <= c.total; ++id) {
        const bool inA = a.count(id) != 0, inB = b.count(id) != 0;
        c.both += inA && inB ? 1 : 0;
        c.missing += !inA && !inB ? 1 : 0;
    }
    for (const std::set<long> *queue : {&a, &b}) {
        for (const long id : *queue) {
            c.strangers += id < 1 || id > c.total ? 1 : 0;
        }
    }
    c.inDoubt =
        firstNumber(source, kPrepared) + (source == target ? 0 : firstNumber(target, kPrepared));
    return c;
}

Taken takeMessage(PGconn *pg, long &id, std::string &body, std::string &why) {
    // Messages that other branches hold are skipped; when only such messages are left, the
    // unit waits for their outcome, so that a run never stops early behind a unit of another
    // thread or the session of a killed host that the server has not yet ended.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    for (;;) {
        const Result r(PQexec(pg,
                              "DELETE FROM source_queue WHERE id = (SELECT id FROM source_queue "
                              "ORDER BY id FOR UPDATE SKIP LOCKED LIMIT 1) RETURNING id, body"));
        if (PQresultStatus(r.get()) != PGRES_TUPLES_OK) {
            why = resultError(pg, r.get());
            return Taken::failed;
        }
        if (PQntuples(r.get()) > 0) {
            id = std::strtol(PQgetvalue(r.get(), 0, 0), nullptr, 10);
            body = PQgetvalue(r.get(), 0, 1);
            return Taken::message;
        }
        const Result left(PQexec(pg, "SELECT 1 FROM source_queue LIMIT 1"));
        if (PQresultStatus(left.get()) != PGRES_TUPLES_OK) {
            why = resultError(pg, left.get());
            return Taken::failed;
        }
        if (PQntuples(left.get()) == 0) {
            return Taken::empty;
        }
        if (std::chrono::steady_clock::now() > deadline) {
            why = "the messages left in source_queue stay locked by other transactions";
            return Taken::failed;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

bool putMessage(PGconn *pg, long id, const std::string &body, std::string &why) {
    const std::string text = std::to_string(id);
    const char *values[] = {text.c_str(), body.c_str()};
    const Result r(PQexecParams(pg, "INSERT INTO target_queue (id, body) VALUES ($1, $2)", 2,
                                nullptr, values, nullptr, nullptr, 0));
    if (PQresultStatus(r.get()) != PGRES_COMMAND_OK) {
        why = resultError(pg, r.get());
        return false;
    }
    return true;
}

}  // namespace xajms::eg_host
