// The text report of a refinement: its fixed layout of headings, columns and
// number formats (image coordinates with 3 decimals, ground coordinates with
// 4, or 8 for X and Y in degrees or radians, parameters as %-14.5g).
#include <cmath>
#include <cstdarg>

#include "epho/angles.h"
#include "epho/triangulation/triangulation_internal.h"
#include "platform/estr/utf8.h"

namespace epho::triangulation {

void Report::Printf(const Etxt_Char* format, ...) {
  va_list ap;
  va_start(ap, format);
  const std::wstring text = kzdv::FormatV(format, ap);
  va_end(ap);
  Eerr_ErrorReport* local = nullptr;
  if (efio_Fprintf(file_, &local, L"%s", text.c_str()) < 0) failed_ = true;
  eerr_DeleteErrorReportEx(&local);
}

void WriteHeader(Block& b, Report& r) {
  const Epho_TriRefineInput* in = b.input;
  const Etxt_Char* xy = in->groundXYUnits ? in->groundXYUnits : L"";
  const Etxt_Char* z = in->groundZUnits ? in->groundZUnits : L"";
  b.settings.xy_units = xy;
  b.settings.z_units = z;
  b.settings.degrees = estr_Eqic(xy, L"degrees");
  b.settings.angular = b.settings.degrees || estr_Eqic(xy, L"radians");
  r.Printf(L"              Triangulation Report With OVT\n\n");
  r.Printf(L"         The output image x, y units:     pixels\n");
  if (b.settings.angular) {
    r.Printf(L"         The output ground X, Y units: %s\n", xy);
    r.Printf(L"         The output ground X, Y residual units: %s\n", z);
  } else {
    r.Printf(L"         The output ground X, Y, and their residual units: %s\n", xy);
  }
  r.Printf(L"         The output ground Z and its residual units: %s\n", z);
}

namespace {

// One row of the control or check coordinate table, by type.
void PointRow(Report& r, bool angular, const Epho_TriGroundPoint& p, int overlap) {
  switch (p.type) {
    case EPHO_TRI_TYPE_FULL:
      r.Printf(angular ? L"%8d%17.8f%14.8f%14.4f%6d\n" : L"%8d%17.4f%14.4f%14.4f%6d\n", p.pointID,
               p.X, p.Y, p.Z, overlap);
      break;
    case EPHO_TRI_TYPE_HORIZONTAL:
      r.Printf(angular ? L"%8d%17.8f%14.8f%20d\n" : L"%8d%17.4f%14.4f%20d\n", p.pointID, p.X, p.Y,
               overlap);
      break;
    default:
      r.Printf(L"%8d%45.4f%6d\n", p.pointID, p.Z, overlap);
      break;
  }
}

void ParameterLines(Report& r, const Etxt_Char* first_sep, const Etxt_Char* sep,
                    const Etxt_Char* a_format, const Etxt_Char* b_format, int n,
                    const double* values) {
  r.Printf(L"%s", first_sep);
  for (int k = 0; k < n; ++k) r.Printf(a_format, k, values[k]);
  r.Printf(L"%s", sep);
  for (int k = 0; k < n; ++k) r.Printf(b_format, k, values[n + k]);
}

struct Stats {
  double sum[3] = {0, 0, 0}, sq[3] = {0, 0, 0};
  int count_xy = 0, count_z = 0;
  double Mean(int k) const {
    const int c = k < 2 ? count_xy : count_z;
    return c ? sum[k] / c : 0.0;
  }
  double Rmse(int k) const {
    const int c = k < 2 ? count_xy : count_z;
    return c ? std::sqrt(sq[k] / c) : 0.0;
  }
};

Stats GroundTable(const Block& b, Report& r, bool check) {
  Stats s;
  for (const GroundResidual& g : GroundResiduals(b, check)) {
    const Epho_TriGroundPoint& p = b.points[g.point];
    if (g.has_xy && g.has_z) {
      r.Printf(L"%8d%12.4f%12.4f%12.4f\n", p.pointID, g.r[0], g.r[1], g.r[2]);
    } else if (g.has_xy) {
      r.Printf(L"%8d%12.4f%12.4f\n", p.pointID, g.r[0], g.r[1]);
    } else {
      r.Printf(L"%8d%36.4f\n", p.pointID, g.r[2]);
    }
    if (g.has_xy) {
      for (int k = 0; k < 2; ++k) {
        s.sum[k] += g.r[k];
        s.sq[k] += g.r[k] * g.r[k];
      }
      ++s.count_xy;
    }
    if (g.has_z) {
      s.sum[2] += g.r[2];
      s.sq[2] += g.r[2] * g.r[2];
      ++s.count_z;
    }
  }
  if (s.count_xy + s.count_z > 0) {
    r.Printf(L"\n               meanX       meanY       meanZ\n");
    r.Printf(L"%20.4f%12.4f%12.4f", s.Mean(0), s.Mean(1), s.Mean(2));
    r.Printf(L"\n               rmseX       rmseY       rmseZ\n");
    r.Printf(L"%20.4f%12.4f%12.4f\n", s.Rmse(0), s.Rmse(1), s.Rmse(2));
  }
  return s;
}

// Image residuals of the control (usage 0) or check (usage 1) points, per
// image and in total.
void ImageTable(const Block& b, Report& r, const std::vector<ImageResidual>& res, bool check) {
  int total = 0;
  double sx = 0, sy = 0, qx = 0, qy = 0;
  const int first = check ? b.ControlCount() : 0;
  const int last = check ? b.ControlCount() + b.n_check : b.ControlCount();
  for (int i = 0; i < b.image_count; ++i) {
    r.Printf(L"\n                The image ID = %d", b.images[i].imageID);
    r.Printf(L"\n         Point ID       Vx          Vy");
    int count = 0;
    double mx = 0, my = 0, rx = 0, ry = 0;
    for (int p = first; p < last; ++p) {
      for (int k = b.RayBegin(p); k < b.RayEnd(p); ++k) {
        if (b.rays[k].image != i) continue;
        const ImageResidual& v = res[k];
        r.Printf(L"\n%16d%12.3f%12.3f", b.points[p].pointID, v.vx, v.vy);
        ++count;
        mx += v.vx;
        my += v.vy;
        rx += v.vx * v.vx;
        ry += v.vy * v.vy;
      }
    }
    if (count > 0) {
      r.Printf(L"\n              meanx=%.3f, meany=%.3f", mx / count, my / count);
      r.Printf(L"\n              rmsex=%.3f, rmsey=%.3f\n", std::sqrt(rx / count),
               std::sqrt(ry / count));
    } else if (check) {
      r.Printf(L"\n    There are no check points on this image.");
    } else {
      r.Printf(L"\n       There are no GCPs on this image\n");
    }
    total += count;
    sx += mx;
    sy += my;
    qx += rx;
    qy += ry;
  }
  r.Printf(check ? L"\n      Total number of all check image points = %d"
                 : L"\n      Total number of all control image points = %d",
           total);
  const double n = total ? total : 1;
  r.Printf(L"\n      Total meanx = %.3f, meany = %.3f", sx / n, sy / n);
  r.Printf(L"\n      Total rmsex = %.3f, rmsey = %.3f\n", std::sqrt(qx / n), std::sqrt(qy / n));
}

}  // namespace

void WriteInitialParameters(Report& r, const Epho_TriImage& image, int n) {
  const Etxt_Char* sep = n == 1 ? L"\n                    " : L"\n      ";
  r.Printf(L"\n          Initial values of correction parameters");
  ParameterLines(r, sep, sep, L"  a[%d]=%-14.5g", L"  b[%d]=%-14.5g", n, image.initialValues);
  if (image.parameterMode == EPHO_TRI_MODE_WEIGHTED) {
    std::vector<double> s(2 * n);
    for (int k = 0; k < 2 * n; ++k) s[k] = image.standardDeviations[k];
    r.Printf(L"\n          Initial standard deviation of parameters");
    ParameterLines(r, sep, sep, L" sa[%d]=%-14.5g", L" sb[%d]=%-14.5g", n, s.data());
  }
}

void WritePointTables(Block& b, Report& r) {
  const bool angular = b.settings.angular;
  const Epho_TriGroundPoint* given = b.input->groundPoints;
  if (b.ControlCount() > 0) {
    r.Printf(L"\n\n              Coordinates of control points\n");
    r.Printf(L"   Point ID         X             Y             Z      Overlap\n");
    for (int p = 0; p < b.ControlCount(); ++p) PointRow(r, angular, given[p], b.Overlap(p));
  }
  if (b.n_check > 0) {
    r.Printf(L"\n\n              Coordinates of check points\n");
    r.Printf(L"   Point ID         X             Y             Z      Overlap\n");
    for (int p = b.ControlCount(); p < b.ControlCount() + b.n_check; ++p)
      PointRow(r, angular, given[p], b.Overlap(p));
  }
}

void WriteResults(Block& b, Report& r, const std::vector<ImageResidual>& residuals) {
  // Final parameters: initial value minus the accumulated correction, each
  // scaled back by its (single-precision) normalisation factor.
  r.Printf(L"\n\n                      Final adjustment parameters");
  for (int i = 0; i < b.image_count; ++i) {
    const Epho_TriImage& im = b.images[i];
    const int n = b.PerAxis(i);
    std::vector<double> v(2 * n);
    for (int k = 0; k < 2 * n; ++k) {
      const double f = im.normalisation[k];
      v[k] = im.initialValues[k] * f - im.currentParameters[k] * f;
    }
    r.Printf(L"\n                            Image ID = %d\n", im.imageID);
    const Etxt_Char* first = n == 1 ? L"                          " : L"    ";
    const Etxt_Char* second = n == 1 ? L"\n                          " : L"\n    ";
    ParameterLines(r, first, second, L"  a[%d]=%-14.5g", L"  b[%d]=%-14.5g", n, v.data());
  }
  r.Printf(L"\n\n                     Adjustment parameter accuracy");
  for (int i = 0; i < b.image_count; ++i) {
    const Epho_TriImage& im = b.images[i];
    const int n = b.PerAxis(i);
    std::vector<double> v(2 * n, 0.0);
    if (b.result.accuracy_valid)
      for (int k = 0; k < 2 * n; ++k)
        v[k] = b.result.parameter_sigma[b.param_start[i] + k] * im.normalisation[k];
    r.Printf(L"\n                            Image ID = %d\n", im.imageID);
    const Etxt_Char* first = n == 1 ? L"                          " : L"    ";
    const Etxt_Char* second = n == 1 ? L"\n                          " : L"\n    ";
    ParameterLines(r, first, second, L" sa[%d]=%-14.5g", L" sb[%d]=%-14.5g", n, v.data());
  }

  Epho_TriRefineInput* in = b.input;
  if (b.ControlCount() > 0) {
    r.Printf(L"\n            Control point residuals\n");
    r.Printf(L"  Point ID      rX          rY          rZ\n");
    const Stats s = GroundTable(b, r, false);
    in->controlResidualCount[0] = in->controlResidualCount[1] = s.count_xy;
    in->controlResidualCount[2] = s.count_z;
    for (int k = 0; k < 3; ++k) {
      in->controlResidualMean[k] = static_cast<float>(s.Mean(k));
      in->controlResidualRmse[k] = static_cast<float>(s.Rmse(k));
    }
  }
  if (b.n_check > 0) {
    r.Printf(L"\n             Check point residuals\n");
    r.Printf(L"  Point ID      rX          rY          rZ\n");
    GroundTable(b, r, true);
  }

  r.Printf(L"\n                   Object point coordinates\n");
  r.Printf(L"  Point ID         X               Y             Z      ");
  r.Printf(L"Overlap\n");
  int objects = 0;
  for (int p = 0; p < b.PointCount(); ++p) {
    if (!b.TakesPart(p)) continue;
    const Epho_TriGroundPoint& q = b.points[p];
    r.Printf(b.settings.angular ? L"%8d%18.8f%16.8f%12.4f%6d\n" : L"%8d%16.4f%16.4f%14.4f%6d\n",
             q.pointID, q.X, q.Y, q.Z, b.Overlap(p));
    ++objects;
  }
  r.Printf(L"              Total number of object points = %d\n", objects);

  r.Printf(L"\n            Image point residuals");
  for (int p = 0; p < b.PointCount(); ++p) {
    if (!b.TakesPart(p)) continue;
    r.Printf(L"\n\n    Point   Image       Vx          Vy");
    for (int k = b.RayBegin(p); k < b.RayEnd(p); ++k)
      r.Printf(L"\n%8d%8d%12.3f%12.3f", b.points[p].pointID, b.images[b.rays[k].image].imageID,
               residuals[k].vx, residuals[k].vy);
  }
  r.Printf(L"\n");

  if (b.ControlCount() > 0) {
    r.Printf(L"\n\n           Control point image residuals\n");
    ImageTable(b, r, residuals, false);
  }
  if (b.n_check > 0) {
    r.Printf(L"\n\n           Check point image residuals\n");
    ImageTable(b, r, residuals, true);
  }
}

}  // namespace epho::triangulation
