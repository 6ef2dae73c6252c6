// The converter's entry point: parameters from the command line, one
// conversion, status 0. Failures end the process where they are found
// (status 255, or an abort for a net that cannot be created); nothing here
// catches them, but the terminate handler flushes standard output and prints
// the exception's text (and the file at fault) before the abort.
#include "converter/converter.h"
#include "converter/parameter.h"
#include "runtime/terminate_handler.h"

int main(int argc, char** argv) {
  qzdl::InstallTerminateHandler();
  qzdl::modelConverter::ConverterParam param;
  qzdl::modelConverter::ParseArgs(argc, argv, param);
  // Never destroyed: the end of the process gives the memory back.
  qzdl::modelConverter::Converter* converter = new qzdl::modelConverter::Converter(param);
  converter->Convert();
  return 0;
}
