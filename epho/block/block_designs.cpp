// Designs of the block file's nodes and small helpers for stored strings.
#include <cstring>

#include "epho/block/block_internal.h"

namespace epho::block {

const char kSource[] = "EphoBlockFile";

namespace {
const Etxt_Char* const kNone = nullptr;

DesignPtr Checked(Emif_Design* d, EerrException& ctx) {
  DesignPtr out(d);
  ctx.Check(__LINE__);
  if (!out) ctx.Throw(__LINE__, L"emif_DesignCreate failed");
  return out;
}
}  // namespace

DesignPtr VersionDesign(EerrException& ctx) {
  return Checked(emif_DesignCreate(L"BlockFileVersion", EMIF_T_STRING, L"Version", 0, ctx.Err()),
                 ctx);
}

DesignPtr AutotieDesign(EerrException& ctx) {
  return Checked(
      emif_DesignCreate(L"Autotie_Parameters", EMIF_T_LONG, L"ImageUsage", EMIF_T_LONG, L"InitType",
                        EMIF_T_LONG, L"KeepPointsFlag", EMIF_T_LONG, L"ImageLayerNumber",
                        EMIF_T_LONG, L"SearchSize", EMIF_T_LONG, L"CorrelationSize", EMIF_T_LONG,
                        L"LeastSquareSize", EMIF_T_LONG, L"TotalTiePoints", EMIF_T_LONG,
                        L"PointDensity", EMIF_T_LONG, L"ExteriorAccuracy", EMIF_T_DOUBLE,
                        L"CoefficientLimit", EMIF_T_LONG, L"TieUsage", 0, ctx.Err()),
      ctx);
}

DesignPtr ExtraAutotieDesign(EerrException& ctx) {
  return Checked(
      emif_DesignCreate(L"ExtraAutoTieParameters", EMIF_T_LONG, L"PatternUsage", EMIF_T_LONG,
                        L"PointsPerPattern", EMIF_T_LONG, L"StartingColumn", EMIF_T_LONG,
                        L"StartingLine", EMIF_T_LONG, L"ColumnIncrement", EMIF_T_LONG,
                        L"LineIncrement", EMIF_T_LONG, L"FeatureUsage", EMIF_T_LONG, L"AvoidShadow",
                        EMIF_T_LONG, L"ImageScanType", 0, ctx.Err()),
      ctx);
}

DesignPtr BlockPropertyDesign(const Emif_Design* autotie, EerrException& ctx) {
  return Checked(
      emif_DesignCreate(
          L"Block_Property", EMIF_T_STRING, L"Modelname", EMIF_T_STRING, L"HorizontalUnits",
          EMIF_T_STRING, L"VerticalUnits", EMIF_T_STRING, L"AngularUnits", EMIF_T_DOUBLE, L"StdX",
          EMIF_T_DOUBLE, L"StdY", EMIF_T_DOUBLE, L"StdZ", EMIF_T_LONG, L"PointCount", EMIF_T_ENUM,
          L"HorizontalReferType", L"H_REF_KEYBOARD", L"H_REF_IMAGE", L"H_REF_VECTOR",
          L"H_REF_ANNOTATION", L"H_REF_GCC", L"H_REF_ASCII", L"H_REF_SHAPE", L"H_REF_TABLET", kNone,
          EMIF_T_STRING, L"HorizontalReferFile", EMIF_T_ENUM, L"VerticalReferType",
          L"V_REF_KEYBOARD", L"V_REF_IMAGE", L"V_REF_CONSTANT", kNone, EMIF_T_STRING,
          L"VerticalReferFile", EMIF_T_DOUBLE, L"ConstantElevation", EMIF_T_STRING,
          L"VerticalReferUnits", EMIF_T_ENUM, L"TopocenterDefined", L"False", L"True", kNone,
          EMIF_T_DOUBLE, L"TopocenterLongitude", EMIF_T_DOUBLE, L"TopocenterLatitude",
          EMIF_M_POINTER | EMIF_T_OBJECT, L"AutoTieParameters", autotie, 0, ctx.Err()),
      ctx);
}

DesignPtr FrameDataDesign(EerrException& ctx) {
  return Checked(emif_DesignCreate(L"Frame_Data", EMIF_T_LONG, L"ImageCount", EMIF_T_LONG,
                                   L"CurrentImage", 0, ctx.Err()),
                 ctx);
}

DesignPtr GroundPointDesign(EerrException& ctx) {
  return Checked(
      emif_DesignCreate(
          L"GroundPoint", EMIF_T_LONG, L"id", EMIF_T_STRING, L"Description", EMIF_T_DOUBLE,
          L"Ground X", EMIF_T_DOUBLE, L"Ground Y", EMIF_T_DOUBLE, L"Ground Z", EMIF_T_ENUM,
          L"Xdefined", L"FALSE", L"TRUE", kNone, EMIF_T_ENUM, L"Ydefined", L"FALSE", L"TRUE", kNone,
          EMIF_T_ENUM, L"Zdefined", L"FALSE", L"TRUE", kNone, EMIF_T_ENUM, L"PointType",
          L"GCP_FULL", L"GCP_HORIZ", L"GCP_VERT", L"GCP_NONE", kNone, EMIF_T_ENUM, L"PointUsage",
          L"GCP_CONTROL", L"GCP_CHECK", L"GCP_TIE", kNone, EMIF_T_ENUM, L"PointUsed", L"FALSE",
          L"TRUE", kNone, EMIF_M_FIXED | EMIF_T_FLOAT, L"color", 3, EMIF_T_FLOAT,
          L"Standard Deviation X", EMIF_T_FLOAT, L"Standard Deviation Y", EMIF_T_FLOAT,
          L"Standard Deviation Z", EMIF_T_DOUBLE, L"Residual X", EMIF_T_DOUBLE, L"Residual Y",
          EMIF_T_DOUBLE, L"Residual Z", EMIF_T_LONG, L"ImagePointCount", 0, ctx.Err()),
      ctx);
}

DesignPtr ImagePointDesign(EerrException& ctx) {
  return Checked(
      emif_DesignCreate(L"ImagePoint", EMIF_T_LONG, L"ImageIDNumber", EMIF_T_DOUBLE, L"Image X",
                        EMIF_T_DOUBLE, L"Image Y", EMIF_T_ENUM, L"Xdefined", L"FALSE", L"TRUE",
                        kNone, EMIF_T_ENUM, L"Ydefined", L"FALSE", L"TRUE", kNone, EMIF_T_ENUM,
                        L"PointUsed", L"FALSE", L"TRUE", kNone, EMIF_M_FIXED | EMIF_T_FLOAT,
                        L"color", 3, EMIF_T_DOUBLE, L"Residual X", EMIF_T_DOUBLE, L"Residual Y",
                        EMIF_T_ENUM, L"GrossError", L"FALSE", L"TRUE", kNone, 0, ctx.Err()),
      ctx);
}

DesignPtr GroundPointStatsDesign(EerrException& ctx) {
  return Checked(emif_DesignCreate(L"GroundPointStats", EMIF_T_DOUBLE, L"Maximum Z", EMIF_T_DOUBLE,
                                   L"Minimum Z", 0, ctx.Err()),
                 ctx);
}

DesignPtr MifObjectDesign(EerrException& ctx) {
  return Checked(emif_DesignCreate(L"Emif_MIFObject", EMIF_T_STRING, L"type", EMIF_T_STRING,
                                   L"MIFDictionary", EMIF_T_BYTES, L"MIFObject", 0, ctx.Err()),
                 ctx);
}

DesignPtr DtmDesign(const Emif_Design* mif, EerrException& ctx) {
  return Checked(
      emif_DesignCreate(L"Epho_BlockDTM", EMIF_T_ENUM, L"dtmsource", L"DTM_TYPE_CONSTANT",
                        L"DTM_TYPE_DEM", L"DTM_TYPE_TIN", L"DTM_TYPE_SHAPE", L"DTM_TYPE_ASCII",
                        L"DTM_TYPE_SOCETSET_TIN", kNone, EMIF_T_STRING, L"filename", EMIF_T_STRING,
                        L"namepart", EMIF_T_STRING, L"tmpdemfilename", EMIF_T_DOUBLE, L"meanz",
                        EMIF_M_FIXED | EMIF_T_DOUBLE, L"ul", 2, EMIF_M_FIXED | EMIF_T_DOUBLE, L"lr",
                        2, EMIF_M_FIXED | EMIF_T_DOUBLE, L"cellsize", 2, EMIF_T_DOUBLE,
                        L"background", EMIF_T_STRING, L"hunits", EMIF_T_STRING, L"vunits",
                        EMIF_M_POINTER | EMIF_T_OBJECT, L"proparm", mif, 0, ctx.Err()),
      ctx);
}

DesignPtr DtmListDesign(const Emif_Design* dtm, EerrException& ctx) {
  return Checked(emif_DesignCreate(L"DTMList", EMIF_T_OBJECT_ARRAY, L"dtms", dtm, 0, ctx.Err()),
                 ctx);
}

DesignPtr OrthoDesign(const Emif_Design* mif, EerrException& ctx) {
  return Checked(emif_DesignCreate(
                     L"xorthoimage", EMIF_T_STRING, L"orthoimagename", EMIF_T_STRING, L"units",
                     EMIF_M_FIXED | EMIF_T_DOUBLE, L"ul", 2, EMIF_M_FIXED | EMIF_T_DOUBLE, L"lr", 2,
                     EMIF_M_FIXED | EMIF_T_DOUBLE, L"cellsize", 2, EMIF_M_FIXED | EMIF_T_DOUBLE,
                     L"corners", 8, EMIF_M_POINTER | EMIF_T_OBJECT, L"proparm", mif, 0, ctx.Err()),
                 ctx);
}

DesignPtr OrthoListDesign(const Emif_Design* ortho, EerrException& ctx) {
  return Checked(
      emif_DesignCreate(L"OrthoImageList", EMIF_T_OBJECT_ARRAY, L"Orthos", ortho, 0, ctx.Err()),
      ctx);
}

bool SetCounted(Emif_CountedString* out, const std::wstring& text) {
  out->count = 0;
  out->data = nullptr;
  if (text.empty()) return true;
  out->data = etxt_Text_strdup(text.c_str());
  if (!out->data) return false;
  out->count = static_cast<int32_t>(text.size() + 1);
  return true;
}

std::wstring CountedText(const Emif_CountedString& s) {
  if (!s.data || s.count <= 0) return std::wstring();
  return std::wstring(s.data, wcsnlen(s.data, static_cast<size_t>(s.count)));
}

EphoBlockFile*& SavingBlock() {
  static thread_local EphoBlockFile* block = nullptr;
  return block;
}

}  // namespace epho::block
