// The items of the accuracy report (qzdl_run --compare): what the float net
// and its quantized model run on. Its own item lists (--list: one .npy file
// per net input and an optional label per line) and folders (--dir), or the
// converter's data sources with the converter's input transforms (-s lists
// of images or .npy files with optional labels, binary and text sets, random
// data). The comparison itself is runtime/int8/accuracy_report.h; see
// docs/accuracy-report.md, "Items".
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "dataloader/data_source.h"
#include "runtime/int8/accuracy_report.h"
#include "runtime/net.h"

namespace qzdl {

// One item of a list or folder: a file per net input, and its label (-1 when
// none).
struct ReportItem {
  std::vector<std::string> paths;
  int label = -1;
  std::string where;  // "<list> line <n>" or the file, for messages
};

// Items of a list file's text (--list): one item per line, its files (one per
// net input, in input order) and an optional label (a whole number from 0),
// separated by tabs or blanks. Blank lines are skipped; a final carriage
// return is dropped. Either every line has a label or none has.
std::vector<ReportItem> ParseItemList(const std::string& text, const std::string& list_path,
                                      int input_count);
// The same from the file, whose files must exist.
std::vector<ReportItem> ReadItemList(const std::string& list_path, int input_count);
// The .npy files of a folder (--dir), in name order, without labels (one input).
std::vector<ReportItem> FolderItems(const std::string& folder);

// Items of a converter list (-s): the converter reads one path per line (one
// final carriage return dropped, nothing trimmed) and deals the lines out over
// the inputs, so an item is `input_count` lines. A line that holds a tab and
// names no file as a whole ends in a label, behind its last tab, which only
// the line of an item's first input may carry; either every item has one or
// none has. `max_data_num` above 0 keeps that many lines per input, as the
// converter does. Every file must exist.
std::vector<ReportItem> ReadConverterList(const std::string& list_path, int input_count,
                                          int max_data_num);

// Where the items come from: exactly one of `list`, `dir` and the data
// options' sources (-s, -b, -T, -a); the other data options apply to those.
struct ReportSource {
  std::string list;  // --list
  std::string dir;   // --dir
  dataLoader::DataSourceOptions data;
};

// The items of `source` for `net` (shaped at batch 1), all of them checked
// as far as can be done before the run; `description` receives what the
// report names as their origin (a list, folder or set path, "random data").
// Fails with AccuracyError.
std::unique_ptr<ReportItems> OpenReportItems(Net<float>* net, const ReportSource& source,
                                             std::string* description);

}  // namespace qzdl
