// The sources that fill the sample lists of a DataLoader: list files,
// folders, binary sets, text sets, shared objects and random samples.
// See docs/calibration-data.md, section "Sources".
#include "dataloader/data_sets.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

#include "dataloader/data_loader.h"
#include "runtime/errors.h"
#include "runtime/layer_types.h"
#include "runtime/log.h"

namespace dataLoader {

namespace {

// Reads a list file: one path per line, with one final carriage return or
// newline dropped from each. Stops when the paths gathered equal `limit`
// (never for a limit below 1). `warn` reports lines naming no file.
std::vector<std::string> ReadList(std::string const& list_file, long long limit, bool warn) {
  std::vector<std::string> paths;
  std::ifstream list(list_file);
  std::string line;
  while (std::getline(list, line)) {
    if (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.pop_back();
    paths.push_back(line);
    // The line stays all the same: its sample fails when it is loaded.
    if (warn && !qzdl::IsFileExist(line.c_str())) {
      printf("[WARNING] file not exist %s in %s\n", line.c_str(), list_file.c_str());
    }
    if (static_cast<long long>(paths.size()) == limit) break;
  }
  return paths;
}

// The whole file in a new byte array that is never freed: the samples of a
// binary set use it as their storage. Fails when it cannot be read whole.
char* ReadWholeFile(std::string const& path, size_t& size) {
  FILE* file = fopen(path.c_str(), "rb");
  long end = -1;
  struct stat status;
  // Only a regular file has a size to read: a directory opens, but claims
  // to end far away and reads nothing.
  if (file != nullptr && fstat(fileno(file), &status) == 0 && S_ISREG(status.st_mode) &&
      fseek(file, 0, SEEK_END) == 0) {
    end = ftell(file);
  }
  if (file == nullptr || end < 0) {
    // A set that cannot be opened or sized is reported like one that reads
    // short.
    if (file != nullptr) fclose(file);
    qzdl::throw_exception("read bin file error\n" + qzdl::FileLine(path),
                          new qzdl::QZDLInitException());
  }
  fseek(file, 0, SEEK_SET);
  size = static_cast<size_t>(end);
  char* bytes = new char[size > 0 ? size : 1];
  const size_t got = size > 0 ? fread(bytes, 1, size, file) : 0;
  fclose(file);
  if (got != size) {
    delete[] bytes;
    qzdl::throw_exception("read bin file error\n" + qzdl::FileLine(path),
                          new qzdl::QZDLInitException());
  }
  return bytes;
}

}  // namespace

// ReadList keeps every line, so entry i is line i + 1.
static std::string ListLine(std::string const& list_file, size_t i) {
  return "line " + std::to_string(i + 1) + " of list \"" + list_file + "\"";
}

unsigned long BinaryChunkCount(unsigned long file_bytes, unsigned long floats_per_record) {
  if (floats_per_record == 0) return 0;
  return file_bytes / floats_per_record / 4;
}

void DataLoader::LoadFromList(std::string const& name, std::string const& list_file) {
  const std::vector<std::string> paths = ReadList(list_file, maximum, false);
  for (size_t i = 0; i < paths.size(); ++i) {
    AddLoader(name, paths[i]);
    loaders[name].back()->origin = ListLine(list_file, i);
  }
}

void DataLoader::LoadFromListAnonymous(std::string const& list_file) {
  const long long inputs = static_cast<long long>(names.size());
  // With no limit (-1) the product is negative and never equals a count.
  const std::vector<std::string> paths =
      ReadList(list_file, static_cast<long long>(maximum) * inputs, true);
  LoadPathsAnonymous(paths, list_file);
}

void DataLoader::LoadPathsAnonymous(std::vector<std::string> const& paths,
                                    std::string const& list_file) {
  if (names.empty()) return;
  for (size_t i = 0; i < paths.size(); ++i) {
    AddLoader(names[i % names.size()], paths[i]);
    loaders[names[i % names.size()]].back()->origin = ListLine(list_file, i);
  }
}

void DataLoader::LoadFolder(std::string const& name, std::string const& folder) {
  struct stat status;
  // A symbolic link, even to a directory, is not a directory here.
  if (lstat(folder.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
    printf("not a valid directory: %s\n", folder.c_str());
    return;
  }
  DIR* directory = opendir(folder.c_str());
  if (directory == nullptr) {
    printf("opendir error: %s\n", folder.c_str());
    return;
  }
  std::vector<std::string> paths;
  // Entries in the order of the directory, unsorted, whatever their type.
  // The folder path is used as given: without a final slash the names run
  // together with the folder's.
  while (struct dirent* entry = readdir(directory)) {
    const std::string entry_name = entry->d_name;
    if (entry_name == "." || entry_name == "..") continue;
    paths.push_back(folder + entry_name);
    if (static_cast<long long>(paths.size()) == maximum) break;
  }
  closedir(directory);
  for (const std::string& path : paths) AddLoader(name, path);
}

void DataLoader::LoadFromBinary(std::string const& name, std::string const& path) {
  data_format = Binary;
  size_t size = 0;
  char* bytes = ReadWholeFile(path, size);
  const long count = counts[name];
  unsigned long chunks = BinaryChunkCount(size, static_cast<unsigned long>(count > 0 ? count : 0));
  if (maximum > 0 && chunks > static_cast<unsigned long>(maximum)) chunks = maximum;
  if (chunks < 1) return;
  float* floats = reinterpret_cast<float*>(bytes);
  // The first Load of a Binary sample takes its chunk of the file's array
  // as its storage, which stays allocated for the rest of the run.
  for (unsigned long i = 0; i < chunks; ++i) {
    AddLoader(name, "");
    loaders[name].back()->Load(floats + i * count, transforms[name]);
  }
}

void DataLoader::LoadFromBinaryAnonymous(std::string const& path) {
  data_format = Binary;
  size_t size = 0;
  char* bytes = ReadWholeFile(path, size);
  unsigned long record = 0;
  for (const std::string& name : names) record += static_cast<unsigned long>(counts[name]);
  unsigned long chunks = BinaryChunkCount(size, record);
  // The limit counts chunks of all inputs together.
  if (maximum > 0 && chunks > static_cast<unsigned long>(maximum)) chunks = maximum;
  if (chunks < 1) return;
  float* address = reinterpret_cast<float*>(bytes);
  // N chunks, not N records: with k inputs about one k-th of the file is
  // used, and the earlier inputs get one sample more when N is not a
  // multiple of k.
  for (unsigned long i = 0; i < chunks; ++i) {
    const std::string& name = names[i % names.size()];
    AddLoader(name, "");
    loaders[name].back()->Load(address, transforms[name]);
    address += counts[name];
  }
}

void DataLoader::LoadFromTxtAnonymous(std::string const& text_file) {
  data_format = Binary;
  std::ifstream text(text_file);
  // A text set that does not open gives no samples.
  if (!text.is_open()) return;
  for (const std::string& name : names) {
    // One sample per input. A number that fails to parse stops the reading;
    // the elements behind it stay 0. The array is the sample's storage from
    // its first Load on, and so it is kept.
    const long count = counts[name];
    float* values = new float[count > 0 ? count : 0]();
    for (long i = 0; i < count; ++i) text >> values[i];
    AddLoader(name, "");
    loaders[name].back()->Load(values, transforms[name]);
  }
}

void DataLoader::LoadFromSharedPtr(std::string const& name, std::vector<void*> const& pointers) {
  for (void* pointer : pointers) {
    AddLoader(name, pointer);
    if (static_cast<long long>(loaders[name].size()) == maximum) break;
  }
}

void DataLoader::LoadFromSharedMemoryAnonymous(std::vector<void*> const& pointers) {
  if (names.empty()) return;
  for (size_t i = 0; i < pointers.size(); ++i) {
    const std::string& name = names[i % names.size()];
    AddLoader(name, pointers[i]);
    // Only the item just filled is looked at: the first input ends the run.
    if (static_cast<long long>(loaders[name].size()) == maximum) break;
  }
}

void DataLoader::GenerateRandom(int count) {
  data_format = Random;
  for (const std::string& name : names) {
    for (int i = 0; i < count; ++i) AddLoader(name, "");
  }
}

}  // namespace dataLoader
