#include "converter/parameter.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>

#include "quantization/calibration_method.h"
#include "runtime/atomic_file.h"
#include "runtime/errors.h"
#include "runtime/file_read.h"
#include "runtime/json11.h"
#include "runtime/log.h"

namespace qzdl {
namespace modelConverter {

// The method names, one list with the observers' type names.
std::vector<std::string>& calibration_mode_string = staticQuantization::observerTypeString;

// Every row but "help" takes an argument; no row has a flag pointer, so the
// letter is what getopt_long_only returns.
struct option long_options[] = {
    {"help", no_argument, nullptr, 'h'},
    {"json", required_argument, nullptr, 'j'},
    {"model", required_argument, nullptr, 'm'},
    {"calibration_mode", required_argument, nullptr, 'c'},
    {"calibration_set", required_argument, nullptr, 's'},
    {"calibration_type", required_argument, nullptr, 't'},
    {"calibration_loader", required_argument, nullptr, 'l'},
    {"max_data_num", required_argument, nullptr, 'x'},
    {"random_input", required_argument, nullptr, 'a'},
    {"nonuniform", required_argument, nullptr, 'u'},
    {"binary_set", required_argument, nullptr, 'b'},
    {"txt_file", required_argument, nullptr, 'T'},
    {"output", required_argument, nullptr, 'o'},
    {"same_config", required_argument, nullptr, 'f'},
    {"coverage", required_argument, nullptr, 'v'},
    {"symmetrical", required_argument, nullptr, 'y'},
    {"debug", required_argument, nullptr, 'd'},
    {"rgb", required_argument, nullptr, 'r'},
    {"calibrate_weight", required_argument, nullptr, 'w'},
    {"frugal", required_argument, nullptr, 'g'},
    {"radical", required_argument, nullptr, 'i'},
    {"expectant_cos", required_argument, nullptr, 'e'},
    {"quant_calibrate", required_argument, nullptr, 'q'},
    {"weight_tuning", required_argument, nullptr, 'n'},
    {"quantize_layer_type", required_argument, nullptr, 'L'},
    {"load_parameter", required_argument, nullptr, 'I'},
    {"dump_parameter", required_argument, nullptr, 'O'},
    {nullptr, 0, nullptr, 0},
};

namespace {

const char kShortOptions[] = "hj:m:c:s:t:l:a:u:o:f:v:y:b:T:d:r:w:g:i:e:q:n:L:x:I:O:";

// Numbers on the command line have no error check: a text that is not a
// number reads as 0.
int ToInt(const char* text) { return static_cast<int>(strtol(text, nullptr, 10)); }
bool ToBool(const char* text) { return strtol(text, nullptr, 10) != 0; }
float ToFloat(const char* text) { return static_cast<float>(strtod(text, nullptr)); }

const char* BoolText(bool value) { return value ? "true" : "false"; }

}  // namespace

ConverterParam::ConverterParam()
    : optimize_input_limit(10),
      expectant_cos_unset(-1e9),
      calibration_mode(staticQuantization::Naive),
      calibration_type("img"),
      random_input(0),
      same_config(false),
      coverage(0.99995f),
      symmetrical(false),
      debug(false),
      rgb(false),
      nonuniform(false),
      frugal(false),
      calibrate_weight(0),
      radical(false),
      quant_calibrate(false),
      expectant_cos(-1e9),
      weight_tuning(false),
      max_data_num(-1) {}

ConverterParam::~ConverterParam() = default;

void ConverterParam::loadFromJsonFile(std::string path) {
  // A file that cannot be read (missing, a folder) is empty text: a null value.
  std::string error;
  json11::Json json = json11::Json::parse(ReadFileOrEmpty(path), error);
  json_file = json["json_file"].string_value();
  model_file = json["model_file"].string_value();
  output_name = json["output_name"].string_value();
  calibration_mode = static_cast<CalibrationMethod>(json["calibration_mode"].int_value());
  calibration_set = json["data_list"].string_value();
  data_folder = json["data_folder"].string_value();
  calibration_type = json["data_type"].string_value();
  binary_set = json["binary_file"].string_value();
  txt_file = json["txt_file"].string_value();
  random_input = json["random_size"].int_value();
  calibration_loader = json["preset_config_file"].string_value();
  quantize_layer_type = json["quantize_layer_type"].string_value();
  same_config = json["eltwise_same_config"].bool_value();
  coverage = static_cast<float>(json["coverage"].number_value());
  symmetrical = json["sym"].bool_value();
  debug = json["debug"].bool_value();
  rgb = json["rgb"].bool_value();
  nonuniform = json["nonuniform"].bool_value();
  frugal = json["frugal"].bool_value();
  calibrate_weight = json["calibrate_weight_level"].int_value();
  radical = json["radical"].bool_value();
  quant_calibrate = json["quant_calibrate"].bool_value();
  expectant_cos = json["expectant_cos"].number_value();
  weight_tuning = json["weight_tuning"].bool_value();
  max_data_num = json["max_data_num"].int_value();
}

void ConverterParam::dumpJsonFile(std::string path) {
  json11::Json json = json11::Json::object{
      {"json_file", json_file},
      {"model_file", model_file},
      {"output_name", output_name},
      {"calibration_mode", static_cast<int>(calibration_mode)},
      {"data_list", calibration_set},
      {"data_folder", data_folder},
      {"data_type", calibration_type},
      {"binary_file", binary_set},
      {"txt_file", txt_file},
      {"random_size", random_input},
      {"preset_config_file", calibration_loader},
      {"quantize_layer_type", quantize_layer_type},
      {"eltwise_same_config", same_config},
      {"coverage", static_cast<double>(coverage)},
      {"sym", symmetrical},
      {"debug", debug},
      {"rgb", rgb},
      {"nonuniform", nonuniform},
      {"frugal", frugal},
      {"calibrate_weight_level", calibrate_weight},
      {"radical", radical},
      {"quant_calibrate", quant_calibrate},
      {"expectant_cos", expectant_cos},
      {"weight_tuning", weight_tuning},
      {"max_data_num", max_data_num},
  };
  // Replaced whole or not at all; a failure is reported and the run goes on.
  std::string error;
  if (!WriteFileAtomically(path, json.dump(), &error)) {
    fprintf(stderr, "Warning: parameter file not written: %s\n", error.c_str());
  }
}

std::string CalibrationModeName(int mode) {
  if (mode < 0 || mode >= static_cast<int>(calibration_mode_string.size())) return "Unknown";
  return calibration_mode_string[mode];
}

void ParseArgs(int argc, char** argv, ConverterParam& param) {
  std::string load_path;
  std::string dump_path;
  int letter;
  while ((letter = getopt_long_only(argc, argv, kShortOptions, long_options, nullptr)) != -1) {
    // The argument is the word before optind: with --json=x or -jx that is the
    // whole word, option included.
    const char* arg = argv[optind - 1];
    switch (letter) {
      case 'j':
        param.json_file = arg;
        break;
      case 'm':
        param.model_file = arg;
        break;
      case 'c':
        param.calibration_mode = static_cast<CalibrationMethod>(ToInt(arg));
        break;
      case 's':
        param.calibration_set = arg;
        break;
      case 't':
        param.calibration_type = arg;
        break;
      case 'l':
        param.calibration_loader = arg;
        break;
      case 'x':
        param.max_data_num = ToInt(arg);
        break;
      case 'a':
        param.random_input = ToInt(arg);
        break;
      case 'u':
        param.nonuniform = ToBool(arg);
        break;
      case 'b':
        param.binary_set = arg;
        break;
      case 'T':
        printf("converterParam.txt_file: %s\n", arg);
        param.txt_file = arg;
        break;
      case 'o':
        param.output_name = arg;
        break;
      case 'f':
        param.same_config = ToBool(arg);
        break;
      case 'v':
        param.coverage = ToFloat(arg);
        break;
      case 'y':
        param.symmetrical = ToBool(arg);
        break;
      case 'd':
        param.debug = ToBool(arg);
        break;
      case 'r':
        param.rgb = ToBool(arg);
        break;
      case 'w':
        param.calibrate_weight = ToInt(arg);
        break;
      case 'g':
        param.frugal = ToBool(arg);
        break;
      case 'i':
        param.radical = ToBool(arg);
        break;
      case 'e':
        // Through a 32-bit float: -e 0.99 is not the double 0.99.
        param.expectant_cos = static_cast<double>(ToFloat(arg));
        break;
      case 'q':
        param.quant_calibrate = ToBool(arg);
        break;
      case 'n':
        param.weight_tuning = ToBool(arg);
        break;
      case 'L':
        param.quantize_layer_type = arg;
        break;
      case 'I':
        load_path = arg;
        break;
      case 'O':
        dump_path = arg;
        break;
      default:  // 'h', '?' and anything unexpected
        Usage();
        exit(-1);
    }
  }
  // The file comes after all options, so it overrides the command line.
  if (!load_path.empty()) param.loadFromJsonFile(load_path);
  // The dump holds the values before rectification.
  if (!dump_path.empty()) param.dumpJsonFile(dump_path);
  RectifyParameter(param);
}

void Usage() {
  static const char* const kLines[] = {
      "Usage:",
      "[-h|--help]:                       Help",
      "<-j|--json> <args>:                Input json file path",
      "<-m|--model> <args>:               Input model file path",
      "<-o|--output> <args>:              Output model name",
      "<-c|--calibration_mode> <args>:    Choose which calibration mode to use",
      "                                   0: Naive; 1: Average; 2: Entropy; 3: Coverage; 4: "
      "MeanSquareError;",
      "                                   5: Histogram; 6: AdaQuantSequential; 7: AdaQuant; 8: "
      "CosineSearch;",
      "<-s|--calibration_set> <args>:     Calibration data set, if not implemented, use "
      "calibration.bin",
      "<-l|--calibration_loader> <args>:  Calibration min/max value loader file",
      "<-t|--calibration_type> <args>:    Calibration data type, \"img\" and \"npy\" are "
      "supported for now",
      "<-x|--max_data_num> <args>:        Max num of data pairs to calibrate",
      "<-a|--random_input> <args>         Implement a number and converter will use this number "
      "as calibration size and",
      "                                   inference with gauss random inputs. In this case, "
      "correctness of calibration",
      "                                   will not be guaranteed",
      "<-b|--binary_set> <args>:          Binary input set, if not implemented, use "
      "calibration,bin",
      "<-u|--nonuniform> <args>:          Whether to use nonuniform quantization for data of "
      "convolution",
      "<-f|--same_config> <args>:         Whether to keep same config in a eltwise layer, default "
      "to be false",
      "<-v|--coverage> <args>:            Coverage value, if not implemented, use 0.99995",
      "<-y|--symmetrical> <args>:         Whether to use symmetrical mode in MES calibration",
      "<-d|--debug> <args>:               Whether to print debug information after calibration",
      "<-r|--rgb> <args>:                 Whether to use RGB instead of BGR for input images",
      "<-w|--calibrate_weight> <args>:    Choose the level of weight calibration, 0: none, 1: "
      "conv, 2: conv & fc",
      "<-g|--frugal> <args>:              Use frugal mode to save memory, only support under "
      "NAIVE mode",
      "<-e|--expectant_cos> <args>:       Optimize the network until the cosine similarity "
      "reaches the desired value. (in [-1, 1])",
      "<-q|--quant_calibrate> <args>:     Calibrate mid-value using inputs after fake "
      "quantization layer by layer.",
      "<-n|--weight_tuning> <args>:       Tuning weight and bias of convolution to achieve "
      "minimum cosine distance.",
      "<-L|--quantize_layer_type> <args>: Specifying layer types that need to be quantized. If "
      "not implemented, all layers will be quantized.",
      "<-I|--load_parameter> <args>       Load calibration parameters directly from json file.",
      "<-O|--dump_parameter> <args>       Dump calibration parameters to certain json file",
  };
  for (const char* line : kLines) std::cout << line << std::endl;
}

void Status(const ConverterParam& param) {
  printf("CONVERTER PARAMETERS: \n");
  printf("  --json:               \"%s\"\n", param.json_file.c_str());
  printf("  --model:              \"%s\"\n", param.model_file.c_str());
  printf("  --output:             \"%s\"\n", param.output_name.c_str());
  printf("  --calibration_mode:   %s\n", CalibrationModeName(param.calibration_mode).c_str());
  printf("  --calibration_set:    \"%s\"\n", param.calibration_set.c_str());
  printf("  --calibration_type:   %s\n", param.calibration_type.c_str());
  printf("  --calibration_loader: \"%s\"\n", param.calibration_loader.c_str());
  printf("  --max_data_num:       %d\n", param.max_data_num);
  printf("  --random_input:       %d\n", param.random_input);
  printf("  --nonuniform:         %s\n", BoolText(param.nonuniform));
  printf("  --binary_set:         \"%s\"\n", param.binary_set.c_str());
  printf("  --txt_file:           \"%s\"\n", param.txt_file.c_str());
  printf("  --same_config:        %s\n", BoolText(param.same_config));
  printf("  --coverage:           %f\n", static_cast<double>(param.coverage));
  printf("  --symmetrical:        %s\n", BoolText(param.symmetrical));
  printf("  --debug:              %s\n", BoolText(param.debug));
  printf("  --rgb:                %s\n", BoolText(param.rgb));
  printf("  --calibrate_weight:   %d\n", param.calibrate_weight);
  printf("  --frugal:             %s\n", BoolText(param.frugal));
  printf("  --radical:            %s\n", BoolText(param.radical));
  // Only whether a cosine was asked for, not the value.
  printf("  --expectant_cos:      %s\n",
         BoolText(param.expectant_cos != param.expectant_cos_unset));
  printf("  --quant_calibrate:    %s\n", BoolText(param.quant_calibrate));
  printf("  --weight_tuning:      %s\n", BoolText(param.weight_tuning));
  printf("  --quantize_layer_type:%s\n", param.quantize_layer_type.c_str());
}

void RectifyParameter(ConverterParam& param) {
  std::cout << "Rectify converter parameters now:" << std::endl;
  if (param.output_name.empty() || param.json_file.empty() || param.model_file.empty()) {
    throw_exception("Please implement input model, input json and output file name.");
    exit(-1);
  }
  if (access(param.json_file.c_str(), F_OK) != 0 || access(param.model_file.c_str(), F_OK) != 0) {
    // The quoted message, then each missing file on a line of its own.
    std::string missing;
    for (const std::string* path : {&param.json_file, &param.model_file}) {
      if (access(path->c_str(), F_OK) != 0) missing += "\n" + FileLine(*path);
    }
    throw_exception("Net file or model file not found, please check your input." + missing);
    exit(-1);
  }

  const int mode = param.calibration_mode;
  if (mode == 4 || mode == 6 || mode == 7 || mode == 8) {
    if (param.frugal) {
      std::cout << "MeanSquareError, AdaQuant and CosineSearch calibration method dose not "
                   "support frugal inference, frugal shall be disabled."
                << std::endl;
    }
    param.frugal = false;
  } else if (mode == 1 && !param.frugal) {
    std::cout << "Average calibration method will use frugal inference mode, frugal shall be "
                 "enabled"
              << std::endl;
    param.frugal = true;
  }

  if (mode == 6 || mode == 7) {
    if (param.quant_calibrate) {
      std::cout << "Can not perform quant calibrate under AdaQuant or AdaQuantSequential, "
                   "disable quantcalibrate now."
                << std::endl;
    }
    param.quant_calibrate = false;
    if (param.weight_tuning) {
      std::cout << "Can not perform weight tuning under AdaQuant calibration method. Disable "
                   "weight_tuning now"
                << std::endl;
      param.weight_tuning = false;
    }
  }

  if (mode == 2 && param.frugal) {
    std::cout << "Warning: Entropy calibration method under frugal mode uses hist-combine, the "
                 "result will be slightly different with entropy under batch mode"
              << std::endl;
  }

  if (!param.quantize_layer_type.empty()) {
    // A comma ends a word even when it is empty; blanks are kept as they are.
    std::string word;
    for (char c : param.quantize_layer_type) {
      if (c == ',') {
        param.quantize_layer_types.insert(word);
        word.clear();
      } else {
        word += c;
      }
    }
    if (!word.empty()) param.quantize_layer_types.insert(word);
    printf("Quantize Layer Type: ");
    for (const std::string& type : param.quantize_layer_types) printf("%s, ", type.c_str());
    printf("\n");
  }

  std::cout << "Rectify finished." << std::endl;
}

}  // namespace modelConverter
}  // namespace qzdl
