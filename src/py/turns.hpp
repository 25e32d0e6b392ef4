// What a long loop owes to others.
#pragma once

#include "error.hpp"

namespace py {

/// Counts the turns of a loop. Every few thousand of them it does what the interpreter does between two instructions of
/// Python code: it runs signal handlers, and gives up the interpreter lock where another thread has asked for it.
class Turns {
 public:
  void next(Where where) {
    if (--left_ == 0) [[unlikely]] {
      left_ = between;
      pause(where);
    }
  }
  /// Makes what `pause` calls, for all loops of this interpreter.
  static void prepare();

 private:
  static constexpr unsigned between = 4096;
  static void pause(Where where);
  unsigned left_ = between;
};

}  // namespace py
