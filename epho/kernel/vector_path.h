// The vector code paths of the numeric kernels, chosen once per process.
//
// Kernels that have processor-specific bodies take the path as an argument
// in their internal entry points; the exported functions pass
// BestVectorPath(), and the tests run every path the processor can run.
//
// What each path guarantees about its arithmetic (the whole library is built
// with -ffp-contract=off, so the compiler never fuses a multiply and an add;
// a fused multiply-add appears only where a body below asks for one):
//
//  - kPortable: plain C++ loops (the compiler may vectorise them, which does
//    not change the result: each lane does the scalar operation).
//  - kSse2: 128-bit bodies. Integer sums (8-bit correlation, the 8-bit
//    template search) are exact, hence bit-identical to kPortable. The float
//    template search uses the kPortable body.
//  - kAvx2: 256-bit bodies. Integer sums are exact, bit-identical to the
//    other paths. The float template search's direct cross products use
//    fused multiply-adds in single precision with four partial sums per
//    lane, so near-ties between candidates may rank differently from the
//    other paths; the coefficient reported at the chosen position is always
//    the double-precision kernel's, identical on every path.
//  - The transform-domain (FFT) search does the same single-precision
//    operations in every lane on every path (no fused multiply-add), so its
//    spectra are bit-identical across paths; only the lane count differs.
//  - The template search's window statistics and coefficient bounds have a
//    baseline and an AVX2 build of one body (double precision, nothing
//    fused): identical on every path.
//  - The batch collinearity has two-lane (kPortable, kSse2) and four-lane
//    (kAvx2) bodies doing the per-point functions' operations in their
//    order: bit-identical on every path.
//  - The symmetric solvers use two-lane double vectors on every path
//    (baseline SSE2 on x86-64), with the scalar operation order: they have a
//    single body and are not switched.
#ifndef EPHO_KERNEL_VECTOR_PATH_H_
#define EPHO_KERNEL_VECTOR_PATH_H_

namespace epho {

enum class VectorPath { kPortable = 0, kSse2 = 1, kAvx2 = 2 };
constexpr VectorPath kAllVectorPaths[] = {VectorPath::kPortable, VectorPath::kSse2,
                                          VectorPath::kAvx2};

// The widest path this processor runs. The processor is queried on the first
// call only (a function-local constant); thread-safe.
VectorPath BestVectorPath();

// Whether this processor (and this build) can run `path`.
bool VectorPathRuns(VectorPath path);

// "portable", "sse2" or "avx2", for test names and benchmark rows.
const char* VectorPathName(VectorPath path);

}  // namespace epho

#endif  // EPHO_KERNEL_VECTOR_PATH_H_
