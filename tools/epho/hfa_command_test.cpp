// `epho hfa dump` on a file GDAL writes: the tree and values in text, and
// JSON that a JSON reader accepts with the same values.
#include <gdal.h>
#include <gtest/gtest.h>

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

#include "test_util.h"

namespace epho_tool {
int HfaDump(FILE* out, const std::string& file, const std::string& node, bool json, int max_items);
}

namespace {

std::string Capture(const std::string& file, const std::string& node, bool json, int* rc) {
  FILE* out = std::tmpfile();
  *rc = epho_tool::HfaDump(out, file, node, json, 4);
  std::rewind(out);
  std::string text;
  char buf[4096];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, out)) > 0) text.append(buf, n);
  std::fclose(out);
  return text;
}

TEST(HfaCommand, DumpsTreeAndValuesAsTextAndJson) {
  testutil::ScratchDir dir("hfa_dump");
  GDALAllRegister();
  const std::string path = dir.File("d.img");
  GDALDatasetH ds =
      GDALCreate(GDALGetDriverByName("HFA"), path.c_str(), 300, 200, 1, GDT_Int16, nullptr);
  double gt[6] = {1000, 2, 0, 5000, 0, -2};
  GDALSetGeoTransform(ds, gt);
  GDALClose(ds);

  int rc = -1;
  const std::string text = Capture(path, "", false, &rc);
  EXPECT_EQ(rc, 0) << text;
  EXPECT_NE(text.find("  Layer_1  (Eimg_Layer, 20 bytes"), std::string::npos) << text;
  EXPECT_NE(text.find("width = 300"), std::string::npos) << text;
  EXPECT_NE(text.find("pixelType = s16 (6)"), std::string::npos) << text;
  EXPECT_NE(text.find("RasterDMS  (Edms_State"), std::string::npos) << text;

  const std::string json = Capture(path, ":Layer_1", true, &rc);
  EXPECT_EQ(rc, 0);
  std::istringstream in(json);
  boost::property_tree::ptree tree;
  ASSERT_NO_THROW(boost::property_tree::read_json(in, tree)) << json;
  EXPECT_EQ(tree.get<std::string>("name"), "Layer_1");
  EXPECT_EQ(tree.get<int>("value.height"), 200);
  EXPECT_EQ(tree.get<std::string>("value.pixelType"), "s16 (6)");
  bool map_info = false;
  for (const auto& child : tree.get_child("children")) {
    if (child.second.get<std::string>("name") == "Map_Info") {
      map_info = true;
      EXPECT_DOUBLE_EQ(child.second.get<double>("value.upperLeftCenter.x"), 1001.0);
    }
  }
  EXPECT_TRUE(map_info);

  // Missing files and nodes fail with a report.
  testutil::PrintedReports reports;
  Capture(dir.File("missing.img"), "", false, &rc);
  EXPECT_EQ(rc, 1);
  Capture(path, ":NoSuchNode", false, &rc);
  EXPECT_EQ(rc, 1);
  EXPECT_EQ(reports.texts().size(), 2u);
}

// Names with bytes that are no UTF-8 and with control characters: the JSON
// is valid UTF-8 that Python's json module reads, with every other byte kept;
// the text escapes them.
TEST(HfaCommand, HostileNamesGiveValidJsonAndEscapedText) {
  testutil::ScratchDir dir("hfa_names");
  GDALAllRegister();
  const std::string path = dir.File("n.img");
  GDALDatasetH ds =
      GDALCreate(GDALGetDriverByName("HFA"), path.c_str(), 30, 20, 2, GDT_Byte, nullptr);
  GDALSetDescription(GDALGetRasterBand(ds, 1), "bad\xff\xfe\xc3(\x01\x1b[31m");
  GDALSetDescription(GDALGetRasterBand(ds, 2), "h\xc3\xb6he");  // valid UTF-8 stays
  GDALClose(ds);

  int rc = -1;
  const std::string json = Capture(path, "", true, &rc);
  EXPECT_EQ(rc, 0);
  EXPECT_NE(json.find("bad\\u00ff\\u00fe\\u00c3(\\u0001\\u001b[31m"), std::string::npos) << json;
  EXPECT_NE(json.find("h\xc3\xb6he"), std::string::npos);
  const std::string file = dir.File("dump.json");
  {
    FILE* f = std::fopen(file.c_str(), "wb");
    std::fwrite(json.data(), 1, json.size(), f);
    std::fclose(f);
  }
  if (std::system("command -v python3 >/dev/null 2>&1") == 0) {
    const std::string cmd =
        "python3 -c 'import json,sys; json.load(open(sys.argv[1], encoding=\"utf-8\"))' '" + file +
        "'";
    EXPECT_EQ(std::system(cmd.c_str()), 0) << json;
  }
  std::istringstream in(json);
  boost::property_tree::ptree tree;
  EXPECT_NO_THROW(boost::property_tree::read_json(in, tree));

  const std::string text = Capture(path, "", false, &rc);
  EXPECT_NE(text.find("bad\\xff\\xfe\\xc3(\\x01\\x1b[31m"), std::string::npos) << text;
  for (char c : text) EXPECT_TRUE(c == '\n' || static_cast<unsigned char>(c) >= 0x20);
}

}  // namespace
