// Taking, filling and emptying the listener's row of the registry file. Rows are written with
// single 32-bit stores, the mode last, so that a process reading the mapping without a lock
// never selects a half-written row; listeners serialise among themselves with flock.
#include "registry_row.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace xajms::listener {

namespace {

constexpr char kSignature[] = "/var/orlom/XA_SWITCH_MMF";

[[noreturn]] void failWith(int err, const std::string &what) {
    throw std::system_error(err, std::generic_category(), what);
}

// Holds an exclusive flock on the registry file for its lifetime (only other listeners
// take it; the library takes no lock on the file).
class FileLock {
  public:
    explicit FileLock(int fd) : fd_(fd) {
        while (::flock(fd_, LOCK_EX) != 0 && errno == EINTR) {
        }
    }
    ~FileLock() { ::flock(fd_, LOCK_UN); }
    FileLock(const FileLock &) = delete;
    FileLock &operator=(const FileLock &) = delete;

  private:
    int fd_;
};

std::int32_t load(unsigned char *at) {
    return std::atomic_ref<std::int32_t>(*reinterpret_cast<std::int32_t *>(at))
        .load(std::memory_order_acquire);
}

void store(unsigned char *at, std::int32_t value) {
    std::atomic_ref<std::int32_t>(*reinterpret_cast<std::int32_t *>(at))
        .store(value, std::memory_order_release);
}

unsigned char *rowAt(unsigned char *map, int row) {
    return map + kRegistryHeaderSize + kRowSize * static_cast<std::size_t>(row);
}

int openRegistry(const std::string &path) {
    // The directory is never created: checkRegistryDirectory refused a missing one.
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0) {
        failWith(errno, "cannot open registry file " + path);
    }
    return fd;
}

// Grows a short file to its full size and formats a file without the signature: all zero,
// the signature at offset 0, row count 0.
void formatIfNeeded(int fd, unsigned char *&map, const std::string &path) {
    struct stat st {};
    if (::fstat(fd, &st) != 0) {
        failWith(errno, "cannot stat registry file " + path);
    }
    if (static_cast<std::size_t>(st.st_size) < kRegistrySize &&
        ::ftruncate(fd, static_cast<off_t>(kRegistrySize)) != 0) {
        failWith(errno, "cannot grow registry file " + path);
    }
    void *p = ::mmap(nullptr, kRegistrySize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (p == MAP_FAILED) {
        failWith(errno, "cannot map registry file " + path);
    }
    map = static_cast<unsigned char *>(p);
    if (std::memcmp(map, kSignature, sizeof kSignature) != 0) {
        std::memset(map, 0, kRegistrySize);
        std::memcpy(map, kSignature, sizeof kSignature);
    }
}

// The row to take: the first empty row below the row count, so that every lookup of the
// library sees it; else the row at the row count, which the caller then counts in.
int chooseRow(unsigned char *map) {
    const std::int32_t count = load(map + kRowCountOffset);
    const std::int32_t bound = count < 0 ? 0 : (count > kRegistryRows ? kRegistryRows : count);
    for (int r = 0; r < bound; ++r) {
        if (load(rowAt(map, r) + kRowModeOffset) == 0) {
            return r;
        }
    }
    return bound < kRegistryRows ? bound : -1;
}

bool processGone(std::int32_t pid) {
    return pid > 0 && ::kill(pid, 0) != 0 && errno == ESRCH;
}

// For an exclusive listener: empties every broker row whose process is gone and returns the
// text that names the first broker row of another live process, or an empty text.
std::string claimBrokerRows(unsigned char *map, pid_t self) {
    const std::int32_t count = load(map + kRowCountOffset);
    const std::int32_t bound = count < 0 ? 0 : (count > kRegistryRows ? kRegistryRows : count);
    for (int r = 0; r < bound; ++r) {
        unsigned char *row = rowAt(map, r);
        const std::int32_t pid = load(row + kRowPidOffset);
        if (load(row + kRowModeOffset) != static_cast<std::int32_t>(Mode::broker) || pid == self) {
            continue;
        }
        if (!processGone(pid)) {
            const char *name = reinterpret_cast<const char *>(row + kRowNameOffset);
            return "execution group '" + std::string(name, strnlen(name, kNameSize)) + "' of pid " +
                   std::to_string(pid) + " is registered already";
        }
        store(row + kRowModeOffset, 0);
        store(row + kRowPidOffset, 0);
        store(row + kRowPortOffset, 0);
    }
    return {};
}

}  // namespace

RegistryRow::RegistryRow(const std::string &path, Mode mode, int port, std::string_view name,
                         Sharing sharing)
    : fd_(openRegistry(path)), pid_(::getpid()), port_(port) {
    FileLock lock(fd_.get());
    formatIfNeeded(fd_.get(), map_, path);
    const std::string taken =
        sharing == Sharing::exclusive ? claimBrokerRows(map_, pid_) : std::string();
    row_ = taken.empty() ? chooseRow(map_) : -1;
    if (row_ < 0) {
        ::munmap(map_, kRegistrySize);
        throw std::runtime_error(taken.empty() ? "no free row in registry file " + path : taken);
    }
    unsigned char *row = rowAt(map_, row_);
    store(row + kRowModeOffset, 0);
    std::memset(row, 0, kRowSize);
    std::memcpy(row + kRowNameOffset, name.data(),
                name.size() < kNameSize ? name.size() : kNameSize);
    store(row + kRowPidOffset, pid_);
    store(row + kRowPortOffset, port_);
    store(row + kRowModeOffset, static_cast<std::int32_t>(mode));
    if (load(map_ + kRowCountOffset) <= row_) {
        store(map_ + kRowCountOffset, row_ + 1);
    }
}

RegistryRow::~RegistryRow() {
    {
        FileLock lock(fd_.get());
        unsigned char *row = rowAt(map_, row_);
        // A row that another process has cleared and reused is no longer ours to empty.
        if (load(row + kRowPidOffset) == pid_ && load(row + kRowPortOffset) == port_) {
            store(row + kRowModeOffset, 0);
            store(row + kRowPidOffset, 0);
            store(row + kRowPortOffset, 0);
        }
    }
    ::munmap(map_, kRegistrySize);
}

}  // namespace xajms::listener
