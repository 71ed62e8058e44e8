// The open string of the PostgreSQL execution group: which group this process is and which
// database an rmid's branches live in, e.g.  eg=EG1 conninfo='dbname=orders host=/run/pg'
#include "eg.h"

#include <array>

namespace xajms::eg {

namespace {

constexpr std::size_t kMaxName = 127;

bool blank(char c) {
    return c == ' ' || c == '\t' || c == '\n';
}

// Reads a value at pos: bare up to the next blank, or quoted. Returns false when a quote is
// not closed or a bare value is empty.
bool readValue(std::string_view text, std::size_t &pos, std::string &value) {
    if (pos < text.size() && text[pos] == '\'') {
        for (++pos; pos < text.size(); ++pos) {
            if (text[pos] == '\'') {
                ++pos;
                return pos == text.size() || blank(text[pos]);
            }
            if (text[pos] == '\\' && pos + 1 < text.size()) {
                ++pos;
            }
            value.push_back(text[pos]);
        }
        return false;
    }
    const std::size_t from = pos;
    while (pos < text.size() && !blank(text[pos]) && text[pos] != '\'') {
        ++pos;
    }
    value.assign(text.substr(from, pos - from));
    return !value.empty() && (pos == text.size() || blank(text[pos]));
}

constexpr std::array<std::string_view, 3> kKeys = {"eg", "conninfo", "log"};

std::optional<OpenString> refuse(std::string &why, std::string text) {
    why = std::move(text);
    return std::nullopt;
}

}  // namespace

std::optional<OpenString> parseOpenString(std::string_view text, std::string &why) {
    OpenString out;
    const std::array<std::string *, kKeys.size()> fields = {&out.eg, &out.conninfo, &out.log};
    std::array<bool, kKeys.size()> seen{};
    std::size_t pos = 0;
    for (;;) {
        while (pos < text.size() && blank(text[pos])) {
            ++pos;
        }
        if (pos == text.size()) {
            break;
        }
        const std::size_t equals = text.find('=', pos);
        if (equals == std::string_view::npos) {
            return refuse(why, "expected key=value at \"" + std::string(text.substr(pos)) + "\"");
        }
        const std::string_view key = text.substr(pos, equals - pos);
        std::size_t k = 0;
        while (k < kKeys.size() && kKeys[k] != key) {
            ++k;
        }
        if (k == kKeys.size()) {
            return refuse(why, "unknown key \"" + std::string(key) + "\"");
        }
        if (seen[k]) {
            return refuse(why, "key \"" + std::string(key) + "\" given twice");
        }
        seen[k] = true;
        pos = equals + 1;
        if (!readValue(text, pos, *fields[k])) {
            return refuse(why, "bad value for \"" + std::string(key) + "\"");
        }
    }
    if (out.eg.empty() || out.conninfo.empty()) {
        return refuse(why, "eg= and conninfo= are both required");
    }
    if (out.eg.size() > kMaxName) {
        return refuse(why, "eg= names more than 127 bytes");
    }
    return out;
}

}  // namespace xajms::eg
