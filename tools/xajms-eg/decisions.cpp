// The decision log's file: one line per record, "C <gtrid in hex>" for a decision to commit
// and "F <gtrid in hex>" for a decision forgotten. A line cut short by a crash has no
// newline and is ignored: its decision was never synced, so nothing was committed on it.
#include "decisions.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace xajms::eg_host {

namespace {

std::string errnoText(int err) {
    return std::system_category().message(err);
}

std::string hex(std::string_view bytes) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string out;
    for (const char c : bytes) {
        const auto b = static_cast<unsigned char>(c);
        out.push_back(kDigits[b >> 4]);
        out.push_back(kDigits[b & 15]);
    }
    return out;
}

// Returns the bytes of an even-length lowercase hex text; false when it is not one.
bool unhex(std::string_view text, std::string &bytes) {
    auto digit = [](char c) {
        return c >= '0' && c <= '9' ? c - '0' : (c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1);
    };
    if (text.empty() || text.size() % 2 != 0) {
        return false;
    }
    for (std::size_t i = 0; i < text.size(); i += 2) {
        const int high = digit(text[i]), low = digit(text[i + 1]);
        if (high < 0 || low < 0) {
            return false;
        }
        bytes.push_back(static_cast<char>(high * 16 + low));
    }
    return true;
}

// Takes the write lock of the whole file; on refusal throws, naming the holder's pid.
void lockFor(int fd, const std::string &path, std::string_view group) {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    if (::fcntl(fd, F_SETLK, &lock) == 0) {
        return;
    }
    const int err = errno;
    if (err != EACCES && err != EAGAIN) {
        throw Failure("cannot lock the decision log " + path + ": " + errnoText(err));
    }
    struct flock holder = lock;
    const bool known = ::fcntl(fd, F_GETLK, &holder) == 0 && holder.l_type != F_UNLCK;
    throw Failure("execution group '" + std::string(group) + "' is run by another xajms-eg" +
                  (known ? " (pid " + std::to_string(holder.l_pid) + ")" : std::string()) +
                  ", which holds " + path);
}

}  // namespace

DecisionLog::DecisionLog(const std::string &path, std::string_view group)
    : path_(path), fd_(::open(path.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0644)) {
    if (!fd_) {
        throw Failure("cannot open the decision log " + path + ": " + errnoText(errno));
    }
    lockFor(fd_.get(), path, group);
    // A new file's name must be on disk as well as its lines.
    const std::size_t slash = path.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const tools::Descriptor d(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!d || ::fsync(d.get()) != 0) {
        throw Failure("cannot sync the directory of the decision log " + path + ": " +
                      errnoText(errno));
    }
}

std::set<std::string> DecisionLog::decided() const {
    std::string text;
    char buffer[4096];
    for (off_t at = 0;;) {
        const ssize_t n = ::pread(fd_.get(), buffer, sizeof buffer, at);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            throw Failure("cannot read the decision log " + path_ + ": " + errnoText(errno));
        }
        if (n == 0) {
            break;
        }
        text.append(buffer, static_cast<std::size_t>(n));
        at += n;
    }
    std::set<std::string> decisions;
    std::size_t pos = 0;
    for (std::size_t end = text.find('\n'); end != std::string::npos;
         pos = end + 1, end = text.find('\n', pos)) {
        const std::string_view line(text.data() + pos, end - pos);
        std::string gtrid;
        if (line.size() < 3 || line[1] != ' ' || !unhex(line.substr(2), gtrid)) {
            continue;
        }
        if (line[0] == 'C') {
            decisions.insert(gtrid);
        } else if (line[0] == 'F') {
            decisions.erase(gtrid);
        }
    }
    return decisions;
}

bool DecisionLog::append(char kind, std::string_view gtrid, bool sync) {
    const std::string line = std::string(1, kind) + " " + hex(gtrid) + "\n";
    {
        // Appends of several threads must not interleave; their syncs may overlap.
        const std::lock_guard<std::mutex> hold(m_);
        std::size_t done = 0;
        while (done < line.size()) {
            const ssize_t n = ::write(fd_.get(), line.data() + done, line.size() - done);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n <= 0) {
                return false;
            }
            done += static_cast<std::size_t>(n);
        }
    }
    return !sync || ::fdatasync(fd_.get()) == 0;
}

bool DecisionLog::record(std::string_view gtrid) {
    return append('C', gtrid, true);
}

void DecisionLog::forget(std::string_view gtrid) {
    append('F', gtrid, false);
}

bool DecisionLog::clear() {
    const std::lock_guard<std::mutex> hold(m_);
    return ::ftruncate(fd_.get(), 0) == 0 && ::fdatasync(fd_.get()) == 0;
}

}  // namespace xajms::eg_host
