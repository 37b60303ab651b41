// `epho block create` and `epho block info` on a block made through the
// library, and `epho hfa dump` decoding every node of a block file.
#include <gtest/gtest.h>

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <cstdio>
#include <sstream>
#include <string>

#include "epho/block.h"
#include "platform/estr/utf8.h"
#include "test_util.h"

namespace epho_tool {
int BlockInfo(FILE* out, const std::string& file, bool json);
int BlockCreate(const std::string& file, const std::string& units);
int HfaDump(FILE* out, const std::string& file, const std::string& node, bool json, int max_items);
}  // namespace epho_tool

namespace {

std::string Capture(const std::function<int(FILE*)>& fn, int* rc) {
  FILE* out = std::tmpfile();
  *rc = fn(out);
  std::rewind(out);
  std::string text;
  char buf[4096];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, out)) > 0) text.append(buf, n);
  std::fclose(out);
  return text;
}

// Ground points of every usage, one DTM, one frame and the sensor.
void Fill(const std::string& file) {
  EtxtTextU name(kzdv::FromUtf8(file));
  EphoBlockFile* b = EphoBlockFile::Open(name, false);
  ASSERT_TRUE(b);
  EdlmList points(EphoBlockFile::freeGroundPoint);
  points.Reset(edlm_InitList(sizeof(void*), 6, EphoBlockFile::freeGroundPoint,
                             EphoBlockFile::copyGroundPoint, nullptr));
  const int usages[6] = {GCP_CONTROL, GCP_CONTROL, GCP_CHECK, GCP_TIE, GCP_TIE, GCP_TIE};
  for (int i = 0; i < 6; ++i) {
    auto* gp = static_cast<Epho_GroundPoint*>(emsc_HeapCalloc(1, sizeof(Epho_GroundPoint)));
    gp->id = i;
    gp->pointUsage = usages[i];
    gp->groundZ = 50.0 * i - 20;
    gp->imagePoints = edlm_InitList(sizeof(void*), 1, EphoBlockFile::freeImagePoint,
                                    EphoBlockFile::copyImagePoint, nullptr);
    edlm_Add(gp->imagePoints, emsc_HeapCalloc(1, sizeof(Epho_ImagePoint)), nullptr);
    edlm_Add(points.Get(), gp, nullptr);
  }
  b->PutObjectPointsList(points);
  EdlmList dtms(EphoBlockFile::freeDtm);
  dtms.Reset(
      edlm_InitList(sizeof(void*), 1, EphoBlockFile::freeDtm, EphoBlockFile::copyDtm, nullptr));
  Epho_BlockDTM* dem = EphoBlockFile::BlockDTMCreate();
  double params[EPRJ_PARAMETER_COUNT] = {};
  dem->proparm =
      eprj_ProParametersCreate(EPRJ_UTM, L"UTM", 33, params, L"WGS 84", nullptr, nullptr);
  edlm_Add(dtms.Get(), dem, nullptr);
  b->PutDTMList(dtms);
  Emif_Design* frame = emif_DesignCreate(L"Tool_Frame", EMIF_T_DOUBLE, L"focal", 0, nullptr);
  EdlmList images(EphoBlockFile::freeBlkImage);
  images.Reset(edlm_InitList(sizeof(void*), 1, EphoBlockFile::freeBlkImage, nullptr, nullptr));
  double focal = 153.2;
  edlm_Add(images.Get(), emsc_MemDup(&focal, sizeof focal), nullptr);
  long size = sizeof focal;
  b->PutImageList(images, &size, frame);
  b->PutSensorData(reinterpret_cast<unsigned char*>(&focal), sizeof focal, frame);
  emif_DesignDestroy(frame);
  b->Save();
  b->Close();
}

}  // namespace

TEST(BlockCommand, CreateThenInfoAsTextAndJsonAndEveryNodeDecodes) {
  testutil::ScratchDir dir("block_cmd");
  const std::string file = dir.File("job.blk");
  ASSERT_EQ(epho_tool::BlockCreate(file, "feet"), 0);
  EXPECT_EQ(epho_tool::BlockCreate(file, "feet"), 1) << "an existing file is not replaced";
  int rc = -1;
  std::string text =
      Capture([&](FILE* out) { return epho_tool::BlockInfo(out, file, false); }, &rc);
  EXPECT_EQ(rc, 0);
  EXPECT_NE(text.find("Version:           9.2"), std::string::npos) << text;
  EXPECT_NE(text.find("Horizontal units:  feet"), std::string::npos) << text;
  EXPECT_NE(text.find("Ground points:     0"), std::string::npos) << text;

  Fill(file);
  const std::string json =
      Capture([&](FILE* out) { return epho_tool::BlockInfo(out, file, true); }, &rc);
  EXPECT_EQ(rc, 0);
  std::istringstream in(json);
  boost::property_tree::ptree tree;
  ASSERT_NO_THROW(boost::property_tree::read_json(in, tree)) << json;
  EXPECT_EQ(tree.get<std::string>("version"), "9.2");
  EXPECT_EQ(tree.get<std::string>("units.horizontal"), "feet");
  EXPECT_EQ(tree.get<int>("images"), 1);
  EXPECT_EQ(tree.get<int>("points.total"), 6);
  EXPECT_EQ(tree.get<int>("points.control"), 2);
  EXPECT_EQ(tree.get<int>("points.check"), 1);
  EXPECT_EQ(tree.get<int>("points.tie"), 3);
  EXPECT_EQ(tree.get<double>("points.min_z"), -20.0);
  EXPECT_EQ(tree.get<double>("points.max_z"), 230.0);
  EXPECT_EQ(tree.get<int>("dtms"), 1);
  EXPECT_EQ(tree.get<int>("orthos"), 0);

  // Every node of the block is decoded with its design.
  const std::string dump =
      Capture([&](FILE* out) { return epho_tool::HfaDump(out, file, "", false, 4); }, &rc);
  EXPECT_EQ(rc, 0) << dump;
  for (const char* node :
       {"BlockFileVersion  (BlockFileVersion", "BlockProperty  (Block_Property",
        "ExtraAutoTieData  (ExtraAutoTieParameters", "GroundPoint5  (GroundPoint",
        "ImagePoint0  (ImagePoint", "GroundPointStats  (GroundPointStats", "FrameData  (Frame_Data",
        "Frame0  (Tool_Frame", "SensorData  (Tool_Frame", "DTMList  (DTMList"}) {
    EXPECT_NE(dump.find(node), std::string::npos) << node;
  }

  EXPECT_EQ(epho_tool::BlockInfo(stdout, dir.File("missing.blk"), false), 1);
}
