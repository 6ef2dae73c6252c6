// The one table of layer type names the runtime knows.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "runtime/layer.h"

namespace qzdl {

template <typename T>
using LayerFactory = std::unique_ptr<Layer<T>> (*)();

// A new layer of `type`, or null for a type the runtime does not know.
template <typename T>
std::unique_ptr<Layer<T>> CreateLayer(const std::string& type);

// All registered type names, sorted.
template <typename T>
std::vector<std::string> RegisteredLayerTypes();

// Adds a type outside the table; for tests of the net machinery only.
template <typename T>
void RegisterLayerTypeForTesting(const std::string& type, LayerFactory<T> factory);

}  // namespace qzdl
