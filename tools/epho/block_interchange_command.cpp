// `epho block import BLOCK (--project FILE | --colmap DIR) [--control FILE]`
// and `epho block export BLOCK --colmap DIR`: a block in from a hand-written
// text project or a COLMAP text model, and out to a COLMAP text model.
// The block's frames are "Epho_BlockFrame" records (triangulate_command.h),
// so an imported block goes straight to `epho triangulate`.
#include "block_interchange_command.h"

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>

#include "efio.h"
#include "epho/interchange/interchange.h"
#include "platform/eerr/error_frame.h"
#include "platform/estr/utf8.h"
#include "registry.h"
#include "triangulate_command.h"

namespace epho_tool {

namespace ix = epho::interchange;

namespace {

struct BlockCloser {
  EphoBlockFile* b;
  ~BlockCloser() {
    if (b) b->Close();
  }
};

int Fail(const char* what, const std::string& message) {
  std::fprintf(stderr, "epho block %s: %s\n", what, message.c_str());
  return kExitFailure;
}

}  // namespace

bool PutProject(EphoBlockFile* block, const ix::Project& project, std::string* error) {
  std::vector<BlockFrame> frames;
  for (const ix::Image& image : project.images) {
    BlockFrame f;
    f.image = image.name;
    f.id = image.id;
    f.columns = image.columns;
    f.rows = image.rows;
    f.camera.reset(epho_CameraCopy(image.camera.get(), nullptr));
    if (!f.camera) {
      *error = "out of memory";
      return false;
    }
    frames.push_back(std::move(f));
  }
  if (!PutBlockFrames(block, frames, error)) return false;
  EdlmList points(EphoBlockFile::freeGroundPoint);
  points.Reset(edlm_InitList(sizeof(void*), 0, EphoBlockFile::freeGroundPoint,
                             EphoBlockFile::copyGroundPoint, nullptr));
  for (const ix::Point& p : project.points) {
    std::vector<ImageMeasure> measures;
    for (const ix::Observation& o : p.observations) measures.push_back({o.image, o.x, o.y});
    Epho_GroundPoint* gp = MakeGroundPoint(p.id, p.usage, p.X, p.Y, p.Z, 0.0f, measures);
    if (!gp) {
      *error = "out of memory";
      return false;
    }
    const Emsc_Boolean known = p.known ? EMSC_TRUE : EMSC_FALSE;
    gp->xDefined = gp->yDefined = gp->zDefined = known;
    gp->stdX = p.std[0], gp->stdY = p.std[1], gp->stdZ = p.std[2];
    for (int k = 0; k < 3; ++k) gp->color[k] = p.color[k];
    edlm_Add(points.Get(), gp, nullptr);
  }
  block->PutObjectPointsList(points);
  return true;
}

bool GetProject(EphoBlockFile* block, ix::Project* project, std::string* error) {
  std::vector<BlockFrame> frames;
  if (!GetBlockFrames(block, &frames, error)) return false;
  project->images.clear();
  project->points.clear();
  for (BlockFrame& f : frames) {
    ix::Image image;
    image.id = f.id;
    image.name = f.image;
    image.columns = f.columns;
    image.rows = f.rows;
    image.camera.reset(f.camera.release());
    project->images.push_back(std::move(image));
  }
  EdlmList points(EphoBlockFile::freeGroundPoint);
  block->GetObjectPointsListCopy(points);
  for (long i = 0; i < points.Count(); ++i) {
    auto* gp = static_cast<Epho_GroundPoint*>(edlm_GetAddr(points.Get(), i, nullptr));
    ix::Point p;
    p.id = gp->id;
    p.usage = static_cast<Epho_PointUsage>(gp->pointUsage);
    p.known = gp->xDefined && gp->yDefined && gp->zDefined;
    p.X = gp->groundX, p.Y = gp->groundY, p.Z = gp->groundZ;
    p.std = {gp->stdX, gp->stdY, gp->stdZ};
    p.color = {gp->color[0], gp->color[1], gp->color[2]};
    const long m = gp->imagePoints ? edlm_CountList(gp->imagePoints) : 0;
    for (long j = 0; j < m; ++j) {
      auto* ip = static_cast<Epho_ImagePoint*>(edlm_GetAddr(gp->imagePoints, j, nullptr));
      if (!ip->xDefined || !ip->yDefined) continue;
      p.observations.push_back({ip->imageId, ip->imageX, ip->imageY});
    }
    project->points.push_back(std::move(p));
  }
  return true;
}

int BlockImport(const BlockImportOptions& o) {
  if (o.project.empty() == o.colmap.empty())
    return Fail("import", "give one source: --project FILE or --colmap FOLDER");
  EtxtTextU name(kzdv::FromUtf8(o.block));
  if (!o.replace && efio_FileNameExistAsFileOrDir(name.c_str()) != EFIO_NOTHING)
    return Fail("import", o.block + " already exists (--replace replaces its images and points)");
  ix::Project project;
  try {
    if (!o.project.empty()) {
      project = ix::ReadTextProject(o.project);
    } else {
      project = ix::ProjectFromColmap(ix::ReadColmapModel(o.colmap));
    }
    if (!o.control.empty()) ix::ApplyControlFile(o.control, &project);
  } catch (const std::exception& e) {
    return Fail("import", e.what());
  }
  const bool existed = efio_FileNameExistAsFileOrDir(name.c_str()) != EFIO_NOTHING;
  try {
    EphoBlockFile* b = EphoBlockFile::Open(name, true);
    if (!b) return Fail("import", "cannot create " + o.block);
    BlockCloser closer{b};
    if (!existed) {
      EtxtTextU units(kzdv::FromUtf8(o.units));
      b->PutHorizontalUnits(units);
    }
    std::string error;
    if (!PutProject(b, project, &error)) {
      if (!existed) std::remove(o.block.c_str());
      return Fail("import", o.block + ": " + error);
    }
    b->Save();
  } catch (const EerrException& e) {
    if (!existed) std::remove(o.block.c_str());
    return Fail("import", kzdv::ToUtf8(kzdv::ReportText(e.Report())));
  }
  size_t control = 0, check = 0, observations = 0;
  for (const ix::Point& p : project.points) {
    control += p.usage == GCP_CONTROL;
    check += p.usage == GCP_CHECK;
    observations += p.observations.size();
  }
  if (!o.quiet)
    std::printf("%s: %zu images, %zu points (control %zu, check %zu), %zu image measurements\n",
                o.block.c_str(), project.images.size(), project.points.size(), control, check,
                observations);
  return kExitOk;
}

int BlockExport(const BlockExportOptions& o) {
  EtxtTextU name(kzdv::FromUtf8(o.block));
  ix::Project project;
  try {
    EphoBlockFile* b = EphoBlockFile::Open(name, false);
    if (!b)
      return Fail("export", o.block + (efio_FileNameExistAsFileOrDir(name.c_str()) == EFIO_NOTHING
                                           ? " does not exist"
                                           : " is a folder, not a block file"));
    BlockCloser closer{b};
    std::string error;
    if (!GetProject(b, &project, &error)) return Fail("export", o.block + ": " + error);
  } catch (const EerrException& e) {
    return Fail("export", kzdv::ToUtf8(kzdv::ReportText(e.Report())));
  }
  try {
    const ix::ColmapModel model = ix::ColmapFromProject(project);
    std::error_code ec;
    std::filesystem::create_directories(o.colmap, ec);
    if (ec) return Fail("export", o.colmap + ": " + ec.message());
    ix::WriteColmapModel(model, o.colmap);
    if (!o.quiet)
      std::printf("%s: %zu cameras, %zu images, %zu points\n", o.colmap.c_str(),
                  model.cameras.size(), model.images.size(), model.points.size());
  } catch (const std::exception& e) {
    return Fail("export", o.block + ": " + e.what());
  }
  return kExitOk;
}

namespace {

Run DeclareImport(CLI::App& app) {
  auto o = std::make_shared<BlockImportOptions>();
  app.add_option("BLOCK", o->block, "block file to make")->required();
  auto* project = app.add_option("--project", o->project, "hand-written project file");
  app.add_option("--colmap", o->colmap, "folder of a COLMAP text model")->excludes(project);
  app.add_option("--control", o->control,
                 "control file marking points as control or check (id X Y Z usage [std])");
  app.add_option("--units", o->units, "horizontal units of a new block")->capture_default_str();
  app.add_flag("--replace", o->replace, "replace the images and points of an existing block");
  app.footer(
      "The formats are described in docs/interchange.md. Every bad line is reported as "
      "file:line. Exit 0 when the block was written, 1 on bad input (nothing is written), 2 on "
      "a usage error.");
  return [o] { return BlockImport(*o); };
}

Run DeclareExport(CLI::App& app) {
  auto o = std::make_shared<BlockExportOptions>();
  app.add_option("BLOCK", o->block, "block file")->required();
  app.add_option("--colmap", o->colmap, "folder for cameras.txt, images.txt, points3D.txt")
      ->required();
  app.footer(
      "Frame cameras whose pixel axes are the film axes and whose lens is radial or "
      "radial-tangential are written; others are refused with the reason. Points without "
      "ground coordinates are refused: triangulate the block first. Exit 0 on success, 1 on "
      "failure, 2 on a usage error.");
  return [o] { return BlockExport(*o); };
}

}  // namespace
}  // namespace epho_tool

EPHO_COMMAND("block import", "make a block from a hand-written project or a COLMAP text model",
             epho_tool::DeclareImport);
EPHO_COMMAND("block export", "write a block as a COLMAP text model", epho_tool::DeclareExport);
