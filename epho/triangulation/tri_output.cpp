// The results of a refinement beside its text report: JSON for programs and
// an SVG plot of the residuals for people.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>

#include "epho/triangulation/triangulation_internal.h"
#include "platform/estr/utf8.h"

namespace epho::triangulation {
namespace {

std::string Num(double v) {
  if (!std::isfinite(v)) return "null";
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.17g", v);
  return buf;
}

std::string Str(const std::wstring& s) {
  std::string out = "\"";
  for (char c : kzdv::ToUtf8(s)) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (static_cast<unsigned char>(c) < 0x20) {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\u%04x", c);
      out += buf;
    } else {
      out += c;
    }
  }
  return out + "\"";
}

const char* UsageName(int usage) {
  switch (usage) {
    case EPHO_TRI_USAGE_CONTROL:
      return "control";
    case EPHO_TRI_USAGE_CHECK:
      return "check";
    default:
      return "tie";
  }
}

std::string Array(const std::vector<double>& v) {
  std::string s = "[";
  for (size_t k = 0; k < v.size(); ++k) s += (k ? ", " : "") + Num(v[k]);
  return s + "]";
}

// Mean and RMSE of the ground residuals (X, Y over the horizontal, Z over
// the vertical observations).
std::string Statistics(const std::vector<GroundResidual>& g) {
  double sum[3] = {0, 0, 0}, sq[3] = {0, 0, 0};
  int nxy = 0, nz = 0;
  for (const auto& r : g) {
    if (r.has_xy) {
      ++nxy;
      for (int k = 0; k < 2; ++k) sum[k] += r.r[k], sq[k] += r.r[k] * r.r[k];
    }
    if (r.has_z) ++nz, sum[2] += r.r[2], sq[2] += r.r[2] * r.r[2];
  }
  std::vector<double> mean(3), rmse(3);
  for (int k = 0; k < 3; ++k) {
    const int n = k < 2 ? nxy : nz;
    mean[k] = n ? sum[k] / n : 0.0;
    rmse[k] = n ? std::sqrt(sq[k] / n) : 0.0;
  }
  return "{\"count_xy\": " + std::to_string(nxy) + ", \"count_z\": " + std::to_string(nz) +
         ", \"mean\": " + Array(mean) + ", \"rmse\": " + Array(rmse) + "}";
}

bool WriteText(const Etxt_Char* name, const std::string& text, kzdv::ErrorFrame& frame, long site,
               const Etxt_Char* what) {
  Efio_File* f = efio_Open(name, "w", frame.Callee());
  if (!f) {
    frame.Fail(site, L"The %s file %s can not be written", what, name);
    return false;
  }
  const bool written = std::fwrite(text.data(), 1, text.size(), efio_Stream(f)) == text.size();
  const bool closed = efio_Close(f, frame.Callee()) != EMSC_FALSE;
  if (!written || !closed) {
    frame.Fail(site, L"The %s file %s can not be written", what, name);
    return false;
  }
  return true;
}

}  // namespace

bool WriteJson(const Block& b, const std::vector<ImageResidual>& residuals, const Etxt_Char* name,
               kzdv::ErrorFrame& frame) {
  const BundleResult& res = b.result;
  std::string j = "{\n";
  j += "  \"converged\": " + std::string(res.converged ? "true" : "false") + ",\n";
  j += "  \"diverged\": " + std::string(res.diverged ? "true" : "false") + ",\n";
  j += "  \"iterations\": " + std::to_string(res.iterations) + ",\n";
  j += "  \"unit_weight_standard_error\": " + Num(res.s0) + ",\n";
  j += "  \"solver\": \"" + std::string(res.used_sparse ? "sparse" : "dense") + "\",\n";
  j += "  \"ground_xy_units\": " + Str(b.settings.xy_units) + ",\n";
  j += "  \"ground_z_units\": " + Str(b.settings.z_units) + ",\n";
  j += "  \"images\": [";
  for (int i = 0; i < b.image_count; ++i) {
    const Epho_TriImage& im = b.images[i];
    const int n = b.PerAxis(i);
    std::vector<double> a(n), bb(n), sa(n, 0.0), sb(n, 0.0);
    for (int k = 0; k < n; ++k) {
      const double fa = im.normalisation[k], fb = im.normalisation[n + k];
      a[k] = im.initialValues[k] * fa - im.currentParameters[k] * fa;
      bb[k] = im.initialValues[n + k] * fb - im.currentParameters[n + k] * fb;
      if (res.accuracy_valid) {
        sa[k] = res.parameter_sigma[b.param_start[i] + k] * fa;
        sb[k] = res.parameter_sigma[b.param_start[i] + n + k] * fb;
      }
    }
    j += std::string(i ? "," : "") + "\n    {\"id\": " + std::to_string(im.imageID) +
         ", \"mode\": " + std::to_string(im.parameterMode) + ", \"a\": " + Array(a) +
         ", \"b\": " + Array(bb) + ", \"sigma_a\": " + Array(sa) + ", \"sigma_b\": " + Array(sb) +
         "}";
  }
  j += "\n  ],\n  \"points\": [";
  std::vector<const GroundResidual*> by_point(b.PointCount(), nullptr);
  const auto control = GroundResiduals(b, false), check = GroundResiduals(b, true);
  for (const auto& g : control) by_point[g.point] = &g;
  for (const auto& g : check) by_point[g.point] = &g;
  bool first = true;
  for (int p = 0; p < b.PointCount(); ++p) {
    if (!b.TakesPart(p)) continue;
    const Epho_TriGroundPoint& q = b.points[p];
    const int usage = b.IsControl(p) ? 0 : q.usage;
    j += std::string(first ? "" : ",") + "\n    {\"id\": " + std::to_string(q.pointID) +
         ", \"usage\": \"" + UsageName(usage) + "\", \"type\": " + std::to_string(q.type) +
         ", \"X\": " + Num(q.X) + ", \"Y\": " + Num(q.Y) + ", \"Z\": " + Num(q.Z) +
         ", \"overlap\": " + std::to_string(b.Overlap(p));
    first = false;
    if (by_point[p]) {
      const GroundResidual& g = *by_point[p];
      j += ", \"residual\": [" + (g.has_xy ? Num(g.r[0]) : "null") + ", " +
           (g.has_xy ? Num(g.r[1]) : "null") + ", " + (g.has_z ? Num(g.r[2]) : "null") + "]";
    }
    j += ", \"rays\": [";
    for (int k = b.RayBegin(p); k < b.RayEnd(p); ++k)
      j += std::string(k > b.RayBegin(p) ? ", " : "") +
           "{\"image\": " + std::to_string(b.images[b.rays[k].image].imageID) +
           ", \"vx\": " + Num(residuals[k].vx) + ", \"vy\": " + Num(residuals[k].vy) + "}";
    j += "]}";
  }
  j += "\n  ],\n  \"control\": " + Statistics(control) + ",\n  \"check\": " + Statistics(check) +
       "\n}\n";
  return WriteText(name, j, frame, 2200, L"JSON");
}

bool WriteSvg(const Block& b, const std::vector<ImageResidual>& residuals, const Etxt_Char* name,
              kzdv::ErrorFrame& frame) {
  // One panel per image (its frame, each ray's measured position and its
  // residual vector), then a panel of the control and check points with
  // their ground residuals. Vectors are exaggerated by one factor per kind,
  // printed in the panel titles.
  const int panel = 220, margin = 20, columns = 4;
  const int panels = b.image_count + 1;
  const int rows = (panels + columns - 1) / columns;
  double vmax = 0.0;
  for (const auto& v : residuals) vmax = std::max(vmax, std::hypot(v.vx, v.vy));
  std::string s;
  char buf[512];
  std::snprintf(buf, sizeof buf,
                "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%d\" height=\"%d\" "
                "font-family=\"sans-serif\" font-size=\"11\">\n",
                columns * (panel + margin) + margin, rows * (panel + 2 * margin) + margin);
  s += buf;
  std::vector<std::vector<int>> rays_of(b.image_count);
  for (int p = 0; p < b.PointCount(); ++p)
    if (b.TakesPart(p))
      for (int k = b.RayBegin(p); k < b.RayEnd(p); ++k) rays_of[b.rays[k].image].push_back(k);
  for (int i = 0; i <= b.image_count; ++i) {
    const double ox = margin + (i % columns) * (panel + margin);
    const double oy = margin + (i / columns) * (panel + 2 * margin) + 14;
    if (i < b.image_count) {
      const Epho_TriImage& im = b.images[i];
      const double w = std::max(1, im.columns), h = std::max(1, im.rows);
      const double scale = panel / std::max(w, h);
      const double exaggerate = vmax > 0.0 ? 0.08 * panel / (vmax * scale) : 1.0;
      std::snprintf(buf, sizeof buf,
                    "<text x=\"%.1f\" y=\"%.1f\">Image %d (vectors x%.3g)</text>\n"
                    "<rect x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\" fill=\"none\" "
                    "stroke=\"#888\"/>\n",
                    ox, oy - 4, im.imageID, exaggerate, ox, oy, w * scale, h * scale);
      s += buf;
      for (int k : rays_of[i]) {
        const Ray& ray = b.rays[k];
        const double* ia = im.inverseAffine;
        const double col = ia[0] + ia[1] * ray.x + ia[2] * ray.y;
        const double row = ia[3] + ia[4] * ray.x + ia[5] * ray.y;
        const double x0 = ox + col * scale, y0 = oy + row * scale;
        const double x1 = x0 + residuals[k].vx * scale * exaggerate;
        const double y1 = y0 + residuals[k].vy * scale * exaggerate;
        std::snprintf(buf, sizeof buf,
                      "<circle cx=\"%.2f\" cy=\"%.2f\" r=\"1.2\" fill=\"#246\"/>"
                      "<line x1=\"%.2f\" y1=\"%.2f\" x2=\"%.2f\" y2=\"%.2f\" stroke=\"#c22\"/>\n",
                      x0, y0, x0, y0, x1, y1);
        s += buf;
      }
      continue;
    }
    // Ground panel: control (blue) and check (green) points.
    const auto control = GroundResiduals(b, false), check = GroundResiduals(b, true);
    double x0 = 1e300, x1 = -1e300, y0 = 1e300, y1 = -1e300, rmax = 0.0;
    for (const auto* list : {&control, &check})
      for (const auto& g : *list) {
        const auto& q = b.points[g.point];
        x0 = std::min(x0, q.X), x1 = std::max(x1, q.X);
        y0 = std::min(y0, q.Y), y1 = std::max(y1, q.Y);
        rmax = std::max(rmax, std::hypot(g.r[0], g.r[1]));
      }
    const double span = std::max({x1 - x0, y1 - y0, 1e-12});
    const double scale = panel / span;
    const double exaggerate = rmax > 0.0 ? 0.08 * panel / rmax : 1.0;
    std::snprintf(buf, sizeof buf,
                  "<text x=\"%.1f\" y=\"%.1f\">Ground residuals (x%.3g per unit)</text>\n", ox,
                  oy - 4, exaggerate);
    s += buf;
    for (const auto* list : {&control, &check})
      for (const auto& g : *list) {
        const auto& q = b.points[g.point];
        const double px = ox + (q.X - x0) * scale, py = oy + (y1 - q.Y) * scale;
        const char* colour = list == &control ? "#24c" : "#2a4";
        std::snprintf(buf, sizeof buf,
                      "<circle cx=\"%.2f\" cy=\"%.2f\" r=\"2\" fill=\"%s\"/>"
                      "<line x1=\"%.2f\" y1=\"%.2f\" x2=\"%.2f\" y2=\"%.2f\" stroke=\"%s\"/>\n",
                      px, py, colour, px, py, px + g.r[0] * exaggerate, py - g.r[1] * exaggerate,
                      colour);
        s += buf;
      }
  }
  s += "</svg>\n";
  return WriteText(name, s, frame, 2210, L"plot");
}

}  // namespace epho::triangulation
