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

}  // namespace

std::string table(const std::string &path, const Snapshot &s) {
    std::string out = path + ": row count " + std::to_string(s.rowCount);
    out += s.rowCountInRange ? "\n" : " (outside 0..500)\n";
    std::vector<std::array<std::string, 6>> cells = {
        {"row", "execution group", "port", "pid", "alive", "mode"}};
    bool uncounted = false;
    for (const ShownRow &row : s.rows) {
        cells.push_back({std::to_string(row.index), tools::escapedName(row.name),
                         std::to_string(row.port), std::to_string(row.pid), aliveText(row),
                         modeText(row) + (row.counted ? "" : " *")});
        uncounted = uncounted || !row.counted;
    }
    std::array<std::size_t, 6> width{};
    for (const auto &line : cells) {
        for (std::size_t c = 0; c < width.size(); ++c) {
            width[c] = std::max(width[c], line[c].size());
        }
    }
    for (const auto &line : cells) {
        std::string text;
        for (std::size_t c = 0; c + 1 < width.size(); ++c) {
            text += padded(line[c], width[c] + 2);
        }
        out += text + line.back() + "\n";
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

}  // namespace xajms::registry_tool
