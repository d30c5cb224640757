// The flat solver's kernels for 512-bit registers.
#include "simd/CLanes.h"
#define TARNWICK_KERNEL_TARGET TARNWICK_LANES16_TARGET
#include "flat/FlatKernelsImpl.h"

const NFlat::CKernels& NFlat::kernels512() {
  static const CKernels kTable = kernelTable<NSimd::CLanes16>(512);
  return kTable;
}
