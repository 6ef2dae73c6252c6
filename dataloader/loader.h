// One sample of one data item: where the data of one input tensor comes from,
// and the delivery of that tensor into a caller's float array on demand.
// Nothing is read when a Loader is made; the read happens in Load.
// See docs/calibration-data.md, section "Data items".
#pragma once

#include <string>
#include <vector>

#include "dataloader/transform.h"
#include "runtime/data.h"

namespace qzg {
class QZSession;
}

namespace dataLoader {

// How a Loader gets its bytes.
enum DataFormat : int {
  // An image file, or a shared qzg::QZSession.
  Image = 0,
  // An NPY file, or a shared cnpy::NpyArray.
  Npy = 1,
  // Floats in memory, taken over by the loader at its first Load.
  Binary = 2,
  // A standard normal tensor, drawn anew (and identically) at each Load.
  Random = 3,
  // Text sets; LoadFromTxtAnonymous turns it into Binary at once, and no
  // Loader keeps it.
  Text = 4,
};

class Loader {
 public:
  // Made by DataLoader::AddLoader only, with the empty path and no pointer.
  Loader(std::string const& path, void* shared);
  Loader(const Loader&) = delete;
  Loader& operator=(const Loader&) = delete;

  void SetFilePath(std::string const& path) { file_path = path; }
  void SetSharedPtr(void* shared) { shared_ptr = shared; }
  void SetDataFormat(DataFormat format) { data_format = format; }

  // Names and shapes the sample. No memory is allocated: `data` gets storage
  // only when Load shares the caller's array into it.
  void Reshape(std::string const& name, std::vector<int> const& dims);
  // True while `data` has no storage.
  bool empty();
  // Delivers the sample into `output`, which holds the item's element count.
  // `handle` is the item's transform chain (image and NPY samples only).
  void Load(float* output, TransformHandle* handle);

  // Fills `data` with 0.
  void Zeros();
  // Uniform values from the standard rand(); no seeding here.
  void Random(float low, float high);
  // Normal values from a generator that starts afresh at each call, so a
  // tensor of a given size gets the same numbers every time.
  void Randn(float mean, float stddev);

  // "[1, 3, 224, 224]"; "[]" for an empty vector.
  static std::string vector_int_to_string(std::vector<int> dims);

  // Image samples (loader_samples.cpp). The image at its own size as
  // [1, 3, H, W], and at the item's height and width.
  void load_image_to_data(qzdl::Data<float>* target);
  // The sample's image session: its own file decoded (a file that does not
  // decode ends the run with a log line naming it), or the shared session.
  qzg::QZSession* OpenImage();
  void load_image_to_data_with_resize(qzdl::Data<float>* target);
  // NPY samples: the array's elements as a flat [1, elementCount] tensor.
  void load_npy_to_data(qzdl::Data<float>* target);
  // Runs the chain of `handle` on `source`; the result must have the element
  // count of `target`, into which it is copied. A mismatch ends the process.
  void transform(TransformHandle* handle, qzdl::Data<float>* source, qzdl::Data<float>* target);

  // File to read; when empty, the source is `shared_ptr`.
  std::string file_path;
  // Where the sample was named, for messages: "line 3 of list \"list.txt\"";
  // empty when no list named it.
  std::string origin;
  // Not owned: a qzg::QZSession* for Image, a cnpy::NpyArray* for Npy.
  void* shared_ptr = nullptr;
  DataFormat data_format = Image;
  // The sample's name and shape; after Load a view of the output array.
  qzdl::Data<float>* data = nullptr;

 private:
  // The Image branch of Load.
  void LoadImage(float* output, TransformHandle* handle, qzdl::Data<float>* scratch);
};

}  // namespace dataLoader
