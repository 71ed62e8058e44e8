// The execution group's libpq calls: one statement at a time, or a few in one round trip,
// each statement's end classified as done (with its command tag), refused by the server
// (with its SQLSTATE) or lost with the connection.
#include "eg.h"

namespace xajms::eg {

namespace {

// Classifies one result of a statement on the connection.
Reply classify(PGconn *pg, PGresult *result) {
    Reply reply;
    reply.result.reset(result);
    const ExecStatusType status = result != nullptr ? PQresultStatus(result) : PGRES_FATAL_ERROR;
    if (status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK) {
        reply.ended = Ended::done;
        reply.tag = PQcmdStatus(result);
        return reply;
    }
    const char *state = result != nullptr ? PQresultErrorField(result, PG_DIAG_SQLSTATE) : nullptr;
    reply.state = state != nullptr ? state : "";
    // A server that answered has said why; no SQLSTATE with a broken connection means the
    // statement may or may not have run.
    reply.ended = state == nullptr || PQstatus(pg) == CONNECTION_BAD ? Ended::lost : Ended::refused;
    return reply;
}

}  // namespace

Reply run(PGconn *pg, const char *sql, const std::vector<std::string> &params) {
    if (params.empty()) {
        return classify(pg, PQexec(pg, sql));
    }
    std::vector<const char *> values;
    values.reserve(params.size());
    for (const auto &p : params) {
        values.push_back(p.c_str());
    }
    return classify(pg, PQexecParams(pg, sql, static_cast<int>(values.size()), nullptr,
                                     values.data(), nullptr, nullptr, 0));
}

Series runSeries(PGconn *pg, const std::string &sql) {
    Series series;
    series.sent = PQsendQuery(pg, sql.c_str()) == 1;
    if (!series.sent) {
        return series;
    }
    while (PGresult *result = PQgetResult(pg)) {
        series.replies.push_back(classify(pg, result));
    }
    return series;
}

std::string connectionError(PGconn *pg) {
    const std::string text = pg != nullptr ? PQerrorMessage(pg) : "out of memory";
    const std::size_t end = text.find('\n');
    return end == std::string::npos ? text : text.substr(0, end);
}

}  // namespace xajms::eg
