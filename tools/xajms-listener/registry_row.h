// The listener's row in the registry file: taken and filled at start-up, emptied when the
// listener ends. The file is the one the library maps: 40-byte header, 500 rows of 152 bytes,
// integers in the host's byte order.
#pragma once

#include "common/descriptor.h"

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace xajms::listener {

using tools::Descriptor;

inline constexpr std::size_t kRegistrySize = 76040;
inline constexpr std::size_t kRegistryHeaderSize = 40;
inline constexpr std::size_t kRowSize = 152;
inline constexpr std::int32_t kRegistryRows = 500;
inline constexpr std::size_t kRowCountOffset = 36;
inline constexpr std::size_t kRowPidOffset = 0;
inline constexpr std::size_t kRowPortOffset = 8;
inline constexpr std::size_t kRowModeOffset = 12;
inline constexpr std::size_t kRowNameOffset = 24;
inline constexpr std::size_t kNameSize = 128;
inline constexpr std::string_view kDefaultRegistry = "/var/orlom/XA_SWITCH_MMF";

// The registry modes a listener can register in (the values of the row's mode field).
enum class Mode : std::int32_t { recovery = 1, broker = 2, pending = 4 };

// Whether a listener shares the registry with other broker listeners. An exclusive one
// refuses to register while a live process holds a broker row, and empties the broker rows
// whose process is gone, so that it is the only broker listener the library asks.
enum class Sharing { shared, exclusive };

class RegistryRow {
  public:
    // Opens (creating and formatting when needed) the registry file at path and fills a row
    // with this process's pid, the port, the mode and the name. Throws std::runtime_error
    // when the file cannot be opened or mapped, or every row is taken, and, when exclusive,
    // when another live process holds a broker row (the text names its pid and name).
    RegistryRow(const std::string &path, Mode mode, int port, std::string_view name,
                Sharing sharing = Sharing::shared);
    RegistryRow(const RegistryRow &) = delete;
    RegistryRow &operator=(const RegistryRow &) = delete;
    // Empties the row: mode, pid and port become 0, while it is still this listener's.
    ~RegistryRow();

    int index() const { return row_; }

  private:
    Descriptor fd_;
    unsigned char *map_ = nullptr;
    int row_ = -1;
    pid_t pid_ = 0;
    int port_ = 0;
};

}  // namespace xajms::listener
