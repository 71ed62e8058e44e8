// Formatting a snapshot as a table (one line per row, columns as wide as their longest
// value) and as one JSON object. Names are bytes from a file anyone may write: both forms
// escape every byte that is not printable ASCII.
#include "show.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>
#include <vector>

namespace xajms::registry_tool {

namespace {

std::string jsonString(std::string_view text) {
    std::string shown = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            shown += '\\';
            shown += c;
        } else if (byte >= 0x20 && byte < 0x7f) {
            shown += c;
        } else {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\u%04x", byte);
            shown += hex;
        }
    }
    return shown + "\"";
}

std::string aliveText(const ShownRow &row) {
    return !row.alive ? "-" : *row.alive ? "yes" : "no";
}

std::string modeText(const ShownRow &row) {
    const std::string name = modeName(row.mode);
    return name == "unknown" ? name + " (" + std::to_string(row.mode) + ")" : name;
}

std::string padded(std::string text, std::size_t width) {
    text.resize(std::max(width, text.size()), ' ');
    return text;
}

using Cells = std::array<std::string, 6>;

// The cells as lines, each column as wide as its widest cell and two blanks apart.
std::vector<std::string> aligned(const std::vector<Cells> &cells) {
    std::array<std::size_t, 6> width{};
    for (const auto &line : cells) {
        for (std::size_t c = 0; c < width.size(); ++c) {
            width[c] = std::max(width[c], line[c].size());
        }
    }
    std::vector<std::string> lines;
    for (const auto &line : cells) {
        std::string text;
        for (std::size_t c = 0; c + 1 < width.size(); ++c) {
            text += padded(line[c], width[c] + 2);
        }
        lines.push_back(text + line.back());
    }
    return lines;
}

std::string seconds(int ms) {
    char text[32];
    std::snprintf(text, sizeof text, "%g s", ms / 1000.0);
    return text;
}

std::string answerText(const Asked &a, int waitMs) {
    switch (a.answer) {
        case Answer::answered:
            return a.xids.empty() ? "none" : std::to_string(a.xids.size()) + " in doubt";
        case Answer::noAnswer:
            return a.detail.empty() ? "no answer within " + seconds(waitMs)
                                    : "no answer: " + a.detail;
        case Answer::unreachable:
            return "not reached: " + a.detail;
        case Answer::badReply:
            return "bad reply: " + a.detail;
    }
    return {};
}

constexpr std::array<std::string_view, 4> kAnswerNames = {"answered", "no answer", "unreachable",
                                                          "bad reply"};

}  // namespace

std::string table(const std::string &path, const Snapshot &s) {
    std::string out = path + ": row count " + std::to_string(s.rowCount);
    out += s.rowCountInRange ? "\n" : " (outside 0..500)\n";
    std::vector<Cells> cells = {{"row", "execution group", "port", "pid", "alive", "mode"}};
    bool uncounted = false;
    for (const ShownRow &row : s.rows) {
        cells.push_back({std::to_string(row.index), tools::escapedName(row.name),
                         std::to_string(row.port), std::to_string(row.pid), aliveText(row),
                         modeText(row) + (row.counted ? "" : " *")});
        uncounted = uncounted || !row.counted;
    }
    for (const std::string &line : aligned(cells)) {
        out += line + "\n";
    }
    if (uncounted) {
        out += "* at or beyond the row count: in use, but not counted\n";
    }
    return out;
}

std::string json(const std::string &path, const Snapshot &s) {
    std::string out =
        "{\"file\":" + jsonString(path) + ",\"rowCount\":" + std::to_string(s.rowCount) +
        ",\"rowCountInRange\":" + (s.rowCountInRange ? "true" : "false") + ",\"rows\":[";
    for (std::size_t i = 0; i < s.rows.size(); ++i) {
        const ShownRow &row = s.rows[i];
        out += i == 0 ? "{" : ",{";
        out += "\"row\":" + std::to_string(row.index) + ",\"name\":" + jsonString(row.name) +
               ",\"port\":" + std::to_string(row.port) + ",\"pid\":" + std::to_string(row.pid) +
               ",\"alive\":" +
               (!row.alive   ? "null"
                : *row.alive ? "true"
                             : "false") +
               ",\"mode\":" + jsonString(modeName(row.mode)) +
               ",\"modeValue\":" + std::to_string(row.mode) +
               ",\"counted\":" + (row.counted ? "true" : "false") + "}";
    }
    return out + "]}\n";
}

std::string inDoubtTable(const std::string &path, const std::vector<Asked> &asked, int waitMs) {
    std::size_t silent = 0;
    std::vector<Cells> cells = {{"row", "execution group", "port", "pid", "mode", "in doubt"}};
    for (const Asked &a : asked) {
        silent += a.answer == Answer::answered ? 0 : 1;
        const std::string pid = std::to_string(a.row.pid) + (a.row.alive == false ? " gone" : "");
        cells.push_back({std::to_string(a.row.index), tools::escapedName(a.row.name),
                         std::to_string(a.row.port), pid, modeText(a.row), answerText(a, waitMs)});
    }
    std::string out = path + ": " + std::to_string(asked.size()) + " listeners asked, " +
                      std::to_string(asked.size() - silent) + " answered within " +
                      seconds(waitMs) + "\n";
    const std::vector<std::string> lines = aligned(cells);
    out += lines.front() + "\n";
    for (std::size_t i = 0; i < asked.size(); ++i) {
        out += lines[i + 1] + "\n";
        for (const tools::XidParts &xid : asked[i].xids) {
            out += "  " + tools::formatXid(xid) + "\n";
        }
    }
    if (silent > 0) {
        out += "The XIDs that " + std::to_string(silent) + " of them hold in doubt are unknown.\n";
    }
    return out;
}

std::string inDoubtJson(const std::string &path, const std::vector<Asked> &asked, int waitMs) {
    std::string out = "{\"file\":" + jsonString(path) + ",\"waitMs\":" + std::to_string(waitMs) +
                      ",\"listeners\":[";
    for (std::size_t i = 0; i < asked.size(); ++i) {
        const Asked &a = asked[i];
        out += i == 0 ? "{" : ",{";
        out += "\"row\":" + std::to_string(a.row.index) + ",\"name\":" + jsonString(a.row.name) +
               ",\"port\":" + std::to_string(a.row.port) + ",\"pid\":" + std::to_string(a.row.pid) +
               ",\"alive\":" +
               (!a.row.alive   ? "null"
                : *a.row.alive ? "true"
                               : "false") +
               ",\"mode\":" + jsonString(modeName(a.row.mode)) +
               ",\"answer\":" + jsonString(kAnswerNames[static_cast<std::size_t>(a.answer)]) +
               ",\"detail\":" + jsonString(a.detail) + ",\"xids\":[";
        for (std::size_t x = 0; x < a.xids.size(); ++x) {
            out += (x == 0 ? "" : ",") + jsonString(tools::formatXid(a.xids[x]));
        }
        out += "]}";
    }
    return out + "]}\n";
}

}  // namespace xajms::registry_tool
