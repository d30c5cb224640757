#include "CTemporaryFile.h"
#include "SegmentTool.h"

int main(int argc, char** argv) {
  NTemporaryFile::installSignalHandlers();
  return NSegmentTool::main(argc, argv);
}
