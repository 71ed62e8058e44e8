// The execution group's libpq calls: one statement at a time, its end classified as done
// (with its command tag), refused by the server (with its SQLSTATE) or lost with the
// connection.
#include "eg.h"

namespace xajms::eg {

Reply run(PGconn *pg, const char *sql, const std::vector<std::string> &params) {
    std::vector<const char *> values;
    values.reserve(params.size());
    for (const auto &p : params) {
        values.push_back(p.c_str());
    }
    Reply reply;
    reply.result.reset(PQexecParams(pg, sql, static_cast<int>(values.size()), nullptr,
                                    values.data(), nullptr, nullptr, 0));
    const ExecStatusType status =
        reply.result ? PQresultStatus(reply.result.get()) : PGRES_FATAL_ERROR;
    if (status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK) {
        reply.ended = Ended::done;
        reply.tag = PQcmdStatus(reply.result.get());
        return reply;
    }
    const char *state =
        reply.result ? PQresultErrorField(reply.result.get(), PG_DIAG_SQLSTATE) : nullptr;
    // A server that answered has said why; no SQLSTATE with a broken connection means the
    // statement may or may not have run.
    if (state == nullptr || PQstatus(pg) == CONNECTION_BAD) {
        reply.ended = Ended::lost;
        return reply;
    }
    reply.ended = Ended::refused;
    reply.state = state;
    return reply;
}

std::string connectionError(PGconn *pg) {
    const std::string text = pg != nullptr ? PQerrorMessage(pg) : "out of memory";
    const std::size_t end = text.find('\n');
    return end == std::string::npos ? text : text.substr(0, end);
}

}  // namespace xajms::eg
