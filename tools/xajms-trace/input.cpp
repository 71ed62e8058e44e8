// Trace files by file, directory or prefix, and their lines read in blocks with read(): a
// torn last line, over-long lines and any bytes at all leave memory bounded.
#include "input.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace xajms::trace_tool {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kBlockBytes = 1 << 20;
constexpr std::string_view kSuffix = ".trc";

// "digits.trc" after the prefix: the name the library gives a process's file.
bool pidFileName(std::string_view rest) {
    if (!rest.ends_with(kSuffix) || rest.size() == kSuffix.size()) {
        return false;
    }
    rest.remove_suffix(kSuffix.size());
    return std::all_of(rest.begin(), rest.end(), [](char c) { return c >= '0' && c <= '9'; });
}

std::string errorText(int error) {
    return std::error_code(error, std::generic_category()).message();
}

}  // namespace

std::vector<std::string> traceFiles(const std::string &path, std::string &why) {
    std::vector<std::string> files;
    std::error_code ec;
    if (fs::is_directory(path, ec)) {
        for (const auto &entry : fs::directory_iterator(path, ec)) {
            if (entry.is_regular_file(ec) && entry.path().filename().string().ends_with(kSuffix)) {
                files.push_back(entry.path().string());
            }
        }
    } else if (fs::exists(path, ec)) {
        files.push_back(path);
    } else {
        const fs::path prefix(path);
        const fs::path dir = prefix.has_parent_path() ? prefix.parent_path() : fs::path(".");
        const std::string base = prefix.filename().string();
        for (const auto &entry : fs::directory_iterator(dir, ec)) {
            const std::string name = entry.path().filename().string();
            if (entry.is_regular_file(ec) && name.starts_with(base) &&
                pidFileName(std::string_view(name).substr(base.size()))) {
                files.push_back(entry.path().string());
            }
        }
    }
    std::sort(files.begin(), files.end());
    if (files.empty()) {
        why = path + ": no trace file (not a file, a directory with .trc files, or a prefix)";
    }
    return files;
}

bool readLines(const std::string &path, const std::function<void(std::string_view)> &each,
               ReadCounts &counts, std::string &why) {
    const tools::Descriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) {
        why = path + ": " + errorText(errno);
        return false;
    }
    std::string pending;    // the start of a line that the last block did not finish
    bool skipping = false;  // inside a line already known to be too long
    std::vector<char> block(kBlockBytes);
    for (;;) {
        const ssize_t got = ::read(fd.get(), block.data(), block.size());
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            why = path + ": " + errorText(errno);
            return false;
        }
        if (got == 0) {
            break;
        }
        counts.bytes += static_cast<std::uint64_t>(got);
        std::string_view data(block.data(), static_cast<std::size_t>(got));
        while (!data.empty()) {
            const std::size_t newline = data.find('\n');
            const std::string_view piece = data.substr(0, newline);
            if (pending.empty() && !skipping && newline != std::string_view::npos &&
                piece.size() <= kMaxLineBytes) {
                ++counts.lines;  // the common case: a whole line inside the block, not copied
                each(piece);
                data.remove_prefix(newline + 1);
                continue;
            }
            if (!skipping && pending.size() + piece.size() > kMaxLineBytes) {
                skipping = true;
                ++counts.tooLong;
                pending.clear();
            }
            if (!skipping) {
                pending.append(piece);
            }
            if (newline == std::string_view::npos) {
                break;
            }
            if (!skipping) {
                ++counts.lines;
                each(pending);
            }
            pending.clear();
            skipping = false;
            data.remove_prefix(newline + 1);
        }
    }
    if (!pending.empty() && !skipping) {
        ++counts.torn;
    }
    return true;
}

}  // namespace xajms::trace_tool
