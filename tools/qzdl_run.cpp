// qzdl_run: runs a net on the runtime, prints and times its outputs, writes
// them as NumPy files and compares them with reference outputs. A net
// description with a quantization section (what a conversion writes) runs as
// an 8-bit net from its quantized weights; its outputs are printed, written
// and compared as real values.
//
//   qzdl_run net.json weights.bin [--batch N] [--input NAME=FILE]...
//            [--inputs-dir DIR] [--out-dir DIR] [--compare-dir DIR]
//            [--warmup N] [--repeat N] [--profile] [--unfused]
//
// Input and reference files are "<tensor>.npy" (float32) or "<tensor>.f32"
// (raw little-endian float32) for the whole batch, the tensor name with
// characters other than [A-Za-z0-9_.-] written as "_"; --input names one
// file per input (".npy" by its ending, raw float32 otherwise). Inputs
// without a file are an error when --inputs-dir is given, otherwise they get
// a fixed pattern, so that two runs print the same numbers. --out-dir (alias
// --outputs-dir) writes "<output>.npy" per net output, the folder made when
// it does not exist; files are replaced whole. A float net runs with its
// activations fused into the layers before them where only they read those
// layers' outputs (--unfused: every layer on its own). See
// docs/command-line.md.
//
//   qzdl_run --compare float.json float.bin quant_hybrid.json quant.bin
//            (--list LIST | --dir DIR | -s LIST [-t img|npy] [-r 0|1] | -b FILE
//             | -T FILE | -a N) [-x N] [--json REPORT] [--worst N]
//
// runs a float net and its quantized model on the same items, taken from the
// report's own lists or the converter's data sources, and prints how close
// they are (runtime/int8/accuracy_report.h, dataloader/report_items.h,
// docs/accuracy-report.md).
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "dataloader/report_items.h"
#include "runtime/atomic_file.h"
#include "runtime/create_net.h"
#include "runtime/errors.h"
#include "runtime/file_read.h"
#include "runtime/int8/accuracy_report.h"
#include "runtime/int8/quantized_model.h"
#include "runtime/run_support.h"
#include "runtime/terminate_handler.h"

namespace {

struct Options {
  std::string json, model;
  int batch = 0, warmup = 1, repeat = 1;
  bool profile = false;
  bool unfused = false;  // every layer on its own, as calibration runs them
  std::map<std::string, std::string> input_files;
  std::string inputs_dir, out_dir, compare_dir;
};

int Usage() {
  fprintf(stderr,
          "usage: qzdl_run net.json weights.bin [--batch N] [--input NAME=FILE]... "
          "[--inputs-dir DIR] [--out-dir DIR] [--compare-dir DIR] [--warmup N] [--repeat N] "
          "[--profile] [--unfused]\n"
          "       qzdl_run --compare float.json float.bin quant_hybrid.json quant.bin "
          "(--list LIST | --dir DIR | -s LIST [-t img|npy] [-r 0|1] | -b FILE | -T FILE | -a N) "
          "[-x N] [--json REPORT] [--worst N]\n");
  return 2;
}

int Fail(const std::string& message) {
  fflush(stdout);
  fprintf(stderr, "qzdl_run: %s\n", message.c_str());
  return 1;
}

// A whole number from `low` up, or -1.
int Count(const std::string& value, int low) {
  char* end = nullptr;
  errno = 0;
  const long v = strtol(value.c_str(), &end, 10);
  if (value.empty() || *end != '\0' || errno != 0 || v < low || v > 1000000000) return -1;
  return static_cast<int>(v);
}

// 0 on success, else the exit status.
int Parse(int argc, char** argv, Options* o) {
  if (argc < 3) return Usage();
  o->json = argv[1];
  o->model = argv[2];
  for (int i = 3; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--profile") {
      o->profile = true;
      continue;
    }
    if (arg == "--unfused") {
      o->unfused = true;
      continue;
    }
    if (i + 1 >= argc) return Usage();
    const std::string value = argv[++i];
    if (arg == "--batch" || arg == "--warmup" || arg == "--repeat") {
      const int n = Count(value, arg == "--warmup" ? 0 : 1);
      if (n < 0) {
        return Fail(arg + " \"" + value + "\" is not a whole number from " +
                    (arg == "--warmup" ? "0" : "1") + " to 1000000000");
      }
      (arg == "--batch" ? o->batch : arg == "--warmup" ? o->warmup : o->repeat) = n;
    } else if (arg == "--input") {
      const size_t eq = value.find('=');
      if (eq == std::string::npos || eq == 0) return Usage();
      o->input_files[value.substr(0, eq)] = value.substr(eq + 1);
    } else if (arg == "--inputs-dir") {
      o->inputs_dir = value;
    } else if (arg == "--out-dir" || arg == "--outputs-dir") {
      o->out_dir = value;
    } else if (arg == "--compare-dir") {
      o->compare_dir = value;
    } else {
      return Usage();
    }
  }
  return 0;
}

bool EndsWith(const std::string& s, const std::string& tail) {
  return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

// Reads one tensor file, .npy by its ending and raw float32 otherwise.
bool ReadTensorFile(const std::string& path, std::vector<float>* values, std::string* error) {
  if (EndsWith(path, ".npy")) return qzdl::ReadNpyFloats(path, values, error);
  if (qzdl::ReadFloatFile(path, values)) return true;
  std::string bytes;
  *error = qzdl::ReadWholeFile(path, &bytes, error) ? "its size is not a whole number of floats"
                                                    : *error;
  return false;
}

// "<dir>/<tensor>.npy" when it exists, else "<dir>/<tensor>.f32".
std::string TensorFileIn(const std::string& dir, const std::string& tensor) {
  const std::string npy = dir + "/" + qzdl::TensorFileName(tensor, ".npy");
  struct stat st;
  return stat(npy.c_str(), &st) == 0 ? npy : dir + "/" + qzdl::TensorFileName(tensor, ".f32");
}

bool MakeFolders(const std::string& path, std::string* error) {
  std::string partial;
  for (size_t pos = 0; pos != std::string::npos;) {
    const size_t slash = path.find('/', pos + 1);
    partial = path.substr(0, slash);
    pos = slash;
    if (partial.empty() || mkdir(partial.c_str(), 0777) == 0 || errno == EEXIST) continue;
    *error = std::strerror(errno);
    return false;
  }
  struct stat st;
  if (stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    *error = "not a folder";
    return false;
  }
  return true;
}

template <typename T>
int SetInputs(const Options& o, qzdl::Net<T>* net) {
  for (int i = 0; i < net->GetInputCount(); ++i) {
    const std::string name = net->GetInputDataName(i);
    const int64_t count = net->GetInputData(i)->Count(0);
    std::vector<float> values(count);
    auto named = o.input_files.find(name);
    std::string path;
    if (named != o.input_files.end()) {
      path = named->second;
    } else if (!o.inputs_dir.empty()) {
      path = TensorFileIn(o.inputs_dir, name);
    }
    if (!path.empty()) {
      std::string error;
      if (!ReadTensorFile(path, &values, &error)) {
        return Fail("cannot read input \"" + name + "\" from \"" + path + "\": " + error);
      }
      if (static_cast<int64_t>(values.size()) != count) {
        return Fail("\"" + path + "\" holds " + std::to_string(values.size()) +
                    " floats; input \"" + name + "\" of shape " +
                    qzdl::DimsToString(net->GetInputData(i)->GetDims()) + " takes " +
                    std::to_string(count));
      }
    } else {
      for (int64_t k = 0; k < count; ++k) values[k] = std::sin(0.37f * k) * 0.5f + 0.5f;
    }
    net->SetFloatInputData(values.data(), i);
  }
  for (const auto& kv : o.input_files) {
    bool known = false;
    for (int i = 0; i < net->GetInputCount(); ++i) known |= net->GetInputDataName(i) == kv.first;
    if (!known) return Fail("--input names \"" + kv.first + "\", which is not a net input");
  }
  return 0;
}

std::vector<float> OutputValues(qzdl::Net<float>* net, int k) {
  const float* v = net->GetFloatOutputData(k);
  return std::vector<float>(v, v + net->GetOutputData(k)->Count(0));
}

std::vector<float> OutputValues(qzdl::Net<unsigned char>* net, int k) {
  return qzdl::RealValues(*net, *net->GetOutputData(k));
}

// Prints, writes and compares the outputs; returns the exit status.
template <typename T>
int ReportOutputs(const Options& o, qzdl::Net<T>* net) {
  int status = 0;
  for (int k = 0; k < net->GetOutCount(); ++k) {
    const std::string& name = net->GetOutputDataName(k);
    const qzdl::Data<T>* out = net->GetOutputData(k);
    const std::vector<float> values = OutputValues(net, k);
    const float* v = values.data();
    const int64_t n = out->Count(0);
    double sum = 0.0;
    for (int64_t i = 0; i < n; ++i) sum += v[i];
    printf("output \"%s\" %s sum %.6f first:", name.c_str(),
           qzdl::DimsToString(out->GetDims()).c_str(), sum);
    for (int64_t i = 0; i < std::min<int64_t>(n, 6); ++i) printf(" %.6f", v[i]);
    printf("\n");
    if (!o.out_dir.empty()) {
      std::string error;
      const std::string path = o.out_dir + "/" + qzdl::TensorFileName(name, ".npy");
      if (!qzdl::WriteFileAtomically(path, qzdl::NpyFloatBytes(v, out->GetDims()), &error)) {
        status = Fail(error);
      }
    }
    if (o.compare_dir.empty()) continue;
    const std::string path = TensorFileIn(o.compare_dir, name);
    std::vector<float> want;
    std::string error;
    if (!ReadTensorFile(path, &want, &error) || static_cast<int64_t>(want.size()) != n) {
      status = Fail("no reference of " + std::to_string(n) + " floats for output \"" + name +
                    "\" in \"" + path + "\"" + (error.empty() ? "" : ": " + error));
      continue;
    }
    const qzdl::Comparison c = qzdl::Compare(v, want.data(), n);
    printf("compare: output \"%s\" %s max_abs %.3g max_rel %.3g cosine %.9f\n", name.c_str(),
           qzdl::DimsToString(out->GetDims()).c_str(), c.max_abs, c.max_rel, c.cosine);
  }
  return status;
}

// Runs the net and reports; returns the exit status.
template <typename T>
int Run(const Options& o, qzdl::Net<T>* net) {
  if (o.batch > 0) {
    try {
      net->ReshapeBatchNum(o.batch, 0);
    } catch (const qzdl::NetFormatError& e) {
      return Fail("cannot run at batch " + std::to_string(o.batch) + ": " + e.what());
    }
  }
  if (const int status = SetInputs(o, net)) return status;

  for (int r = 0; r < o.warmup; ++r) net->ForwardAll();
  const auto start = std::chrono::steady_clock::now();
  for (int r = 0; r < o.repeat; ++r) net->ForwardAll();
  const double ms =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count() /
      o.repeat;
  const int batch = net->GetInputData(0)->GetDim(0);
  const int status = ReportOutputs(o, net);
  printf("forward: batch %d, %.3f ms per pass, %.2f images/s\n", batch, ms,
         ms > 0 ? batch * 1000.0 / ms : 0.0);
  if (o.profile) qzdl::PrintProfile(net, o.repeat);
  return status;
}

// Whether the description at `path` has a quantization section (an
// unreadable or broken file is left to net creation to report).
bool IsQuantized(const std::string& path) {
  std::string text, error;
  if (!qzdl::ReadWholeFile(path, &text, &error)) return false;
  const json11::Json json = json11::Json::parse(text, error, json11::STANDARD);
  return error.empty() && qzdl::IsQuantizedDescription(json);
}

// The float net of `json` and `model`, or null after a message.
qzdl::Net<float>* CreateFloatNet(const std::string& json, const std::string& model) {
  try {
    return qzdl::CreateNet<float>(json, model, false, false, 0, 1);
  } catch (std::exception* e) {  // net creation has logged why (standard output)
    delete e;
    Fail("cannot create the net from \"" + json + "\" and \"" + model + "\"");
    return nullptr;
  }
}

// The long names of the converter's data options that --compare takes, by
// their letters (docs/command-line.md).
const std::map<std::string, std::string>& DataOptionNames() {
  static const std::map<std::string, std::string> names = {
      {"--calibration_set", "-s"}, {"--calibration_type", "-t"}, {"--binary_set", "-b"},
      {"--txt_file", "-T"},        {"--random_input", "-a"},     {"--rgb", "-r"},
      {"--max_data_num", "-x"}};
  return names;
}

// A whole number, possibly negative, or false.
bool Integer(const std::string& value, int* out) {
  char* end = nullptr;
  errno = 0;
  const long v = strtol(value.c_str(), &end, 10);
  if (value.empty() || *end != '\0' || errno != 0 || v < -1000000000 || v > 1000000000)
    return false;
  *out = static_cast<int>(v);
  return true;
}

// qzdl_run --compare ...: the accuracy report of a quantized model.
int CompareMain(int argc, char** argv) {
  if (argc < 6) return Usage();
  const std::string float_json = argv[2], float_model = argv[3], quant_json = argv[4],
                    quant_model = argv[5];
  qzdl::ReportSource source;
  dataLoader::DataSourceOptions& data = source.data;
  std::string json_out;
  int worst = 10;
  bool type_or_rgb = false;  // -t or -r given
  for (int i = 6; i < argc; i += 2) {
    std::string arg = argv[i];
    if (i + 1 >= argc) return Usage();
    const std::string value = argv[i + 1];
    const auto long_name = DataOptionNames().find(arg);
    if (long_name != DataOptionNames().end()) arg = long_name->second;
    if (arg == "--list") {
      source.list = value;
    } else if (arg == "--dir") {
      source.dir = value;
    } else if (arg == "--json") {
      json_out = value;
    } else if (arg == "--worst") {
      worst = Count(value, 0);
      if (worst < 0) return Fail("--worst \"" + value + "\" is not a whole number from 0");
    } else if (arg == "-s") {
      data.calibration_set = value;
    } else if (arg == "-t") {
      data.calibration_type = value;
      type_or_rgb = true;
    } else if (arg == "-b") {
      data.binary_set = value;
    } else if (arg == "-T") {
      data.txt_file = value;
    } else if (arg == "-a") {
      data.random_input = Count(value, 1);
      if (data.random_input < 0) return Fail("-a \"" + value + "\" is not a whole number from 1");
    } else if (arg == "-r") {
      if (value != "0" && value != "1") return Fail("-r \"" + value + "\" is not 0 or 1");
      data.rgb = value == "1";
      type_or_rgb = true;
    } else if (arg == "-x") {
      if (!Integer(value, &data.max_data_num) || data.max_data_num < -1)
        return Fail("-x \"" + value + "\" is not a whole number from -1");
    } else {
      return Usage();
    }
  }
  // Exactly one source.
  const int sources = !source.list.empty() + !source.dir.empty() + !data.calibration_set.empty() +
                      !data.binary_set.empty() + !data.txt_file.empty() + (data.random_input > 0);
  if (sources != 1) return Usage();
  if (type_or_rgb && data.calibration_set.empty())
    return Fail("-t and -r apply to the files of -s only");

  std::unique_ptr<qzdl::Net<float>> float_net(CreateFloatNet(float_json, float_model));
  if (!float_net) return 1;
  // No inference mode here: the report reads every tensor of both nets.
  std::unique_ptr<qzdl::Net<unsigned char>> quant_net;
  try {
    quant_net.reset(qzdl::CreateQuantizedNet(quant_json, quant_model));
  } catch (const qzdl::NetFormatError& e) {
    return Fail(std::string("cannot create the quantized net: ") + e.what());
  }
  try {
    // Both nets at batch 1 before the items are shaped after the float net.
    qzdl::PrepareNets(float_net.get(), quant_net.get());
    std::string origin;
    const std::unique_ptr<qzdl::ReportItems> items =
        qzdl::OpenReportItems(float_net.get(), source, &origin);
    printf("compare: float net %s against quantized net %s on %d items of %s\n", float_json.c_str(),
           quant_json.c_str(), items->Count(), origin.c_str());
    fflush(stdout);
    // Progress at most once a second, and only once a run takes that long.
    auto last = std::chrono::steady_clock::now();
    bool shown = false;
    auto progress = [&](int done, int total) {
      const auto now = std::chrono::steady_clock::now();
      if (now - last < std::chrono::seconds(1) && !(shown && done == total)) return;
      last = now;
      shown = true;
      fprintf(stderr, "compare: item %d/%d\n", done, total);
    };
    const qzdl::AccuracyReport report =
        qzdl::CompareNets(float_net.get(), quant_net.get(), *items, progress);
    printf("%s", qzdl::ReportText(report, worst).c_str());
    std::string error;
    if (!json_out.empty() &&
        !qzdl::WriteFileAtomically(json_out, qzdl::ReportJson(report, float_json, quant_json),
                                   &error)) {
      return Fail(error);
    }
  } catch (const qzdl::AccuracyError& e) {
    return Fail(e.what());
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  qzdl::InstallTerminateHandler();
  if (argc > 1 && std::string(argv[1]) == "--compare") return CompareMain(argc, argv);
  Options o;
  if (const int status = Parse(argc, argv, &o)) return status;
  if (!o.out_dir.empty()) {
    std::string error;
    if (!MakeFolders(o.out_dir, &error)) {
      return Fail("cannot make the output folder \"" + o.out_dir + "\": " + error);
    }
  }

  if (IsQuantized(o.json)) {
    std::unique_ptr<qzdl::Net<unsigned char>> net;
    try {
      net.reset(qzdl::CreateQuantizedNet(o.json, o.model));
    } catch (const qzdl::NetFormatError& e) {
      return Fail(std::string("cannot create the quantized net: ") + e.what());
    }
    printf("quantized net: %s\n", o.json.c_str());
    return Run(o, net.get());
  }
  qzdl::Net<float>* net = CreateFloatNet(o.json, o.model);
  if (net == nullptr) return 1;
  // Only the outputs are read here: activations may run inside the layers
  // before them.
  const int fused = net->SetInferenceMode(!o.unfused);
  if (o.profile) printf("profile: %d activation layers fused into the layer before them\n", fused);
  const int status = Run(o, net);
  delete net;
  return status;
}
