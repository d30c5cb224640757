// The flat solver's kernels for 128-bit registers.
#include "simd/CLanes.h"
#define TARNWICK_KERNEL_TARGET TARNWICK_LANES4_TARGET
#include "flat/FlatKernelsImpl.h"

const NFlat::CKernels& NFlat::kernels128() {
  static const CKernels kTable = kernelTable<NSimd::CLanes4>(128);
  return kTable;
}
