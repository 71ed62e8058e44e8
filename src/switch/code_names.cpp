// XA return codes by name for the trace, and the decimal text of the pid column.
#include "switch/switch.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "trace/trace.h"

namespace {

struct CodeName {
    int code;
    const char *name;  // left-aligned, blank-padded to 14 characters
};

constexpr std::array<CodeName, 24> kXaNames{{
    {-9, "XAER_OUTSIDE  "},  {-8, "XAER_DUPID    "},  {-7, "XAER_RMFAIL   "},
    {-6, "XAER_PROTO    "},  {-5, "XAER_INVAL    "},  {-4, "XAER_NOTA     "},
    {-3, "XAER_RMERR    "},  {-2, "XAER_ASYNC    "},  {0, "XA_OK         "},
    {3, "XA_RDONLY     "},   {4, "XA_RETRY      "},   {5, "XA_HEURMIX    "},
    {6, "XA_HEURRB     "},   {7, "XA_HEURCOM    "},   {8, "XA_HEURHAZ    "},
    {9, "XA_NOMIGRATE  "},   {100, "XA_RBROLLBACK "}, {101, "XA_RBCOMMFAIL "},
    {102, "XA_RBDEADLOCK "}, {103, "XA_RBINTEGRITY"}, {104, "XA_RBOTHER    "},
    {105, "XA_RBPROTO    "}, {106, "XA_RBTIMEOUT  "}, {107, "XA_RBTRANSIENT"},
}};

constexpr std::array<CodeName, 6> kTmNames{{
    {-3, "TMER_PROTO    "},
    {-2, "TMER_INVAL    "},
    {-1, "TMER_TMERR    "},
    {0, "TM_OK         "},
    {1, "TM_RESUME     "},
    {2, "TM_JOIN       "},
}};

// Copies the code's name into the 16-byte text, or its number when the table has none.
template <size_t N>
void nameOf(char (&out)[16], const std::array<CodeName, N> &table, int code) {
    for (const CodeName &entry : table) {
        if (entry.code == code) {
            std::snprintf(out, sizeof out, "%s", entry.name);
            return;
        }
    }
    std::snprintf(out, sizeof out, "%s", "              ");
    std::snprintf(out, sizeof out, "%d", code);
}

}  // namespace

extern "C" {

// Writes "Return code = <name>" to the entry layer's trace; nothing when tracing is off.
void XARCToStr_jms(const char *callname, int code) {
    if (!xajms::trace::on(jmstracefile)) {
        return;
    }
    const std::string_view call = callname != nullptr ? callname : "";
    char name[16];
    if (call == "XA_RECOVER") {
        std::snprintf(name, sizeof name, "            %d", code);
    } else if (call == "AX_REG" || call == "AX_UNREG") {
        nameOf(name, kTmNames, code);
    } else {
        nameOf(name, kXaNames, code);
    }
    xajms::trace::data(jmstracefile, " ", " ", "Return code = %s", name);
}

// Writes the decimal digits of the value, taken as unsigned 32-bit, into dst: at most 7
// characters and a terminator, the most significant ones; 0 gives the empty string.
// Returns what snprintf returns, the full digit count.
int intToAlpha_jms(int value, char *dst) {
    char digits[16];
    size_t at = sizeof digits - 1;
    digits[at] = '\0';
    for (unsigned int rest = static_cast<unsigned int>(value); rest != 0; rest /= 10) {
        digits[--at] = static_cast<char>('0' + rest % 10);
    }
    return std::snprintf(dst, 8, "%s", digits + at);
}

}  // extern "C"
