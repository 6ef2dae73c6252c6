// Texts the converter writes verbatim, shared by the in-process tests and the
// tests of the executable.
#pragma once

namespace qzdl::test {

inline constexpr const char kUsageText[] =
    R"(Usage:
[-h|--help]:                       Help
<-j|--json> <args>:                Input json file path
<-m|--model> <args>:               Input model file path
<-o|--output> <args>:              Output model name
<-c|--calibration_mode> <args>:    Choose which calibration mode to use
                                   0: Naive; 1: Average; 2: Entropy; 3: Coverage; 4: MeanSquareError;
                                   5: Histogram; 6: AdaQuantSequential; 7: AdaQuant; 8: CosineSearch;
<-s|--calibration_set> <args>:     Calibration data set, if not implemented, use calibration.bin
<-l|--calibration_loader> <args>:  Calibration min/max value loader file
<-t|--calibration_type> <args>:    Calibration data type, "img" and "npy" are supported for now
<-x|--max_data_num> <args>:        Max num of data pairs to calibrate
<-a|--random_input> <args>         Implement a number and converter will use this number as calibration size and
                                   inference with gauss random inputs. In this case, correctness of calibration
                                   will not be guaranteed
<-b|--binary_set> <args>:          Binary input set, if not implemented, use calibration,bin
<-u|--nonuniform> <args>:          Whether to use nonuniform quantization for data of convolution
<-f|--same_config> <args>:         Whether to keep same config in a eltwise layer, default to be false
<-v|--coverage> <args>:            Coverage value, if not implemented, use 0.99995
<-y|--symmetrical> <args>:         Whether to use symmetrical mode in MES calibration
<-d|--debug> <args>:               Whether to print debug information after calibration
<-r|--rgb> <args>:                 Whether to use RGB instead of BGR for input images
<-w|--calibrate_weight> <args>:    Choose the level of weight calibration, 0: none, 1: conv, 2: conv & fc
<-g|--frugal> <args>:              Use frugal mode to save memory, only support under NAIVE mode
<-e|--expectant_cos> <args>:       Optimize the network until the cosine similarity reaches the desired value. (in [-1, 1])
<-q|--quant_calibrate> <args>:     Calibrate mid-value using inputs after fake quantization layer by layer.
<-n|--weight_tuning> <args>:       Tuning weight and bias of convolution to achieve minimum cosine distance.
<-L|--quantize_layer_type> <args>: Specifying layer types that need to be quantized. If not implemented, all layers will be quantized.
<-I|--load_parameter> <args>       Load calibration parameters directly from json file.
<-O|--dump_parameter> <args>       Dump calibration parameters to certain json file
)";

// What dumpJsonFile writes for a record with its defaults: keys in sorted
// order, no line end at the end.
inline constexpr const char kDefaultParameterFile[] =
    R"({"binary_file": "", "calibrate_weight_level": 0, "calibration_mode": 0, )"
    R"("coverage": 0.99994999170303345, "data_folder": "", "data_list": "", "data_type": "img", )"
    R"("debug": false, "eltwise_same_config": false, "expectant_cos": -1000000000, )"
    R"("frugal": false, "json_file": "", "max_data_num": -1, "model_file": "", )"
    R"("nonuniform": false, "output_name": "", "preset_config_file": "", )"
    R"("quant_calibrate": false, "quantize_layer_type": "", "radical": false, )"
    R"("random_size": 0, "rgb": false, "sym": false, "txt_file": "", "weight_tuning": false})";

}  // namespace qzdl::test
