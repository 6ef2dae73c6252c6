// Builds the default calibration set, calibration.bin, from a folder of
// images: 100 records of 224 x 224 pixels of 3 bytes (blue, green, red), one
// behind the other, no header. Each image is decoded and scaled by the image
// sessions the converter reads the set with. Files are taken in name order;
// files that do not decode are skipped with a note; fewer than 100 images
// are used again from the first on.
//
//   qzdl_make_calibration_bin <image folder> [output file]
//
// The output defaults to calibration.bin in the current directory. It is
// replaced atomically (runtime/atomic_file.h); a failure to write it gives
// `cannot write "<output>": <reason>` and exit status 1.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "runtime/atomic_file.h"
#include "runtime/image/qz_session.h"
#include "runtime/terminate_handler.h"

namespace {

constexpr int kRecords = 100;
constexpr int kSide = 224;
constexpr size_t kRecordBytes = kSide * kSide * 3;

// Regular files of `folder`, sorted by name.
std::vector<std::string> FilesOf(const std::string& folder) {
  std::vector<std::string> files;
  DIR* directory = opendir(folder.c_str());
  if (directory == nullptr) return files;
  while (struct dirent* entry = readdir(directory)) {
    const std::string path = folder + "/" + entry->d_name;
    struct stat status;
    if (stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode)) files.push_back(path);
  }
  closedir(directory);
  std::sort(files.begin(), files.end());
  return files;
}

// The image at `path` as one record, or false when it does not decode.
bool ReadRecord(const std::string& path, std::vector<unsigned char>& record) {
  qzg::QZSession* session = qzg::QZSession::CreateSession();
  bool ok = true;
  try {
    session->ReadImg(path.c_str());
    session->BufferImg(record.data(), kSide, kSide, qzg::QZSAMP_BGR24);
  } catch (const std::exception& e) {
    fprintf(stderr, "skipped %s: %s\n", path.c_str(), e.what());
    ok = false;
  }
  session->Destroy();
  return ok;
}

}  // namespace

int main(int argc, char** argv) {
  qzdl::InstallTerminateHandler();
  if (argc < 2 || argc > 3) {
    fprintf(stderr, "usage: %s <image folder> [output file, default calibration.bin]\n", argv[0]);
    return 2;
  }
  const std::string folder = argv[1];
  const std::string output = argc == 3 ? argv[2] : "calibration.bin";

  struct stat status;
  if (stat(folder.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
    fprintf(stderr, "not a folder: %s\n", folder.c_str());
    return 1;
  }

  // The first 100 images that decode.
  std::vector<std::vector<unsigned char>> records;
  for (const std::string& path : FilesOf(folder)) {
    if (static_cast<int>(records.size()) == kRecords) break;
    std::vector<unsigned char> record(kRecordBytes);
    if (ReadRecord(path, record)) records.push_back(std::move(record));
  }
  if (records.empty()) {
    fprintf(stderr, "no image in %s could be read\n", folder.c_str());
    return 1;
  }

  // Written beside the output and renamed over it once complete: an earlier
  // set stays as it was until then, and a failed or interrupted run leaves it.
  qzdl::AtomicFileWriter out(output);
  for (int i = 0; i < kRecords; ++i) {
    const std::vector<unsigned char>& record = records[static_cast<size_t>(i) % records.size()];
    out.Write(record.data(), kRecordBytes);
  }
  if (!out.Commit()) {
    fprintf(stderr, "%s\n", out.error().c_str());
    return 1;
  }
  printf("%s: %d records of %d x %d x 3 bytes from %zu image(s) in %s\n", output.c_str(), kRecords,
         kSide, kSide, records.size(), folder.c_str());
  return 0;
}
