// The choice of a net's data source from the converter's data options: a
// list or folder of image or NPY files, a binary set, a text set, random
// data, or else the default set calibration.bin; image sources get the input
// transforms. The converter takes its calibration data this way, and
// qzdl_run --compare its items. See docs/calibration-data.md, sections
// "Sources" and "Default set".
#pragma once

#include <string>

#include "dataloader/data_loader.h"
#include "runtime/net.h"

namespace dataLoader {

// The converter's data options (docs/command-line.md), by their field names.
struct DataSourceOptions {
  std::string calibration_set;           // -s: a list file
  std::string data_folder;               // the parameter file's folder; wins over the list
  std::string calibration_type = "img";  // -t: what the list's files hold, "img" or "npy"
  std::string binary_set;                // -b
  std::string txt_file;                  // -T
  int random_input = 0;                  // -a: 0 means none
  bool rgb = false;                      // -r: images are RGB, not BGR
  int max_data_num = -1;                 // -x: below 1 means no limit
};

// The loader of the first source that applies, filled; null when the list's
// type is neither "img" nor "npy" (no message), or when the default set
// cannot be opened (after a log line).
DataLoader* CreateDataLoader(qzdl::Net<float>* net, const DataSourceOptions& options);

// The format of the files of a list or folder; false for a type other than
// "img" and "npy".
bool FileFormat(const std::string& calibration_type, DataFormat* format);
// A loader of `format`, without samples, for files that a caller names
// itself: the limit of max_data_num and, for images, the input transforms;
// what CreateDataLoader starts a list or folder from.
DataLoader* NewFileLoader(qzdl::Net<float>* net, DataFormat format,
                          const DataSourceOptions& options);

// Image inputs: a channel reversal for RGB data, and a grey conversion for
// inputs of one channel, one instance per input.
void AddInputTransforms(DataLoader* loader, qzdl::Net<float>* net, bool rgb);

}  // namespace dataLoader
