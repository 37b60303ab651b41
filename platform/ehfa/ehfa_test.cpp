// Files built from scratch with our designs: write positions, seeks, bulk
// writes, raw data, 100,000 small objects read back both ways, and GDAL
// opening what we write; then damaged files.
#include "ehfa.h"

#include <gdal.h>
#include <gdal_alg.h>
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "platform/eerr/error_frame.h"
#include "platform/ehfa/hfa_internal.h"
#include "platform/estr/utf8.h"
#include "test_util.h"

namespace {

struct ErrGuard {
  Eerr_ErrorReport* e = nullptr;
  ~ErrGuard() { eerr_DeleteErrorReport(e); }
  Eerr_ErrorReport** operator&() { return &e; }
  std::wstring Text() const { return kzdv::ReportText(e); }
  bool Mentions(const std::wstring& part) const { return Text().find(part) != std::wstring::npos; }
};

using DesignPtr = std::unique_ptr<Emif_Design, void (*)(Emif_Design*)>;
DesignPtr Own(Emif_Design* d) { return DesignPtr(d, emif_DesignDestroy); }

// A ground point the way the block file keeps one.
struct GroundPoint {
  int32_t id;
  Emif_CountedString description;
  double x, y, z;
  int32_t xdefined, ydefined, zdefined;
  int32_t type;
  int32_t usage;
  int32_t used;
  float color[3];
  float sx, sy, sz;
  double rx, ry, rz;
  int32_t image_points;
};
struct ImagePoint {
  int32_t image;
  double x, y;
};

DesignPtr GroundPointDesign() {
  ErrGuard err;
  const Etxt_Char* b = nullptr;
  DesignPtr d = Own(emif_DesignCreate(
      L"GroundPoint", 0xc, L"id", 0x208, L"Description", 0xe, L"Ground X", 0xe, L"Ground Y", 0xe,
      L"Ground Z", 3, L"Xdefined", L"FALSE", L"TRUE", b, 3, L"Ydefined", L"FALSE", L"TRUE", b, 3,
      L"Zdefined", L"FALSE", L"TRUE", b, 3, L"PointType", L"GCP_FULL", L"GCP_HORIZ", L"GCP_VERT",
      L"GCP_NONE", b, 3, L"PointUsage", L"GCP_CONTROL", L"GCP_CHECK", L"GCP_TIE", b, 3,
      L"PointUsed", L"FALSE", L"TRUE", b, 0x10d, L"color", 3, 0xd, L"Standard Deviation X", 0xd,
      L"Standard Deviation Y", 0xd, L"Standard Deviation Z", 0xe, L"Residual X", 0xe, L"Residual Y",
      0xe, L"Residual Z", 0xc, L"ImagePointCount", 0, &err));
  EXPECT_TRUE(d) << err.Text();
  EXPECT_EQ(emif_DesignSizeGet(d.get()), sizeof(GroundPoint));
  return d;
}
DesignPtr ImagePointDesign() {
  return Own(emif_DesignCreate(L"ImagePoint", 0xc, L"ImageIDNumber", 0xe, L"Image X", 0xe,
                               L"Image Y", 0, nullptr));
}

// The point with index i; every value follows from i.
GroundPoint PointFor(int i, std::wstring* text) {
  GroundPoint p{};
  *text = L"pt" + std::to_wstring(i);
  p.id = i;
  p.description = {static_cast<int32_t>(text->size() + 1), text->data()};
  p.x = 1000.25 + i, p.y = -i * 0.5, p.z = 100 + i % 97;
  p.xdefined = p.ydefined = 1;
  p.zdefined = i % 2;
  p.type = i % 4;
  p.usage = i % 3;
  p.used = 1;
  p.color[0] = 0.5f, p.color[1] = static_cast<float>(i % 7), p.color[2] = 1.0f;
  p.sx = p.sy = 0.1f, p.sz = 0.2f;
  p.rx = i * 1e-3, p.ry = -i * 1e-3, p.rz = 0;
  p.image_points = i % 10 == 0 ? 2 : 0;
  return p;
}

void ExpectPoint(const GroundPoint& p, int i) {
  std::wstring text;
  const GroundPoint q = PointFor(i, &text);
  ASSERT_EQ(p.id, i);
  EXPECT_EQ(std::wstring(p.description.data), text);
  EXPECT_EQ(p.x, q.x);
  EXPECT_EQ(p.y, q.y);
  EXPECT_EQ(p.z, q.z);
  EXPECT_EQ(p.zdefined, q.zdefined);
  EXPECT_EQ(p.type, q.type);
  EXPECT_EQ(p.usage, q.usage);
  EXPECT_EQ(p.color[1], q.color[1]);
  EXPECT_EQ(p.sz, q.sz);
  EXPECT_EQ(p.rx, q.rx);
  EXPECT_EQ(p.image_points, q.image_points);
}

TEST(EhfaFile, HundredThousandPointsReadBackSequentiallyAndBySeeking) {
  testutil::ScratchDir dir("ehfa_points");
  const std::wstring path = dir.WFile("points.blk");
  DesignPtr gp = GroundPointDesign();
  DesignPtr ip = ImagePointDesign();
  constexpr int kPoints = 100000;
  ErrGuard err;
  Ehfa_File* f = ehfa_FileCreate(path.c_str(), nullptr, &err);
  ASSERT_TRUE(f) << err.Text();
  ASSERT_TRUE(
      ehfa_EntryWrite(f, EHFA_WRITE_FIRST_CHILD, L"BlockProperty", L"Block_Property", &err));
  ASSERT_TRUE(ehfa_EntrySeek(f, EHFA_SEEK_INTO, L":BlockProperty", nullptr, &err));
  ASSERT_TRUE(ehfa_FileChange(f, EHFA_CHANGE_BULK, 0, nullptr, &err));
  for (int i = 0; i < kPoints; ++i) {
    std::wstring text;
    const GroundPoint p = PointFor(i, &text);
    const std::wstring name = L"GroundPoint" + std::to_wstring(i);
    ASSERT_TRUE(ehfa_ObjectWrite(f, L":BlockProperty", name.c_str(),
                                 i == 0 ? EHFA_WRITE_FIRST_CHILD : EHFA_WRITE_AFTER, gp.get(), &p,
                                 &err))
        << err.Text();
    for (int j = 0; j < p.image_points; ++j) {
      const ImagePoint q{j + 1, i + 0.5, j - 0.5};
      const std::wstring iname = L"ImagePoint" + std::to_wstring(j);
      ASSERT_TRUE(ehfa_ObjectWrite(f, nullptr, iname.c_str(),
                                   j == 0 ? EHFA_WRITE_FIRST_CHILD : EHFA_WRITE_AFTER, ip.get(), &q,
                                   &err));
    }
    if (p.image_points) {
      ASSERT_TRUE(ehfa_EntrySeek(f, EHFA_SEEK_PARENT, nullptr, nullptr, &err));
    }
  }
  ASSERT_TRUE(ehfa_FileChange(f, EHFA_CHANGE_BULK, 1, nullptr, &err));
  ASSERT_TRUE(ehfa_FileClose(f, &err)) << err.Text();

  f = ehfa_FileOpen(path.c_str(), "r", nullptr, &err);
  ASSERT_TRUE(f) << err.Text();
  // Opening reads the half million entry headers in one forward pass: about
  // the file once, not a read window per family.
  EXPECT_LT(kzdv::hfa::BytesRead(f), 2 * std::filesystem::file_size(kzdv::ToUtf8(path)));
  // Sequentially: each point, then its image points, in file order.
  const Emif_Design* d = nullptr;
  void* rec = nullptr;
  ASSERT_TRUE(
      ehfa_ObjectRead(f, EHFA_SEEK_BY_NAME, L":BlockProperty", L"GroundPoint0", &d, &rec, &err));
  for (int i = 0; i < kPoints; ++i) {
    if (i > 0) {
      const std::wstring name = L"GroundPoint" + std::to_wstring(i);
      ASSERT_TRUE(ehfa_ObjectRead(f, EHFA_SEEK_NEXT_IN_FILE, nullptr, name.c_str(), &d, &rec, &err))
          << err.Text();
    }
    const GroundPoint* p = static_cast<const GroundPoint*>(rec);
    ExpectPoint(*p, i);
    const int n = p->image_points;
    emif_ObjectFree(d, rec, nullptr);
    for (int j = 0; j < n; ++j) {
      ASSERT_TRUE(ehfa_ObjectRead(f, EHFA_SEEK_NEXT_IN_FILE, nullptr, nullptr, &d, &rec, &err));
      const ImagePoint* q = static_cast<const ImagePoint*>(rec);
      EXPECT_EQ(q->image, j + 1);
      EXPECT_EQ(q->x, i + 0.5);
      emif_ObjectFree(d, rec, nullptr);
    }
  }
  EXPECT_FALSE(ehfa_EntrySeekIfPresent(f, EHFA_SEEK_NEXT_IN_FILE, nullptr, nullptr, &err));
  // By seeking, in another order.
  for (int i = kPoints - 1; i >= 0; i -= 7) {
    const std::wstring name = L"GroundPoint" + std::to_wstring(i);
    ASSERT_TRUE(
        ehfa_ObjectRead(f, EHFA_SEEK_BY_NAME, L":BlockProperty", name.c_str(), &d, &rec, &err));
    ExpectPoint(*static_cast<const GroundPoint*>(rec), i);
    emif_ObjectFree(d, rec, nullptr);
    if (i % 10 == 0) {
      ASSERT_TRUE(ehfa_ObjectRead(f, EHFA_SEEK_BY_NAME, (L":BlockProperty:" + name).c_str(),
                                  L"ImagePoint1", &d, &rec, &err));
      EXPECT_EQ(static_cast<const ImagePoint*>(rec)->y, 0.5);
      emif_ObjectFree(d, rec, nullptr);
    }
  }
  Ehfa_EntryInfo info;
  ASSERT_TRUE(ehfa_EntrySeek(f, EHFA_SEEK_INTO, L":BlockProperty", nullptr, &err));
  ASSERT_TRUE(ehfa_EntryInfoGet(f, &info, &err));
  EXPECT_EQ(info.child_count, kPoints);
  EXPECT_TRUE(ehfa_FileClose(f, &err));
}

// Lookups by name in a large family go through an index built after a few
// scans; it must agree with a scan (the first of equal names wins) before and
// after children are added at either end, and after a reopen. Names and types
// of the largest size round-trip.
TEST(EhfaFile, LookupsInLargeFamiliesFindTheFirstOfEqualNames) {
  testutil::ScratchDir dir("ehfa_names");
  const std::wstring path = dir.WFile("names.hfa");
  const std::wstring longName(63, L'n'), longType(31, L't');
  ErrGuard err;
  Ehfa_File* f = ehfa_FileCreate(path.c_str(), nullptr, &err);
  ASSERT_TRUE(f) << err.Text();
  for (int i = 0; i < 40; ++i) {
    const std::wstring name = L"C" + std::to_wstring(i);
    ASSERT_TRUE(ehfa_EntryWrite(f, i == 0 ? EHFA_WRITE_FIRST_CHILD : EHFA_WRITE_AFTER, name.c_str(),
                                L"Kind", &err))
        << err.Text();
  }
  ASSERT_TRUE(ehfa_EntryWrite(f, EHFA_WRITE_AFTER, longName.c_str(), longType.c_str(), &err));
  auto offsetOf = [&](Ehfa_File* g, const wchar_t* name) -> long {
    ErrGuard e;
    if (!ehfa_EntrySeekIfPresent(g, EHFA_SEEK_BY_NAME, L":", name, &e)) return -1;
    Ehfa_EntryInfo info;
    ehfa_EntryInfoGet(g, &info, &e);
    return static_cast<long>(info.file_offset);
  };
  // Enough lookups to build the index, then duplicates at the end (the
  // earlier one stays found) and at the front (the new one is found).
  std::vector<long> first(40);
  for (int round = 0; round < 3; ++round) {
    for (int i = 0; i < 40; ++i) {
      const long at = offsetOf(f, (L"C" + std::to_wstring(i)).c_str());
      ASSERT_GT(at, 0) << i;
      if (round == 0) first[i] = at;
      EXPECT_EQ(at, first[i]) << i;
    }
  }
  EXPECT_EQ(offsetOf(f, L"C40"), -1);
  ASSERT_TRUE(ehfa_EntryWrite(f, EHFA_WRITE_AFTER, L"C5", L"Kind", &err));
  EXPECT_EQ(offsetOf(f, L"C5"), first[5]);
  ASSERT_TRUE(ehfa_EntrySeek(f, EHFA_SEEK_ROOT, nullptr, nullptr, &err));
  ASSERT_TRUE(ehfa_EntryWrite(f, EHFA_WRITE_FIRST_CHILD, L"C7", L"Other", &err));
  const long front = offsetOf(f, L"C7");
  EXPECT_NE(front, first[7]);
  ASSERT_TRUE(ehfa_FileClose(f, &err)) << err.Text();

  f = ehfa_FileOpen(path.c_str(), "r", nullptr, &err);
  ASSERT_TRUE(f) << err.Text();
  for (int round = 0; round < 12; ++round) {
    EXPECT_EQ(offsetOf(f, L"C5"), first[5]);
    EXPECT_EQ(offsetOf(f, L"C7"), front);
    EXPECT_EQ(offsetOf(f, L"C39"), first[39]);
  }
  ASSERT_GT(offsetOf(f, longName.c_str()), 0);
  Ehfa_EntryInfo info;
  ASSERT_TRUE(ehfa_EntryInfoGet(f, &info, &err));
  EXPECT_EQ(std::string(info.name), kzdv::ToUtf8(longName));
  EXPECT_EQ(std::string(info.type), kzdv::ToUtf8(longType));
  const uint32_t longAt = info.file_offset;
  ASSERT_TRUE(ehfa_EntrySeek(f, EHFA_SEEK_ROOT, nullptr, nullptr, &err));
  ASSERT_TRUE(ehfa_EntryInfoGet(f, &info, &err));
  EXPECT_EQ(info.child_count, 43);
  EXPECT_TRUE(ehfa_FileClose(f, &err));

  // Another writer may fill the name field to its end with no terminating
  // zero: the name is read whole.
  {
    std::fstream io(kzdv::ToUtf8(path), std::ios::in | std::ios::out | std::ios::binary);
    io.seekp(longAt + 24 + 63);
    io.put('z');
  }
  f = ehfa_FileOpen(path.c_str(), "r", nullptr, &err);
  ASSERT_TRUE(f) << err.Text();
  EXPECT_EQ(offsetOf(f, longName.c_str()), -1);
  EXPECT_EQ(offsetOf(f, (longName + L"z").c_str()), static_cast<long>(longAt));
  EXPECT_TRUE(ehfa_FileClose(f, &err));
}

// Names of the children of `path`, read from a fresh open of the file.
std::vector<std::string> ChildrenOnDisk(const std::wstring& file, const wchar_t* path) {
  ErrGuard err;
  std::vector<std::string> names;
  Ehfa_File* f = ehfa_FileOpen(file.c_str(), "r", nullptr, &err);
  if (!f) return {"<" + kzdv::ToUtf8(err.Text()) + ">"};
  if (ehfa_EntrySeek(f, EHFA_SEEK_INTO, path, nullptr, &err) &&
      ehfa_EntrySeekIfPresent(f, EHFA_SEEK_FIRST_CHILD, nullptr, nullptr, &err)) {
    do {
      Ehfa_EntryInfo info;
      ehfa_EntryInfoGet(f, &info, &err);
      names.push_back(info.name);
    } while (ehfa_EntrySeekIfPresent(f, EHFA_SEEK_NEXT_SIBLING, nullptr, nullptr, &err));
  }
  ehfa_FileClose(f, nullptr);
  return names;
}

TEST(EhfaFile, WritePositionsSeeksAndBulkWrites) {
  testutil::ScratchDir dir("ehfa_pos");
  const std::wstring path = dir.WFile("pos.hfa");
  ErrGuard err;
  DesignPtr d = Own(emif_DesignCreate(L"Value", 0xc, L"v", 0, &err));
  Ehfa_File* f = ehfa_FileCreate(path.c_str(), nullptr, &err);
  ASSERT_TRUE(f);
  int32_t v = 1;
  ASSERT_TRUE(ehfa_ObjectWrite(f, L":", L"B", EHFA_WRITE_FIRST_CHILD, d.get(), &v, &err));
  ASSERT_TRUE(ehfa_ObjectWrite(f, L":", L"A", EHFA_WRITE_FIRST_CHILD, d.get(), &v, &err));
  ASSERT_TRUE(ehfa_ObjectWrite(f, L":", L"A2", EHFA_WRITE_AFTER, d.get(), &v, &err));
  ASSERT_TRUE(ehfa_ObjectWrite(f, L":", L"Z", EHFA_WRITE_REPLACE, d.get(), &v, &err));
  ASSERT_TRUE(ehfa_EntryWrite(f, EHFA_WRITE_FIRST_CHILD, L"child", L"Value", &err));
  // Written outside a bulk write: on disk at once, visible to another reader.
  EXPECT_EQ(ChildrenOnDisk(path, L":"), (std::vector<std::string>{"A", "A2", "B", "Z"}));
  EXPECT_EQ(ChildrenOnDisk(path, L":Z"), (std::vector<std::string>{"child"}));

  // Replacing keeps the place and the children, and reads back the new value.
  v = 7;
  ASSERT_TRUE(ehfa_ObjectWrite(f, L":", L"A2", EHFA_WRITE_REPLACE, d.get(), &v, &err));
  v = 8;
  ASSERT_TRUE(ehfa_ObjectWrite(f, L":", L"Z", EHFA_WRITE_REPLACE, d.get(), &v, &err));
  EXPECT_EQ(ChildrenOnDisk(path, L":Z"), (std::vector<std::string>{"child"}));

  // Inside a bulk write nothing new is linked on disk until it ends.
  ASSERT_TRUE(ehfa_FileChange(f, EHFA_CHANGE_BULK, 0, nullptr, &err));
  ASSERT_TRUE(ehfa_ObjectWrite(f, L":", L"C", EHFA_WRITE_REPLACE, d.get(), &v, &err));
  EXPECT_EQ(ChildrenOnDisk(path, L":"), (std::vector<std::string>{"A", "A2", "B", "Z"}));
  ASSERT_TRUE(ehfa_FileChange(f, EHFA_CHANGE_BULK, 1, nullptr, &err));
  EXPECT_EQ(ChildrenOnDisk(path, L":"), (std::vector<std::string>{"A", "A2", "B", "Z", "C"}));
  EXPECT_FALSE(ehfa_FileChange(f, EHFA_CHANGE_BULK, 1, nullptr, &err));  // none open
  eerr_DeleteErrorReportEx(&err.e);

  // Seeks.
  ASSERT_TRUE(ehfa_EntrySeek(f, EHFA_SEEK_INTO, L":Z", L"child", &err));
  ASSERT_TRUE(ehfa_EntrySeek(f, EHFA_SEEK_PARENT, nullptr, nullptr, &err));
  Etxt_Char* where = ehfa_EntryPathGet(f, &err);
  EXPECT_STREQ(where, L":Z");
  emsc_HeapFree(where);
  EXPECT_FALSE(ehfa_EntrySeek(f, EHFA_SEEK_NEXT_IN_FILE, nullptr, L"nonsense", &err));
  EXPECT_TRUE(err.Mentions(L"the entry after :Z is child, not nonsense")) << err.Text();
  eerr_DeleteErrorReportEx(&err.e);
  EXPECT_FALSE(ehfa_EntrySeek(f, EHFA_SEEK_BY_NAME, L":", L"Missing", &err));
  EXPECT_TRUE(err.Mentions(L"Node :Missing not found")) << err.Text();
  eerr_DeleteErrorReportEx(&err.e);

  // Deleting a node drops it with its children.
  ASSERT_TRUE(ehfa_EntrySeek(f, EHFA_SEEK_INTO, L":A2", nullptr, &err));
  ASSERT_TRUE(ehfa_EntryDelete(f, &err));
  ASSERT_TRUE(ehfa_FileClose(f, &err));
  EXPECT_EQ(ChildrenOnDisk(path, L":"), (std::vector<std::string>{"A", "B", "Z", "C"}));

  f = ehfa_FileOpen(path.c_str(), "r", nullptr, &err);
  const Emif_Design* rd = nullptr;
  void* rec = nullptr;
  ASSERT_TRUE(ehfa_ObjectRead(f, EHFA_SEEK_BY_NAME, L":", L"Z", &rd, &rec, &err));
  EXPECT_EQ(*static_cast<int32_t*>(rec), 8);
  emif_ObjectFree(rd, rec, nullptr);
  // A read-only file refuses writes.
  EXPECT_FALSE(ehfa_ObjectWrite(f, L":", L"Q", EHFA_WRITE_REPLACE, d.get(), &v, &err));
  EXPECT_TRUE(err.Mentions(L"open for reading only"));
  ehfa_FileClose(f, nullptr);
}

TEST(EhfaFile, ObjectsStoredUnderAnOlderLayoutReadIntoTheCurrentOne) {
  // A stored object lacking the two newest fields reads them as zero.
  testutil::ScratchDir dir("ehfa_into");
  const std::wstring path = dir.WFile("into.hfa");
  ErrGuard err;
  DesignPtr old_d = Own(emif_DesignCreate(L"ExtraAutoTieParameters", 0xc, L"PatternUsage", 0xc,
                                          L"PointsPerPattern", 0, &err));
  DesignPtr new_d = Own(emif_DesignCreate(L"ExtraAutoTieParameters", 0xc, L"PatternUsage", 0xc,
                                          L"PointsPerPattern", 0xc, L"AvoidShadow", 0xc,
                                          L"ImageScanType", 0, &err));
  Ehfa_File* f = ehfa_FileCreate(path.c_str(), nullptr, &err);
  const int32_t stored[2] = {3, 4};
  ASSERT_TRUE(ehfa_ObjectWrite(f, L":", L"ExtraAutoTieData", EHFA_WRITE_REPLACE, old_d.get(),
                               stored, &err));
  ASSERT_TRUE(ehfa_FileClose(f, &err));
  f = ehfa_FileOpen(path.c_str(), "r", nullptr, &err);
  int32_t now[4] = {-1, -1, -1, -1};
  ASSERT_TRUE(
      ehfa_ObjectReadInto(f, EHFA_SEEK_BY_NAME, L":", L"ExtraAutoTieData", new_d.get(), now, &err))
      << err.Text();
  EXPECT_EQ(now[0], 3);
  EXPECT_EQ(now[1], 4);
  EXPECT_EQ(now[2], 0);
  EXPECT_EQ(now[3], 0);
  EXPECT_FALSE(
      ehfa_ObjectReadIntoIfPresent(f, EHFA_SEEK_BY_NAME, L":", L"Missing", new_d.get(), now, &err));
  EXPECT_FALSE(err.e);
  ehfa_FileClose(f, nullptr);
}

TEST(EhfaFile, RawDataTravelWithOffsetsFromZeroAndLandAbsolute) {
  testutil::ScratchDir dir("ehfa_raw");
  const std::wstring path = dir.WFile("raw.hfa");
  ErrGuard err;
  DesignPtr d = Own(emif_DesignCreate(L"Frame_X", 0xc, L"n", 0x20e, L"values", 0, &err));
  struct Rec {
    int32_t n;
    Emif_CountedDoubles values;
  };
  double vals[3] = {1.5, 2.5, -3};
  Rec r{3, {3, vals}};
  uint32_t size = 0;
  unsigned char* bytes = emif_ObjectEncode(d.get(), &r, 0, &size, &err);
  ASSERT_EQ(size, 4u + 8u + 24u);
  Ehfa_File* f = ehfa_FileCreate(path.c_str(), nullptr, &err);
  ASSERT_TRUE(emif_DictionaryAddDesign(ehfa_FileDictionaryGet(f), d.get(), &err));
  ASSERT_TRUE(ehfa_ObjectDataWrite(f, L":", L"Frame0", EHFA_WRITE_FIRST_CHILD, L"Frame_X", bytes,
                                   size, &err))
      << err.Text();
  Ehfa_EntryInfo info;
  ASSERT_TRUE(ehfa_EntryInfoGet(f, &info, &err));
  ASSERT_TRUE(ehfa_FileClose(f, &err));
  // On disk the array's offset is absolute: just past its count/offset pair.
  std::ifstream in(kzdv::ToUtf8(path), std::ios::binary);
  std::vector<char> file((std::istreambuf_iterator<char>(in)), {});
  uint32_t stored;
  std::memcpy(&stored, file.data() + info.data_offset + 8, 4);
  EXPECT_EQ(stored, info.data_offset + 12);

  f = ehfa_FileOpen(path.c_str(), "r+b", nullptr, &err);
  unsigned char* back = nullptr;
  uint32_t back_size = 0;
  Etxt_Char* type = nullptr;
  ASSERT_TRUE(ehfa_ObjectDataReadIfPresent(f, EHFA_SEEK_BY_NAME, L":", L"Frame0", &back, &back_size,
                                           &type, &err));
  ASSERT_EQ(back_size, size);
  EXPECT_EQ(0, std::memcmp(back, bytes, size));
  EXPECT_STREQ(type, L"Frame_X");
  emsc_HeapFree(back);
  EXPECT_FALSE(ehfa_ObjectDataReadIfPresent(f, EHFA_SEEK_BY_NAME, L":", L"Frame1", &back,
                                            &back_size, nullptr, &err));
  EXPECT_FALSE(err.e);
  // Bytes that do not fit their design are refused.
  EXPECT_FALSE(
      ehfa_ObjectDataWrite(f, L":", L"Frame1", EHFA_WRITE_AFTER, L"Frame_X", bytes, 10, &err));
  EXPECT_TRUE(err.Mentions(L"do not match design Frame_X")) << err.Text();
  emsc_HeapFree(type);
  emsc_HeapFree(bytes);
  ehfa_FileClose(f, nullptr);
}

// Sets a 32-bit field of a record found through its design.
void SetField(const Emif_Design* d, void* rec, const wchar_t* name, uint32_t v) {
  Emif_FieldInfo info;
  ASSERT_TRUE(emif_DesignFieldFind(d, name, &info)) << name;
  std::memcpy(static_cast<char*>(rec) + info.offset, &v, 4);
}

TEST(EhfaFile, GdalReadsAnImageLayerWeWrite) {
  // We write a one-band image node by node through our own calls, taking
  // only the layer records from a GDAL file; GDAL then reads our pixels.
  testutil::ScratchDir dir("ehfa_ourimage");
  GDALAllRegister();
  const std::string model = dir.File("model.img");
  GDALDatasetH ds =
      GDALCreate(GDALGetDriverByName("HFA"), model.c_str(), 64, 64, 1, GDT_Byte, nullptr);
  ASSERT_TRUE(ds);
  GDALClose(ds);
  std::vector<unsigned char> pixels(64 * 64);
  for (size_t i = 0; i < pixels.size(); ++i) pixels[i] = static_cast<unsigned char>(i * 7 % 253);

  ErrGuard err;
  Ehfa_File* src = ehfa_FileOpen(kzdv::FromUtf8(model).c_str(), "r", nullptr, &err);
  ASSERT_TRUE(src) << err.Text();
  const std::wstring path = dir.WFile("ours.img");
  Ehfa_File* f = ehfa_FileCreate(path.c_str(), nullptr, &err);
  ASSERT_TRUE(f) << err.Text();
  // The pixels and the layer dictionary text are data of nodes of their own.
  ASSERT_TRUE(ehfa_ObjectDataWrite(f, L":", L"Pixels", EHFA_WRITE_FIRST_CHILD, L"Raw_Block",
                                   pixels.data(), static_cast<uint32_t>(pixels.size()), &err));
  Ehfa_EntryInfo block;
  ASSERT_TRUE(ehfa_EntryInfoGet(f, &block, &err));
  const char kLayerDict[] = "{4096:Cdata,}RasterDMS,.";
  ASSERT_TRUE(ehfa_ObjectDataWrite(f, L":", L"LayerDictionary", EHFA_WRITE_AFTER, L"Raw_Text",
                                   kLayerDict, sizeof kLayerDict, &err));
  Ehfa_EntryInfo text;
  ASSERT_TRUE(ehfa_EntryInfoGet(f, &text, &err));

  const Emif_Design* d = nullptr;
  void* rec = nullptr;
  ASSERT_TRUE(ehfa_ObjectRead(src, EHFA_SEEK_INTO, L":Layer_1", nullptr, &d, &rec, &err));
  ASSERT_TRUE(ehfa_ObjectWrite(f, L":", L"Layer_1", EHFA_WRITE_REPLACE, d, rec, &err));
  emif_ObjectFree(d, rec, nullptr);
  ASSERT_TRUE(ehfa_ObjectRead(src, EHFA_SEEK_INTO, L":Layer_1:RasterDMS", nullptr, &d, &rec, &err));
  Emif_FieldInfo blocks_field;
  ASSERT_TRUE(emif_DesignFieldFind(d, L"blockinfo", &blocks_field));
  Emif_CountedObjects blocks;
  std::memcpy(&blocks, static_cast<char*>(rec) + blocks_field.offset, sizeof blocks);
  ASSERT_EQ(blocks.count, 1);
  SetField(blocks_field.design, blocks.data, L"offset", block.data_offset);
  SetField(blocks_field.design, blocks.data, L"size", block.data_size);
  SetField(blocks_field.design, blocks.data, L"logvalid", 1);
  ASSERT_TRUE(ehfa_ObjectWrite(f, L":Layer_1", L"RasterDMS", EHFA_WRITE_FIRST_CHILD, d, rec, &err));
  emif_ObjectFree(d, rec, nullptr);
  ASSERT_TRUE(
      ehfa_ObjectRead(src, EHFA_SEEK_INTO, L":Layer_1:Ehfa_Layer", nullptr, &d, &rec, &err));
  SetField(d, rec, L"dictionaryPtr", text.data_offset);
  ASSERT_TRUE(ehfa_ObjectWrite(f, L":Layer_1", L"Ehfa_Layer", EHFA_WRITE_REPLACE, d, rec, &err));
  emif_ObjectFree(d, rec, nullptr);
  ASSERT_TRUE(ehfa_FileClose(f, &err)) << err.Text();
  ehfa_FileClose(src, nullptr);

  // GDAL's checksum of our file equals its checksum of the same pixels in memory.
  GDALDatasetH mem = GDALCreate(GDALGetDriverByName("MEM"), "", 64, 64, 1, GDT_Byte, nullptr);
  ASSERT_EQ(GDALRasterIO(GDALGetRasterBand(mem, 1), GF_Write, 0, 0, 64, 64, pixels.data(), 64, 64,
                         GDT_Byte, 0, 0),
            CE_None);
  const int expected = GDALChecksumImage(GDALGetRasterBand(mem, 1), 0, 0, 64, 64);
  GDALClose(mem);
  ds = GDALOpen(kzdv::ToUtf8(path).c_str(), GA_ReadOnly);
  ASSERT_TRUE(ds) << CPLGetLastErrorMsg();
  ASSERT_EQ(GDALGetRasterCount(ds), 1);
  EXPECT_EQ(GDALChecksumImage(GDALGetRasterBand(ds, 1), 0, 0, 64, 64), expected);
  GDALClose(ds);
}

// ---- damaged files ----------------------------------------------------------

// Opens a file and decodes every object; true when all of it was readable.
bool ReadsCompletely(const std::wstring& path) {
  ErrGuard err;
  Ehfa_File* f = ehfa_FileOpen(path.c_str(), "r", nullptr, &err);
  if (!f) return false;
  bool ok = true;
  while (ehfa_EntrySeekIfPresent(f, EHFA_SEEK_NEXT_IN_FILE, nullptr, nullptr, &err)) {
    const Emif_Design* d = nullptr;
    void* rec = nullptr;
    Ehfa_EntryInfo info;
    ErrGuard info_err;  // a damaged family fails here, each time with its own report
    if (!ehfa_EntryInfoGet(f, &info, &info_err)) {
      ok = false;
      continue;
    }
    if (info.data_size == 0) continue;
    ErrGuard read_err;
    if (ehfa_ObjectRead(f, EHFA_SEEK_INTO, nullptr, nullptr, &d, &rec, &read_err)) {
      emif_ObjectFree(d, rec, nullptr);
    } else {
      ok = false;
    }
  }
  ehfa_FileClose(f, nullptr);
  return ok;
}

std::vector<char> Slurp(const std::wstring& path) {
  std::ifstream in(kzdv::ToUtf8(path), std::ios::binary);
  return std::vector<char>((std::istreambuf_iterator<char>(in)), {});
}
void Spit(const std::wstring& path, const std::vector<char>& bytes) {
  std::ofstream out(kzdv::ToUtf8(path), std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}
void Put32(std::vector<char>* b, size_t at, uint32_t v) { std::memcpy(b->data() + at, &v, 4); }
uint32_t Get32(const std::vector<char>& b, size_t at) {
  uint32_t v;
  std::memcpy(&v, b.data() + at, 4);
  return v;
}

std::wstring OpenError(const std::wstring& path) {
  ErrGuard err;
  Ehfa_File* f = ehfa_FileOpen(path.c_str(), "r", nullptr, &err);
  ehfa_FileClose(f, nullptr);
  return f ? L"" : err.Text();
}

TEST(EhfaFile, DamagedFilesAreReportedNeverFollowed) {
  testutil::ScratchDir dir("ehfa_bad");
  const std::wstring good = dir.WFile("good.hfa");
  ErrGuard err;
  DesignPtr gp = GroundPointDesign();
  Ehfa_File* f = ehfa_FileCreate(good.c_str(), nullptr, &err);
  for (int i = 0; i < 3; ++i) {
    std::wstring text;
    const GroundPoint p = PointFor(i, &text);
    ASSERT_TRUE(ehfa_ObjectWrite(f, L":", (L"P" + std::to_wstring(i)).c_str(), EHFA_WRITE_REPLACE,
                                 gp.get(), &p, &err));
  }
  ASSERT_TRUE(ehfa_EntrySeek(f, EHFA_SEEK_INTO, L":P1", nullptr, &err));
  Ehfa_EntryInfo p1;
  ASSERT_TRUE(ehfa_EntryInfoGet(f, &p1, &err));
  ASSERT_TRUE(ehfa_FileClose(f, &err));
  ASSERT_TRUE(ReadsCompletely(good));
  const std::vector<char> bytes = Slurp(good);
  const std::wstring bad = dir.WFile("bad.hfa");

  // Truncated anywhere: a report or a partial read, never a crash.
  for (size_t n = 0; n < bytes.size(); n += 13) {
    Spit(bad, std::vector<char>(bytes.begin(), bytes.begin() + static_cast<long>(n)));
    const bool complete = ReadsCompletely(bad);
    if (n < p1.data_offset + p1.data_size) {
      EXPECT_FALSE(complete) << n;
    }
  }
  // Damage in the tree is refused at the open; damage in an object's data
  // or its design when that object is read.
  const std::string text(bytes.begin(), bytes.end());
  const size_t type_at = text.find("1:Lid,");
  ASSERT_NE(type_at, std::string::npos);
  const struct {
    const char* what;
    std::function<void(std::vector<char>*)> damage;
    std::wstring open_message, read_message;
  } cases[] = {
      {"not a hierarchical file", [](auto* b) { (*b)[3] = 'x'; }, L"no EHFA_HEADER_TAG", L""},
      {"a child link back at the root makes a cycle",
       [&](auto* b) { Put32(b, p1.file_offset + 12, Get32(*b, 28)); }, L"linked twice", L""},
      {"a next link past the end", [&](auto* b) { Put32(b, p1.file_offset, 0x7ffffff0u); },
       L"outside the file", L""},
      {"data past the end",
       [&](auto* b) { Put32(b, p1.file_offset + 16, static_cast<uint32_t>(bytes.size() - 4)); },
       L"", L"beyond the end of the file"},
      {"an absurd string count", [&](auto* b) { Put32(b, p1.data_offset + 4, 0xffffff00u); }, L"",
       L"exceeds the data"},
      {"an unknown type character in the dictionary", [&](auto* b) { (*b)[type_at + 2] = 'Q'; },
       L"", L"has the unknown type 'Q'"},
  };
  std::vector<char> b;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    b = bytes;
    c.damage(&b);
    Spit(bad, b);
    ErrGuard e;
    Ehfa_File* g = ehfa_FileOpen(bad.c_str(), "r", nullptr, &e);
    if (!c.open_message.empty()) {
      EXPECT_FALSE(g);
      EXPECT_TRUE(e.Mentions(c.open_message)) << e.Text();
      ehfa_FileClose(g, nullptr);
      continue;
    }
    ASSERT_TRUE(g) << e.Text();
    const Emif_Design* d;
    void* rec;
    EXPECT_FALSE(ehfa_ObjectRead(g, EHFA_SEEK_BY_NAME, L":", L"P1", &d, &rec, &e));
    EXPECT_TRUE(e.Mentions(c.read_message)) << e.Text();
    ehfa_FileClose(g, nullptr);
  }
  // Random damage: never a crash (the sanitizer build checks the rest).
  std::mt19937 rng(7);
  for (int round = 0; round < 400; ++round) {
    b = bytes;
    for (int k = 0; k < 4; ++k) b[rng() % b.size()] = static_cast<char>(rng());
    Spit(bad, b);
    ReadsCompletely(bad);
  }
}

// ---- families read on first use ---------------------------------------------

// Entries in memory: the tree's slots less the released ones.
size_t LiveEntries(const Ehfa_File* f) { return f->nodes.size() - f->free_nodes.size(); }

// Entries of a whole file, in file order.
long CountEntries(const std::wstring& path) {
  ErrGuard err;
  Ehfa_File* f = ehfa_FileOpen(path.c_str(), "r", nullptr, &err);
  if (!f) return -1;
  long n = 1;
  while (ehfa_EntrySeekIfPresent(f, EHFA_SEEK_NEXT_IN_FILE, nullptr, nullptr, &err)) ++n;
  ehfa_FileClose(f, nullptr);
  return err.e ? -1 : n;
}

// Families below the second level (a block's image points) stay on disk
// until used and are given back after; whatever reaches them (sequential
// and named reads, writes into them or onto their parents, copies) sees
// them whole, and damage inside one is reported when it is reached.
TEST(EhfaFile, DeepFamiliesAreReadOnFirstUseAndReleasedAfter) {
  testutil::ScratchDir dir("ehfa_deep");
  const std::wstring path = dir.WFile("deep.hfa");
  ErrGuard err;
  DesignPtr d = Own(emif_DesignCreate(L"Value", 0xc, L"v", 0, &err));
  constexpr int kFamilies = 300, kLeaves = 3;
  {
    Ehfa_File* f = ehfa_FileCreate(path.c_str(), nullptr, &err);
    ASSERT_TRUE(f) << err.Text();
    int32_t v = 0;
    ASSERT_TRUE(ehfa_ObjectWrite(f, L":", L"A", EHFA_WRITE_FIRST_CHILD, d.get(), &v, &err));
    for (int i = 0; i < kFamilies; ++i) {
      const std::wstring g = L"G" + std::to_wstring(i);
      v = i;
      ASSERT_TRUE(ehfa_ObjectWrite(f, L":A", g.c_str(), EHFA_WRITE_REPLACE, d.get(), &v, &err));
      for (int j = 0; j < kLeaves; ++j) {
        v = 10 * i + j;
        ASSERT_TRUE(ehfa_ObjectWrite(f, (L":A:" + g).c_str(), (L"L" + std::to_wstring(j)).c_str(),
                                     EHFA_WRITE_REPLACE, d.get(), &v, &err));
      }
    }
    v = -1;
    ASSERT_TRUE(ehfa_ObjectWrite(f, L":A:G0:L0", L"Deep", EHFA_WRITE_REPLACE, d.get(), &v, &err));
    ASSERT_TRUE(ehfa_FileClose(f, &err)) << err.Text();
  }
  const long all = 2 + kFamilies * (1 + kLeaves) + 1;
  ASSERT_EQ(CountEntries(path), all);

  Ehfa_File* f = ehfa_FileOpen(path.c_str(), "r", nullptr, &err);
  ASSERT_TRUE(f) << err.Text();
  EXPECT_EQ(LiveEntries(f), 2u + kFamilies) << "only the root, A and its children";
  // In file order: every value, with a bounded number of families in memory.
  size_t most = 0;
  int32_t v = 0;
  ASSERT_TRUE(ehfa_EntrySeek(f, EHFA_SEEK_INTO, L":A", nullptr, &err));
  for (int i = 0; i < kFamilies; ++i) {
    ASSERT_TRUE(ehfa_ObjectReadInto(f, EHFA_SEEK_NEXT_IN_FILE, nullptr,
                                    (L"G" + std::to_wstring(i)).c_str(), d.get(), &v, &err))
        << err.Text();
    EXPECT_EQ(v, i);
    for (int j = 0; j < kLeaves; ++j) {
      ASSERT_TRUE(ehfa_ObjectReadInto(f, EHFA_SEEK_NEXT_IN_FILE, nullptr,
                                      (L"L" + std::to_wstring(j)).c_str(), d.get(), &v, &err))
          << err.Text();
      EXPECT_EQ(v, 10 * i + j);
      if (i == 0 && j == 0) {
        ASSERT_TRUE(
            ehfa_ObjectReadInto(f, EHFA_SEEK_NEXT_IN_FILE, nullptr, L"Deep", d.get(), &v, &err));
        EXPECT_EQ(v, -1);
      }
    }
    most = std::max(most, LiveEntries(f));
  }
  EXPECT_LT(most, static_cast<size_t>(all) * 2 / 3) << "families read long ago are given back";
  // Released families are read again by name, down to the deepest entry.
  ASSERT_TRUE(ehfa_ObjectReadInto(f, EHFA_SEEK_BY_NAME, L":A:G0:L0", L"Deep", d.get(), &v, &err))
      << err.Text();
  EXPECT_EQ(v, -1);
  ASSERT_TRUE(ehfa_EntrySeek(f, EHFA_SEEK_INTO, L":A:G1", nullptr, &err));
  Ehfa_EntryInfo info;
  ASSERT_TRUE(ehfa_EntryInfoGet(f, &info, &err));
  EXPECT_EQ(info.child_count, kLeaves);
  ASSERT_TRUE(ehfa_FileClose(f, &err));

  // A copy holds every entry.
  const std::wstring copy = dir.WFile("copy.hfa");
  Ehfa_CEFRecord table[1] = {};
  ASSERT_TRUE(ehfa_FileCopy(path.c_str(), copy.c_str(), table, nullptr, &err)) << err.Text();
  EXPECT_EQ(CountEntries(copy), all);

  // A new leaf in a family still on disk, and new data for an entry whose
  // family is still on disk: both families keep every child.
  f = ehfa_FileOpen(path.c_str(), "r+b", nullptr, &err);
  ASSERT_TRUE(f) << err.Text();
  v = 7;
  ASSERT_TRUE(ehfa_ObjectWrite(f, L":A:G5", L"L3", EHFA_WRITE_REPLACE, d.get(), &v, &err));
  ASSERT_TRUE(ehfa_ObjectWrite(f, L":A", L"G7", EHFA_WRITE_REPLACE, d.get(), &v, &err));
  ASSERT_TRUE(ehfa_FileClose(f, &err)) << err.Text();
  EXPECT_EQ(ChildrenOnDisk(path, L":A:G5"), (std::vector<std::string>{"L0", "L1", "L2", "L3"}));
  EXPECT_EQ(ChildrenOnDisk(path, L":A:G7"), (std::vector<std::string>{"L0", "L1", "L2"}));
  EXPECT_EQ(CountEntries(path), all + 1);

  // Damage inside a family: the file opens, reaching the family fails.
  f = ehfa_FileOpen(path.c_str(), "r", nullptr, &err);
  ASSERT_TRUE(ehfa_EntrySeek(f, EHFA_SEEK_INTO, L":A:G9:L1", nullptr, &err));
  ASSERT_TRUE(ehfa_EntryInfoGet(f, &info, &err));
  ehfa_FileClose(f, nullptr);
  std::vector<char> bytes = Slurp(path);
  Put32(&bytes, info.file_offset, 0x7ffffff0u);
  const std::wstring bad = dir.WFile("bad.hfa");
  Spit(bad, bytes);
  EXPECT_EQ(OpenError(bad), L"");
  f = ehfa_FileOpen(bad.c_str(), "r", nullptr, &err);
  ASSERT_TRUE(f);
  ErrGuard seek_err;
  EXPECT_FALSE(ehfa_EntrySeek(f, EHFA_SEEK_INTO, L":A:G9:L2", nullptr, &seek_err));
  EXPECT_TRUE(seek_err.Mentions(L"outside the file")) << seek_err.Text();
  ehfa_FileClose(f, nullptr);
  EXPECT_FALSE(ReadsCompletely(bad));
  // So is a write into it.
  f = ehfa_FileOpen(bad.c_str(), "r+b", nullptr, &err);
  ASSERT_TRUE(f);
  ErrGuard write_err;
  EXPECT_FALSE(ehfa_ObjectWrite(f, L":A:G9", L"L9", EHFA_WRITE_REPLACE, d.get(), &v, &write_err));
  EXPECT_TRUE(write_err.Mentions(L"outside the file")) << write_err.Text();
  ehfa_FileClose(f, nullptr);
}

}  // namespace
