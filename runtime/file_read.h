// Reading whole files without exceptions. Streams over a folder or a file
// that fails mid-read throw std::ios_base::failure from inside the library
// (for example "basic_filebuf::underflow ... Is a directory"); every reader of
// a user-named file goes through this instead and decides what a failure
// means for it.
#pragma once

#include <string>

namespace qzdl {

// Reads the regular file `path` whole into `out`. False, with `out` empty and
// the reason in `error` when given ("No such file or directory", "Is a
// directory", ...), for anything that is not a regular file or cannot be
// read to its end.
bool ReadWholeFile(const std::string& path, std::string* out, std::string* error = nullptr);

// The file's text, or "" when it cannot be read (callers for whom a missing
// file and an empty one mean the same).
std::string ReadFileOrEmpty(const std::string& path);

}  // namespace qzdl
