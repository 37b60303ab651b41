// COLMAP's text model: reading and checking the three files, writing them,
// and converting between the model and the neutral project.
#include <algorithm>
#include <cmath>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>

#include "epho/interchange/interchange.h"
#include "epho/interchange/line_reader_internal.h"
#include "platform/efio/atomic_file.h"
#include "platform/estr/utf8.h"

namespace epho::interchange {

namespace {

constexpr int64_t kMaxId = 0x7fffffff;  // ids become the block's int32 ids
constexpr int64_t kMaxSize = 1 << 24;   // image sides, pixels

std::string Path(const std::string& folder, const char* name) {
  return (std::filesystem::path(folder) / name).string();
}

bool Skip(const std::vector<std::string>& tokens) { return tokens.empty(); }

void ReadCameras(const std::string& folder, ColmapModel* model, Problems* problems) {
  const TextFile file = ReadTextFile(Path(folder, "cameras.txt"));
  std::set<uint32_t> ids;
  std::vector<std::string> tok;
  for (size_t i = 0; i < file.lines.size(); ++i) {
    std::string why;
    const size_t line = i + 1;
    if (!Tokenize(file.lines[i], false, &tok, &why) || Skip(tok)) continue;
    if (tok.size() < 4) {
      problems->Add(file.label, line,
                    "expected CAMERA_ID MODEL WIDTH HEIGHT PARAMS[], found " +
                        std::to_string(tok.size()) + " values");
      continue;
    }
    ColmapCamera c;
    int64_t id = 0, w = 0, h = 0;
    if (!ParseInt(tok[0], 1, kMaxId, &id)) {
      problems->Add(
          file.label, line,
          "camera id \"" + tok[0] + "\" is not a whole number 1 to " + std::to_string(kMaxId));
      continue;
    }
    c.id = static_cast<uint32_t>(id);
    c.model = tok[1];
    const int n = ColmapParamCount(c.model);
    if (n == 0) {
      problems->Add(file.label, line,
                    "camera model " + c.model +
                        " is not supported (SIMPLE_PINHOLE, PINHOLE, SIMPLE_RADIAL, RADIAL, "
                        "OPENCV, FULL_OPENCV are)");
      continue;
    }
    if (tok.size() != static_cast<size_t>(4 + n)) {
      problems->Add(file.label, line,
                    "expected " + std::to_string(4 + n) + " values for a " + c.model +
                        " camera, found " + std::to_string(tok.size()));
      continue;
    }
    if (!ParseInt(tok[2], 1, kMaxSize, &w) || !ParseInt(tok[3], 1, kMaxSize, &h)) {
      problems->Add(file.label, line,
                    "width and height must be whole numbers 1 to " + std::to_string(kMaxSize));
      continue;
    }
    c.width = static_cast<int32_t>(w);
    c.height = static_cast<int32_t>(h);
    bool ok = true;
    for (int k = 0; k < n && ok; ++k) {
      double v;
      ok = ParseDouble(tok[4 + k], &v);
      if (ok)
        c.params.push_back(v);
      else
        problems->Add(
            file.label, line,
            "parameter " + std::to_string(k + 1) + " \"" + tok[4 + k] + "\" is not a number");
    }
    if (!ok) continue;
    if (!ids.insert(c.id).second) {
      problems->Add(file.label, line, "camera " + std::to_string(c.id) + " is defined twice");
      continue;
    }
    model->cameras.push_back(std::move(c));
  }
}

void ReadImages(const std::string& folder, ColmapModel* model, Problems* problems,
                std::vector<size_t>* pointsLine) {
  const TextFile file = ReadTextFile(Path(folder, "images.txt"));
  std::set<uint32_t> ids;
  std::set<uint32_t> cameras;
  for (const ColmapCamera& c : model->cameras) cameras.insert(c.id);
  std::vector<std::string> tok;
  for (size_t i = 0; i < file.lines.size(); ++i) {
    std::string why;
    const size_t line = i + 1;
    if (!Tokenize(file.lines[i], false, &tok, &why) || Skip(tok)) continue;
    // An image is two lines: the pose line, then its 2D points (possibly
    // empty), which is never skipped as blank.
    const size_t next = i + 1;
    ++i;
    if (tok.size() != 10) {
      problems->Add(file.label, line,
                    "expected 10 values (IMAGE_ID QW QX QY QZ TX TY TZ CAMERA_ID NAME), found " +
                        std::to_string(tok.size()));
      continue;
    }
    ColmapImage im;
    int64_t id = 0, cam = 0;
    bool ok = ParseInt(tok[0], 1, kMaxId, &id);
    if (!ok)
      problems->Add(
          file.label, line,
          "image id \"" + tok[0] + "\" is not a whole number 1 to " + std::to_string(kMaxId));
    for (int k = 0; ok && k < 7; ++k) {
      double v;
      if (!ParseDouble(tok[1 + k], &v)) {
        problems->Add(file.label, line, "pose value \"" + tok[1 + k] + "\" is not a number");
        ok = false;
      } else if (k < 4) {
        im.q[k] = v;
      } else {
        im.t[k - 4] = v;
      }
    }
    if (ok && !ParseInt(tok[8], 1, kMaxId, &cam)) {
      problems->Add(file.label, line, "camera id \"" + tok[8] + "\" is not a whole number");
      ok = false;
    }
    if (ok && !cameras.count(static_cast<uint32_t>(cam))) {
      problems->Add(file.label, line, "camera " + std::to_string(cam) + " is not in cameras.txt");
      ok = false;
    }
    if (ok && im.q[0] == 0 && im.q[1] == 0 && im.q[2] == 0 && im.q[3] == 0) {
      problems->Add(file.label, line, "the rotation quaternion is zero");
      ok = false;
    }
    if (ok && !ids.insert(static_cast<uint32_t>(id)).second) {
      problems->Add(file.label, line, "image " + std::to_string(id) + " is defined twice");
      ok = false;
    }
    im.id = static_cast<uint32_t>(id);
    im.camera = static_cast<uint32_t>(cam);
    im.name = tok[9];
    if (next < file.lines.size()) {
      std::vector<std::string> pts;
      Tokenize(file.lines[next], false, &pts, &why);
      if (pts.size() % 3 != 0) {
        problems->Add(
            file.label, next + 1,
            "expected X Y POINT3D_ID triples, found " + std::to_string(pts.size()) + " values");
        ok = false;
      }
      for (size_t k = 0; ok && k + 2 < pts.size(); k += 3) {
        ColmapPoint2D p;
        int64_t p3 = 0;
        if (!ParseDouble(pts[k], &p.x) || !ParseDouble(pts[k + 1], &p.y) ||
            !ParseInt(pts[k + 2], -1, INT64_MAX, &p3)) {
          problems->Add(file.label, next + 1,
                        "2D point " + std::to_string(k / 3) + " (\"" + pts[k] + " " + pts[k + 1] +
                            " " + pts[k + 2] + "\") is not X Y POINT3D_ID");
          ok = false;
          break;
        }
        p.point3D = p3;
        im.points2D.push_back(p);
      }
    } else {
      problems->Add(file.label, line, "the image has no line of 2D points after it");
      ok = false;
    }
    if (ok) {
      model->images.push_back(std::move(im));
      pointsLine->push_back(next + 1);
    }
  }
}

void ReadPoints(const std::string& folder, ColmapModel* model, Problems* problems) {
  const std::string path = Path(folder, "points3D.txt");
  const TextFile file = ReadTextFile(path);
  std::map<uint32_t, const ColmapImage*> images;
  for (const ColmapImage& im : model->images) images[im.id] = &im;
  std::set<uint64_t> ids;
  std::vector<std::string> tok;
  for (size_t i = 0; i < file.lines.size(); ++i) {
    std::string why;
    const size_t line = i + 1;
    if (!Tokenize(file.lines[i], false, &tok, &why) || Skip(tok)) continue;
    if (tok.size() < 8 || (tok.size() - 8) % 2 != 0) {
      problems->Add(file.label, line,
                    "expected POINT3D_ID X Y Z R G B ERROR then IMAGE_ID POINT2D_IDX pairs, "
                    "found " +
                        std::to_string(tok.size()) + " values");
      continue;
    }
    ColmapPoint3D p;
    int64_t id = 0;
    bool ok = ParseInt(tok[0], 1, kMaxId, &id);
    if (!ok)
      problems->Add(
          file.label, line,
          "point id \"" + tok[0] + "\" is not a whole number 1 to " + std::to_string(kMaxId));
    for (int k = 0; ok && k < 3; ++k) {
      int64_t c = 0;
      if (!ParseDouble(tok[1 + k], &p.xyz[k])) {
        problems->Add(file.label, line, "coordinate \"" + tok[1 + k] + "\" is not a number");
        ok = false;
      } else if (!ParseInt(tok[4 + k], 0, 255, &c)) {
        problems->Add(file.label, line, "colour \"" + tok[4 + k] + "\" is not 0 to 255");
        ok = false;
      } else {
        p.rgb[k] = static_cast<int>(c);
      }
    }
    if (ok && !ParseDouble(tok[7], &p.error)) {
      problems->Add(file.label, line, "error \"" + tok[7] + "\" is not a number");
      ok = false;
    }
    p.id = static_cast<uint64_t>(id);
    for (size_t k = 8; ok && k + 1 < tok.size(); k += 2) {
      int64_t image = 0, index = 0;
      if (!ParseInt(tok[k], 1, kMaxId, &image) || !ParseInt(tok[k + 1], 0, kMaxId, &index)) {
        problems->Add(
            file.label, line,
            "track element \"" + tok[k] + " " + tok[k + 1] + "\" is not IMAGE_ID POINT2D_IDX");
        ok = false;
        break;
      }
      auto it = images.find(static_cast<uint32_t>(image));
      if (it == images.end()) {
        problems->Add(
            file.label, line,
            "track names image " + std::to_string(image) + ", which images.txt does not hold");
        ok = false;
      } else if (static_cast<size_t>(index) >= it->second->points2D.size()) {
        problems->Add(file.label, line,
                      "track names 2D point " + std::to_string(index) + " of image " +
                          std::to_string(image) + ", which has " +
                          std::to_string(it->second->points2D.size()));
        ok = false;
      } else if (it->second->points2D[index].point3D != id) {
        problems->Add(file.label, line,
                      "track names 2D point " + std::to_string(index) + " of image " +
                          std::to_string(image) + ", which belongs to point " +
                          std::to_string(it->second->points2D[index].point3D));
        ok = false;
      } else {
        p.track.push_back({static_cast<uint32_t>(image), static_cast<uint32_t>(index)});
      }
    }
    if (ok && !ids.insert(p.id).second) {
      problems->Add(file.label, line, "point " + std::to_string(p.id) + " is defined twice");
      ok = false;
    }
    if (ok) model->points.push_back(std::move(p));
  }
}

// Every 2D point that names a 3D point must be in that point's track.
void CheckTracks(const ColmapModel& model, const std::vector<size_t>& pointsLine,
                 Problems* problems) {
  std::set<std::pair<uint64_t, std::pair<uint32_t, uint32_t>>> tracked;
  std::set<uint64_t> points;
  for (const ColmapPoint3D& p : model.points) {
    points.insert(p.id);
    for (const ColmapTrackElement& e : p.track) tracked.insert({p.id, {e.image, e.point2D}});
  }
  for (size_t i = 0; i < model.images.size(); ++i) {
    const ColmapImage& im = model.images[i];
    for (size_t k = 0; k < im.points2D.size(); ++k) {
      const int64_t p3 = im.points2D[k].point3D;
      if (p3 < 0) continue;
      const uint64_t id = static_cast<uint64_t>(p3);
      if (!points.count(id))
        problems->Add("images.txt", pointsLine[i],
                      "2D point " + std::to_string(k) + " names point " + std::to_string(id) +
                          ", which points3D.txt does not hold");
      else if (!tracked.count({id, {im.id, static_cast<uint32_t>(k)}}))
        problems->Add("images.txt", pointsLine[i],
                      "2D point " + std::to_string(k) + " names point " + std::to_string(id) +
                          ", whose track does not hold it");
    }
  }
}

void WriteFile(const std::string& path, const std::string& text) {
  std::wstring why;
  if (!kzdv::efio::ReplaceFileWithStream(
          path,
          [&](FILE* out, std::wstring* message) {
            if (std::fwrite(text.data(), 1, text.size(), out) != text.size()) {
              *message = L"write error";
              return false;
            }
            return true;
          },
          &why))
    throw InterchangeError({kzdv::ToUtf8(why)});
}

}  // namespace

ColmapModel ReadColmapModel(const std::string& folder) {
  ColmapModel model;
  Problems problems;
  ReadCameras(folder, &model, &problems);
  std::vector<size_t> pointsLine;
  ReadImages(folder, &model, &problems, &pointsLine);
  ReadPoints(folder, &model, &problems);
  if (problems.empty()) CheckTracks(model, pointsLine, &problems);
  problems.RaiseIfAny();
  return model;
}

void WriteColmapModel(const ColmapModel& model, const std::string& folder) {
  std::ostringstream cameras, images, points;
  cameras << "# Camera list with one line of data per camera:\n"
             "#   CAMERA_ID, MODEL, WIDTH, HEIGHT, PARAMS[]\n"
             "# Number of cameras: "
          << model.cameras.size() << "\n";
  for (const ColmapCamera& c : model.cameras) {
    cameras << c.id << ' ' << c.model << ' ' << c.width << ' ' << c.height;
    for (double v : c.params) cameras << ' ' << FormatDouble(v);
    cameras << '\n';
  }
  size_t observations = 0;
  for (const ColmapImage& im : model.images)
    for (const ColmapPoint2D& p : im.points2D) observations += p.point3D >= 0;
  images << "# Image list with two lines of data per image:\n"
            "#   IMAGE_ID, QW, QX, QY, QZ, TX, TY, TZ, CAMERA_ID, NAME\n"
            "#   POINTS2D[] as (X, Y, POINT3D_ID)\n"
            "# Number of images: "
         << model.images.size() << ", mean observations per image: "
         << FormatDouble(model.images.empty() ? 0.0 : double(observations) / model.images.size())
         << "\n";
  for (const ColmapImage& im : model.images) {
    if (im.name.find_first_of(" \t\r\n") != std::string::npos)
      throw InterchangeError({"image " + std::to_string(im.id) + ": the name \"" + im.name +
                              "\" holds a blank, which COLMAP's files cannot"});
    images << im.id;
    for (double v : im.q) images << ' ' << FormatDouble(v);
    for (double v : im.t) images << ' ' << FormatDouble(v);
    images << ' ' << im.camera << ' ' << im.name << '\n';
    for (size_t k = 0; k < im.points2D.size(); ++k) {
      const ColmapPoint2D& p = im.points2D[k];
      images << (k ? " " : "") << FormatDouble(p.x) << ' ' << FormatDouble(p.y) << ' ' << p.point3D;
    }
    images << '\n';
  }
  double track = 0;
  for (const ColmapPoint3D& p : model.points) track += p.track.size();
  points << "# 3D point list with one line of data per point:\n"
            "#   POINT3D_ID, X, Y, Z, R, G, B, ERROR, TRACK[] as (IMAGE_ID, POINT2D_IDX)\n"
            "# Number of points: "
         << model.points.size() << ", mean track length: "
         << FormatDouble(model.points.empty() ? 0.0 : track / model.points.size()) << "\n";
  for (const ColmapPoint3D& p : model.points) {
    points << p.id;
    for (double v : p.xyz) points << ' ' << FormatDouble(v);
    for (int v : p.rgb) points << ' ' << v;
    points << ' ' << FormatDouble(p.error);
    for (const ColmapTrackElement& e : p.track) points << ' ' << e.image << ' ' << e.point2D;
    points << '\n';
  }
  WriteFile(Path(folder, "cameras.txt"), cameras.str());
  WriteFile(Path(folder, "images.txt"), images.str());
  WriteFile(Path(folder, "points3D.txt"), points.str());
}

namespace {

// Images and points in id order: COLMAP writes them in no particular order,
// and the order of the 2D points of each image follows that of the points.
template <typename T>
std::vector<const T*> ById(const std::vector<T>& items) {
  std::vector<const T*> out;
  for (const T& item : items) out.push_back(&item);
  std::sort(out.begin(), out.end(), [](const T* a, const T* b) { return a->id < b->id; });
  return out;
}

}  // namespace

Project ProjectFromColmap(const ColmapModel& model) {
  std::map<uint32_t, const ColmapCamera*> cameras;
  for (const ColmapCamera& c : model.cameras) cameras[c.id] = &c;
  std::map<uint64_t, size_t> pointIndex;
  Project project;
  double zSum = 0;
  for (const ColmapPoint3D* point : ById(model.points)) {
    const ColmapPoint3D& p = *point;
    Point q;
    q.id = static_cast<int32_t>(p.id);
    q.usage = GCP_TIE;
    q.known = true;
    q.X = p.xyz[0], q.Y = p.xyz[1], q.Z = p.xyz[2];
    for (int k = 0; k < 3; ++k) q.color[k] = static_cast<float>(p.rgb[k]);
    zSum += q.Z;
    pointIndex[p.id] = project.points.size();
    project.points.push_back(std::move(q));
  }
  const double zMean = project.points.empty() ? 0.0 : zSum / project.points.size();
  for (const ColmapImage* image_ : ById(model.images)) {
    const ColmapImage& im = *image_;
    const ColmapCamera& c = *cameras.at(im.camera);
    Image image;
    image.id = static_cast<int32_t>(im.id);
    image.name = im.name;
    image.columns = c.width;
    image.rows = c.height;
    try {
      image.camera = CameraFromColmap(c, im.q, im.t);
    } catch (const InterchangeError& e) {
      throw InterchangeError(
          {"image " + std::to_string(im.id) + " (" + im.name + "): " + e.what()});
    }
    image.camera->z_mean = zMean;
    for (const ColmapPoint2D& p : im.points2D) {
      if (p.point3D < 0) continue;
      project.points[pointIndex.at(static_cast<uint64_t>(p.point3D))].observations.push_back(
          {image.id, p.x, p.y});
    }
    project.images.push_back(std::move(image));
  }
  return project;
}

ColmapModel ColmapFromProject(const Project& project) {
  ColmapModel model;
  Problems problems;
  std::map<int32_t, size_t> imageIndex;
  for (const Image* image_ : ById(project.images)) {
    const Image& image = *image_;
    ColmapImage im;
    ColmapCamera cam;
    try {
      if (!image.camera) throw InterchangeError({"the image has no camera"});
      ColmapFromCamera(*image.camera, image.columns, image.rows, &cam, &im.q, &im.t);
    } catch (const InterchangeError& e) {
      problems.Add("image " + std::to_string(image.id) + " (" + image.name + "): " + e.what());
      continue;
    }
    // Images with equal intrinsics share one camera.
    uint32_t id = 0;
    for (const ColmapCamera& c : model.cameras)
      if (c.model == cam.model && c.width == cam.width && c.height == cam.height &&
          c.params == cam.params)
        id = c.id;
    if (id == 0) {
      cam.id = id = static_cast<uint32_t>(model.cameras.size() + 1);
      model.cameras.push_back(cam);
    }
    if (image.id < 1) {
      problems.Add("image " + std::to_string(image.id) + " (" + image.name +
                   "): COLMAP image ids start at 1");
      continue;
    }
    im.id = static_cast<uint32_t>(image.id);
    im.camera = id;
    im.name = image.name;
    imageIndex[image.id] = model.images.size();
    model.images.push_back(std::move(im));
  }
  for (const Point* point : ById(project.points)) {
    const Point& p = *point;
    if (p.observations.empty()) continue;
    if (!p.known || p.id < 1) {
      problems.Add("point " + std::to_string(p.id) +
                   (p.known ? ": COLMAP point ids start at 1"
                            : ": has no ground coordinates (triangulate the block first)"));
      continue;
    }
    ColmapPoint3D q;
    q.id = static_cast<uint64_t>(p.id);
    q.xyz = {p.X, p.Y, p.Z};
    for (int k = 0; k < 3; ++k)
      q.rgb[k] = static_cast<int>(std::lround(std::min(255.0f, std::max(0.0f, p.color[k]))));
    double errorSum = 0;
    for (const Observation& o : p.observations) {
      auto it = imageIndex.find(o.image);
      if (it == imageIndex.end()) continue;  // an image that could not be written
      ColmapImage& im = model.images[it->second];
      q.track.push_back({im.id, static_cast<uint32_t>(im.points2D.size())});
      im.points2D.push_back({o.x, o.y, static_cast<int64_t>(p.id)});
      double pixel[2];
      const ColmapCamera& cam = model.cameras[im.camera - 1];
      if (ColmapProject(cam, im.q, im.t, q.xyz.data(), pixel))
        errorSum += std::hypot(pixel[0] - o.x, pixel[1] - o.y);
    }
    q.error = q.track.empty() ? 0.0 : errorSum / q.track.size();
    model.points.push_back(std::move(q));
  }
  problems.RaiseIfAny();
  return model;
}

}  // namespace epho::interchange
