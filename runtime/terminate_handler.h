// What a tool prints when an exception ends the process. Some failures end
// the run through an uncaught exception by design (net creation, the NumPy
// reader); the default handler of the C++ library would lose whatever
// standard output still holds when it is redirected to a file, and say
// nothing of the file at fault.
#pragma once

#include "runtime/errors.h"

namespace qzdl {

// Installs the handler for the process: it flushes standard output, writes
//   terminate called after throwing an instance of '<type>'
//     what():  <text>
//   file "<path>"                   (for a FileNamedError, errors.h)
// to standard error, and aborts (status 134, as before).
void InstallTerminateHandler();

}  // namespace qzdl
