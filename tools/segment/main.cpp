#include "SegmentTool.h"

int main(int argc, char** argv) { return NSegmentTool::main(argc, argv); }
