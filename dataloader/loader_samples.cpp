// The samples of a Loader that read a file or a shared object: images through
// the image sessions, NPY arrays through the NumPy reader. Both pass through
// the item's transform chain and end in the check that the element count fits
// the item.
#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "dataloader/cnpy.h"
#include "dataloader/loader.h"
#include "runtime/image/qz_session.h"
#include "runtime/log.h"

namespace dataLoader {

using qzdl::Data;

namespace {

// The layout that the image sessions hand out and take: 24-bit pixels.
const qzg::QZSAMP kPixelLayout = static_cast<qzg::QZSAMP>(2);

// The line of a sample whose element count does not fit its item; ends the
// process. Counts are 64-bit: a tensor may hold more than 2^31 - 1 values.
[[noreturn]] void CountMismatch(Data<float>* expected, int64_t got_count,
                                const std::string& got_shape) {
  printf("Expect Count()=%lld shape=%s for input \"%s\", bug got Count()=%lld shape=%s instead.\n",
         static_cast<long long>(expected->Count(0)),
         Loader::vector_int_to_string(expected->GetDims()).c_str(), expected->GetName().c_str(),
         static_cast<long long>(got_count), got_shape.c_str());
  exit(-1);
}

[[noreturn]] void CountMismatch(Data<float>* expected, Data<float>* got) {
  CountMismatch(expected, got->Count(0), Loader::vector_int_to_string(got->GetDims()));
}

}  // namespace

void Loader::LoadImage(float* output, TransformHandle* handle, Data<float>* scratch) {
  data->ShareData(output);
  if (handle == nullptr || handle->transforms.empty()) {
    // One step: the image library scales to the item's height and width.
    load_image_to_data_with_resize(scratch);
    // Three planes that do not fit the item (an item of fewer channels
    // without a grey conversion) would run past the output array.
    if (scratch->Count(0) > data->Count(0)) CountMismatch(data, scratch);
    if (scratch->GetSize() > 0) {
      std::memcpy(data->GetCpuData(), scratch->GetCpuData(),
                  static_cast<size_t>(scratch->GetSize()));
    }
    return;
  }

  // With transforms the image arrives at its own size; if the chain does not
  // end at the item's shape, a Resize is appended to the item's chain for
  // good, so that later samples of the item are resized too.
  load_image_to_data(scratch);
  std::vector<int> dims = scratch->GetDims();
  for (BasicTransform* t : handle->transforms) dims = t->get_output_dims(dims);
  if (dims != data->GetDims()) {
    handle->transforms.push_back(new Resize(data->GetDim(2), data->GetDim(3), data->GetDim(1)));
  }
  transform(handle, scratch, data);
}

qzg::QZSession* Loader::OpenImage() {
  qzg::QZSession* session = nullptr;
  if (!file_path.empty()) {
    session = qzg::QZSession::CreateSession();
    try {
      session->ReadImg(file_path.c_str());
    } catch (const std::runtime_error& e) {
      // A calibration image that does not decode ends the run with its name.
      session->Destroy();
      qzdl::qlogInstance.QZLOG(e.what());
      fflush(stdout);
      exit(-1);
    }
  } else {
    session = static_cast<qzg::QZSession*>(shared_ptr);
  }
  if (session == nullptr) {
    qzdl::throw_exception(
        "image sample \"" + data->GetName() + "\" has neither a file nor a session" +
            (origin.empty() ? "" : " (" + origin + " is empty)"),
        new qzdl::QZDLInitException());
  }
  return session;
}

void Loader::load_image_to_data(Data<float>* target) {
  qzg::QZSession* session = OpenImage();
  const int height = session->GetImgHeight();
  const int width = session->GetImgWidth();
  target->Resize({1, 3, height, width});
  target->Reallocate();
  unsigned char* bytes = new unsigned char[static_cast<size_t>(target->Count(0))];
  session->BufferImg(bytes, width, height, kPixelLayout);
  qzg::RGB_Split(bytes, target->GetCpuData(), nullptr, nullptr, width, height, 0);
  delete[] bytes;
  // A session of our own is freed. A shared session stays with its owner, so
  // that the sample can be delivered again (the searchers fetch the whole set
  // once more after the calibration rounds).
  if (!file_path.empty()) session->Destroy();
}

void Loader::load_image_to_data_with_resize(Data<float>* target) {
  qzg::QZSession* session = OpenImage();
  // The item's size; the image's own size is not read.
  const int height = data->GetDim(2);
  const int width = data->GetDim(3);
  target->Resize({1, 3, height, width});
  target->Reallocate();
  unsigned char* bytes = new unsigned char[static_cast<size_t>(target->Count(0))];
  session->BufferImg(bytes, width, height, kPixelLayout);
  qzg::RGB_Split(bytes, target->GetCpuData(), nullptr, nullptr, width, height, 0);
  delete[] bytes;
  if (!file_path.empty()) session->Destroy();
}

void Loader::load_npy_to_data(Data<float>* target) {
  cnpy::NpyArray array;
  if (!file_path.empty()) {
    array = cnpy::npy_load(file_path);
  } else if (shared_ptr != nullptr) {
    // A copy of the record; the bytes stay shared.
    array = *static_cast<cnpy::NpyArray*>(shared_ptr);
  }
  // The array's shape and word size are not looked at: its elements are
  // taken as 32-bit floats, flat, and only their number counts. A dim is an
  // int, so an array of more than 2^31 - 1 elements takes the item's shape
  // when it has the item's count, and cannot be delivered otherwise.
  if (array.elementCount > static_cast<size_t>(INT_MAX)) {
    if (data == nullptr)
      qzdl::throw_exception("please reshape loader first", new qzdl::QZDLInitException());
    if (static_cast<uint64_t>(data->Count(0)) != array.elementCount)
      CountMismatch(data, static_cast<int64_t>(array.elementCount),
                    "[1, " + std::to_string(array.elementCount) + "]");
    target->Resize(data->GetDims());
  } else {
    target->Resize({1, static_cast<int>(array.elementCount)});
  }
  target->Reallocate();
  const size_t room = static_cast<size_t>(std::max<int64_t>(target->Count(0), 0)) * sizeof(float);
  const size_t have = std::min(room, array.byteCount());
  char* out = reinterpret_cast<char*>(target->GetCpuData());
  if (have > 0) std::memcpy(out, array.data<char>(), have);
  // Elements of fewer than four bytes leave the rest of the tensor: zeros.
  if (room > have) std::memset(out + have, 0, room - have);
}

void Loader::transform(TransformHandle* handle, Data<float>* source, Data<float>* target) {
  Data<float>* current = source;
  if (handle != nullptr) {
    for (BasicTransform* t : handle->transforms) current = (*t)(current);
  }
  if (current->Count(0) != target->Count(0)) CountMismatch(target, current);
  if (current->Count(0) > 0) {
    std::memcpy(target->GetCpuData(), current->GetCpuData(),
                static_cast<size_t>(current->Count(0)) * sizeof(float));
  }
}

}  // namespace dataLoader
