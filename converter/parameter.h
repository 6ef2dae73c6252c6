// The converter's parameters: the record, the command line that fills it, the
// parameter file that can replace it, and the rectification that makes it
// consistent before a conversion starts.
#pragma once

#include <getopt.h>

#include <set>
#include <string>
#include <vector>

#include "quantization/calibration_method.h"

namespace qzdl {
namespace modelConverter {

using qzdl::staticQuantization::CalibrationMethod;

// Every setting of one conversion. Most fields bear the name of their long
// option; docs/command-line.md lists the options and the parameter file keys.
class ConverterParam {
 public:
  ConverterParam();
  ~ConverterParam();

  // Replaces all 25 file-backed fields with the values of a parameter file.
  // A missing key, a value of another JSON type, an unreadable or broken file
  // all read as the empty string, 0, 0.0 or false.
  void loadFromJsonFile(std::string path);
  // Writes the 25 file-backed fields as one JSON object, keys in sorted order,
  // with no line end behind it. The file is replaced atomically (through a
  // temporary file and a rename); a failure leaves the old file, is reported
  // on standard error and does not end the run.
  void dumpJsonFile(std::string path);

  // Most items StaticSearch hands to the int8 optimizer; no option reaches it.
  int optimize_input_limit;
  // expectant_cos equal to this value means that no cosine was asked for.
  double expectant_cos_unset;
  std::string json_file;
  std::string model_file;
  std::string output_name;
  CalibrationMethod calibration_mode;
  std::string calibration_set;
  // Only the parameter file reaches it.
  std::string data_folder;
  std::string calibration_type;
  std::string binary_set;
  std::string txt_file;
  int random_input;
  std::string calibration_loader;
  std::string quantize_layer_type;
  bool same_config;
  float coverage;
  bool symmetrical;
  bool debug;
  bool rgb;
  bool nonuniform;
  bool frugal;
  int calibrate_weight;
  bool radical;
  bool quant_calibrate;
  double expectant_cos;
  bool weight_tuning;
  int max_data_num;
  // Filled from quantize_layer_type by RectifyParameter.
  std::set<std::string> quantize_layer_types;
};

// "Naive", "Average", ... "Preset": the method names, indexed by the method.
extern std::vector<std::string>& calibration_mode_string;

// The option table of ParseArgs: 27 rows and the closing zero row.
extern struct option long_options[];

// Fills `param` from the command line, then from a parameter file (-I), dumps
// it (-O) and rectifies it. Ends the process with status 255 on -h, an unknown
// option or a missing argument, and through RectifyParameter.
void ParseArgs(int argc, char** argv, ConverterParam& param);

// Writes the option summary to standard output.
void Usage();

// Writes the parameter report to standard output.
void Status(const ConverterParam& param);

// Refuses a run without paths (status 255) and turns off or on what the chosen
// calibration mode cannot work with, saying so.
void RectifyParameter(ConverterParam& param);

// The name of a calibration mode as Status prints it; "Unknown" for a value
// outside the table.
std::string CalibrationModeName(int mode);

}  // namespace modelConverter
}  // namespace qzdl
