// xajms-sandbox: enters a private mount namespace with its own empty registry file, puts the
// tools built or installed beside it first on PATH, and runs the command given (by default a
// shell) there. Exit status: the command's; 1 when the sandbox cannot be made, 2 for a bad
// command line, 127 when the command cannot be run.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "namespace.h"

namespace {

constexpr int kCannotSandbox = 1;
constexpr int kBadUsage = 2;
constexpr int kCannotRun = 127;

constexpr std::string_view kHelp =
    R"(usage: xajms-sandbox [COMMAND [ARGUMENT...]]

Runs COMMAND, by default your shell ($SHELL, else /bin/sh), in a private mount namespace
in which /var/orlom is an empty tmpfs holding a freshly formatted registry file with no
rows. Listeners, xajms-drive and every program started from there see only that file: the
machine's own /var/orlom/XA_SWITCH_MMF, and the queue manager and execution groups that
use it, are never touched. Without /var/orlom on the machine the tmpfs covers /var, and
the rest of /var is bound back into it.

The tools built or installed beside xajms-sandbox (xajms-listener, xajms-drive,
xajms-registry, xajms-trace) come first on PATH, and XAJMS_SANDBOX names the private file,
so that the tools do not warn about the other processes in the sandbox that use it.

The private file lasts as long as a process runs in the sandbox: leave the shell with
'exit' and stop the listeners you started in the background.

As root the sandbox is a new mount namespace; otherwise a new user namespace as well, in
which you are root.

Examples:
  xajms-sandbox                                  # a shell; 'exit' leaves it
  xajms-sandbox xajms-registry                   # the empty registry of a new sandbox

Exit status: the command's; 1 when the sandbox cannot be made, 2 for a bad command line,
127 when the command cannot be run.
)";

namespace fs = std::filesystem;

// The directories that hold the tools beside this program: its own (installed: all in one
// bin directory) or, in a build tree, tools/<name>/ for each tool.
std::string toolDirectories() {
    std::error_code error;
    const fs::path self = fs::read_symlink("/proc/self/exe", error);
    if (error) {
        return {};
    }
    const fs::path dir = self.parent_path();
    std::string dirs = dir.string();
    for (const char *tool : {"xajms-listener", "xajms-drive", "xajms-registry", "xajms-trace"}) {
        const fs::path built = dir.parent_path() / tool;
        if (!fs::exists(dir / tool, error) && fs::exists(built / tool, error)) {
            dirs += ":" + built.string();
        }
    }
    return dirs;
}

void setEnvironment(const std::string &registryId) {
    const char *path = std::getenv("PATH");
    const std::string tools = toolDirectories();
    const std::string newPath =
        tools + (path != nullptr && *path != '\0' ? ":" : "") + (path != nullptr ? path : "");
    ::setenv("PATH", newPath.c_str(), 1);
    ::setenv("XAJMS_SANDBOX", registryId.c_str(), 1);
}

}  // namespace

int main(int argc, char **argv) {
    const std::string_view first = argc > 1 ? argv[1] : "";
    if (first == "--help" || first == "-h") {
        std::fwrite(kHelp.data(), 1, kHelp.size(), stdout);
        return 0;
    }
    if (first.starts_with("-")) {
        std::fprintf(stderr, "xajms-sandbox: unknown option '%s' (see --help)\n", argv[1]);
        return kBadUsage;
    }
    try {
        xajms::sandbox::enterPrivateOrlom();
        setEnvironment(xajms::sandbox::formatRegistry());
    } catch (const std::exception &e) {
        std::fprintf(stderr, "xajms-sandbox: %s\n", e.what());
        return kCannotSandbox;
    }
    const char *shell = std::getenv("SHELL");
    std::vector<char *> command(argv + 1, argv + argc);
    if (command.empty()) {
        command.push_back(
            const_cast<char *>(shell != nullptr && *shell != '\0' ? shell : "/bin/sh"));
        std::fprintf(stderr,
                     "xajms-sandbox: /var/orlom here is private and empty; the tools are on "
                     "PATH; 'exit' leaves\n");
    }
    command.push_back(nullptr);
    ::execvp(command[0], command.data());
    const int err = errno;
    std::fprintf(stderr, "xajms-sandbox: cannot run %s: %s\n", command[0],
                 std::generic_category().message(err).c_str());
    return kCannotRun;
}
