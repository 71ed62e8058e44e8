// The tables of XA return-code names and call-flag names of include/xajms/xa.h, and the
// conversions between them and text.
#include "xa_names.h"

#include <xajms/xa.h>

#include <array>
#include <cctype>
#include <charconv>
#include <cstdio>

namespace xajms::drive {

namespace {

struct Named {
    std::string_view name;
    long value;
};

// The first entry of a value is the name printed; later entries are aliases accepted on
// input only.
constexpr std::array<Named, 30> kCodes{{
    {"XA_RBROLLBACK", XA_RBROLLBACK},
    {"XA_RBCOMMFAIL", XA_RBCOMMFAIL},
    {"XA_RBDEADLOCK", XA_RBDEADLOCK},
    {"XA_RBINTEGRITY", XA_RBINTEGRITY},
    {"XA_RBOTHER", XA_RBOTHER},
    {"XA_RBPROTO", XA_RBPROTO},
    {"XA_RBTIMEOUT", XA_RBTIMEOUT},
    {"XA_RBTRANSIENT", XA_RBTRANSIENT},
    {"XA_NOMIGRATE", XA_NOMIGRATE},
    {"XA_HEURHAZ", XA_HEURHAZ},
    {"XA_HEURCOM", XA_HEURCOM},
    {"XA_HEURRB", XA_HEURRB},
    {"XA_HEURMIX", XA_HEURMIX},
    {"XA_RETRY", XA_RETRY},
    {"XA_RDONLY", XA_RDONLY},
    {"XA_OK", XA_OK},
    {"XAER_ASYNC", XAER_ASYNC},
    {"XAER_RMERR", XAER_RMERR},
    {"XAER_NOTA", XAER_NOTA},
    {"XAER_INVAL", XAER_INVAL},
    {"XAER_PROTO", XAER_PROTO},
    {"XAER_RMFAIL", XAER_RMFAIL},
    {"XAER_DUPID", XAER_DUPID},
    {"XAER_OUTSIDE", XAER_OUTSIDE},
    {"XA_RBBASE", XA_RBBASE},
    {"XA_RBEND", XA_RBEND},
    {"TM_JOIN", TM_JOIN},
    {"TM_RESUME", TM_RESUME},
    {"TMER_TMERR", TMER_TMERR},
    {"TMER_INVAL", TMER_INVAL},
}};
// Only the entries before this index are printed; the rest are aliases or the ax_ codes,
// which an XA call does not return.
constexpr std::size_t kPrintedCodes = 24;

constexpr std::array<Named, 16> kFlags{{
    {"TMASYNC", TMASYNC},
    {"TMONEPHASE", TMONEPHASE},
    {"TMFAIL", TMFAIL},
    {"TMNOWAIT", TMNOWAIT},
    {"TMRESUME", TMRESUME},
    {"TMSUCCESS", TMSUCCESS},
    {"TMSUSPEND", TMSUSPEND},
    {"TMSTARTRSCAN", TMSTARTRSCAN},
    {"TMENDRSCAN", TMENDRSCAN},
    {"TMMULTIPLE", TMMULTIPLE},
    {"TMJOIN", TMJOIN},
    {"TMMIGRATE", TMMIGRATE},
    {"TMREGISTER", TMREGISTER},
    {"TMNOMIGRATE", TMNOMIGRATE},
    {"TMUSEASYNC", TMUSEASYNC},
    {"TMNOFLAGS", TMNOFLAGS},
}};

bool sameName(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        const auto ca = static_cast<unsigned char>(a[i]);
        const auto cb = static_cast<unsigned char>(b[i]);
        if (std::toupper(ca) != std::toupper(cb)) {
            return false;
        }
    }
    return true;
}

template <std::size_t N>
std::optional<long> lookup(const std::array<Named, N> &table, std::string_view name) {
    for (const Named &entry : table) {
        if (sameName(entry.name, name)) {
            return entry.value;
        }
    }
    return std::nullopt;
}

// A whole decimal number, or with hexPrefix also a 0x-prefixed hex one; a leading '-' is
// accepted for decimal only.
std::optional<long> parseLong(std::string_view text, bool hexPrefix) {
    int base = 10;
    if (hexPrefix && (text.starts_with("0x") || text.starts_with("0X"))) {
        text.remove_prefix(2);
        base = 16;
    }
    if (text.empty() || text.starts_with('+') || (base == 16 && text.starts_with('-'))) {
        return std::nullopt;
    }
    if (base == 16) {
        unsigned long bits = 0;
        const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), bits, 16);
        if (ec != std::errc() || end != text.data() + text.size()) {
            return std::nullopt;
        }
        return static_cast<long>(bits);
    }
    long value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

}  // namespace

std::string codeName(int code) {
    for (std::size_t i = 0; i < kPrintedCodes; ++i) {
        if (kCodes[i].value == code) {
            return std::string(kCodes[i].name);
        }
    }
    return std::to_string(code);
}

std::optional<int> parseCode(std::string_view text) {
    std::optional<long> value = lookup(kCodes, text);
    if (!value) {
        value = parseLong(text, false);
    }
    if (!value || *value < -2147483648L || *value > 2147483647L) {
        return std::nullopt;
    }
    return static_cast<int>(*value);
}

std::string flagNames(long flags) {
    if (flags == TMNOFLAGS) {
        return "TMNOFLAGS";
    }
    std::string names;
    auto rest = static_cast<unsigned long>(flags);
    for (const Named &entry : kFlags) {
        const auto bit = static_cast<unsigned long>(entry.value);
        if (bit != 0 && (rest & bit) == bit) {
            names += names.empty() ? "" : "|";
            names += entry.name;
            rest &= ~bit;
        }
    }
    if (rest != 0) {
        char hex[24];
        std::snprintf(hex, sizeof hex, "0x%lx", rest);
        names += names.empty() ? "" : "|";
        names += hex;
    }
    return names;
}

std::optional<long> parseFlags(std::string_view text) {
    if (const std::optional<long> number = parseLong(text, true)) {
        return number;
    }
    long flags = 0;
    for (;;) {
        const std::size_t cut = text.find_first_of("|+");
        const std::optional<long> one = lookup(kFlags, text.substr(0, cut));
        if (!one) {
            return std::nullopt;
        }
        flags |= *one;
        if (cut == std::string_view::npos) {
            return flags;
        }
        text.remove_prefix(cut + 1);
    }
}

}  // namespace xajms::drive
