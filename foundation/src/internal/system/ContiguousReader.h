#pragma once

// Implemented by the foundation's readers that hold their whole input in memory, so that the
// foundation's own consumers (the XML parser) can read it in place instead of copying it out.

#include <string_view>

namespace Basalt {

class ContiguousReader {
  public:
    // The bytes not yet read, which count as read from now on. Valid while the reader lives.
    virtual std::string_view TakeRemaining() = 0;

  protected:
    ~ContiguousReader() = default;
};

}  // namespace Basalt
