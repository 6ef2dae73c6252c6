// Data items, their samples and the fetch operations. The sources that fill
// the sample lists are in data_sets.cpp.
#include "dataloader/data_loader.h"

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "runtime/log.h"

namespace dataLoader {

FetchMutex::FetchMutex() {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  // Error checking instead of the default kind, so that a relock by the
  // holder is reported instead of hanging.
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
  pthread_mutex_init(&mutex_, &attributes);
  pthread_mutexattr_destroy(&attributes);
}

FetchMutex::~FetchMutex() { pthread_mutex_destroy(&mutex_); }

void FetchMutex::lock() {
  if (pthread_mutex_lock(&mutex_) == EDEADLK) {
    printf("Error: data fetched from a data loader after the end of its data.\n");
    exit(-1);
  }
}

void FetchMutex::unlock() { pthread_mutex_unlock(&mutex_); }

bool FetchMutex::try_lock() { return pthread_mutex_trylock(&mutex_) == 0; }

void DataLoader::AddDataItem(std::string const& name, std::vector<int> const& item_dims) {
  dims[name] = item_dims;
  loaders[name].clear();
  cursors[name] = 0;
}

void DataLoader::AddLoader(std::string const& name, void* shared) {
  if (dims.find(name) == dims.end() || loaders.find(name) == loaders.end()) {
    qzdl::throw_exception("this data name dose not exist", new qzdl::QZDLInitException());
  }
  Loader* loader = new Loader("", nullptr);
  loader->SetDataFormat(data_format);
  loader->SetSharedPtr(shared);
  loaders[name].push_back(loader);
  loader->Reshape(name, dims[name]);
}

void DataLoader::AddLoader(std::string const& name, std::string const& path) {
  if (dims.find(name) == dims.end() || loaders.find(name) == loaders.end()) {
    qzdl::throw_exception("this data name dose not exist", new qzdl::QZDLInitException());
  }
  Loader* loader = new Loader("", nullptr);
  loader->SetDataFormat(data_format);
  loader->SetFilePath(path);
  loaders[name].push_back(loader);
  loader->Reshape(name, dims[name]);
}

void DataLoader::SetMaximum(int limit) {
  if (limit < 1) {
    qzdl::throw_exception("Error: maximum limit of data loader must be larger than 0.",
                          new qzdl::QZDLInitException());
  }
  maximum = limit;
}

long DataLoader::GetSize() {
  if (loaders.empty()) return 0;
  return static_cast<long>(loaders.begin()->second.size());
}

long DataLoader::GetSize(std::string const& name) {
  auto it = loaders.find(name);
  return it == loaders.end() ? 0 : static_cast<long>(it->second.size());
}

float* DataLoader::NewBuffer(std::string const& name, long floats) {
  float*& buffer = buffers[name];
  if (buffer != nullptr) {
    delete[] buffer;
    buffer = nullptr;
  }
  // A negative size fails as a bad array length.
  buffer = new float[floats];
  return buffer;
}

void DataLoader::LoadRange(std::string const& name, long first, long n) {
  std::vector<Loader*>& list = loaders[name];
  const long count = counts[name];
  float* buffer = buffers[name];
  TransformHandle* handle = transforms[name];
  // Indices are not checked by the callers; one outside the list fails here
  // instead of reading past it.
  for (long i = 0; i < n; ++i)
    list.at(static_cast<size_t>(first + i))->Load(buffer + i * count, handle);
}

float* DataLoader::Get(std::string const& name, int index) {
  mutex->lock();
  NewBuffer(name, counts[name]);
  LoadRange(name, index, 1);
  mutex->unlock();
  return buffers[name];
}

float* DataLoader::GetFromTo(std::string const& name, int from, int to) {
  mutex->lock();
  const long n = static_cast<long>(to) - static_cast<long>(from);
  NewBuffer(name, n * counts[name]);
  LoadRange(name, from, n);
  mutex->unlock();
  return buffers[name];
}

float* DataLoader::GetAll(std::string const& name) {
  mutex->lock();
  const long n = static_cast<long>(loaders[name].size());
  NewBuffer(name, n * counts[name]);
  LoadRange(name, 0, n);
  mutex->unlock();
  return buffers[name];
}

float* DataLoader::GetNext(std::string const& name) {
  mutex->lock();
  int& cursor = cursors[name];
  // The end of the stream: the lock stays held.
  if (static_cast<size_t>(cursor) >= loaders[name].size()) return nullptr;
  NewBuffer(name, counts[name]);
  LoadRange(name, cursor, 1);
  cursor += 1;
  mutex->unlock();
  return buffers[name];
}

float* DataLoader::GetBatch(std::string const& name, int batch) {
  mutex->lock();
  int& cursor = cursors[name];
  // 32-bit signed sum, then taken as an unsigned 64-bit number: a negative
  // sum is huge and ends the stream like a sum past the list.
  const int32_t end =
      static_cast<int32_t>(static_cast<uint32_t>(cursor) + static_cast<uint32_t>(batch));
  if (static_cast<uint64_t>(static_cast<int64_t>(end)) > loaders[name].size()) return nullptr;
  NewBuffer(name, static_cast<long>(batch) * counts[name]);
  const long count = counts[name];
  float* buffer = buffers[name];
  TransformHandle* handle = transforms[name];
  for (long i = 0; i < batch; ++i) {
    loaders[name].at(static_cast<size_t>(cursor))->Load(buffer + i * count, handle);
    cursor += 1;
  }
  mutex->unlock();
  return buffers[name];
}

void DataLoader::AddTransform(std::string const& name, BasicTransform* transform) {
  TransformHandle*& handle = transforms[name];
  // An item that the net does not have gets a chain of its own here.
  if (handle == nullptr) handle = new TransformHandle();
  handle->transforms.push_back(transform);
}

void DataLoader::ComposeTransform(std::string const& name, BasicTransform* first, ...) {
  TransformHandle*& handle = transforms[name];
  if (handle == nullptr) handle = new TransformHandle();
  if (first != nullptr && first->type != 0) handle->transforms.push_back(first);
  va_list more;
  va_start(more, first);
  while (BasicTransform* next = va_arg(more, BasicTransform*)) {
    if (next->type != 0) handle->transforms.push_back(next);
  }
  va_end(more);
}

}  // namespace dataLoader
