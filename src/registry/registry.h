// Internal interface of the shared port registry: the byte layout of the registry file as
// structs (checked offset by offset), its path, size and row modes, and the 32-bit loads and
// stores through which rows are read and marked. Declarations and constants only, no state,
// so that tools may include it as well.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace xajms::registry {

// The one registry file of the machine; its text, with the terminating zero, is also the
// signature at the start of a formatted file.
inline constexpr char kPath[] = "/var/orlom/XA_SWITCH_MMF";
// The signature is compared including its terminating zero.
inline constexpr std::size_t kSignatureLength = sizeof kPath;
// A file being formatted gets the path written bounded to this many bytes.
inline constexpr std::size_t kSignatureBound = 30;
// Mode argument of the open; it has no effect since the file is never created.
inline constexpr unsigned kOpenMode = 0777;

inline constexpr int kRows = 500;
inline constexpr int kNameSize = 128;
inline constexpr long kFileSize = 76040;
// The attach writes one zero byte here, which grows a shorter file to its full size.
inline constexpr long kLastByte = kFileSize - 1;

// What a row's port is for.
inline constexpr std::int32_t kModeEmpty = 0;
inline constexpr std::int32_t kModeStartUpRecovery = 1;
inline constexpr std::int32_t kModeBroker = 2;
inline constexpr std::int32_t kModeDead = 3;
inline constexpr std::int32_t kModePending = 4;

struct Header {
    char signature[36];
    std::int32_t rowCount;  // "Number rows", as the writer left it: any value at all
};

struct Row {
    std::int32_t pid;
    std::int32_t reserved;  // not interpreted; cleared with pid, port and mode
    std::int32_t port;
    std::int32_t mode;
    char unused[8];
    char ExGrp[kNameSize];  // zero-padded, not always zero-terminated
};

struct File {
    Header header;
    std::array<Row, kRows> row;
};

static_assert(offsetof(Header, signature) == 0);
static_assert(offsetof(Header, rowCount) == 36);
static_assert(sizeof(Header) == 40);
static_assert(offsetof(Row, pid) == 0);
static_assert(offsetof(Row, reserved) == 4);
static_assert(offsetof(Row, port) == 8);
static_assert(offsetof(Row, mode) == 12);
static_assert(offsetof(Row, unused) == 16);
static_assert(offsetof(Row, ExGrp) == 24);
static_assert(sizeof(Row) == 152);
static_assert(offsetof(File, header) == 0);
static_assert(offsetof(File, row) == 40);
static_assert(sizeof(File) == kFileSize);
static_assert(sizeof kPath <= sizeof(Header::signature));
static_assert(kSignatureLength <= kSignatureBound);

// Other processes write the rows concurrently; each field is read once with a whole 32-bit
// load, so that a value checked against a bound is the value used afterwards.
inline std::int32_t load(const std::int32_t &field) {
    return __atomic_load_n(&field, __ATOMIC_RELAXED);
}

inline void store(std::int32_t &field, std::int32_t value) {
    __atomic_store_n(&field, value, __ATOMIC_RELAXED);
}

// Index of the last row that a scan of "rows 0 to row count inclusive" examines, stopped at
// the last row of the file; below 0 when nothing is scanned.
inline int lastRowInclusive(std::int32_t rowCount) {
    return rowCount < kRows ? rowCount : kRows - 1;
}

// Number of rows that a scan of "rows 0 to row count - 1" examines, stopped at the end of
// the file; 0 or below when nothing is scanned.
inline int rowsExclusive(std::int32_t rowCount) {
    return rowCount < kRows ? rowCount : kRows;
}

// Gives back the mapping and the descriptor that an attach took, successful or not, and
// leaves the three variables as before the first attach. Only the library's unload calls it.
void detach();

}  // namespace xajms::registry
