// Log line and creation-failure path shared by the runtime and the tool.
#pragma once

#include <exception>
#include <string>

namespace qzdl {

// Writes "[<UTC time as asctime gives it>]: <message>\n" to standard output.
// The time text keeps asctime's layout, with its final newline turned into a
// blank, so a line reads "[Fri Nov 20 22:40:15 2026 ]: message".
class QLOG {
 public:
  virtual void QZLOG(std::string message);
  virtual ~QLOG() = default;
};

extern QLOG qlogInstance;

// Thrown, as a pointer, when a net cannot be created.
class QZDLInitException : public std::exception {
 public:
  const char* what() const noexcept override { return "CreatNet Error"; }
};

namespace {

// The form used by parameter checks: logs and returns; the caller exits.
[[maybe_unused]] void throw_exception(std::string message) { qlogInstance.QZLOG(message); }

// The form used by net creation: logs, then throws the pointer it is given.
// Nobody catches it, so an uncaught pointer ends the process.
[[noreturn, maybe_unused]] void throw_exception(std::string message, std::exception* error) {
  qlogInstance.QZLOG(message);
  throw error;
}

}  // namespace

}  // namespace qzdl
