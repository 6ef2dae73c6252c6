// Shared vocabulary of layer types and small runtime helpers. The two tables
// are defined here with internal linkage, so every translation unit that
// includes this header has them ready before main.
#pragma once

#include <set>
#include <string>
#include <vector>

// Layer types that the accelerator runs natively.
[[maybe_unused]] static std::set<std::string> QzaccLayer = {"Convolution", "Pooling",
                                                             "Deconvolution"};

namespace qzdl {

// Layer types whose outputs the accelerator may need trimmed.
[[maybe_unused]] static std::vector<std::string> need_trim_vec = {
    "Reshape",   "PriorBox",  "ChannelWise",   "Mean",       "Permute",   "Upsample",
    "Flatten",   "InnerProduct", "Python",     "Custom",     "Deconvolution", "ExpandDims",
    "SliceLike", "Tile",      "Repeat",        "Arange",     "BoxNMS",    "BroadcastOp",
    "Unary",     "BinaryOp",  "SliceAxis",     "ReduceArgs", "ReflectionPadding"};

bool IsFileExist(char const* path);

}  // namespace qzdl
