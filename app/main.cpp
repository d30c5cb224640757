#include "CTemporaryFile.h"
#include "CWorkerThreads.h"
#include "Driver.h"

int main(int argc, char** args) {
  NTemporaryFile::installSignalHandlers();
  NWorkerThreads::limitThreadCount();
  // Every failure other than the usage text ends with status 2.
  const NWorkerThreads::CExitGuard guard(2);
  return NDriver::main(argc, args);
}
