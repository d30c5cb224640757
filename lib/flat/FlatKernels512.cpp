// The flat solver's kernels for 512-bit registers.
#include "simd/CLanes.h"
#define TARNWICK_KERNEL_TARGET TARNWICK_LANES16_TARGET
#include "flat/FlatKernelsImpl.h"

const NFlat::CKernels& NFlat::kernels512() {
  // The pixel pass gathers four pixels of four rows into a 512-bit register
  // and runs slower than with 256 bits; the other kernels gain.
  static const CKernels kTable = kernelTable<NSimd::CLanes16>(512, kernels256().sweepPixels);
  return kTable;
}
