// Tie points between two photographs rendered through the frame camera over
// a DEM with a known texture: the matches against the true homologous
// points, the epipolar constraint, the candidate numbering, the argument
// checks and the thread-safety of the call.
#include "epho/autotie.h"

#include <gdal.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

#include "epho/autotie/autotie_internal.h"
#include "test_util.h"

namespace {

constexpr int kSize = 360;         // photograph, pixels a side
constexpr double kPixelMm = 0.05;  // film pixel
constexpr double kFocalMm = 50.0;  // 1.2 m ground pixel at 1200 m
constexpr double kX0 = 1000.0, kY0 = 2000.0, kZ0 = 1500.0;
constexpr double kBase = 180.0;  // 58 % overlap
constexpr double kDemX = 500.0, kDemY = 2500.0, kDemCell = 4.0;
constexpr int kDemSize = 250;

double Terrain(int c, int r) { return 300.0 + 12.0 * std::sin(c / 22.0) * std::cos(r / 17.0); }

// Ground texture: value noise on 5 m cells, bilinear, plus a few waves.
double Texture(double x, double y) {
  auto hash = [](long i, long j) {
    uint32_t h = uint32_t(i * 73856093L) ^ uint32_t(j * 19349663L);
    h ^= h >> 13, h *= 0x5bd1e995u, h ^= h >> 15;
    return double(h & 0xff);
  };
  const double u = x / 5.0, v = y / 5.0;
  const long i = long(std::floor(u)), j = long(std::floor(v));
  const double fu = u - i, fv = v - j;
  const double n = (1 - fv) * ((1 - fu) * hash(i, j) + fu * hash(i + 1, j)) +
                   fv * ((1 - fu) * hash(i, j + 1) + fu * hash(i + 1, j + 1));
  return std::clamp(0.6 * n + 40.0 * std::sin(x / 31.0) * std::cos(y / 23.0) + 50.0, 0.0, 255.0);
}

struct XformDeleter {
  void operator()(Epho_CameraXform* x) const { epho_CameraXformDelete(x); }
};
using XformPtr = std::unique_ptr<Epho_CameraXform, XformDeleter>;

class Scene {
 public:
  Scene() : dir_("autotie") {
    GDALAllRegister();
    dem_ = dir_.File("dem.tif");
    GDALDatasetH ds = GDALCreate(GDALGetDriverByName("GTiff"), dem_.c_str(), kDemSize, kDemSize, 1,
                                 GDT_Float32, nullptr);
    double gt[6] = {kDemX, kDemCell, 0.0, kDemY, 0.0, -kDemCell};
    GDALSetGeoTransform(ds, gt);
    std::vector<float> z(size_t(kDemSize) * kDemSize);
    for (int r = 0; r < kDemSize; ++r)
      for (int c = 0; c < kDemSize; ++c) z[size_t(r) * kDemSize + c] = float(Terrain(c, r));
    GDALRasterBandH b = GDALGetRasterBand(ds, 1);
    GDALSetRasterUnitType(b, "m");
    EXPECT_EQ(GDALRasterIO(b, GF_Write, 0, 0, kDemSize, kDemSize, z.data(), kDemSize, kDemSize,
                           GDT_Float32, 0, 0),
              CE_None);
    GDALClose(ds);
    for (int k = 0; k < 2; ++k) {
      forward_[k] = Xform(k, EMOD_FORWARD);
      image_[k] = Render(k);
    }
  }
  // A prepared transform of photograph k (0 left, 1 right) with the DEM.
  XformPtr Xform(int k, int direction) const {
    Epho_Camera* c = epho_CameraCreate(nullptr);
    const double half = kSize * kPixelMm / 2;
    const double src[6] = {kPixelMm, 0, -half, 0, -kPixelMm, half};
    const double inv[6] = {1 / kPixelMm, 0, half / kPixelMm, 0, -1 / kPixelMm, half / kPixelMm};
    std::copy(src, src + 6, c->forSrcAffine);
    std::copy(inv, inv + 6, c->invSrcAffine);
    c->direction = direction;
    c->coeffs[0] = kFocalMm;
    c->coeffs[3] = kX0 + (k ? kBase : 0.0), c->coeffs[4] = kY0, c->coeffs[5] = kZ0;
    c->coeffs[6] = k ? -0.01 : 0.008, c->coeffs[7] = k ? 0.012 : -0.005, c->coeffs[8] = 0.03 * k;
    const double lens[5] = {0.0, 0.0, -2e-6, 1e-10, 0.0};
    c->LensDistortion.data = static_cast<double*>(emsc_MemDup(lens, sizeof lens));
    c->LensDistortion.count = 5;
    c->demsource = EMOD_DEM_FILE;
    const std::wstring name = kzdv::FromUtf8(dem_);
    c->demfilename.data = etxt_Text_strdup(name.c_str());
    c->demfilename.count = int32_t(name.size() + 1);
    XformPtr x(epho_CameraXformGetFromCameraData(c, nullptr));
    EXPECT_TRUE(x && epho_CameraXformFillNoMIFData(x.get(), nullptr));
    return x;
  }
  // The true right position of a left pixel: its ground point on the DEM,
  // projected through the right camera.
  bool Truth(double lx, double ly, double* rx, double* ry) const {
    double p[2] = {lx, ly}, g[2], out[2];
    XformPtr inv = Xform(0, EMOD_INVERSE);
    if (!epho_CameraXformTransform(inv.get(), 1, p, g, nullptr)) return false;
    XformPtr fwd = Xform(1, EMOD_FORWARD);
    if (!epho_CameraXformTransform(fwd.get(), 1, g, out, nullptr)) return false;
    *rx = out[0], *ry = out[1];
    return true;
  }
  Epho_ImageViewByte View(int k) const {
    return Epho_ImageViewByte{image_[k].data(), kSize, kSize, kSize};
  }
  const Epho_CameraXform* Forward(int k) const { return forward_[k].get(); }
  std::vector<uint8_t>& Pixels(int k) { return image_[k]; }

 private:
  std::vector<uint8_t> Render(int k) const {
    XformPtr inv = Xform(k, EMOD_INVERSE);
    std::vector<uint8_t> img(size_t(kSize) * kSize);
    std::vector<double> row(2 * kSize);
    for (int r = 0; r < kSize; ++r) {
      for (int c = 0; c < kSize; ++c) row[2 * c] = c + 0.5, row[2 * c + 1] = r + 0.5;
      EXPECT_TRUE(epho_CameraXformTransform(inv.get(), kSize, row.data(), nullptr, nullptr));
      for (int c = 0; c < kSize; ++c)
        img[size_t(r) * kSize + c] = uint8_t(std::lround(Texture(row[2 * c], row[2 * c + 1])));
    }
    return img;
  }
  testutil::ScratchDir dir_;
  std::string dem_;
  XformPtr forward_[2];
  std::vector<uint8_t> image_[2];
};

Scene& TheScene() {
  static Scene scene;
  return scene;
}

struct PairRun {
  bool ok = false;
  std::vector<Epho_AutoTiePoint> points;
  Epho_AutoTieStats stats{};
};

PairRun Measure(const Epho_AutoTieParams& p, const Epho_ImageViewByte& left,
                const Epho_ImageViewByte& right, int capacity = -1) {
  Scene& s = TheScene();
  PairRun run;
  if (capacity < 0)
    capacity = epho_AutoTieGridSize(left.width, left.height, p.grid_spacing, p.template_half,
                                    nullptr, nullptr);
  run.points.resize(size_t(capacity));
  int32_t count = -1;
  Eerr_ErrorReport* err = nullptr;
  run.ok = epho_AutoTiePair(s.Forward(0), &left, s.Forward(1), &right, &p, run.points.data(),
                            capacity, &count, &run.stats, &err);
  EXPECT_EQ(run.ok, err == nullptr) << kzdv::ToUtf8(kzdv::ReportText(err));
  eerr_DeleteErrorReportEx(&err);
  run.points.resize(size_t(std::max(count, 0)));
  return run;
}

struct AccuracyCase {
  const char* name;
  int height_source;
  double height;
  bool lsc;
  double max_rmse_px;
};

// Matches against the true homologous points: LSC to a few hundredths of a
// pixel, NCC alone to its sub-pixel parabola; heights from the DEM or a
// constant mean height (the prediction is then off by the parallax of the
// relief, which the search must absorb).
TEST(AutoTiePair, MatchesTheTrueHomologousPoints) {
  Scene& s = TheScene();
  const AccuracyCase cases[] = {
      {"DEM heights, LSC", EPHO_AUTOTIE_HEIGHT_TRANSFORM, 0, true, 0.05},
      {"DEM heights, NCC only", EPHO_AUTOTIE_HEIGHT_TRANSFORM, 0, false, 0.2},
      {"mean height, LSC", EPHO_AUTOTIE_HEIGHT_CONSTANT, 330.0, true, 0.05},
  };
  for (const AccuracyCase& k : cases) {
    SCOPED_TRACE(k.name);
    Epho_AutoTieParams p;
    epho_AutoTieParamsDefault(&p);
    p.grid_spacing = 24;
    p.height_source = k.height_source;
    p.height = k.height;
    p.use_lsc = k.lsc;
    const PairRun run = Measure(p, s.View(0), s.View(1));
    ASSERT_TRUE(run.ok);
    const Epho_AutoTieStats& t = run.stats;
    EXPECT_EQ(t.candidates, t.outside + t.weak + t.off_epipolar + t.lsc_failed + t.accepted);
    EXPECT_EQ(t.accepted, int32_t(run.points.size()));
    // About 58 % of the left grid overlaps the right photograph.
    EXPECT_GT(t.accepted, t.candidates * 4 / 10);
    double sq = 0;
    for (const Epho_AutoTiePoint& q : run.points) {
      double tx, ty;
      ASSERT_TRUE(s.Truth(q.left_x, q.left_y, &tx, &ty));
      sq += (q.right_x - tx) * (q.right_x - tx) + (q.right_y - ty) * (q.right_y - ty);
      EXPECT_GE(q.coefficient, p.min_coefficient);
      EXPECT_LE(q.epipolar_distance, p.epipolar_tolerance);
      EXPECT_EQ(q.lsc_iterations > 0, k.lsc);
    }
    EXPECT_LT(std::sqrt(sq / std::max<size_t>(run.points.size(), 1)), k.max_rmse_px);
  }
}

// Candidate numbers name left grid pixels, in grid order.
TEST(AutoTiePair, CandidateNumbersFollowTheGrid) {
  Scene& s = TheScene();
  Epho_AutoTieParams p;
  epho_AutoTieParamsDefault(&p);
  p.grid_spacing = 40;
  int32_t columns = 0, rows = 0;
  const int32_t total = epho_AutoTieGridSize(kSize, kSize, 40, p.template_half, &columns, &rows);
  EXPECT_EQ(columns, (kSize - 2 * 10 - 3) / 40 + 1);
  EXPECT_EQ(total, columns * rows);
  const PairRun run = Measure(p, s.View(0), s.View(1));
  ASSERT_TRUE(run.ok);
  ASSERT_FALSE(run.points.empty());
  EXPECT_EQ(run.stats.candidates, total);
  for (size_t i = 0; i < run.points.size(); ++i) {
    const Epho_AutoTiePoint& q = run.points[i];
    EXPECT_EQ(q.left_x, 11 + (q.candidate % columns) * 40 + 0.5);
    EXPECT_EQ(q.left_y, 11 + (q.candidate / columns) * 40 + 0.5);
    if (i) {
      EXPECT_GT(q.candidate, run.points[i - 1].candidate);
    }
  }
  // Too small for one window, or no spacing: no grid.
  EXPECT_EQ(epho_AutoTieGridSize(22, 100, 8, 10, &columns, &rows), 0);
  EXPECT_EQ(epho_AutoTieGridSize(23, 100, 8, 10, &columns, &rows), 10);  // 1 x 10
  EXPECT_EQ(epho_AutoTieGridSize(100, 100, 0, 10, &columns, &rows), 0);
}

// A right photograph moved across the epipolar lines (as a wrong
// orientation would): the search band misses the content, so nothing is
// accepted. Moved along them by 5 px (30 m of height), the matches follow
// when the height range allows it, and are refused when it is the DEM's
// (the lines are then only about 4 px long).
TEST(AutoTiePair, EpipolarBandRejectsMatchesAcrossTheLines) {
  Scene& s = TheScene();
  struct ShiftCase {
    int dx, dy;
    double zmin, zmax;
    bool expect_points;
  };
  for (const ShiftCase& c : {ShiftCase{0, 9, 0, 600, false}, ShiftCase{5, 0, 0, 600, true},
                             ShiftCase{5, 0, 0, 0, false}}) {
    SCOPED_TRACE(testing::Message() << "shift " << c.dx << ", " << c.dy);
    std::vector<uint8_t> moved(size_t(kSize) * kSize, 0);
    const std::vector<uint8_t>& src = s.Pixels(1);
    for (int r = 0; r < kSize; ++r)
      for (int col = 0; col < kSize; ++col) {
        const int sr = r - c.dy, sc = col - c.dx;
        if (sr >= 0 && sc >= 0 && sr < kSize && sc < kSize)
          moved[size_t(r) * kSize + col] = src[size_t(sr) * kSize + sc];
      }
    Epho_AutoTieParams p;
    epho_AutoTieParamsDefault(&p);
    p.grid_spacing = 30;
    p.zmin = c.zmin, p.zmax = c.zmax;
    const PairRun run =
        Measure(p, s.View(0), Epho_ImageViewByte{moved.data(), kSize, kSize, kSize});
    ASSERT_TRUE(run.ok);
    if (!c.expect_points) {
      EXPECT_EQ(run.stats.accepted, 0);
      continue;
    }
    ASSERT_GT(run.stats.accepted, 10);
    for (const Epho_AutoTiePoint& q : run.points) {
      double tx, ty;
      ASSERT_TRUE(s.Truth(q.left_x, q.left_y, &tx, &ty));
      EXPECT_NEAR(q.right_x, tx + c.dx, 0.3);
      EXPECT_NEAR(q.right_y, ty + c.dy, 0.3);
    }
  }
}

// Refused arguments leave a report and no points; a full output reports the
// overflow after writing what fits.
TEST(AutoTiePair, RefusesBadArgumentsAndReportsOverflow) {
  Scene& s = TheScene();
  Epho_AutoTieParams good;
  epho_AutoTieParamsDefault(&good);
  good.grid_spacing = 30;
  const Epho_ImageViewByte left = s.View(0), right = s.View(1);
  Epho_ImageViewByte narrow = right;
  narrow.stride = kSize - 1;
  Epho_ImageViewByte empty = right;
  empty.pixels = nullptr;
  struct BadCase {
    const char* name;
    Epho_AutoTieParams params;
    Epho_ImageViewByte right;
    const wchar_t* message;
  };
  auto with = [&](auto change) {
    Epho_AutoTieParams p = good;
    change(p);
    return p;
  };
  const BadCase cases[] = {
      {"stride below width", good, narrow, L"right image"},
      {"no pixels", good, empty, L"right image"},
      {"no window", with([](auto& p) { p.template_half = 0; }), right, L"template size"},
      {"window too large", with([](auto& p) { p.template_half = 200; }), right, L"template size"},
      {"no spacing", with([](auto& p) { p.grid_spacing = 0; }), right, L"grid spacing"},
      {"zero tolerance", with([](auto& p) { p.epipolar_tolerance = 0; }), right, L"tolerance"},
      {"coefficient", with([](auto& p) { p.min_coefficient = 1.5; }), right, L"coefficient"},
      {"height source", with([](auto& p) { p.height_source = 7; }), right, L"height source"},
      {"LSC iterations", with([](auto& p) { p.lsc_max_iterations = 0; }), right, L"least-squares"},
  };
  for (const BadCase& k : cases) {
    SCOPED_TRACE(k.name);
    std::vector<Epho_AutoTiePoint> out(4);
    int32_t count = -1;
    Eerr_ErrorReport* err = nullptr;
    EXPECT_FALSE(epho_AutoTiePair(s.Forward(0), &left, s.Forward(1), &k.right, &k.params,
                                  out.data(), 4, &count, nullptr, &err));
    EXPECT_EQ(count, 0);
    EXPECT_TRUE(testutil::Mentions(err, k.message)) << kzdv::ToUtf8(kzdv::ReportText(err));
    eerr_DeleteErrorReportEx(&err);
  }
  // A null camera.
  int32_t count = -1;
  Eerr_ErrorReport* err = nullptr;
  EXPECT_FALSE(epho_AutoTiePair(nullptr, &left, s.Forward(1), &right, &good, nullptr, 0, &count,
                                nullptr, &err));
  EXPECT_TRUE(testutil::Mentions(err, L"Invalid input camera"));
  eerr_DeleteErrorReportEx(&err);

  const PairRun all = Measure(good, left, right);
  ASSERT_TRUE(all.ok);
  ASSERT_GT(all.points.size(), 3u);
  const PairRun three = Measure(good, left, right, 3);
  EXPECT_FALSE(three.ok);
  ASSERT_EQ(three.points.size(), 3u);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(three.points[i].candidate, all.points[i].candidate);
  EXPECT_EQ(three.stats.accepted, int32_t(all.points.size()));
}

// Two threads measuring on the same transform objects get the same points
// as one call alone.
TEST(AutoTiePair, ConcurrentCallsAgreeWithASingleCall) {
  Scene& s = TheScene();
  Epho_AutoTieParams p;
  epho_AutoTieParamsDefault(&p);
  p.grid_spacing = 32;
  const PairRun alone = Measure(p, s.View(0), s.View(1));
  ASSERT_TRUE(alone.ok);
  PairRun runs[2];
  std::thread a([&] { runs[0] = Measure(p, s.View(0), s.View(1)); });
  std::thread b([&] { runs[1] = Measure(p, s.View(0), s.View(1)); });
  a.join();
  b.join();
  for (const PairRun& r : runs) {
    ASSERT_EQ(r.points.size(), alone.points.size());
    for (size_t i = 0; i < r.points.size(); ++i) {
      EXPECT_EQ(r.points[i].candidate, alone.points[i].candidate);
      EXPECT_EQ(r.points[i].right_x, alone.points[i].right_x);
      EXPECT_EQ(r.points[i].right_y, alone.points[i].right_y);
    }
  }
}

// The search window and the distance to the epipolar polyline.
TEST(AutoTieGeometry, SearchWindowAndEpipolarDistance) {
  using epho::autotie::Window;
  const std::vector<double> along_x = {100.5, 50.5, 140.5, 50.5};  // horizontal line, row 50
  struct WindowCase {
    const char* name;
    double px, py;
    long x0, x1, y0, y1;
    bool ok;
  };
  const WindowCase cases[] = {
      // Radius 20 around column 120, rows cut to the band 50 +- 3.
      {"band", 120.5, 50.5, 100, 140, 47, 53, true},
      // The line's end cuts the columns, the image border the rows.
      {"line end", 150.5, 50.5, 130, 142, 47, 53, true},
      {"far from the line", 120.5, 80.5, 0, 0, 0, 0, false},
  };
  for (const WindowCase& k : cases) {
    SCOPED_TRACE(k.name);
    Window w;
    const bool ok = epho::autotie::SearchWindow(k.px, k.py, along_x, 20, 2.0, 10, 153, 200, &w);
    EXPECT_EQ(ok, k.ok);
    if (!ok) continue;
    EXPECT_EQ(w.x0, k.x0);
    EXPECT_EQ(w.x1, k.x1);
    EXPECT_EQ(w.y0, k.y0);
    EXPECT_EQ(w.y1, k.y1);
  }
  const std::vector<double> bent = {0, 0, 10, 0, 10, 10};
  EXPECT_DOUBLE_EQ(epho::autotie::DistanceToPolyline(bent, 5, 3), 3.0);
  EXPECT_DOUBLE_EQ(epho::autotie::DistanceToPolyline(bent, 13, 4), 3.0);
  EXPECT_DOUBLE_EQ(epho::autotie::DistanceToPolyline(bent, 13, 14), 5.0);  // past the end
  EXPECT_DOUBLE_EQ(epho::autotie::DistanceToPolyline(bent, 7, 2), 2.0);
}

}  // namespace
