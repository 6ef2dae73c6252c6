// Where the calibration data comes from: the converter's data options handed
// to the data source choice of the data loader library (dataloader/data_source.h).
// See docs/calibration-data.md, sections "Sources" and "Default set".
#include "converter/converter.h"
#include "dataloader/data_source.h"

namespace qzdl {
namespace modelConverter {

void Converter::GenerateDataLoader() {
  dataLoader::DataSourceOptions options;
  options.calibration_set = param.calibration_set;
  options.data_folder = param.data_folder;
  options.calibration_type = param.calibration_type;
  options.binary_set = param.binary_set;
  options.txt_file = param.txt_file;
  options.random_input = param.random_input;
  options.rgb = param.rgb;
  options.max_data_num = param.max_data_num;
  // Null when there is no data; Convert reports it.
  data_loader = dataLoader::CreateDataLoader(float_net, options);
}

}  // namespace modelConverter
}  // namespace qzdl
