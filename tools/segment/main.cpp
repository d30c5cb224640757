#include "CTemporaryFile.h"
#include "CWorkerThreads.h"
#include "SegmentTool.h"

int main(int argc, char** argv) {
  NTemporaryFile::installSignalHandlers();
  NWorkerThreads::limitThreadCount();
  // Status 1 as for the tool's other failures that are not bad arguments.
  const NWorkerThreads::CExitGuard guard(1);
  return NSegmentTool::main(argc, argv);
}
