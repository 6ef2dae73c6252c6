#include "runtime/terminate_handler.h"

#include <cxxabi.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <typeinfo>

namespace qzdl {

namespace {

std::string TypeName(const std::type_info* type) {
  if (type == nullptr) return "";
  int status = 0;
  char* name = abi::__cxa_demangle(type->name(), nullptr, nullptr, &status);
  std::string text = status == 0 && name != nullptr ? name : type->name();
  std::free(name);
  return text;
}

void PrintException(const std::string& type, const char* what, const FileNamedError* named) {
  fprintf(stderr, "terminate called after throwing an instance of '%s'\n", type.c_str());
  if (what != nullptr) fprintf(stderr, "  what():  %s\n", what);
  if (named != nullptr) fprintf(stderr, "%s\n", FileLine(named->file()).c_str());
}

[[noreturn]] void Terminate() {
  fflush(stdout);
  const std::string type = TypeName(abi::__cxa_current_exception_type());
  if (std::exception_ptr current = std::current_exception()) {
    try {
      std::rethrow_exception(current);
    } catch (const std::exception& e) {
      PrintException(type, e.what(), dynamic_cast<const FileNamedError*>(&e));
    } catch (const std::exception* e) {
      // Net creation throws its exception as a pointer, after logging why.
      PrintException(type, e != nullptr ? e->what() : nullptr, nullptr);
    } catch (...) {
      PrintException(type, nullptr, nullptr);
    }
  } else {
    fprintf(stderr, "terminate called without an active exception\n");
  }
  fflush(stderr);
  std::abort();
}

}  // namespace

void InstallTerminateHandler() { std::set_terminate(Terminate); }

}  // namespace qzdl
