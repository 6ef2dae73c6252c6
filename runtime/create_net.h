// Turning a net description and weights into a ready net.
#pragma once

#include <string>

#include "runtime/net.h"
#include "runtime/optimizer.h"

namespace qzdl {

// Picks the serial loader when the model path ends in "fb", otherwise the
// weights-file loader with the net's own type word.
template <typename T>
Net<T>* CreateNet(std::string const& netPath, std::string const& modelPath, bool frugal,
                  bool optimize, int reshapeArg, int spareArg);

template <typename T>
Net<T>* CreateNet(std::string const& netPath, std::string const& modelPath,
                  std::string const& netDataType, bool frugal, bool optimize, int reshapeArg,
                  int spareArg);

template <typename T>
Net<T>* CreateNetSerial(std::string const& netPath, std::string const& modelPath, bool frugal,
                        bool optimize, int reshapeArg, int spareArg);

template <typename T>
Net<T>* CreateNetFromContent(std::string const& netText, char* model, int modelLength, bool frugal,
                             bool optimize, int reshapeArg, int spareArg);

// "float" for float nets, "int8" for 8-bit ones.
template <typename T>
std::string NetTypeWord();

}  // namespace qzdl
