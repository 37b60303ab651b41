// Internals of the sensor models shared by their sources and tests: the RPC
// arithmetic, the in-memory DEM and the height source of the RPC model, the 3D polynomial
// terms.
#ifndef EPHO_SENSORS_SENSORS_INTERNAL_H_
#define EPHO_SENSORS_SENSORS_INTERNAL_H_

#include <algorithm>
#include <atomic>
#include <memory>
#include <vector>

#include "epho/kernel/vector_path.h"
#include "epho/sensors.h"
#include "eprj.h"

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

// A DEM read whole, in its own coordinate system.
struct DemGrid {
  long width = 0, height = 0;
  std::vector<double> cells;  // row-major heights, the DEM's own unit and kind
  double to_file[6] = {0};    // col = t0 + t1 x + t2 y, row = t3 + t4 x + t5 y (corners)
  bool has_null = false;
  double null_value = 0;
  // Null when the DEM holds ellipsoidal heights in metres on geographic WGS 84
  // degrees; otherwise the reprojection from WGS 84 (longitude, latitude in
  // radians, ellipsoidal height) to the DEM's map coordinates and heights.
  // Safe for concurrent use.
  std::shared_ptr<Eprj_3DProjection> from_wgs84;
  bool degrees = true;  // the DEM's map coordinates are degrees (a geographic DEM)
  // Bilinear height between cell centres at (x, y) of the DEM's system;
  // false outside the grid or next to a null cell.
  bool HeightAt(double x, double y, double* h) const;
  // The surface's ellipsoidal height in metres at WGS 84 (lon, lat) in
  // degrees; false where HeightAt is, or where the point does not convert.
  bool EllipsoidalHeightAt(double lon, double lat, double* h) const;
};

// Where the surface heights of an RPC model come from: a DEM, or a constant
// ellipsoidal height when `dem` is null. Never changed once made: a model
// swaps the whole source atomically.
struct HeightSource {
  std::shared_ptr<const DemGrid> dem;
  double constant_height = 0;
  // The surface's ellipsoidal height at (lon, lat) in degrees.
  bool At(double lon, double lat, double* h) const {
    if (!dem) {
      *h = constant_height;
      return true;
    }
    return dem->EllipsoidalHeightAt(lon, lat, h);
  }
};

// ---- 3D polynomial terms (order 1..3, total-degree order of sensors.h).
// Writes EPHO_POLY3D_TERM_COUNT(order) terms of (u, v, w).
void Poly3DTerms(long order, double u, double v, double w, double* t);
// Derivatives of those terms with respect to u and v.
void Poly3DTermDerivatives(long order, double u, double v, double w, double* du, double* dv);

// ---- exfr routines of a model whose image-to-ground call takes a height per
// point (the RPC and 3D polynomial models): the model's own batch calls, and
// the ray of an image point through the ground points at two heights.
template <class Model,
          Emsc_Boolean (*ToImage)(const Model*, long, const double*, double*, Eerr_ErrorReport**),
          Emsc_Boolean (*ToGround)(const Model*, long, const double*, const double*, double*,
                                   Eerr_ErrorReport**)>
struct HeightModelOps {
  static Emsc_Boolean GroundToImage(void* model, long count, const double* ground_xyz,
                                    double* image_xy, Eerr_ErrorReport** err) {
    if (count == 0) return EMSC_TRUE;  // exfr passes empty batches on
    return ToImage(static_cast<const Model*>(model), count, ground_xyz, image_xy, err);
  }
  static Emsc_Boolean ImageAndZToXY(void* model, long count, const double* image_xy,
                                    const double* ground_z, double* ground_xy,
                                    Eerr_ErrorReport** err) {
    if (count == 0) return EMSC_TRUE;
    return ToGround(static_cast<const Model*>(model), count, image_xy, ground_z, ground_xy, err);
  }
  // Origin at height h0, direction towards the point at h1 (not normalised).
  static Emsc_Boolean RayBetweenHeights(const Model* model, double image_x, double image_y,
                                        double h0, double h1, double origin[3], double direction[3],
                                        Eerr_ErrorReport** err) {
    const double xy[4] = {image_x, image_y, image_x, image_y};
    const double h[2] = {h0, h1};
    double g[4];
    if (!ToGround(model, 2, xy, h, g, err)) return EMSC_FALSE;
    origin[0] = g[0], origin[1] = g[1], origin[2] = h0;
    direction[0] = g[2] - g[0], direction[1] = g[3] - g[1], direction[2] = h1 - h0;
    return EMSC_TRUE;
  }
};

}  // namespace epho::sensors

// The opaque model objects.
struct Epho_RpcModel {
  Epho_RpcModel() = default;
  Epho_RpcModel(const Epho_RpcModel& other) : heights(other.Heights()) {
    std::copy(other.numbers, other.numbers + EPHO_RPC_NUMBER_COUNT, numbers);
  }
  Epho_RpcModel& operator=(const Epho_RpcModel&) = delete;

  // The height source in force, and its replacement: atomic, so that
  // evaluations on other threads keep the source they started with.
  std::shared_ptr<const epho::sensors::HeightSource> Heights() const {
    return std::atomic_load(&heights);
  }
  void SetHeights(std::shared_ptr<const epho::sensors::HeightSource> source) {
    std::atomic_store(&heights, std::move(source));
  }

  double numbers[EPHO_RPC_NUMBER_COUNT];
  std::shared_ptr<const epho::sensors::HeightSource> heights;  // never null once created
};

struct Epho_Poly3DModel {
  Epho_Poly3DCoefficients c;
};

#endif  // EPHO_SENSORS_SENSORS_INTERNAL_H_
