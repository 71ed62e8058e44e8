// Loads the test companion library by its full path, as the broker would have loaded it, so
// that libxajms finds it already loaded under its bare name; and reads what it recorded.
#pragma once

#include <vector>

#include "support/pellux/pellux.h"

namespace xajms::test {

class Pellux {
  public:
    Pellux();
    ~Pellux();
    Pellux(const Pellux &) = delete;
    Pellux &operator=(const Pellux &) = delete;

    bool loaded() const { return handle_ != nullptr; }
    void answer(int open, int start, int end);
    std::vector<PelluxCall> calls() const;

  private:
    void *handle_;
};

}  // namespace xajms::test
