// qzdl_onnx_conformance: imports ONNX test cases (a folder per case with
// model.onnx and test_data_set_*/input_*.pb, output_*.pb), runs them on the
// float runtime with their stored inputs and compares with the stored outputs.
//
//   qzdl_onnx_conformance --root DIR [--folder NAME]... [--list FILE]
//                         [--write-pass FILE] [--shard K/N] [--jobs N]
//                         [--timeout SECONDS] [--verbose]
//
// Every case runs in a child process, so a crash or a hang fails that case
// only. Float graph inputs are fed at run time; when the import refuses that
// (a weight given as a graph input), the trailing float inputs become
// constants one by one, as with --constant-input of qzdl_onnx2net. Non-float
// inputs are constants, except 8-bit codes that only ConvInteger and
// MatMulInteger read, which are fed as floats (CodesAsFloats). Prints one line per failing case, the pass
// count per folder and the failures grouped by reason. Exit status 0 when
// every case passed, 1 otherwise, 2 for a bad command line.
#include <dirent.h>
#include <omp.h>
#include <onnx/onnx_pb.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "runtime/atomic_file.h"
#include "runtime/create_net.h"
#include "runtime/log.h"
#include "runtime/weights_file.h"
#include "importer/const_tensor.h"
#include "importer/onnx_importer.h"
#include "runtime/terminate_handler.h"

namespace {

using qzdl::onnx_import::ConstTensor;

constexpr double kAbsTol = 1e-4;
constexpr double kRelTol = 1e-4;

// Cases that need more slack than kAbsTol + kRelTol * |want|, and why.
struct Slack {
  const char* name;
  double atol, rtol;
};
const Slack kSlack[] = {
    // Placeholder for cases whose reference was computed in double precision
    // over long reductions; filled as cases need it.
    {"", 0, 0},
};

std::string ReadFile(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  std::ostringstream s;
  s << f.rdbuf();
  return s.str();
}

bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

std::vector<std::string> ListDir(const std::string& dir) {
  std::vector<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      if (e->d_name[0] != '.') names.push_back(e->d_name);
    }
    closedir(d);
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string Quote(const std::string& s) { return "\"" + s + "\""; }

std::string DimsText(const std::vector<int64_t>& dims) {
  std::string s = "[";
  for (size_t k = 0; k < dims.size(); ++k) s += (k ? ", " : "") + std::to_string(dims[k]);
  return s + "]";
}

// A failure: `kind` groups it in the summary, `detail` is the whole story.
struct Failure {
  std::string kind, detail;
};

// The reason of an import failure without the file, node and tensor names
// and the dims, so that the same refusal in many cases groups together.
std::string ImportKind(const std::string& message) {
  std::string m = message;
  const size_t model = m.find("model.onnx\": ");
  if (model != std::string::npos) m = m.substr(model + 13);
  static const std::regex node("node \"[^\"]*\" \\(([A-Za-z0-9_]+)\\): ");
  std::smatch match;
  if (std::regex_search(m, match, node)) {
    const std::string rest = match.suffix().str();
    if (rest.find("operator \"" + match[1].str() + "\" is not supported") == 0) {
      return "unsupported operator " + match[1].str();
    }
    m = match[1].str() + ": " + rest;
  }
  static const std::regex named(
      "(graph output|graph input|initializer|tensor|constant input) \"[^\"]*\"");
  static const std::regex dims("\\[[^\\]]*\\]");
  static const std::regex numbers("\\([0-9][^)]*\\)");
  static const std::regex type_code("type [0-9]+");
  m = std::regex_replace(m, named, "$1 \"...\"");
  m = std::regex_replace(m, dims, "[...]");
  m = std::regex_replace(m, numbers, "(...)");
  m = std::regex_replace(m, type_code, "type N");
  return "import: " + m;
}

struct DataSet {
  std::vector<onnx::TensorProto> inputs, outputs;
};

// The graph inputs that test data feeds: those without an initializer.
std::vector<const onnx::ValueInfoProto*> FedInputs(const onnx::GraphProto& g) {
  std::set<std::string> inits;
  for (const auto& t : g.initializer()) inits.insert(t.name());
  std::vector<const onnx::ValueInfoProto*> fed;
  for (const auto& in : g.input()) {
    if (!inits.count(in.name())) fed.push_back(&in);
  }
  return fed;
}

bool ToleranceOk(double got, double want, double atol, double rtol) {
  if (std::isnan(want)) return std::isnan(got);
  if (std::isinf(want)) return got == want;
  return std::fabs(got - want) <= atol + rtol * std::fabs(want);
}

// Imports with `dynamic` float inputs fed at run time and runs one data set.
// Returns an empty kind on success.
Failure RunDataSet(const std::string& dir, const onnx::ModelProto& model, const DataSet& set,
                   int dynamic, double atol, double rtol, std::string* import_error) {
  const auto fed = FedInputs(model.graph());
  qzdl::OnnxImportOptions options;
  std::vector<std::vector<float>> feeds;
  int floats = 0;
  for (size_t k = 0; k < set.inputs.size() && k < fed.size(); ++k) {
    const onnx::TensorProto& t = set.inputs[k];
    const std::string& name = fed[k]->name();
    if (t.data_type() == onnx::TensorProto::FLOAT && floats < dynamic) {
      ++floats;
      std::vector<int64_t> dims(t.dims().begin(), t.dims().end());
      options.input_shapes[name] = dims;
      feeds.push_back(qzdl::onnx_import::TensorFromProto(t, dir).Floats());
    } else {
      options.constant_inputs[name] = t.SerializeAsString();
    }
  }
  qzdl::OnnxImportResult result;
  try {
    result = qzdl::ImportOnnxBytes(model.SerializeAsString(), dir + "/model.onnx", dir, options);
  } catch (const qzdl::OnnxImportError& e) {
    *import_error = e.what();
    return {ImportKind(e.what()), e.what()};
  }
  import_error->clear();
  std::unique_ptr<qzdl::Net<float>> net;
  std::string weights = qzdl::SerializeWeights(result.blobs);
  // Net creation logs its message on standard output before throwing.
  fflush(stdout);
  FILE* log = tmpfile();
  const int saved = dup(1);
  dup2(fileno(log), 1);
  std::string create_error;
  try {
    net.reset(qzdl::CreateNetFromContent<float>(
        result.net_json, weights.data(), static_cast<int>(weights.size()), false, false, 0, 1));
  } catch (std::exception* e) {  // net creation throws a pointer (runtime/log.h)
    delete e;
    create_error = "net creation failed";
  } catch (const std::exception& e) {
    create_error = e.what();
  }
  fflush(stdout);
  dup2(saved, 1);
  close(saved);
  if (!create_error.empty()) {
    std::string logged;
    rewind(log);
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof buf, log)) > 0;) logged.append(buf, n);
    fclose(log);
    while (!logged.empty() && logged.back() == '\n') logged.pop_back();
    const size_t colon = logged.rfind("]: ");
    if (colon != std::string::npos) create_error = logged.substr(colon + 3);
    return {"runtime: net creation", create_error};
  }
  fclose(log);
  if (net->GetInputCount() != static_cast<int>(feeds.size())) {
    return {"runtime: input count", std::to_string(net->GetInputCount()) + " net inputs, " +
                                        std::to_string(feeds.size()) + " fed"};
  }
  for (int k = 0; k < net->GetInputCount(); ++k) {
    if (net->GetInputData(k)->Count(0) != static_cast<int64_t>(feeds[k].size())) {
      return {"shape: input", "input " + std::to_string(k) + " size differs"};
    }
    net->SetFloatInputData(feeds[k].data(), k);
  }
  try {
    net->ForwardAll();
  } catch (const std::exception& e) {
    return {"runtime: forward", e.what()};
  }
  for (size_t k = 0; k < set.outputs.size(); ++k) {
    const std::string& name = model.graph().output(static_cast<int>(k)).name();
    int index = -1;
    for (int o = 0; o < net->GetOutCount(); ++o) {
      if (net->GetOutputDataName(o) == name) index = o;
    }
    if (index < 0) return {"runtime: missing output", "no net output " + Quote(name)};
    const ConstTensor want = qzdl::onnx_import::TensorFromProto(set.outputs[k], dir);
    const qzdl::Data<float>* d = net->GetOutputData(index);
    const std::vector<int> got_dims = d->GetDims();
    if (std::vector<int64_t>(got_dims.begin(), got_dims.end()) != want.dims) {
      return {"shape: output dims", "output " + Quote(name) + " has dims " +
                                        qzdl::DimsToString(got_dims) + ", expected " +
                                        DimsText(want.dims)};
    }
    const float* got = net->GetFloatOutputData(index);
    int64_t bad = 0, first = -1;
    double worst = 0;
    for (int64_t i = 0; i < want.Count(); ++i) {
      const double w = want.Get(i);
      if (!ToleranceOk(got[i], w, atol, rtol)) {
        if (first < 0) first = i;
        ++bad;
      }
      if (std::isfinite(w)) worst = std::max(worst, std::fabs(got[i] - w));
    }
    if (bad > 0) {
      std::ostringstream s;
      s << "output " << Quote(name) << ": " << bad << " of " << want.Count()
        << " values off, max |diff| " << worst << ", first at " << first << ": got " << got[first]
        << ", expected " << want.Get(first);
      return {"mismatch", s.str()};
    }
  }
  return {};
}

// 8-bit inputs that only ConvInteger and MatMulInteger read as their data
// (input 0, or MatMulInteger's B) are codes, which the net holds as float
// values (the importer lowers those operators onto centred floats): such
// inputs are declared float and their data converted, so that they are fed
// like float inputs. Other integer inputs stay as they are.
void CodesAsFloats(onnx::ModelProto* model, std::vector<DataSet>* sets) {
  onnx::GraphProto* g = model->mutable_graph();
  const auto fed = FedInputs(*g);
  for (size_t k = 0; k < fed.size(); ++k) {
    const int type = fed[k]->type().tensor_type().elem_type();
    if (type != onnx::TensorProto::UINT8 && type != onnx::TensorProto::INT8) continue;
    const std::string& name = fed[k]->name();
    bool codes = false, other = false;
    for (const auto& node : g->node()) {
      for (int i = 0; i < node.input_size(); ++i) {
        if (node.input(i) != name) continue;
        const bool data = (node.op_type() == "ConvInteger" && i == 0) ||
                          (node.op_type() == "MatMulInteger" && i <= 1);
        (data ? codes : other) = true;
      }
    }
    if (!codes || other) continue;
    for (auto& in : *g->mutable_input()) {
      if (in.name() == name)
        in.mutable_type()->mutable_tensor_type()->set_elem_type(onnx::TensorProto::FLOAT);
    }
    for (DataSet& set : *sets) {
      if (k >= set.inputs.size()) continue;
      onnx::TensorProto& t = set.inputs[k];
      const std::vector<float> values = qzdl::onnx_import::TensorFromProto(t, "").Floats();
      t.clear_raw_data();
      t.clear_int32_data();
      t.set_data_type(onnx::TensorProto::FLOAT);
      for (float v : values) t.add_float_data(v);
    }
  }
}

// Runs all data sets of one case. `dynamic_used` gets the number of float
// inputs fed at run time, `float_inputs` the number of float inputs.
Failure RunCase(const std::string& dir, const std::string& key, int* dynamic_used,
                int* float_inputs) {
  onnx::ModelProto model;
  if (!model.ParseFromString(ReadFile(dir + "/model.onnx"))) {
    return {"data: model unreadable", "model.onnx does not parse"};
  }
  const onnx::GraphProto& graph = model.graph();
  for (const auto* in : FedInputs(graph)) {
    if (!in->type().has_tensor_type()) {
      return {"data: non-tensor input",
              "graph input " + Quote(in->name()) + " is a sequence, map or optional"};
    }
  }
  for (const auto& out : graph.output()) {
    if (!out.type().has_tensor_type()) {
      return {"data: non-tensor output",
              "graph output " + Quote(out.name()) + " is a sequence, map or optional"};
    }
  }
  std::vector<DataSet> sets;
  for (const std::string& sub : ListDir(dir)) {
    if (sub.rfind("test_data_set_", 0) != 0) continue;
    DataSet set;
    for (int k = 0; Exists(dir + "/" + sub + "/input_" + std::to_string(k) + ".pb"); ++k) {
      set.inputs.emplace_back();
      if (!set.inputs.back().ParseFromString(
              ReadFile(dir + "/" + sub + "/input_" + std::to_string(k) + ".pb"))) {
        return {"data: input unreadable", sub + "/input_" + std::to_string(k) + ".pb"};
      }
    }
    for (int k = 0; Exists(dir + "/" + sub + "/output_" + std::to_string(k) + ".pb"); ++k) {
      set.outputs.emplace_back();
      if (!set.outputs.back().ParseFromString(
              ReadFile(dir + "/" + sub + "/output_" + std::to_string(k) + ".pb"))) {
        return {"data: output unreadable", sub + "/output_" + std::to_string(k) + ".pb"};
      }
    }
    sets.push_back(std::move(set));
  }
  if (sets.empty()) return {"data: no test data", "no test_data_set_* folder"};
  CodesAsFloats(&model, &sets);

  double atol = kAbsTol, rtol = kRelTol;
  for (const Slack& s : kSlack) {
    if (key == s.name) atol = s.atol, rtol = s.rtol;
  }
  int floats = 0;
  for (const auto& t : sets[0].inputs) floats += t.data_type() == onnx::TensorProto::FLOAT;
  *float_inputs = floats;
  if (floats == 0) {
    std::set<std::string> types;
    for (const auto& t : sets[0].inputs) types.insert(qzdl::onnx_import::TypeName(t.data_type()));
    std::string list;
    for (const std::string& t : types) list += (list.empty() ? "" : ", ") + t;
    if (types.empty()) return {"data: no graph input", "the model takes no input"};
    return {"data: no float32 input", "inputs of types " + list + "; the runtime takes float32"};
  }
  // All float inputs fed first; then fewer, the trailing ones as constants.
  Failure last;
  for (int dynamic = floats; dynamic >= 1; --dynamic) {
    std::string import_error;
    Failure f;
    for (const DataSet& set : sets) {
      try {
        f = RunDataSet(dir, model, set, dynamic, atol, rtol, &import_error);
      } catch (const std::exception& e) {
        f = {"data: tensor unreadable", e.what()};
      }
      if (!f.kind.empty()) break;
    }
    if (f.kind.empty()) {
      *dynamic_used = dynamic;
      return {};
    }
    last = f;
    // Only a refused import or net creation calls for another split.
    if (import_error.empty() && f.kind != "runtime: net creation") break;
  }
  return last;
}

struct Options {
  std::string root, list, write_pass;
  std::vector<std::string> folders;
  int shard = 0, shards = 1, jobs = 1, timeout = 60;
  bool verbose = false;
};

struct Outcome {
  std::string key;
  bool pass = false;
  int dynamic = 0, floats = 0;
  Failure failure;
};

// Child side: runs the case and writes "P<fed> <float inputs>" or
// "F<kind>\t<detail>".
[[noreturn]] void ChildRun(const Options& opt, const std::string& key, int fd) {
  alarm(opt.timeout);
  if (opt.jobs > 1) omp_set_num_threads(1);
  int dynamic = 0, floats = 0;
  Failure f;
  try {
    f = RunCase(opt.root + "/" + key, key, &dynamic, &floats);
  } catch (const std::exception& e) {
    f = {"crash: exception", e.what()};
  }
  std::string msg = f.kind.empty() ? "P" + std::to_string(dynamic) + " " + std::to_string(floats)
                                   : "F" + f.kind + "\t" + f.detail;
  if (msg.size() > 4000) msg.resize(4000);
  ssize_t unused = write(fd, msg.data(), msg.size());
  (void)unused;
  close(fd);
  _exit(0);
}

Outcome Collect(const std::string& key, int fd, int status, int timeout) {
  std::string msg;
  char buf[4096];
  ssize_t n;
  while ((n = read(fd, buf, sizeof buf)) > 0) msg.append(buf, n);
  close(fd);
  Outcome o;
  o.key = key;
  if (WIFSIGNALED(status)) {
    const int sig = WTERMSIG(status);
    o.failure = sig == SIGALRM ? Failure{"timeout", "more than " + std::to_string(timeout) + " s"}
                               : Failure{"crash: signal", std::string("signal ") + strsignal(sig)};
  } else if (msg.empty()) {
    o.failure = {"crash: no result", "exit status " + std::to_string(WEXITSTATUS(status))};
  } else if (msg[0] == 'P') {
    o.pass = true;
    sscanf(msg.c_str() + 1, "%d %d", &o.dynamic, &o.floats);
  } else {
    const size_t tab = msg.find('\t');
    o.failure = {msg.substr(1, tab - 1), tab == std::string::npos ? "" : msg.substr(tab + 1)};
  }
  return o;
}

std::vector<Outcome> RunAll(const Options& opt, const std::vector<std::string>& keys) {
  std::vector<Outcome> outcomes(keys.size());
  std::map<pid_t, std::pair<size_t, int>> running;  // pid -> (case index, pipe)
  size_t next = 0;
  while (next < keys.size() || !running.empty()) {
    while (next < keys.size() && static_cast<int>(running.size()) < opt.jobs) {
      int fds[2];
      if (pipe(fds) != 0) {
        perror("pipe");
        exit(1);
      }
      fflush(stdout);
      const pid_t pid = fork();
      if (pid == 0) {
        close(fds[0]);
        ChildRun(opt, keys[next], fds[1]);
      }
      close(fds[1]);
      running[pid] = {next++, fds[0]};
    }
    int status = 0;
    const pid_t pid = waitpid(-1, &status, 0);
    auto it = running.find(pid);
    if (it == running.end()) continue;
    const size_t index = it->second.first;
    outcomes[index] = Collect(keys[index], it->second.second, status, opt.timeout);
    running.erase(it);
    const Outcome& o = outcomes[index];
    if (!o.pass) {
      printf("FAIL %s: %s: %s\n", o.key.c_str(), o.failure.kind.c_str(), o.failure.detail.c_str());
    } else if (opt.verbose) {
      printf("pass %s (%d of %d float inputs fed)\n", o.key.c_str(), o.dynamic, o.floats);
    }
    fflush(stdout);
  }
  return outcomes;
}

int Usage() {
  fprintf(stderr,
          "usage: qzdl_onnx_conformance --root DIR [--folder NAME]... [--list FILE] "
          "[--write-pass FILE] [--shard K/N] [--jobs N] [--timeout SECONDS] [--verbose]\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  qzdl::InstallTerminateHandler();
  Options opt;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const bool has_value = i + 1 < argc;
    if (arg == "--root" && has_value) {
      opt.root = argv[++i];
    } else if (arg == "--folder" && has_value) {
      opt.folders.push_back(argv[++i]);
    } else if (arg == "--list" && has_value) {
      opt.list = argv[++i];
    } else if (arg == "--write-pass" && has_value) {
      opt.write_pass = argv[++i];
    } else if (arg == "--shard" && has_value) {
      if (sscanf(argv[++i], "%d/%d", &opt.shard, &opt.shards) != 2 || opt.shards < 1 ||
          opt.shard < 0 || opt.shard >= opt.shards)
        return Usage();
    } else if (arg == "--jobs" && has_value) {
      opt.jobs = std::max(1, std::atoi(argv[++i]));
    } else if (arg == "--timeout" && has_value) {
      opt.timeout = std::max(1, std::atoi(argv[++i]));
    } else if (arg == "--verbose") {
      opt.verbose = true;
    } else {
      return Usage();
    }
  }
  if (opt.root.empty()) return Usage();
  if (opt.folders.empty()) opt.folders = {"node", "pytorch-converted", "pytorch-operator"};

  // Cases as "folder/name", from the list file or from the folders.
  std::vector<std::string> keys;
  if (!opt.list.empty()) {
    std::ifstream f(opt.list);
    if (!f) {
      fprintf(stderr, "qzdl_onnx_conformance: cannot read \"%s\"\n", opt.list.c_str());
      return 2;
    }
    for (std::string line; std::getline(f, line);) {
      if (!line.empty() && line[0] != '#') keys.push_back(line);
    }
  } else {
    for (const std::string& folder : opt.folders) {
      for (const std::string& name : ListDir(opt.root + "/" + folder)) {
        if (Exists(opt.root + "/" + folder + "/" + name + "/model.onnx")) {
          keys.push_back(folder + "/" + name);
        }
      }
    }
  }
  std::vector<std::string> mine;
  for (size_t k = 0; k < keys.size(); ++k) {
    if (static_cast<int>(k % opt.shards) == opt.shard) mine.push_back(keys[k]);
  }
  if (mine.empty()) {
    fprintf(stderr, "qzdl_onnx_conformance: no test cases found under \"%s\"\n", opt.root.c_str());
    return 1;
  }

  const std::vector<Outcome> outcomes = RunAll(opt, mine);

  std::map<std::string, std::pair<int, int>> per_folder;  // folder -> (passed, total)
  std::map<std::string, int> reasons;
  std::vector<std::string> passed;
  int fed_fewer = 0;
  for (const Outcome& o : outcomes) {
    auto& counts = per_folder[o.key.substr(0, o.key.find('/'))];
    ++counts.second;
    if (o.pass) {
      ++counts.first;
      passed.push_back(o.key);
      fed_fewer += o.dynamic < o.floats;
    } else {
      ++reasons[o.failure.kind];
    }
  }
  printf("\n");
  for (const auto& kv : per_folder) {
    printf("%-20s %4d of %4d pass\n", kv.first.c_str(), kv.second.first, kv.second.second);
  }
  printf("%-20s %4zu of %4zu pass\n", "all", passed.size(), outcomes.size());
  if (fed_fewer > 0) {
    printf("(%d of the passing cases with some float inputs given as constants)\n", fed_fewer);
  }
  if (!reasons.empty()) {
    std::vector<std::pair<int, std::string>> sorted;
    for (const auto& kv : reasons) sorted.push_back({-kv.second, kv.first});
    std::sort(sorted.begin(), sorted.end());
    printf("\nfailures by reason:\n");
    for (const auto& r : sorted) printf("%5d  %s\n", -r.first, r.second.c_str());
  }
  if (!opt.write_pass.empty()) {
    std::string text =
        "# ONNX test cases that import and match their stored outputs on the float runtime.\n"
        "# Written by scripts/onnx_conformance.sh; CTest runs them (qzdl_onnx_conformance).\n";
    for (const std::string& key : passed) text += key + "\n";
    std::string error;
    if (!qzdl::WriteFileAtomically(opt.write_pass, text, &error)) {
      fprintf(stderr, "qzdl_onnx_conformance: %s\n", error.c_str());
      return 1;
    }
  }
  return passed.size() == outcomes.size() ? 0 : 1;
}
