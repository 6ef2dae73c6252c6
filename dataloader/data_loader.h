// The calibration data of one net. A data item is a named input of the net:
// its shape, its element count, the list of its samples (one Loader each) and
// a read cursor. The sources (data_sets.cpp) fill the lists; the driver and
// the searchers fetch one sample, a range, a batch or everything as one flat
// float array. See docs/calibration-data.md, sections "Data items" and
// "Sources".
#pragma once

#include <pthread.h>

#include <map>
#include <string>
#include <vector>

#include "dataloader/loader.h"
#include "dataloader/transform.h"
#include "runtime/net.h"

namespace dataLoader {

// The lock of the fetch operations: exclusive and not recursive. A fetch
// that comes to the end of the data returns with the lock still held, so the
// caller must stop fetching; a thread that fetches again all the same would
// wait for itself forever, and is stopped with a message instead.
class FetchMutex {
 public:
  FetchMutex();
  ~FetchMutex();
  FetchMutex(const FetchMutex&) = delete;
  FetchMutex& operator=(const FetchMutex&) = delete;

  void lock();
  void unlock();
  bool try_lock();

 private:
  pthread_mutex_t mutex_;
};

class DataLoader {
 public:
  // One item per net input, in the net's input order, with no samples.
  template <typename T>
  DataLoader(qzdl::Net<T>* net, DataFormat format);
  DataLoader(const DataLoader&) = delete;
  DataLoader& operator=(const DataLoader&) = delete;

  // Declares or redeclares an item: its shape, an empty sample list (the
  // Loaders are not freed) and the cursor at 0. Element counts, buffers,
  // transforms and `names` are left as they are.
  void AddDataItem(std::string const& name, std::vector<int> const& dims);
  // A new sample of `name` that reads from a shared object, or from a file.
  // An empty path is allowed (memory and random samples).
  void AddLoader(std::string const& name, void* shared);
  void AddLoader(std::string const& name, std::string const& path);
  // Limit on samples, read by the sources; must be at least 1.
  void SetMaximum(int maximum);
  // Samples of the first item in key order.
  long GetSize();
  // The number of samples of item `name` (0 for an item it does not have).
  long GetSize(std::string const& name);

  // Fetches. Each returns a new array owned by the loader, valid until the
  // next fetch for the same item: samples lie one behind the other.
  // One sample by index; the cursor is not moved.
  float* Get(std::string const& name, int index);
  // Samples from `from` up to but excluding `to`; the cursor is not moved.
  float* GetFromTo(std::string const& name, int from, int to);
  // All samples in list order; the cursor is not moved.
  float* GetAll(std::string const& name);
  // The sample at the cursor, or null at the end (the lock stays held).
  float* GetNext(std::string const& name);
  // The next `batch` samples, or null if too few are left (the lock stays
  // held). The sum of cursor and batch is compared as an unsigned number.
  float* GetBatch(std::string const& name, int batch);

  // Transform chains (the item must be one of the net's).
  void AddTransform(std::string const& name, BasicTransform* transform);
  // Appends `first` and the further BasicTransform* arguments, up to a null
  // pointer, leaving out those of type 0.
  void ComposeTransform(std::string const& name, BasicTransform* first, ...);

  // Sources (data_sets.cpp). A source with a name fills that item; an
  // Anonymous source fills all items, dealing the data out over `names`.
  void LoadFromList(std::string const& name, std::string const& list_file);
  void LoadFolder(std::string const& name, std::string const& folder);
  void LoadFromListAnonymous(std::string const& list_file);
  // The dealing of LoadFromListAnonymous for paths already read: path i is
  // line i + 1 of `list_file` and goes to input i modulo the inputs. No
  // limit is applied.
  void LoadPathsAnonymous(std::vector<std::string> const& paths, std::string const& list_file);
  void LoadFromTxtAnonymous(std::string const& text_file);
  void LoadFromBinary(std::string const& name, std::string const& path);
  void LoadFromBinaryAnonymous(std::string const& path);
  void LoadFromSharedPtr(std::string const& name, std::vector<void*> const& pointers);
  void LoadFromSharedMemoryAnonymous(std::vector<void*> const& pointers);
  void GenerateRandom(int count);

  // Serialises the fetch operations.
  FetchMutex* mutex;
  // Limit on samples read by the sources; -1 means none.
  int maximum = -1;
  // Copied into every new Loader.
  DataFormat data_format;
  // The net's input names, in input order.
  std::vector<std::string> names;
  std::map<std::string, std::vector<int>> dims;
  // Floats in one sample.
  std::map<std::string, long> counts;
  // The samples of each item, in the order added.
  std::map<std::string, std::vector<Loader*>> loaders;
  // Index of the next sample for GetNext and GetBatch.
  std::map<std::string, int> cursors;
  // The current output array of each item.
  std::map<std::string, float*> buffers;
  // The transform chain of each item.
  std::map<std::string, TransformHandle*> transforms;

 private:
  // Frees the item's previous array and allocates one of `floats` floats.
  float* NewBuffer(std::string const& name, long floats);
  // Loads samples first..first+n-1 of the item one behind the other into
  // its current array.
  void LoadRange(std::string const& name, long first, long n);
};

template <typename T>
DataLoader::DataLoader(qzdl::Net<T>* net, DataFormat format)
    : mutex(new FetchMutex()), maximum(-1), data_format(format) {
  for (int i = 0; i < net->GetInputCount(); ++i) {
    qzdl::Data<T>* input = net->GetInputData(i);
    const std::string name = input->GetName();
    names.push_back(name);
    dims[name] = input->GetDims();
    counts[name] = static_cast<long>(input->Count(0));
    loaders[name].clear();
    cursors[name] = 0;
    buffers[name] = nullptr;
    transforms[name] = new TransformHandle();
  }
}

}  // namespace dataLoader
