// The hand-written project: a project file naming a camera file, an image
// list with approximate orientations, control points and image measurements.
// Every bad line of every file is reported before anything is made.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>

#include "epho/angles.h"
#include "epho/camerafile.h"
#include "epho/interchange/interchange.h"
#include "epho/interchange/line_reader_internal.h"
#include "platform/eerr/error_frame.h"
#include "platform/estr/utf8.h"

namespace epho::interchange {

namespace {

constexpr int64_t kMaxId = 0x7fffffff;
constexpr int64_t kMaxSize = 1 << 24;

struct ProjectFile {
  std::string camera, images, control, measurements;
  int64_t columns = 0, rows = 0;
  double pixelX = 0, pixelY = 0;  // mm
  std::string angles = "degrees";
};

std::string Lower(std::string s) {
  std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return std::tolower(c); });
  return s;
}

ProjectFile ReadProjectFile(const std::string& path, Problems* problems) {
  const TextFile file = ReadTextFile(path);
  const std::filesystem::path folder = std::filesystem::path(path).parent_path();
  auto resolve = [&](const std::string& name) {
    return (folder / name).lexically_normal().string();
  };
  ProjectFile p;
  std::set<std::string> seen;
  std::vector<std::string> tok;
  for (size_t i = 0; i < file.lines.size(); ++i) {
    const size_t line = i + 1;
    std::string why;
    if (!Tokenize(file.lines[i], true, &tok, &why)) {
      problems->Add(file.label, line, why);
      continue;
    }
    if (tok.empty()) continue;
    const std::string key = Lower(tok[0]);
    const size_t n = tok.size() - 1;
    auto expect = [&](size_t lo, size_t hi) {
      if (n >= lo && n <= hi) return true;
      problems->Add(file.label, line,
                    key + ": expected " + std::to_string(lo) +
                        (hi != lo ? " or " + std::to_string(hi) : std::string()) + " value" +
                        (hi > 1 ? "s" : "") + ", found " + std::to_string(n));
      return false;
    };
    if (!seen.insert(key).second) {
      problems->Add(file.label, line, key + " is given twice");
      continue;
    }
    if (key == "camera" || key == "images" || key == "control" || key == "measurements") {
      if (!expect(1, 1)) continue;
      std::string& target = key == "camera"    ? p.camera
                            : key == "images"  ? p.images
                            : key == "control" ? p.control
                                               : p.measurements;
      target = resolve(tok[1]);
    } else if (key == "image_size") {
      if (!expect(2, 2)) continue;
      if (!ParseInt(tok[1], 1, kMaxSize, &p.columns) || !ParseInt(tok[2], 1, kMaxSize, &p.rows))
        problems->Add(
            file.label, line,
            "image_size: columns and rows must be whole numbers 1 to " + std::to_string(kMaxSize));
    } else if (key == "pixel_size") {
      if (!expect(1, 2)) continue;
      if (!ParseDouble(tok[1], &p.pixelX) || !(p.pixelX > 0) ||
          (n == 2 && (!ParseDouble(tok[2], &p.pixelY) || !(p.pixelY > 0))))
        problems->Add(file.label, line, "pixel_size: sizes must be positive numbers (mm)");
      if (n == 1) p.pixelY = p.pixelX;
    } else if (key == "angles") {
      if (!expect(1, 1)) continue;
      p.angles = Lower(tok[1]);
      if (p.angles != "degrees" && p.angles != "radians" && p.angles != "gons")
        problems->Add(file.label, line,
                      "angles: \"" + tok[1] + "\" is not degrees, radians or gons");
    } else {
      problems->Add(file.label, line,
                    "unknown key \"" + tok[0] +
                        "\" (camera, image_size, pixel_size, angles, images, control, "
                        "measurements)");
    }
  }
  for (const char* required : {"camera", "image_size", "pixel_size", "images", "measurements"})
    if (!seen.count(required)) problems->Add(file.label + ": the key " + required + " is missing");
  return p;
}

// One control or check point line.
struct ControlPoint {
  int32_t id;
  Epho_PointUsage usage;
  double X, Y, Z;
  std::array<float, 3> std;
  std::string label;
  size_t line;
};

std::vector<ControlPoint> ReadControl(const std::string& path, Problems* problems) {
  std::vector<ControlPoint> points;
  const TextFile file = ReadTextFile(path);
  std::set<int64_t> ids;
  std::vector<std::string> tok;
  for (size_t i = 0; i < file.lines.size(); ++i) {
    const size_t line = i + 1;
    std::string why;
    if (!Tokenize(file.lines[i], true, &tok, &why)) {
      problems->Add(file.label, line, why);
      continue;
    }
    if (tok.empty()) continue;
    if (tok.size() != 5 && tok.size() != 6 && tok.size() != 8) {
      problems->Add(file.label, line,
                    "expected 5, 6 or 8 values (id X Y Z usage [std | stdX stdY stdZ]), found " +
                        std::to_string(tok.size()));
      continue;
    }
    ControlPoint c{0, GCP_CONTROL, 0, 0, 0, {{0, 0, 0}}, file.label, line};
    int64_t id = 0;
    if (!ParseInt(tok[0], 1, kMaxId, &id)) {
      problems->Add(
          file.label, line,
          "point id \"" + tok[0] + "\" is not a whole number 1 to " + std::to_string(kMaxId));
      continue;
    }
    c.id = static_cast<int32_t>(id);
    double* xyz[3] = {&c.X, &c.Y, &c.Z};
    bool ok = true;
    for (int k = 0; k < 3 && ok; ++k)
      if (!ParseDouble(tok[1 + k], xyz[k])) {
        problems->Add(file.label, line, "coordinate \"" + tok[1 + k] + "\" is not a number");
        ok = false;
      }
    if (!ok) continue;
    const std::string usage = Lower(tok[4]);
    if (usage == "control") {
      c.usage = GCP_CONTROL;
    } else if (usage == "check") {
      c.usage = GCP_CHECK;
    } else {
      problems->Add(file.label, line, "usage \"" + tok[4] + "\" is not control or check");
      continue;
    }
    for (size_t k = 5; k < tok.size() && ok; ++k) {
      double s;
      if (!ParseDouble(tok[k], &s) || !(s > 0)) {
        problems->Add(file.label, line,
                      "standard deviation \"" + tok[k] + "\" is not a positive number");
        ok = false;
      } else {
        c.std[k - 5] = static_cast<float>(s);
      }
    }
    if (!ok) continue;
    if (tok.size() == 6) c.std[1] = c.std[2] = c.std[0];
    if (!ids.insert(id).second) {
      problems->Add(file.label, line, "point " + std::to_string(id) + " is listed twice");
      continue;
    }
    points.push_back(c);
  }
  return points;
}

void SetLens(Epho_Camera* c, const Epho_CameraFrameInfo& info) {
  std::vector<double> lens;
  const int n = info.extendedParameters ? epho_ExtendedLensModelValueCount(info.extendedModel) : 0;
  if (n > 0) {
    // The record of an extended model: its code, a model scale of 1, two
    // unused slots, the camera file's values in their order, padded to the
    // record's length.
    const int count = info.extendedModel == EPHO_LENS_MODEL_TARVO       ? 26
                      : info.extendedModel == EPHO_LENS_MODEL_AUSTRALIS ? 11
                                                                        : 13;
    const int code = info.extendedModel == EPHO_LENS_MODEL_TARVO       ? 1
                     : info.extendedModel == EPHO_LENS_MODEL_AUSTRALIS ? 2
                                                                       : 3;
    lens.assign(count, 0.0);
    lens[0] = code;
    lens[1] = 1.0;
    std::copy(info.extendedParameters, info.extendedParameters + n, lens.begin() + 4);
  } else if (info.k0 != 0 || info.k1 != 0 || info.k2 != 0) {
    lens = {info.k0, info.k1, info.k2};  // dx = x (k0 + k1 r^2 + k2 r^4), mm
  }
  if (lens.empty()) return;
  c->LensDistortion.data =
      static_cast<double*>(emsc_MemDup(lens.data(), lens.size() * sizeof(double)));
  if (!c->LensDistortion.data) throw std::bad_alloc();
  c->LensDistortion.count = static_cast<int32_t>(lens.size());
}

}  // namespace

Project ReadTextProject(const std::string& projectFile) {
  Problems problems;
  const ProjectFile pf = ReadProjectFile(projectFile, &problems);
  problems.RaiseIfAny();

  // The camera calibration file.
  Eerr_ErrorReport* err = nullptr;
  const std::wstring cameraName = kzdv::FromUtf8(pf.camera);
  Epho_CameraFrameInfo* infoRaw = CameraInfoFileRead(cameraName.c_str(), nullptr, &err);
  if (!infoRaw) {
    std::string why = err ? kzdv::ToUtf8(kzdv::ReportText(err)) : "cannot be read";
    eerr_DeleteErrorReport(err);
    while (!why.empty() && (why.back() == '\n' || why.back() == ' ')) why.pop_back();
    throw InterchangeError({pf.camera + ": " + why});
  }
  std::unique_ptr<Epho_CameraFrameInfo, void (*)(Epho_CameraFrameInfo*)> info(
      infoRaw, [](Epho_CameraFrameInfo* c) { epho_CameraFrameInfoDelete(c); });
  if (!(info->focalLength_mm > 0))
    throw InterchangeError({pf.camera + ": the focal length is not positive"});

  // Control points first: their heights give the cameras' mean height.
  std::vector<ControlPoint> control;
  if (!pf.control.empty()) control = ReadControl(pf.control, &problems);
  double zMean = 0;
  for (const ControlPoint& c : control) zMean += c.Z / control.size();

  Project project;
  std::map<std::string, int32_t> imageIds;
  {
    const TextFile file = ReadTextFile(pf.images);
    std::vector<std::string> tok;
    for (size_t i = 0; i < file.lines.size(); ++i) {
      const size_t line = i + 1;
      std::string why;
      if (!Tokenize(file.lines[i], true, &tok, &why)) {
        problems.Add(file.label, line, why);
        continue;
      }
      if (tok.empty()) continue;
      if (tok.size() != 8) {
        problems.Add(file.label, line,
                     "expected 8 values (name file X Y Z omega phi kappa), found " +
                         std::to_string(tok.size()));
        continue;
      }
      double v[6];
      bool ok = true;
      for (int k = 0; k < 6 && ok; ++k)
        if (!ParseDouble(tok[2 + k], &v[k])) {
          problems.Add(file.label, line, "\"" + tok[2 + k] + "\" is not a number");
          ok = false;
        }
      if (!ok) continue;
      if (imageIds.count(tok[0])) {
        problems.Add(file.label, line, "image \"" + tok[0] + "\" is listed twice");
        continue;
      }
      Image image;
      image.id = static_cast<int32_t>(project.images.size() + 1);
      image.name = tok[1];
      image.columns = static_cast<int32_t>(pf.columns);
      image.rows = static_cast<int32_t>(pf.rows);
      image.camera.reset(epho_CameraCreate(nullptr));
      if (!image.camera) throw std::bad_alloc();
      Epho_Camera& c = *image.camera;
      // Film (mm, from the principal point, y up) from file pixels (corner
      // origin): the principal point sits x0, y0 off the image centre.
      const double px = pf.pixelX, py = pf.pixelY;
      const double cx = pf.columns * px / 2, cy = pf.rows * py / 2;
      const double forSrc[6] = {px, 0, -cx - info->x0_mm, 0, -py, cy - info->y0_mm};
      const double invSrc[6] = {1 / px, 0,       (cx + info->x0_mm) / px,
                                0,      -1 / py, (cy - info->y0_mm) / py};
      std::memcpy(c.forSrcAffine, forSrc, sizeof forSrc);
      std::memcpy(c.invSrcAffine, invSrc, sizeof invSrc);
      c.coeffs[0] = info->focalLength_mm;
      c.coeffs[3] = v[0], c.coeffs[4] = v[1], c.coeffs[5] = v[2];
      const std::wstring unit = kzdv::FromUtf8(pf.angles);
      for (int k = 0; k < 3; ++k) c.coeffs[6 + k] = epho_input2rad(v[3 + k], unit.c_str());
      c.RotationSystem = EPHO_OMEGA_PHI_KAPPA;
      c.direction = EMOD_FORWARD;
      c.demsource = EMOD_DEM_CONSTANT;
      c.z_mean = zMean;
      SetLens(&c, *info);
      imageIds[tok[0]] = image.id;
      project.images.push_back(std::move(image));
    }
  }

  std::map<int32_t, size_t> pointIndex;
  for (const ControlPoint& c : control) {
    Point p;
    p.id = c.id;
    p.usage = c.usage;
    p.known = true;
    p.X = c.X, p.Y = c.Y, p.Z = c.Z;
    p.std = c.std;
    pointIndex[p.id] = project.points.size();
    project.points.push_back(std::move(p));
  }
  {
    const TextFile file = ReadTextFile(pf.measurements);
    std::set<std::pair<int32_t, int32_t>> measured;
    std::vector<std::string> tok;
    for (size_t i = 0; i < file.lines.size(); ++i) {
      const size_t line = i + 1;
      std::string why;
      if (!Tokenize(file.lines[i], true, &tok, &why)) {
        problems.Add(file.label, line, why);
        continue;
      }
      if (tok.empty()) continue;
      if (tok.size() != 4) {
        problems.Add(file.label, line,
                     "expected 4 values (image point x y), found " + std::to_string(tok.size()));
        continue;
      }
      auto image = imageIds.find(tok[0]);
      if (image == imageIds.end()) {
        problems.Add(file.label, line, "image \"" + tok[0] + "\" is not in the image list");
        continue;
      }
      int64_t id = 0;
      if (!ParseInt(tok[1], 1, kMaxId, &id)) {
        problems.Add(
            file.label, line,
            "point id \"" + tok[1] + "\" is not a whole number 1 to " + std::to_string(kMaxId));
        continue;
      }
      Observation o{image->second, 0, 0};
      if (!ParseDouble(tok[2], &o.x) || !ParseDouble(tok[3], &o.y)) {
        problems.Add(file.label, line, "x and y must be numbers (file pixels)");
        continue;
      }
      if (o.x < 0 || o.y < 0 || o.x > pf.columns || o.y > pf.rows) {
        problems.Add(file.label, line,
                     "(" + tok[2] + ", " + tok[3] + ") lies outside the image (0 to " +
                         std::to_string(pf.columns) + ", 0 to " + std::to_string(pf.rows) + ")");
        continue;
      }
      if (!measured.insert({o.image, static_cast<int32_t>(id)}).second) {
        problems.Add(
            file.label, line,
            "point " + std::to_string(id) + " is measured twice in image \"" + tok[0] + "\"");
        continue;
      }
      auto it = pointIndex.find(static_cast<int32_t>(id));
      if (it == pointIndex.end()) {
        Point p;  // a tie point: its ground coordinates come from the triangulation
        p.id = static_cast<int32_t>(id);
        it = pointIndex.emplace(p.id, project.points.size()).first;
        project.points.push_back(std::move(p));
      }
      project.points[it->second].observations.push_back(o);
    }
  }
  problems.RaiseIfAny();
  return project;
}

void ApplyControlFile(const std::string& file, Project* project) {
  Problems problems;
  const std::vector<ControlPoint> control = ReadControl(file, &problems);
  std::map<int32_t, Point*> points;
  for (Point& p : project->points) points[p.id] = &p;
  for (const ControlPoint& c : control) {
    auto it = points.find(c.id);
    if (it == points.end()) {
      problems.Add(c.label, c.line, "point " + std::to_string(c.id) + " is not in the block");
      continue;
    }
    Point& p = *it->second;
    p.usage = c.usage;
    p.known = true;
    p.X = c.X, p.Y = c.Y, p.Z = c.Z;
    p.std = c.std;
  }
  problems.RaiseIfAny();
}

}  // namespace epho::interchange
