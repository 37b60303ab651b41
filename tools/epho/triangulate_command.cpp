// `epho triangulate BLOCK [--report FILE] [--json FILE] [--plot FILE.svg]`:
// the triangulation refinement of a block whose frames hold frame cameras.
//
// The block's images become the refinement's images (each camera as a
// ground-to-pixel sensor model, its pixel-to-film affine as the image
// affine), its control and check points the ground points (control held
// fixed), and its tie points the points the run intersects. After a
// converged run the block gets the results and is saved:
//  - tie points: the refined ground coordinates;
//  - control and check points: their given coordinates stay, the ground
//    residuals (given minus adjusted) are stored beside them;
//  - image points: the image residuals (pixels) of every measurement used.
// Measurements are used when both coordinates are defined and the point is
// not flagged as a blunder; tie points seen in fewer than two images are left
// out. A run that fails or does not converge leaves the block file as it was
// (the report tells why) and exits 1.
#include "triangulate_command.h"

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>
#include <utility>

#include "epho/triangulation.h"
#include "platform/eerr/error_frame.h"
#include "platform/estr/utf8.h"
#include "registry.h"

namespace epho_tool {

namespace {

const wchar_t kFrameDesignName[] = L"Epho_BlockFrame";

// Memory form of an "Epho_BlockFrame" record.
struct FrameRecord {
  Emif_CountedString imageName;
  int32_t imageId;
  int32_t columns;
  int32_t rows;
  void* camera;  // "Camera_ModelX" record
};

struct DesignDelete {
  void operator()(Emif_Design* d) const { emif_DesignDestroy(d); }
};
using DesignPtr = std::unique_ptr<Emif_Design, DesignDelete>;

std::string ReportMessage(Eerr_ErrorReport* err) {
  std::string text = err ? kzdv::ToUtf8(kzdv::ReportText(err)) : "unknown error";
  eerr_DeleteErrorReport(err);
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  return text;
}

DesignPtr FrameDesign(Eerr_ErrorReport** err) {
  const Emif_Design* camera = epho_CameraModelXDesignGet(err);
  if (!camera) return nullptr;
  return DesignPtr(emif_DesignCreate(kFrameDesignName, EMIF_T_STRING, L"imageName", EMIF_T_LONG,
                                     L"imageId", EMIF_T_LONG, L"columns", EMIF_T_LONG, L"rows",
                                     EMIF_T_OBJECT_PTR, L"camera", camera, 0, err));
}

}  // namespace

bool PutBlockFrames(EphoBlockFile* block, const std::vector<BlockFrame>& frames,
                    std::string* error) {
  Eerr_ErrorReport* err = nullptr;
  DesignPtr design = FrameDesign(&err);
  if (!design) {
    *error = "frame design: " + ReportMessage(err);
    return false;
  }
  EdlmList images(EphoBlockFile::freeBlkImage);
  images.Reset(edlm_InitList(sizeof(void*), static_cast<long>(frames.size()),
                             EphoBlockFile::freeBlkImage, nullptr, nullptr));
  std::vector<long> sizes;
  for (const BlockFrame& f : frames) {
    if (!f.camera) {
      *error = "image " + std::to_string(f.id) + " has no camera";
      return false;
    }
    Epho_CameraXform* xform =
        epho_CameraXformGetFromCameraData(epho_CameraCopy(f.camera.get(), &err), &err);
    Emif_Design* cameraDesign = nullptr;
    void* cameraRecord = nullptr;
    const bool ok =
        xform && epho_CameraXformConvertToMIFable(xform, &cameraDesign, &cameraRecord, &err);
    epho_CameraXformDelete(xform);
    DesignPtr cameraDesignHold(cameraDesign);
    if (!ok) {
      *error = "camera of image " + std::to_string(f.id) + ": " + ReportMessage(err);
      return false;
    }
    const std::wstring name = kzdv::FromUtf8(f.image);
    FrameRecord rec{{static_cast<int32_t>(name.size() + 1), const_cast<wchar_t*>(name.c_str())},
                    f.id,
                    f.columns,
                    f.rows,
                    cameraRecord};
    uint32_t size = 0;
    unsigned char* bytes = emif_ObjectEncode(design.get(), &rec, 0, &size, &err);
    emif_ObjectFree(cameraDesign, cameraRecord, nullptr);
    if (!bytes) {
      *error = "frame of image " + std::to_string(f.id) + ": " + ReportMessage(err);
      return false;
    }
    if (!edlm_Add(images.Get(), bytes, &err)) {
      emsc_HeapFree(bytes);
      *error = ReportMessage(err);
      return false;
    }
    sizes.push_back(static_cast<long>(size));
  }
  try {
    block->PutImageList(images, sizes.data(), design.get());
  } catch (const EerrException& e) {
    *error = kzdv::ToUtf8(kzdv::ReportText(e.Report()));
    return false;
  }
  return true;
}

bool GetBlockFrames(EphoBlockFile* block, std::vector<BlockFrame>* frames, std::string* error) {
  frames->clear();
  EdlmList images(EphoBlockFile::freeBlkImage);
  Emif_Design* stored = nullptr;
  unsigned long count = 0;
  std::vector<long> sizes;
  try {
    count = block->GetImageListCopy(images, &stored);
    sizes = block->GetFrameDataSizes();
  } catch (const EerrException& e) {
    *error = kzdv::ToUtf8(kzdv::ReportText(e.Report()));
    return false;
  }
  DesignPtr storedHold(stored);
  if (count == 0) {
    *error = "the block holds no images";
    return false;
  }
  if (!stored || std::wcscmp(emif_DesignNameGet(stored), kFrameDesignName) != 0) {
    *error = "the block's frames are not " + kzdv::ToUtf8(kFrameDesignName) +
             " records (frame design " +
             (stored ? kzdv::ToUtf8(emif_DesignNameGet(stored)) : std::string("none")) + ")";
    return false;
  }
  Eerr_ErrorReport* err = nullptr;
  DesignPtr ours = FrameDesign(&err);
  const Emif_Design* cameraDesign = ours ? epho_CameraModelXDesignGet(&err) : nullptr;
  if (!cameraDesign) {
    *error = "frame design: " + ReportMessage(err);
    return false;
  }
  for (unsigned long i = 0; i < count; ++i) {
    const auto* bytes = static_cast<const unsigned char*>(
        edlm_GetAddr(images.Get(), static_cast<long>(i), nullptr));
    void* decoded =
        bytes ? emif_ObjectDecode(stored, bytes, static_cast<size_t>(sizes[i]), &err) : nullptr;
    FrameRecord rec{};
    const bool converted = decoded && emif_ObjectConvert(stored, decoded, ours.get(), &rec, &err);
    emif_ObjectFree(stored, decoded, nullptr);
    if (!converted) {
      *error = "frame " + std::to_string(i) + ": " + ReportMessage(err);
      return false;
    }
    BlockFrame f;
    f.image = rec.imageName.data ? kzdv::ToUtf8(rec.imageName.data) : "";
    f.id = rec.imageId;
    f.columns = rec.columns;
    f.rows = rec.rows;
    Epho_CameraXform* xform =
        rec.camera ? epho_CameraXformConvertFromMIFable(cameraDesign, rec.camera, &err) : nullptr;
    emif_ObjectContentsFree(ours.get(), &rec, nullptr);
    if (xform) f.camera.reset(epho_CameraCopy(xform->camera, &err));
    epho_CameraXformDelete(xform);
    if (!f.camera) {
      *error = "camera of frame " + std::to_string(i) + ": " +
               (err ? ReportMessage(err) : std::string("none stored"));
      return false;
    }
    frames->push_back(std::move(f));
  }
  return true;
}

Epho_GroundPoint* MakeGroundPoint(int32_t id, Epho_PointUsage usage, double x, double y, double z,
                                  float std, const std::vector<ImageMeasure>& measures) {
  auto* gp = static_cast<Epho_GroundPoint*>(emsc_HeapCalloc(1, sizeof(Epho_GroundPoint)));
  if (!gp) return nullptr;
  gp->id = id;
  gp->groundX = x;
  gp->groundY = y;
  gp->groundZ = z;
  gp->xDefined = gp->yDefined = gp->zDefined = EMSC_TRUE;
  gp->pointType = GCP_FULL;
  gp->pointUsage = usage;
  gp->pointUsed = EMSC_TRUE;
  gp->stdX = gp->stdY = gp->stdZ = std;
  gp->imagePoints =
      edlm_InitList(sizeof(void*), static_cast<long>(measures.size()),
                    EphoBlockFile::freeImagePoint, EphoBlockFile::copyImagePoint, nullptr);
  for (const ImageMeasure& m : measures) {
    auto* ip = static_cast<Epho_ImagePoint*>(emsc_HeapCalloc(1, sizeof(Epho_ImagePoint)));
    if (!ip || !gp->imagePoints) {
      emsc_HeapFree(ip);
      EphoBlockFile::freeGroundPoint(gp);
      return nullptr;
    }
    ip->imageId = m.image;
    ip->imageX = m.x;
    ip->imageY = m.y;
    ip->xDefined = ip->yDefined = ip->pointUsed = EMSC_TRUE;
    edlm_Add(gp->imagePoints, ip, nullptr);
  }
  gp->imagePointCount = static_cast<int32_t>(measures.size());
  return gp;
}

namespace {

struct InputHolder {
  Epho_TriRefineInput in{};
  ~InputHolder() { epho_FreeTriRefineMemory(&in, nullptr); }
};

bool Used(const Epho_ImagePoint* ip) { return ip->xDefined && ip->yDefined && !ip->grossError; }

int Fail(const std::string& message) {
  std::fprintf(stderr, "epho triangulate: %s\n", message.c_str());
  return kExitFailure;
}

// Image residuals (pixels) by point and image id, from the run's JSON.
bool ReadImageResiduals(const std::string& json,
                        std::map<std::pair<int32_t, int32_t>, std::pair<double, double>>* out,
                        std::string* error) {
  namespace pt = boost::property_tree;
  try {
    pt::ptree root;
    pt::read_json(json, root);
    for (const auto& p : root.get_child("points")) {
      const int32_t id = p.second.get<int32_t>("id");
      for (const auto& r : p.second.get_child("rays"))
        (*out)[{id, r.second.get<int32_t>("image")}] = {r.second.get<double>("vx"),
                                                        r.second.get<double>("vy")};
    }
  } catch (const std::exception& e) {
    *error = std::string("cannot read the results: ") + e.what();
    return false;
  }
  return true;
}

}  // namespace

int Triangulate(const TriangulateOptions& o, TriangulateResult* result) {
  TriangulateResult local;
  TriangulateResult& res = result ? *result : local;
  namespace fs = std::filesystem;
  res.report = o.report.empty()
                   ? (fs::path(o.block).replace_extension().string() + "_triangulation.txt")
                   : o.report;
  EtxtTextU name(kzdv::FromUtf8(o.block));
  EphoBlockFile* block = nullptr;
  try {
    block = EphoBlockFile::Open(name, false);
  } catch (const EerrException& e) {
    return Fail(o.block + ": " + kzdv::ToUtf8(kzdv::ReportText(e.Report())));
  }
  if (!block) return Fail(o.block + ": no such block file");
  struct Closer {
    EphoBlockFile* b;
    ~Closer() { b->Close(); }
  } closer{block};

  std::string error;
  std::vector<BlockFrame> frames;
  if (!GetBlockFrames(block, &frames, &error)) return Fail(o.block + ": " + error);
  EdlmList points(EphoBlockFile::freeGroundPoint);
  EtxtTextU xyUnits, zUnits;
  try {
    block->GetObjectPointsListCopy(points);
    block->GetHorizontalUnits(xyUnits);
    block->GetVerticalUnits(zUnits);
  } catch (const EerrException& e) {
    return Fail(o.block + ": " + kzdv::ToUtf8(kzdv::ReportText(e.Report())));
  }
  if (xyUnits.empty()) xyUnits = L"meters";
  if (zUnits.empty()) zUnits = L"meters";

  // Images by id.
  std::map<int32_t, int> imageIndex;
  for (size_t i = 0; i < frames.size(); ++i)
    if (!imageIndex.emplace(frames[i].id, static_cast<int>(i)).second)
      return Fail(o.block + ": two images have the id " + std::to_string(frames[i].id));

  // Ground points and measurements.
  std::vector<Epho_TriGroundPoint> ground;
  std::vector<std::vector<Epho_TriImagePoint>> measured(frames.size());
  std::set<int32_t> ids;
  int skipped = 0;
  const long n = points.Count();
  for (long k = 0; k < n; ++k) {
    auto* gp = static_cast<Epho_GroundPoint*>(edlm_GetAddr(points.Get(), k, nullptr));
    if (!ids.insert(gp->id).second)
      return Fail(o.block + ": two ground points have the id " + std::to_string(gp->id));
    if (gp->pointUsage != GCP_CONTROL && gp->pointUsage != GCP_CHECK && gp->pointUsage != GCP_TIE)
      continue;
    std::vector<std::pair<int, Epho_TriImagePoint>> rays;
    const long m = gp->imagePoints ? edlm_CountList(gp->imagePoints) : 0;
    for (long j = 0; j < m; ++j) {
      auto* ip = static_cast<Epho_ImagePoint*>(edlm_GetAddr(gp->imagePoints, j, nullptr));
      if (!Used(ip)) continue;
      auto it = imageIndex.find(ip->imageId);
      if (it == imageIndex.end())
        return Fail(o.block + ": point " + std::to_string(gp->id) + " is measured on image " +
                    std::to_string(ip->imageId) + ", which the block does not hold");
      Epho_TriImagePoint q{};
      q.pointID = gp->id;
      q.x = ip->imageX;
      q.y = ip->imageY;
      rays.emplace_back(it->second, q);
    }
    if (rays.size() < 2 && gp->pointUsage != GCP_CONTROL) {
      ++skipped;
      continue;
    }
    if (rays.empty()) {
      ++skipped;
      continue;
    }
    for (auto& [image, q] : rays) measured[image].push_back(q);
    if (gp->pointUsage == GCP_TIE) {
      ++res.tie;
      continue;
    }
    Epho_TriGroundPoint g{};
    g.pointID = gp->id;
    g.type = gp->pointType == GCP_HORIZ  ? EPHO_TRI_TYPE_HORIZONTAL
             : gp->pointType == GCP_VERT ? EPHO_TRI_TYPE_VERTICAL
                                         : EPHO_TRI_TYPE_FULL;
    g.usage = gp->pointUsage == GCP_CONTROL ? EPHO_TRI_USAGE_CONTROL : EPHO_TRI_USAGE_CHECK;
    g.X = gp->groundX;
    g.Y = gp->groundY;
    g.Z = gp->groundZ;
    // A missing a-priori accuracy falls back to 5 cm.
    g.stdX = gp->stdX > 0 ? gp->stdX : 0.05f;
    g.stdY = gp->stdY > 0 ? gp->stdY : 0.05f;
    g.stdZ = gp->stdZ > 0 ? gp->stdZ : 0.05f;
    ground.push_back(g);
    ++(g.usage == EPHO_TRI_USAGE_CONTROL ? res.control : res.check);
  }
  if (res.control == 0) return Fail(o.block + ": the block has no control point in its images");

  // The refinement's input record (toolkit heap throughout: the run frees it).
  InputHolder hold;
  Epho_TriRefineInput& in = hold.in;
  in.maximumIterations = static_cast<int16_t>(o.maxIterations);
  in.imageStdX = in.imageStdY = static_cast<float>(o.imageStd);
  in.convergenceThreshold = 1e-3f;
  in.groundXYUnits = etxt_Text_strdup(xyUnits.c_str());
  in.groundZUnits = etxt_Text_strdup(zUnits.c_str());
  in.imageCount = static_cast<int32_t>(frames.size());
  in.images = static_cast<Epho_TriImage*>(emsc_HeapCalloc(frames.size(), sizeof(Epho_TriImage)));
  in.groundPointCount = static_cast<int32_t>(ground.size());
  in.groundPoints = static_cast<Epho_TriGroundPoint*>(
      emsc_HeapCalloc(ground.size() + 1, sizeof(Epho_TriGroundPoint)));
  if (!in.images || !in.groundPoints || !in.groundXYUnits || !in.groundZUnits)
    return Fail("out of memory");
  std::copy(ground.begin(), ground.end(), in.groundPoints);
  const int terms = std::max(1, std::min(6, o.terms));
  for (size_t i = 0; i < frames.size(); ++i) {
    const BlockFrame& f = frames[i];
    Epho_TriImage& im = in.images[i];
    im.imageID = f.id;
    im.columns = f.columns;
    im.rows = f.rows;
    Eerr_ErrorReport* err = nullptr;
    Epho_Camera* camera = epho_CameraCopy(f.camera.get(), &err);
    if (camera) camera->direction = EMOD_FORWARD;
    Epho_CameraXform* xform = camera ? epho_CameraXformGetFromCameraData(camera, &err) : nullptr;
    im.xform = xform ? epho_CameraXformToExfr(xform, &err) : nullptr;
    epho_CameraXformDelete(xform);
    if (!im.xform)
      return Fail("camera of image " + std::to_string(f.id) + ": " + ReportMessage(err));
    // The camera's pixel-to-film affine (x' = c0 x + c1 y + c2) in the
    // offset-first layout of the refinement (X = a0 + a1 x + a2 y).
    const double* c = f.camera->forSrcAffine;
    const double affine[6] = {c[2], c[0], c[1], c[5], c[3], c[4]};
    std::copy(affine, affine + 6, im.affine);
    im.parameterCount = static_cast<int16_t>(2 * terms);
    im.parameterMode = EPHO_TRI_MODE_WEIGHTED;
    im.initialValues = static_cast<double*>(emsc_HeapCalloc(2 * terms, sizeof(double)));
    im.standardDeviations = static_cast<float*>(emsc_HeapCalloc(2 * terms, sizeof(float)));
    const std::vector<Epho_TriImagePoint>& pts = measured[i];
    im.imagePointCount = static_cast<int32_t>(pts.size());
    im.imagePoints = static_cast<Epho_TriImagePoint*>(
        emsc_HeapCalloc(pts.size() + 1, sizeof(Epho_TriImagePoint)));
    if (!im.initialValues || !im.standardDeviations || !im.imagePoints)
      return Fail("out of memory");
    for (int k = 0; k < 2 * terms; ++k)
      im.standardDeviations[k] = static_cast<float>(o.parameterStd);
    std::copy(pts.begin(), pts.end(), im.imagePoints);
    if (pts.empty()) return Fail("image " + std::to_string(f.id) + " has no measured point");
  }

  // The JSON results carry the image residuals: written to a scratch file
  // beside the report when the caller asked for none.
  const bool scratchJson = o.json.empty();
  const std::string json = scratchJson ? res.report + ".json.tmp" : o.json;
  const std::wstring reportW = kzdv::FromUtf8(res.report), jsonW = kzdv::FromUtf8(json),
                     plotW = kzdv::FromUtf8(o.plot);
  in.reportFileName = const_cast<Etxt_Char*>(reportW.c_str());
  in.jsonFileName = const_cast<Etxt_Char*>(jsonW.c_str());
  in.plotFileName = o.plot.empty() ? nullptr : const_cast<Etxt_Char*>(plotW.c_str());
  Eerr_ErrorReport* err = nullptr;
  epho_TriRefine(&in, &err);
  struct Remove {
    std::string path;
    bool on;
    ~Remove() {
      if (on) std::remove(path.c_str());
    }
  } removeScratch{json, scratchJson};
  if (err) return Fail("the refinement failed (" + res.report + "): " + ReportMessage(err));
  res.converged = in.converged != 0;
  res.iterations = in.iterations;
  res.s0 = in.unitWeightStdError;
  res.images = in.imageCount;
  if (!res.converged)
    return Fail("the refinement did not converge in " + std::to_string(in.iterations) +
                " iterations; the block is unchanged (see " + res.report + ")");
  std::map<std::pair<int32_t, int32_t>, std::pair<double, double>> imageResiduals;
  if (!ReadImageResiduals(json, &imageResiduals, &error)) return Fail(error);

  // Results back into the block's points.
  std::map<int32_t, const Epho_TriGroundPoint*> refined;
  for (int p = 0; p < in.resultPointCount; ++p)
    refined[in.resultPoints[p].pointID] = &in.resultPoints[p];
  double sq[3] = {0, 0, 0};
  for (long k = 0; k < n; ++k) {
    auto* gp = static_cast<Epho_GroundPoint*>(edlm_GetAddr(points.Get(), k, nullptr));
    auto it = refined.find(gp->id);
    if (it == refined.end()) continue;
    const Epho_TriGroundPoint& q = *it->second;
    if (gp->pointUsage == GCP_TIE) {
      gp->groundX = q.X, gp->groundY = q.Y, gp->groundZ = q.Z;
      gp->xDefined = gp->yDefined = gp->zDefined = EMSC_TRUE;
      gp->residualX = gp->residualY = gp->residualZ = 0;
    } else {
      gp->residualX = gp->groundX - q.X;
      gp->residualY = gp->groundY - q.Y;
      gp->residualZ = gp->groundZ - q.Z;
      if (gp->pointUsage == GCP_CHECK) {
        sq[0] += gp->residualX * gp->residualX;
        sq[1] += gp->residualY * gp->residualY;
        sq[2] += gp->residualZ * gp->residualZ;
      }
    }
    const long m = gp->imagePoints ? edlm_CountList(gp->imagePoints) : 0;
    for (long j = 0; j < m; ++j) {
      auto* ip = static_cast<Epho_ImagePoint*>(edlm_GetAddr(gp->imagePoints, j, nullptr));
      auto r = imageResiduals.find({gp->id, ip->imageId});
      if (r == imageResiduals.end()) continue;
      ip->residualX = r->second.first;
      ip->residualY = r->second.second;
    }
  }
  for (int a = 0; a < 3; ++a) res.checkRmse[a] = res.check ? std::sqrt(sq[a] / res.check) : 0.0;
  try {
    block->PutObjectPointsList(points);
    block->Save();
  } catch (const EerrException& e) {
    return Fail(o.block +
                ": cannot save the results: " + kzdv::ToUtf8(kzdv::ReportText(e.Report())));
  }
  if (!o.quiet) {
    std::printf("%d images, %d control, %d check, %d tie points", res.images, res.control,
                res.check, res.tie);
    if (skipped) std::printf(" (%d points seen in too few images left out)", skipped);
    std::printf("\nconverged in %d iterations, s0 %.4g image units\n", res.iterations, res.s0);
    if (res.check)
      std::printf("check points RMSE X %.3f  Y %.3f  Z %.3f\n", res.checkRmse[0], res.checkRmse[1],
                  res.checkRmse[2]);
    std::printf("report: %s\n", res.report.c_str());
  }
  return kExitOk;
}

namespace {

Run DeclareTriangulate(CLI::App& app) {
  auto o = std::make_shared<TriangulateOptions>();
  app.add_option("BLOCK", o->block, "block file whose frames hold frame cameras")->required();
  app.add_option("--report", o->report,
                 "text report (default: the block's name with _triangulation.txt)");
  app.add_option("--json", o->json, "the results as JSON as well");
  app.add_option("--plot", o->plot, "an SVG plot of the residuals");
  IntegerOption(app, "--terms", o->terms, "correction terms per image axis", 1, 6)
      ->capture_default_str();
  NumberOption(app, "--image-std", o->imageStd, "a-priori image accuracy, pixels", 1e-6, 1e6)
      ->capture_default_str();
  NumberOption(app, "--parameter-std", o->parameterStd,
               "a-priori size of the correction terms, image units", 1e-12, 1e6)
      ->capture_default_str();
  IntegerOption(app, "--iterations", o->maxIterations, "most iterations", 1, 1000)
      ->capture_default_str();
  app.footer(
      "The block's frames are \"Epho_BlockFrame\" records (image name, id, size and the frame "
      "camera as a \"Camera_ModelX\" record). Control points are held fixed; tie points get "
      "their refined coordinates, control and check points their residuals (given minus "
      "adjusted), image points their residuals in pixels; the block is then saved. Exit 0 "
      "when the run converged and the block was saved, 1 on failure or no convergence (the "
      "block is left as it was), 2 on a usage error.");
  return [o] { return Triangulate(*o, nullptr); };
}

}  // namespace
}  // namespace epho_tool

EPHO_COMMAND("triangulate",
             "refine a block of frame photographs: ground points, residuals and a report",
             epho_tool::DeclareTriangulate);
