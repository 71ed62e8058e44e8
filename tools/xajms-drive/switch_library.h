// The switch load file that xajms-drive drives, loaded with dlopen for the life of the run,
// and the lookup of its exported functions by name.
#pragma once

#include <stdexcept>
#include <string>

namespace xajms::drive {

// A library that cannot be loaded, or lacks a function the command line names; what() is
// the one-line reason.
class LoadError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

class SwitchLibrary {
  public:
    // Loads the library at path, or the library built with the tool when path is empty.
    // With keep, the library stays mapped after the handle is closed, as in a queue manager
    // that keeps its switch for the life of the process; without it, the destructor unloads
    // it. Throws LoadError when the dynamic loader refuses it.
    SwitchLibrary(const std::string &path, bool keep);
    ~SwitchLibrary();
    SwitchLibrary(const SwitchLibrary &) = delete;
    SwitchLibrary &operator=(const SwitchLibrary &) = delete;

    // The address of the exported function; throws LoadError when there is none.
    void *function(const std::string &name) const;

  private:
    void *handle_ = nullptr;
    std::string path_;
};

}  // namespace xajms::drive
