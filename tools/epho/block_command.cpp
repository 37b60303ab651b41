// `epho block info FILE [--json]`: what a block holds (units, reference
// system, images, points by usage, DTMs, orthos, version); `epho block create
// FILE`: a new, empty block.
#include <cstdio>
#include <memory>
#include <string>

#include "efio.h"
#include "epho/block.h"
#include "platform/eerr/error_frame.h"
#include "platform/estr/utf8.h"
#include "registry.h"

namespace epho_tool {

namespace {

std::string U8(const std::wstring& s) { return kzdv::ToUtf8(s); }

// Text for a JSON string literal.
std::string Json(const std::string& s) {
  std::string out = "\"";
  for (char c : s) {
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

struct BlockSummary {
  std::string version, model, horizontalUnits, verticalUnits, angularUnits;
  std::string projection = "none", spheroid, datum, elevationUnit;
  long zone = 0;
  unsigned long images = 0, points = 0, control = 0, check = 0, tie = 0, dtms = 0, orthos = 0;
  double minZ = 0, maxZ = 0;
};

// Everything `info` prints, read through the block's accessors.
BlockSummary Summarise(EphoBlockFile* b) {
  BlockSummary s;
  EtxtTextU t;
  b->GetVersion(t);
  s.version = U8(t);
  b->GetModelName(t);
  s.model = U8(t);
  b->GetVerticalUnits(t);
  s.verticalUnits = U8(t);
  b->GetAngularUnits(t);
  s.angularUnits = U8(t);
  LegacyHelperTemplate<_eprj_MapProjectionExEtxt_TextU> projection;
  LegacyHelperTemplate<_eprj_ElevationInfoEtxt_TextU> elevation;
  b->GetCoordinateSystem(projection, elevation, t);
  s.horizontalUnits = U8(t);
  if (projection.Get() && projection.Get()->proParameters) {
    const Eprj_ProParameters* p = projection.Get()->proParameters;
    s.projection = p->proName ? U8(p->proName) : "unnamed";
    s.zone = p->proZone;
    if (p->proSpheroid && p->proSpheroid->sphereName) s.spheroid = U8(p->proSpheroid->sphereName);
  }
  if (elevation.Get()) {
    if (elevation.Get()->datumName) s.datum = U8(elevation.Get()->datumName);
    if (elevation.Get()->elevationUnit) s.elevationUnit = U8(elevation.Get()->elevationUnit);
  }
  {
    EdlmList images(EphoBlockFile::freeBlkImage);
    s.images = b->GetImageListCopy(images, nullptr);
  }
  {
    EdlmList points(EphoBlockFile::freeGroundPoint);
    s.points = b->GetObjectPointsListCopy(points);
    for (long i = 0; i < points.Count(); ++i) {
      auto* gp = static_cast<Epho_GroundPoint*>(edlm_GetAddr(points.Get(), i, nullptr));
      if (gp->pointUsage == GCP_CONTROL)
        ++s.control;
      else if (gp->pointUsage == GCP_CHECK)
        ++s.check;
      else if (gp->pointUsage == GCP_TIE)
        ++s.tie;
    }
    if (s.points) b->GetMinMaxZ(&s.minZ, &s.maxZ);
  }
  {
    EdlmList dtms(EphoBlockFile::freeDtm);
    s.dtms = b->GetDTMListCopy(dtms);
    EdlmList orthos(EphoBlockFile::freeOrtho);
    s.orthos = b->GetOrthoListCopy(orthos);
  }
  return s;
}

void PrintText(FILE* out, const std::string& file, const BlockSummary& s) {
  std::fprintf(out, "Block file:        %s\n", file.c_str());
  std::fprintf(out, "Version:           %s\n",
               s.version.empty() ? "(none stored)" : s.version.c_str());
  std::fprintf(out, "Model:             %s\n", s.model.c_str());
  std::fprintf(out, "Horizontal units:  %s\n", s.horizontalUnits.c_str());
  std::fprintf(out, "Vertical units:    %s\n", s.verticalUnits.c_str());
  std::fprintf(out, "Angular units:     %s\n", s.angularUnits.c_str());
  std::fprintf(out, "Projection:        %s", s.projection.c_str());
  if (s.zone) std::fprintf(out, " zone %ld", s.zone);
  if (!s.spheroid.empty()) std::fprintf(out, " (%s)", s.spheroid.c_str());
  std::fprintf(out, "\nElevation:         datum %s, unit %s\n", s.datum.c_str(),
               s.elevationUnit.c_str());
  std::fprintf(out, "Images:            %lu\n", s.images);
  std::fprintf(out, "Ground points:     %lu (control %lu, check %lu, tie %lu)\n", s.points,
               s.control, s.check, s.tie);
  if (s.points) std::fprintf(out, "Z range:           %.3f to %.3f\n", s.minZ, s.maxZ);
  std::fprintf(out, "DTMs:              %lu\n", s.dtms);
  std::fprintf(out, "Ortho images:      %lu\n", s.orthos);
}

void PrintJson(FILE* out, const std::string& file, const BlockSummary& s) {
  std::fprintf(out, "{\n  \"file\": %s,\n  \"version\": %s,\n  \"model\": %s,\n",
               Json(file).c_str(), Json(s.version).c_str(), Json(s.model).c_str());
  std::fprintf(out, "  \"units\": {\"horizontal\": %s, \"vertical\": %s, \"angular\": %s},\n",
               Json(s.horizontalUnits).c_str(), Json(s.verticalUnits).c_str(),
               Json(s.angularUnits).c_str());
  std::fprintf(out, "  \"projection\": {\"name\": %s, \"zone\": %ld, \"spheroid\": %s},\n",
               Json(s.projection).c_str(), s.zone, Json(s.spheroid).c_str());
  std::fprintf(out, "  \"elevation\": {\"datum\": %s, \"unit\": %s},\n", Json(s.datum).c_str(),
               Json(s.elevationUnit).c_str());
  std::fprintf(out,
               "  \"images\": %lu,\n  \"points\": {\"total\": %lu, \"control\": %lu, \"check\": "
               "%lu, \"tie\": %lu",
               s.images, s.points, s.control, s.check, s.tie);
  if (s.points) std::fprintf(out, ", \"min_z\": %.17g, \"max_z\": %.17g", s.minZ, s.maxZ);
  std::fprintf(out, "},\n  \"dtms\": %lu,\n  \"orthos\": %lu\n}\n", s.dtms, s.orthos);
}

void PrintError(const char* what, const EerrException& e) {
  std::fprintf(stderr, "epho block %s: %s\n", what, U8(kzdv::ReportText(e.Report())).c_str());
}

}  // namespace

// Prints the summary of `file`; 0 on success, 1 when it cannot be read.
int BlockInfo(FILE* out, const std::string& file, bool json) {
  EtxtTextU name(kzdv::FromUtf8(file));
  try {
    EphoBlockFile* b = EphoBlockFile::Open(name, false);
    if (!b) {
      std::fprintf(stderr, "epho block info: %s %s\n", file.c_str(),
                   efio_FileNameExistAsFileOrDir(name.c_str()) == EFIO_NOTHING
                       ? "does not exist"
                       : "is a folder, not a block file");
      return kExitFailure;
    }
    struct Closer {
      EphoBlockFile* b;
      ~Closer() { b->Close(); }
    } closer{b};
    const BlockSummary s = Summarise(b);
    if (json)
      PrintJson(out, file, s);
    else
      PrintText(out, file, s);
    return kExitOk;
  } catch (const EerrException& e) {
    PrintError("info", e);
    return kExitFailure;
  }
}

// Makes a new block at `file` (refused when something is there).
int BlockCreate(const std::string& file, const std::string& units) {
  EtxtTextU name(kzdv::FromUtf8(file));
  if (efio_FileNameExistAsFileOrDir(name.c_str()) != EFIO_NOTHING) {
    std::fprintf(stderr, "epho block create: %s already exists\n", file.c_str());
    return kExitFailure;
  }
  try {
    EphoBlockFile* b = EphoBlockFile::Open(name, true);
    if (!b) {
      std::fprintf(stderr, "epho block create: cannot create %s\n", file.c_str());
      return kExitFailure;
    }
    struct Closer {
      EphoBlockFile* b;
      ~Closer() { b->Close(); }
    } closer{b};
    // The first save writes the version, property, tie-point and frame nodes.
    EtxtTextU u(kzdv::FromUtf8(units));
    b->PutHorizontalUnits(u);
    b->Save();
    return kExitOk;
  } catch (const EerrException& e) {
    PrintError("create", e);
    std::remove(file.c_str());
    return kExitFailure;
  }
}

namespace {

struct InfoArgs {
  std::string file;
  bool json = false;
};

Run DeclareBlockInfo(CLI::App& app) {
  auto a = std::make_shared<InfoArgs>();
  app.add_option("FILE", a->file, "block file")->required();
  app.add_flag("--json", a->json, "print JSON instead of text");
  return [a] { return BlockInfo(stdout, a->file, a->json); };
}

struct CreateArgs {
  std::string file;
  std::string units = "meters";
};

Run DeclareBlockCreate(CLI::App& app) {
  auto a = std::make_shared<CreateArgs>();
  app.add_option("FILE", a->file, "new block file")->required();
  app.add_option("--units", a->units, "horizontal units of the block")->capture_default_str();
  return [a] { return BlockCreate(a->file, a->units); };
}

}  // namespace
}  // namespace epho_tool

EPHO_COMMAND_GROUP("block", "block files: the project file of a photogrammetric block");
EPHO_COMMAND("block info",
             "print units, reference system, images, points, DTMs and orthos of a block",
             epho_tool::DeclareBlockInfo);
EPHO_COMMAND("block create", "make a new, empty block file", epho_tool::DeclareBlockCreate);
