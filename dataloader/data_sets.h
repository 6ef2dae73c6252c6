// Helpers of the data set sources. The sources themselves are operations of
// DataLoader (data_loader.h), defined in data_sets.cpp:
//
//   list file   one path per line; a final carriage return is dropped; a
//               blank line is a path of length 0. Paths are used as written.
//   folder      every entry but "." and "..", unsorted; the sample path is
//               the folder path directly followed by the entry's name.
//   binary set  raw 32-bit floats, no header: chunks of one sample after the
//               other, in the order of the inputs for the anonymous form.
//   text set    whitespace-separated floats: one sample of each input, in the
//               order of the inputs.
#pragma once

#include <string>

namespace dataLoader {

// Chunks of a binary set: (file bytes / floats per record) / 4, truncating in
// each step; 0 when a record holds no floats.
unsigned long BinaryChunkCount(unsigned long file_bytes, unsigned long floats_per_record);

}  // namespace dataLoader
