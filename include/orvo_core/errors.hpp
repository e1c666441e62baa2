#pragma once

#include <stdexcept>
#include <string>

namespace orvo_core {

/// An invalid value: raised by input checks, whose `what()` is the check's fixed message.
class ValueError : public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
};

/// A value of the wrong kind was used where another kind is needed.
class TypeError : public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
};

/// An abstract operation was reached; carries no message.
class NotImplementedError : public std::logic_error {
 public:
  NotImplementedError() : std::logic_error("") {}
};

}  // namespace orvo_core
