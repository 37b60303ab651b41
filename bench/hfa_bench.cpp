// Hierarchical files: writing and reading back 100,000 ground-point-sized
// objects (the block file's object points) against raw stdio on the same
// bytes, and opening a 1 GB image (tree only) against GDAL's open of it.
#include <gdal.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "bench_util.h"
#include "ehfa.h"
#include "platform/ehfa/hfa_internal.h"
#include "platform/estr/utf8.h"
#include "test_util.h"

namespace {

struct GroundPoint {
  int32_t id;
  Emif_CountedString description;
  double x, y, z;
  int32_t flags[6];
  float color[3];
  float sx, sy, sz;
  double rx, ry, rz;
  int32_t image_points;
};

Emif_Design* PointDesign() {
  const Etxt_Char* b = nullptr;
  return emif_DesignCreate(
      L"GroundPoint", 0xc, L"id", 0x208, L"Description", 0xe, L"Ground X", 0xe, L"Ground Y", 0xe,
      L"Ground Z", 3, L"Xdefined", L"FALSE", L"TRUE", b, 3, L"Ydefined", L"FALSE", L"TRUE", b, 3,
      L"Zdefined", L"FALSE", L"TRUE", b, 3, L"PointType", L"GCP_FULL", L"GCP_HORIZ", L"GCP_VERT",
      L"GCP_NONE", b, 3, L"PointUsage", L"GCP_CONTROL", L"GCP_CHECK", L"GCP_TIE", b, 3,
      L"PointUsed", L"FALSE", L"TRUE", b, 0x10d, L"color", 3, 0xd, L"Standard Deviation X", 0xd,
      L"Standard Deviation Y", 0xd, L"Standard Deviation Z", 0xe, L"Residual X", 0xe, L"Residual Y",
      0xe, L"Residual Z", 0xc, L"ImagePointCount", 0, nullptr);
}

}  // namespace

int main() {
  constexpr int kPoints = 100000;
  testutil::ScratchDir dir("hfa_bench");
  const std::wstring path = dir.WFile("points.blk");
  Emif_Design* design = PointDesign();
  std::vector<std::wstring> texts(kPoints);
  std::vector<GroundPoint> points(kPoints);
  for (int i = 0; i < kPoints; ++i) {
    texts[i] = L"tie point " + std::to_wstring(i);
    GroundPoint& p = points[i];
    std::memset(&p, 0, sizeof p);
    p.id = i;
    p.description = {static_cast<int32_t>(texts[i].size() + 1), texts[i].data()};
    p.x = 500000 + i, p.y = 4000000 - i, p.z = 100 + i % 50;
    p.sx = p.sy = p.sz = 0.1f;
  }
  std::vector<std::wstring> names(kPoints);
  for (int i = 0; i < kPoints; ++i) names[i] = L"GroundPoint" + std::to_wstring(i);

  // Writing, as the block file lays down its points: one bulk write.
  const double write_s = bench::BestSeconds(3, [&] {
    Ehfa_File* f = ehfa_FileCreate(path.c_str(), nullptr, nullptr);
    ehfa_EntryWrite(f, EHFA_WRITE_FIRST_CHILD, L"BlockProperty", L"Block_Property", nullptr);
    ehfa_FileChange(f, EHFA_CHANGE_BULK, 0, nullptr, nullptr);
    for (int i = 0; i < kPoints; ++i) {
      ehfa_ObjectWrite(f, L":BlockProperty", names[i].c_str(),
                       i == 0 ? EHFA_WRITE_FIRST_CHILD : EHFA_WRITE_AFTER, design, &points[i],
                       nullptr);
    }
    ehfa_FileChange(f, EHFA_CHANGE_BULK, 1, nullptr, nullptr);
    ehfa_FileClose(f, nullptr);
  });
  const uintmax_t file_size = std::filesystem::file_size(path);

  // The same packed bytes and entry headers written with stdio: the floor.
  std::vector<unsigned char> packed;
  for (int i = 0; i < kPoints; ++i) {
    uint32_t n = 0;
    unsigned char* b = emif_ObjectEncode(design, &points[i], 0, &n, nullptr);
    packed.insert(packed.end(), 128, 0);
    packed.insert(packed.end(), b, b + n);
    emsc_HeapFree(b);
  }
  const std::string raw = dir.File("raw.bin");
  const double raw_write_s = bench::BestSeconds(3, [&] {
    FILE* out = std::fopen(raw.c_str(), "wb");
    for (int i = 0; i < kPoints; ++i) {  // one call per object, like a writer would
      const size_t each = packed.size() / kPoints;
      std::fwrite(packed.data() + each * static_cast<size_t>(i), 1, each, out);
    }
    std::fclose(out);
  });
  bench::PrintComparison("write 100k ground points (" + std::to_string(file_size / 1024) + " KiB)",
                         "stdio fwrite, same bytes", write_s, raw_write_s, "(target < 1 s)");

  // Reading back sequentially, each object decoded into its record.
  long checked = 0;
  const double read_s = bench::BestSeconds(3, [&] {
    Ehfa_File* f = ehfa_FileOpen(path.c_str(), "r", nullptr, nullptr);
    const Emif_Design* d = nullptr;
    void* rec = nullptr;
    checked = 0;
    ehfa_ObjectRead(f, EHFA_SEEK_BY_NAME, L":BlockProperty", L"GroundPoint0", &d, &rec, nullptr);
    for (int i = 0; rec; ++i) {
      checked += static_cast<const GroundPoint*>(rec)->id == i;
      emif_ObjectFree(d, rec, nullptr);
      rec = nullptr;
      if (i + 1 < kPoints) {
        ehfa_ObjectRead(f, EHFA_SEEK_NEXT_IN_FILE, nullptr, nullptr, &d, &rec, nullptr);
      }
    }
    ehfa_FileClose(f, nullptr);
  });
  std::vector<unsigned char> back(packed.size());
  const double raw_read_s = bench::BestSeconds(3, [&] {
    FILE* in = std::fopen(raw.c_str(), "rb");
    const size_t each = packed.size() / kPoints;
    for (int i = 0; i < kPoints; ++i) {
      if (std::fread(back.data() + each * static_cast<size_t>(i), 1, each, in) != each) break;
    }
    std::fclose(in);
  });
  bench::PrintComparison("read 100k ground points in file order", "stdio fread, same bytes", read_s,
                         raw_read_s, checked == kPoints ? "(target < 1 s)" : "(WRONG POINTS READ)");

  // Opening a 1 GiB image (sparse) reads its tree only.
  GDALAllRegister();
  const std::string big = dir.File("big.img");
  GDALDatasetH ds =
      GDALCreate(GDALGetDriverByName("HFA"), big.c_str(), 32768, 32768, 1, GDT_Byte, nullptr);
  GDALClose(ds);
  uint64_t bytes_read = 0;
  const std::wstring wbig = kzdv::FromUtf8(big);
  const double open_s = bench::BestSeconds(5, [&] {
    Ehfa_File* f = ehfa_FileOpen(wbig.c_str(), "r", nullptr, nullptr);
    bytes_read = kzdv::hfa::BytesRead(f);
    ehfa_FileClose(f, nullptr);
  });
  const double gdal_open_s = bench::BestSeconds(5, [&] {
    GDALDatasetH g = GDALOpen(big.c_str(), GA_ReadOnly);
    GDALClose(g);
  });
  char what[128];
  std::snprintf(what, sizeof what, "open 1 GiB image, tree only (%.1f KiB read)",
                bytes_read / 1024.0);
  bench::PrintComparison(what, "GDALOpen (HFA)", open_s, gdal_open_s);
  emif_DesignDestroy(design);
  return checked == kPoints ? 0 : 1;
}
