// Pieces shared by the fuzz targets. Every target defines
// LLVMFuzzerTestOneInput; built with QZDL_FUZZ it links against libFuzzer,
// otherwise against replay_main.cpp, which feeds it the files of a corpus.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "runtime/net.h"

namespace qzdl_fuzz {

// Sends standard output (the tools' log lines) to /dev/null, once, unless
// QZDL_FUZZ_VERBOSE is set: printing would dominate a fuzzing run.
void QuietStdout();

// Writes the input to a file private to this process and returns its path.
// Calls with the same `name` reuse the same file; the folder is removed when
// the process exits normally.
std::string WriteInput(const uint8_t* data, size_t size, const std::string& name);

// An empty folder private to this process (for paths the input may name).
std::string ScratchFolder();

// Import options of the ONNX targets: constants computed while importing are
// held to 256 MiB (a quarter of the tool's default) so that fuzzing stays fast.
constexpr int64_t kFuzzMaxConstantBytes = int64_t{256} << 20;

// Creates a float net from a description and weights in memory; returns null
// when creation fails the documented way (a logged message and a thrown
// QZDLInitException pointer).
qzdl::Net<float>* TryCreateNet(const std::string& text, const std::string& weights, bool frugal);

// The net of small_net.h's kTwoInputs, created once for the life of the
// process (the data-set targets read samples for its inputs "a" and "b").
qzdl::Net<float>* TwoInputNet();

}  // namespace qzdl_fuzz
