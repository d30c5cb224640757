// The flat solver's kernels for 256-bit registers.
#include "simd/CLanes.h"
#define TARNWICK_KERNEL_TARGET TARNWICK_LANES8_TARGET
#include "flat/FlatKernelsImpl.h"

const NFlat::CKernels& NFlat::kernels256() {
  static const CKernels kTable = kernelTable<NSimd::CLanes8>(256);
  return kTable;
}
