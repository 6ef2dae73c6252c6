// The items of the accuracy report: item lists, folders, converter lists with
// labels, and the data loader that delivers the converter's sources.
#include "dataloader/report_items.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "dataloader/cnpy.h"
#include "dataloader/data_loader.h"
#include "runtime/errors.h"
#include "runtime/file_read.h"
#include "runtime/image/qz_session.h"
#include "runtime/run_support.h"

namespace qzdl {

namespace {

[[noreturn]] void Fail(const std::string& message) { throw AccuracyError(message); }

std::vector<std::string> Fields(const std::string& line) {
  std::vector<std::string> fields;
  size_t pos = 0;
  while (pos < line.size()) {
    const size_t start = line.find_first_not_of(" \t", pos);
    if (start == std::string::npos) break;
    const size_t end = line.find_first_of(" \t", start);
    fields.push_back(line.substr(start, end - start));
    pos = end;
  }
  return fields;
}

// A whole number from 0 up to 10^9, or -1.
int Label(const std::string& text) {
  if (text.empty() || text.size() > 10) return -1;
  for (char c : text) {
    if (c < '0' || c > '9') return -1;
  }
  const long long v = std::stoll(text);
  return v <= 1000000000 ? static_cast<int>(v) : -1;
}

std::string Plural(long n, const std::string& word) {
  return std::to_string(n) + " " + word + (n == 1 ? "" : "s");
}

bool EndsWith(const std::string& s, const std::string& tail) {
  return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

// `name` "dims" as messages write a tensor.
std::string Described(const std::string& name, const std::vector<int>& dims) {
  return "\"" + name + "\" " + DimsToString(dims);
}

// The reason `path` cannot be opened for reading, or "" when it can.
std::string OpenError(const std::string& path) {
  FILE* file = fopen(path.c_str(), "rb");
  if (file == nullptr) return std::strerror(errno);
  fclose(file);
  return "";
}

// Fails unless every file of the items exists: missing files are found
// before a long run starts, not in the middle.
void CheckFilesExist(const std::vector<ReportItem>& items) {
  for (const ReportItem& item : items) {
    for (const std::string& path : item.paths) {
      struct stat st;
      if (stat(path.c_str(), &st) != 0)
        Fail(item.where + ": cannot read \"" + path + "\": " + std::strerror(errno));
    }
  }
}

// The label check shared by both list forms: either all items have one or
// none has.
void CheckSameLabelling(const std::vector<ReportItem>& items, const ReportItem& item,
                        int first_line) {
  if (items.empty() || (item.label >= 0) == (items.front().label >= 0)) return;
  Fail(item.where + (item.label >= 0 ? ": a label, though line " : ": no label, though line ") +
       std::to_string(first_line) + (item.label >= 0 ? " has none" : " has one"));
}

// Items of .npy files holding the net input's values as they are.
class NpyFileItems : public ReportItems {
 public:
  NpyFileItems(Net<float>* net, std::vector<ReportItem> items)
      : net_(net), items_(std::move(items)) {}
  int Count() const override { return static_cast<int>(items_.size()); }
  bool Labelled() const override { return !items_.empty() && items_.front().label >= 0; }
  std::string Where(int index) const override { return items_[index].where; }

  void Read(int index, std::vector<std::vector<float>>* inputs, int* label) override {
    const ReportItem& item = items_[index];
    *label = item.label;
    if (static_cast<int>(item.paths.size()) != net_->GetInputCount())
      Fail(item.where + ": " + Plural(static_cast<long>(item.paths.size()), "file") + " for " +
           Plural(net_->GetInputCount(), "net input"));
    for (int i = 0; i < net_->GetInputCount(); ++i) {
      const std::string& path = item.paths[i];
      std::vector<float> values;
      std::string error;
      if (!ReadNpyFloats(path, &values, &error))
        Fail(item.where + ": cannot read \"" + path + "\": " + error);
      const Data<float>* in = net_->GetInputData(i);
      if (static_cast<int64_t>(values.size()) != in->Count(0)) {
        Fail(item.where + ": \"" + path + "\" holds " + std::to_string(values.size()) +
             " floats; input " + Described(net_->GetInputDataName(i), in->GetDims()) + " takes " +
             std::to_string(in->Count(0)));
      }
      inputs->push_back(std::move(values));
    }
  }

 private:
  Net<float>* net_;
  std::vector<ReportItem> items_;
};

// Items of a data loader: item k is sample k of every input. `items` holds
// the files and labels of a converter list, and is empty for the other
// sources.
class LoaderItems : public ReportItems {
 public:
  LoaderItems(Net<float>* net, dataLoader::DataLoader* loader, std::vector<ReportItem> items,
              int count, std::string description)
      : net_(net),
        loader_(loader),
        items_(std::move(items)),
        count_(count),
        description_(std::move(description)) {}
  int Count() const override { return count_; }
  bool Labelled() const override { return !items_.empty() && items_.front().label >= 0; }
  std::string Where(int index) const override {
    return items_.empty() ? description_ + " item " + std::to_string(index + 1)
                          : items_[index].where;
  }

  void Read(int index, std::vector<std::vector<float>>* inputs, int* label) override {
    *label = items_.empty() ? -1 : items_[index].label;
    for (int i = 0; i < net_->GetInputCount(); ++i) {
      const std::string name = net_->GetInputDataName(i);
      const Data<float>* in = net_->GetInputData(i);
      const float* values = nullptr;
      if (items_.empty()) {
        values = loader_->Get(name, index);
      } else {
        const std::string& path = items_[index].paths[i];
        const std::string where = items_[index].where;
        // The loader ends the process on a file it cannot take; these checks
        // say which line is at fault instead.
        if (loader_->data_format == dataLoader::Image) CheckImage(where, path);
        if (loader_->data_format == dataLoader::Npy) CheckNpy(where, path, i);
        try {
          values = loader_->Get(name, index);
        } catch (const std::runtime_error& e) {
          Fail(where + ": cannot read \"" + path + "\": " + e.what());
        }
      }
      inputs->emplace_back(values, values + in->Count(0));
    }
  }

 private:
  static void CheckImage(const std::string& where, const std::string& path) {
    qzg::QZSession* session = qzg::QZSession::CreateSession();
    try {
      session->ReadImg(path.c_str());
    } catch (const std::runtime_error& e) {
      session->Destroy();
      Fail(where + ": " + e.what());
    }
    session->Destroy();
  }

  void CheckNpy(const std::string& where, const std::string& path, int input) {
    size_t elements = 0;
    try {
      elements = cnpy::npy_load(path).elementCount;
    } catch (const std::exception& e) {
      Fail(where + ": cannot read \"" + path + "\": " + e.what());
    }
    const Data<float>* in = net_->GetInputData(input);
    if (static_cast<int64_t>(elements) != in->Count(0)) {
      Fail(where + ": \"" + path + "\" holds " + std::to_string(elements) + " values; input " +
           Described(net_->GetInputDataName(input), in->GetDims()) + " takes " +
           std::to_string(in->Count(0)));
    }
  }

  Net<float>* net_;
  std::unique_ptr<dataLoader::DataLoader> loader_;
  std::vector<ReportItem> items_;
  int count_;
  std::string description_;
};

// The number of items a loader holds, the same for every input.
int LoaderCount(Net<float>* net, dataLoader::DataLoader* loader, const std::string& description) {
  const long first = loader->GetSize(net->GetInputDataName(0));
  std::string counts;
  bool differ = false;
  for (int i = 0; i < net->GetInputCount(); ++i) {
    const long n = loader->GetSize(net->GetInputDataName(i));
    differ |= n != first;
    counts += std::string(i == 0 ? "" : ", ") + "\"" + net->GetInputDataName(i) + "\" " +
              std::to_string(n);
  }
  if (differ) Fail(description + " gives the net inputs different numbers of items: " + counts);
  return static_cast<int>(first);
}

}  // namespace

std::vector<ReportItem> ParseItemList(const std::string& text, const std::string& list_path,
                                      int input_count) {
  std::vector<ReportItem> items;
  int first_line = 0;  // of the first item, whose label decides for all
  int line_number = 0;
  for (size_t pos = 0; pos < text.size();) {
    size_t end = text.find('\n', pos);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(pos, end - pos);
    pos = end + 1;
    ++line_number;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    const std::vector<std::string> fields = Fields(line);
    if (fields.empty()) continue;
    const std::string where = list_path + " line " + std::to_string(line_number);
    const int n = static_cast<int>(fields.size());
    if (n != input_count && n != input_count + 1) {
      Fail(where + ": " + Plural(n, "field") + ", where a line holds one file per net input (" +
           std::to_string(input_count) + ") and an optional label");
    }
    ReportItem item;
    item.where = where;
    item.paths.assign(fields.begin(), fields.begin() + input_count);
    if (n == input_count + 1) {
      item.label = Label(fields.back());
      if (item.label < 0)
        Fail(where + ": the label \"" + fields.back() + "\" is not a whole number from 0");
    }
    if (items.empty()) first_line = line_number;
    CheckSameLabelling(items, item, first_line);
    items.push_back(std::move(item));
  }
  if (items.empty()) Fail(list_path + ": no items");
  return items;
}

std::vector<ReportItem> ReadItemList(const std::string& list_path, int input_count) {
  std::string text, error;
  if (!ReadWholeFile(list_path, &text, &error))
    Fail("cannot read the list \"" + list_path + "\": " + error);
  std::vector<ReportItem> items = ParseItemList(text, list_path, input_count);
  CheckFilesExist(items);
  return items;
}

std::vector<ReportItem> FolderItems(const std::string& folder) {
  DIR* dir = opendir(folder.c_str());
  if (dir == nullptr) Fail("cannot read the folder \"" + folder + "\": " + std::strerror(errno));
  std::vector<std::string> names;
  while (const dirent* entry = readdir(dir)) {
    if (EndsWith(entry->d_name, ".npy")) names.push_back(entry->d_name);
  }
  closedir(dir);
  std::sort(names.begin(), names.end());
  if (names.empty()) Fail("the folder \"" + folder + "\" holds no .npy files");
  std::vector<ReportItem> items;
  for (const std::string& name : names) {
    ReportItem item;
    item.paths.push_back(folder + "/" + name);
    item.where = item.paths.back();
    items.push_back(std::move(item));
  }
  return items;
}

std::vector<ReportItem> ReadConverterList(const std::string& list_path, int input_count,
                                          int max_data_num) {
  std::string text, error;
  if (!ReadWholeFile(list_path, &text, &error))
    Fail("cannot read the list \"" + list_path + "\": " + error);
  // The lines as the converter reads them (std::getline: a final newline
  // ends the last line instead of starting an empty one).
  std::vector<std::string> lines;
  for (size_t pos = 0; pos < text.size();) {
    size_t end = text.find('\n', pos);
    if (end == std::string::npos) end = text.size();
    lines.push_back(text.substr(pos, end - pos));
    if (!lines.back().empty() && lines.back().back() == '\r') lines.back().pop_back();
    pos = end + 1;
    if (max_data_num > 0 &&
        static_cast<long long>(lines.size()) == static_cast<long long>(max_data_num) * input_count)
      break;
  }
  if (lines.empty()) Fail(list_path + ": no items");
  if (lines.size() % input_count != 0) {
    Fail(list_path + ": " + Plural(static_cast<long>(lines.size()), "line") + " for " +
         Plural(input_count, "net input") +
         "; the lines are dealt out over the inputs, so their number must be a multiple of " +
         std::to_string(input_count));
  }
  std::vector<ReportItem> items;
  for (size_t k = 0; k < lines.size(); ++k) {
    const int input = static_cast<int>(k % input_count);
    const int line_number = static_cast<int>(k + 1);
    const std::string where = list_path + " line " + std::to_string(line_number);
    std::string path = lines[k];
    int label = -1;
    // A path that holds a tab is the converter's as long as it names a file;
    // only otherwise is the text behind the last tab a label.
    const size_t tab = path.rfind('\t');
    struct stat st;
    if (tab != std::string::npos && stat(path.c_str(), &st) != 0) {
      const std::string text_label = path.substr(tab + 1);
      label = Label(text_label);
      if (label < 0)
        Fail(where + ": the label \"" + text_label + "\" is not a whole number from 0");
      if (input != 0) {
        Fail(where + ": a label on the line of input " + std::to_string(input + 1) +
             "; an item's label goes on the line of its first input");
      }
      path.erase(tab);
    }
    if (path.empty()) Fail(where + ": a blank line, where a file is named");
    if (input == 0) {
      ReportItem item;
      item.where = where;
      item.label = label;
      CheckSameLabelling(items, item, 1);
      items.push_back(std::move(item));
    }
    items.back().paths.push_back(path);
  }
  CheckFilesExist(items);
  return items;
}

std::unique_ptr<ReportItems> OpenReportItems(Net<float>* net, const ReportSource& source,
                                             std::string* description) {
  const dataLoader::DataSourceOptions& data = source.data;
  const int inputs = net->GetInputCount();
  const int limit = data.max_data_num;
  if (!source.list.empty() || !source.dir.empty()) {
    std::vector<ReportItem> items =
        source.dir.empty() ? ReadItemList(source.list, inputs) : FolderItems(source.dir);
    if (limit > 0 && static_cast<int>(items.size()) > limit) items.resize(limit);
    *description = source.dir.empty() ? source.list : source.dir;
    return std::make_unique<NpyFileItems>(net, std::move(items));
  }

  if (!data.calibration_set.empty()) {
    dataLoader::DataFormat format;
    if (!dataLoader::FileFormat(data.calibration_type, &format))
      Fail("-t \"" + data.calibration_type + "\" is neither img nor npy");
    std::vector<ReportItem> items = ReadConverterList(data.calibration_set, inputs, limit);
    std::vector<std::string> paths;
    for (const ReportItem& item : items)
      paths.insert(paths.end(), item.paths.begin(), item.paths.end());
    // The converter's loader for its files, with its transforms; the labels
    // stay here.
    dataLoader::DataLoader* loader = dataLoader::NewFileLoader(net, format, data);
    loader->LoadPathsAnonymous(paths, data.calibration_set);
    *description = data.calibration_set;
    const int count = static_cast<int>(items.size());
    return std::make_unique<LoaderItems>(net, loader, std::move(items), count, *description);
  }

  std::string what;  // of a set read from a file
  if (!data.binary_set.empty()) {
    what = "binary set";
    *description = data.binary_set;
  } else if (!data.txt_file.empty()) {
    what = "text set";
    *description = data.txt_file;
  } else if (data.random_input > 0) {
    *description = "random data";
  } else {
    Fail("no items named");
  }
  const std::string named =
      what.empty() ? *description : "the " + what + " \"" + *description + "\"";
  if (!what.empty()) {
    // The loader would end the process on a binary set it cannot read, and
    // take a text set it cannot open as no data.
    std::string error = OpenError(*description);
    struct stat st;
    if (error.empty() && (stat(description->c_str(), &st) != 0 || !S_ISREG(st.st_mode)))
      error = "not a file";
    if (!error.empty()) Fail("cannot read " + named + ": " + error);
  }
  dataLoader::DataLoader* loader = dataLoader::CreateDataLoader(net, data);
  if (loader->GetSize(net->GetInputDataName(0)) == 0) {
    long floats = 0;
    for (int i = 0; i < inputs; ++i) floats += net->GetInputData(i)->Count(0);
    Fail(named + " holds no whole item: an item takes " + std::to_string(floats * 4) + " bytes (" +
         Plural(floats, "float") + ")");
  }
  const int count = LoaderCount(net, loader, named);
  return std::make_unique<LoaderItems>(net, loader, std::vector<ReportItem>(), count, named);
}

}  // namespace qzdl
