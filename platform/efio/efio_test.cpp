#include "efio.h"

#include <gtest/gtest.h>

#include <fstream>
#include <set>

#include "platform/eerr/error_frame.h"
#include "platform/estr/utf8.h"
#include "test_util.h"

namespace {

std::wstring Take(Etxt_Char* s) {
  std::wstring out = s ? s : L"<null>";
  emsc_HeapFree(s);
  return out;
}

TEST(Files, WriteThenReadLinesWithLimitAndUtf8Names) {
  testutil::ScratchDir dir("efio");
  const std::wstring name = dir.WFile("kamera é.txt");
  Efio_File* f = efio_Open(name.c_str(), "w", nullptr);
  ASSERT_NE(f, nullptr);
  EXPECT_GT(efio_Fprintf(f, nullptr, L"%s\t%d\n", L"Brennweite ƒ", 153), 0);
  EXPECT_GT(efio_Fprintf(f, nullptr, L"%s\n", std::wstring(20, L'a').c_str()), 0);
  EXPECT_GT(efio_Fprintf(f, nullptr, L"%.3f %.3f\n", 1.5, -2.25), 0);
  ASSERT_TRUE(efio_Close(f, nullptr));
  EXPECT_EQ(efio_FileNameExistAsFileOrDir(name.c_str()), EFIO_FILE);
  EXPECT_EQ(efio_FileNameExistAsFileOrDir(dir.path().wstring().c_str()), EFIO_DIRECTORY);

  f = efio_Open(name.c_str(), "r", nullptr);
  ASSERT_NE(f, nullptr);
  Etxt_Char line[16];
  ASSERT_NE(efio_Fgets(line, 16, f, nullptr), nullptr);
  EXPECT_STREQ(line, L"Brennweite ƒ\t15");  // 15 characters, the limit, not 15 bytes
  ASSERT_NE(efio_Fgets(line, 16, f, nullptr), nullptr);
  EXPECT_STREQ(line, L"3\n");
  ASSERT_NE(efio_Fgets(line, 16, f, nullptr), nullptr);  // long line comes in pieces
  EXPECT_EQ(std::wstring(line), std::wstring(15, L'a'));
  ASSERT_NE(efio_Fgets(line, 16, f, nullptr), nullptr);
  EXPECT_STREQ(line, L"aaaaa\n");
  double a = 0, b = 0;
  EXPECT_EQ(efio_Fscanf(f, "%lg %lg", &a, &b), 2);
  EXPECT_DOUBLE_EQ(b, -2.25);
  ASSERT_NE(efio_Fgets(line, 16, f, nullptr), nullptr);  // rest of the line
  Eerr_ErrorReport* err = nullptr;
  EXPECT_EQ(efio_Fgets(line, 16, f, &err), nullptr);  // end of file is not an error
  EXPECT_EQ(err, nullptr);
  efio_Close(f, nullptr);
}

TEST(Files, MissingFileReportsItsName) {
  Eerr_ErrorReport* err = nullptr;
  EXPECT_EQ(efio_Open(L"/nonexistent/dir/x.cam", "r", &err), nullptr);
  ASSERT_NE(err, nullptr);
  EXPECT_NE(kzdv::ReportText(err).find(L"/nonexistent/dir/x.cam"), std::wstring::npos);
  eerr_DeleteErrorReportEx(&err);
  EXPECT_EQ(efio_FileNameExistAsFileOrDir(L"/nonexistent/dir/x.cam"), EFIO_NOTHING);
}

TEST(Files, TempNamesAreUniqueAndCopyReplaces) {
  testutil::ScratchDir dir("efio");
  std::set<std::wstring> names;
  for (int i = 0; i < 50; ++i) {
    std::wstring n = Take(efio_TempName(dir.path().wstring().c_str(), L"blk", L".tmp", nullptr));
    EXPECT_EQ(n.rfind(dir.path().wstring() + L"/blk", 0), 0u) << kzdv::ToUtf8(n);
    EXPECT_EQ(n.substr(n.size() - 4), L".tmp");
    EXPECT_EQ(efio_FileNameExistAsFileOrDir(n.c_str()), EFIO_FILE);
    names.insert(n);
  }
  EXPECT_EQ(names.size(), 50u);
  std::wstring tmpdir = Take(efio_DirectoryGetTemporary(nullptr));
  EXPECT_EQ(tmpdir.back(), L'/');

  std::ofstream(dir.File("a")) << "new content";
  std::ofstream(dir.File("b")) << "old content that is longer";
  ASSERT_TRUE(efio_FileCopy(dir.WFile("a").c_str(), dir.WFile("b").c_str(), 0, nullptr, nullptr));
  std::ifstream in(dir.File("b"));
  std::string s((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_EQ(s, "new content");
  Eerr_ErrorReport* err = nullptr;
  EXPECT_FALSE(
      efio_FileCopy(dir.WFile("missing").c_str(), dir.WFile("c").c_str(), 0, nullptr, &err));
  eerr_DeleteErrorReportEx(&err);
}

TEST(Names, PathPartsAndFileNodes) {
  EXPECT_EQ(Take(estr_GetPathPart(L"/data/blk/photo.01.tif", ESTR_PATH_DIRECTORY)), L"/data/blk/");
  EXPECT_EQ(Take(estr_GetPathPart(L"/data/blk/photo.01.tif", ESTR_PATH_FILE)), L"photo.01.tif");
  EXPECT_EQ(Take(estr_GetPathPart(L"/data/blk/photo.01.tif", ESTR_PATH_ROOT)), L"photo.01");
  EXPECT_EQ(Take(estr_GetPathPart(L"/data/blk/photo.01.tif", ESTR_PATH_EXTENSION)), L".tif");
  EXPECT_EQ(Take(estr_GetPathPart(L"/data/.hidden", ESTR_PATH_EXTENSION)), L"");
  EXPECT_EQ(Take(estr_GetPathPart(L"dem", ESTR_PATH_DIRECTORY)), L"");
  EXPECT_EQ(Take(estr_PathExpand(L"/a/b/../c/./d.img", nullptr)), L"/a/c/d.img");

  EXPECT_EQ(Take(efnp_FileNameGet(L"/d/photo.tif(:Layer_2)", nullptr)), L"/d/photo.tif");
  EXPECT_EQ(Take(efnp_FileNodeGet(L"/d/photo.tif(:Layer_2)", nullptr)), L"Layer_2");
  EXPECT_EQ(Take(efnp_FileNameSet(L"/d/dem.tif", L".uai", nullptr)), L"/d/dem.uai");
  Estr_StringList* nodes = efnp_FileNodeListGet(L"f.img(:a)(:b)", nullptr);
  ASSERT_NE(nodes, nullptr);
  ASSERT_EQ(nodes->count, 2);
  EXPECT_STREQ(nodes->strings[1], L"b");
  EXPECT_EQ(Take(efnp_FileNodeListSet(L"g.img(:x)", nodes, nullptr)), L"g.img(:a)(:b)");
  estr_StringListDelete(nodes);
  Eerr_ErrorReport* err = nullptr;
  EXPECT_EQ(efnp_FileNodeListGet(L"f.img(:broken", &err), nullptr);
  EXPECT_NE(err, nullptr);
  eerr_DeleteErrorReportEx(&err);

  struct tm t = {};
  t.tm_hour = 7;
  t.tm_sec = 9;
  Etxt_Char buf[126];
  EXPECT_EQ(etim_Strftime(buf, 126, L"%H%S", &t), 4u);
  EXPECT_STREQ(buf, L"0709");
}

}  // namespace
