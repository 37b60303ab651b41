// Internals of the sensor models shared by their sources and tests: the RPC
// arithmetic, the in-memory DEM of the RPC height source, the 3D polynomial
// terms.
#ifndef EPHO_SENSORS_SENSORS_INTERNAL_H_
#define EPHO_SENSORS_SENSORS_INTERNAL_H_

#include <memory>
#include <vector>

#include "epho/kernel/vector_path.h"
#include "epho/sensors.h"

namespace epho::sensors {

template <typename T, void (*Free)(T*)>
struct FnDeleter {
  void operator()(T* p) const { Free(p); }
};
template <typename T, void (*Free)(T*)>
using Owned = std::unique_ptr<T, FnDeleter<T, Free>>;
using ExfrPtr = Owned<Exfr_XForm, exfr_XFormFree>;

// ---- RPC arithmetic on the 90 numbers (indices EPHO_RPC_*).

// The 20 cubic monomials in RPC order of normalised (L, P, H).
void RpcTerms(double l, double p, double h, double t[20]);
// Constants of the forward functions, gathered once per batch.
struct RpcForward {
  explicit RpcForward(const double* rpc);
  const double* coef;  // the four cubics: line num, line den, samp num, samp den
  double lon_off, lat_off, h_off, lon_k, lat_k, h_k;  // normalisation (k = 1 / scale)
  double line_off, samp_off, line_scale, samp_scale;  // offsets include the half pixel
};
// Ground (lon, lat, h) triples to image (x, y) pairs with the monomials
// shared by the four polynomials; no allocation. Every path does the same
// operations in the same order in each lane (no fused multiply-add), so the
// results are bit-identical across paths; kSse2 runs the portable body.
// Writes NaN or infinity for a point whose denominator vanishes; returns
// false if any result is not finite.
bool RpcForwardBatch(const double* rpc, long count, const double* ground_xyz, double* image_xy,
                     VectorPath path);
// The 256-bit body on whole groups of four points; returns the points done.
long RpcForwardAvx2(const RpcForward& f, long count, const double* ground_xyz, double* image_xy);

// Image (x, y) at height h to (lon, lat) by Newton on the forward functions.
// Returns false (outputs unspecified) when it does not converge.
bool RpcInverseAt(const double* rpc, double image_x, double image_y, double h, double* lon,
                  double* lat);
// Checks the 90 numbers; returns an empty string or the problem.
std::wstring RpcNumbersProblem(const double* rpc);

// A DEM read whole, georeferenced in geographic degrees.
struct DemGrid {
  long width = 0, height = 0;
  std::vector<double> cells;  // row-major heights, metres
  double to_file[6] = {0};    // col = t0 + t1 lon + t2 lat, row = t3 + t4 lon + t5 lat (corners)
  bool has_null = false;
  double null_value = 0;
  // Bilinear height between cell centres at (lon, lat); false outside the
  // grid or next to a null cell.
  bool HeightAt(double lon, double lat, double* h) const;
};

// ---- 3D polynomial terms (order 1..3, total-degree order of sensors.h).
// Writes EPHO_POLY3D_TERM_COUNT(order) terms of (u, v, w).
void Poly3DTerms(long order, double u, double v, double w, double* t);
// Derivatives of those terms with respect to u and v.
void Poly3DTermDerivatives(long order, double u, double v, double w, double* du, double* dv);

}  // namespace epho::sensors

// The opaque model objects.
struct Epho_RpcModel {
  double numbers[EPHO_RPC_NUMBER_COUNT];
  std::shared_ptr<const epho::sensors::DemGrid> dem;  // null: constant height
  double constant_height = 0;
};

struct Epho_Poly3DModel {
  Epho_Poly3DCoefficients c;
};

#endif  // EPHO_SENSORS_SENSORS_INTERNAL_H_
