// Running one of the built tools (xajms-drive, xajms-registry) to its end from a test, with
// extra environment variables, and collecting its exit status and output.
#pragma once

#include <string>
#include <vector>

namespace xajms::test {

// The built tools, or an empty string when a tool is not part of this build (the caller
// skips); the scripted switch load file that the xajms-drive tests load.
std::string drivePath();
std::string registryToolPath();
std::string scriptedSwitchPath();

struct ToolRun {
    int status = -1;  // exit status, 128 + signal, or -1 when it did not end within 20 s
    std::string out;
    std::string err;
};

// Runs the program with the arguments and the environment of this process plus `env`
// ("NAME=value" entries); kills it after 20 seconds.
ToolRun runTool(const std::string &path, const std::vector<std::string> &args,
                const std::vector<std::string> &env = {});

// The text split at newlines, without them; a last line without newline counts.
std::vector<std::string> lines(const std::string &text);

}  // namespace xajms::test
