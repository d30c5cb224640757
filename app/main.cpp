#include "CTemporaryFile.h"
#include "Driver.h"

int main(int argc, char** args) {
  NTemporaryFile::installSignalHandlers();
  return NDriver::main(argc, args);
}
