// The command line as a user meets it: help, version, usage errors and exit
// codes (0 ok, 1 failure, 2 usage) through the whole parser.
#include <cpl_error.h>
#include <gdal.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "registry.h"
#include "test_util.h"

namespace {

struct Outcome {
  int rc;
  std::string out, err;
};

Outcome RunEpho(std::vector<std::string> args) {
  args.insert(args.begin(), "epho");
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  Outcome o;
  o.rc = epho_tool::Main(static_cast<int>(argv.size()), argv.data());
  std::cout.flush();
  std::cerr.flush();
  std::fflush(stdout);
  std::fflush(stderr);
  o.out = testing::internal::GetCapturedStdout();
  o.err = testing::internal::GetCapturedStderr();
  return o;
}

std::string MakeImage(const testutil::ScratchDir& dir) {
  GDALAllRegister();
  const std::string path = dir.File("small.img");
  GDALDatasetH ds =
      GDALCreate(GDALGetDriverByName("HFA"), path.c_str(), 40, 30, 1, GDT_Byte, nullptr);
  GDALClose(ds);
  return path;
}

TEST(Cli, VersionAndHelp) {
  Outcome v = RunEpho({"--version"});
  EXPECT_EQ(v.rc, 0);
  EXPECT_EQ(v.out.rfind("epho ", 0), 0u) << v.out;
  EXPECT_EQ(v.out.back(), '\n') << v.out;
  EXPECT_NE(v.out.find('.'), std::string::npos) << v.out;

  Outcome top = RunEpho({"--help"});
  EXPECT_EQ(top.rc, 0);
  for (const char* word : {"pyramids", "camera", "hfa", "demo", "Exit codes", "2 usage"})
    EXPECT_NE(top.out.find(word), std::string::npos) << word << " in\n" << top.out;

  // Every command, nested ones included, has its own help.
  for (std::vector<std::string> cmd : {std::vector<std::string>{"pyramids"},
                                       {"hfa", "dump"},
                                       {"camera", "show"},
                                       {"camera", "convert"},
                                       {"demo"}}) {
    cmd.push_back("--help");
    Outcome h = RunEpho(cmd);
    EXPECT_EQ(h.rc, 0) << cmd[0];
    EXPECT_NE(h.out.find(cmd[cmd.size() - 2]), std::string::npos) << h.out;
    EXPECT_TRUE(h.err.empty()) << h.err;
  }
  Outcome p = RunEpho({"pyramids", "--help"});
  EXPECT_NE(p.out.find("--check"), std::string::npos) << p.out;
  EXPECT_NE(p.out.find("IMAGE"), std::string::npos) << p.out;
}

// Usage errors exit 2 and print the message and the usage of the command.
TEST(Cli, UsageErrorsExitTwo) {
  testutil::ScratchDir dir("cli_usage");
  const std::string image = MakeImage(dir);
  struct Case {
    std::vector<std::string> args;
    const char* message;  // expected in standard error
  } cases[] = {
      {{}, "subcommand"},
      {{"frobnicate"}, "frobnicate"},
      {{"hfa"}, "subcommand"},
      {{"hfa", "dump"}, "FILE"},
      {{"hfa", "dump", image, "--bogus"}, "--bogus"},
      {{"hfa", "dump", image, "--items"}, "--items"},
      {{"hfa", "dump", image, "--items", "abc"}, "not an integer"},
      {{"hfa", "dump", image, "--items", "3x"}, "not an integer"},
      {{"hfa", "dump", image, "--items", "0x10"}, "not an integer"},
      {{"hfa", "dump", image, "--items", "1.5"}, "not an integer"},
      {{"hfa", "dump", image, "--items", " 3"}, "not an integer"},
      {{"hfa", "dump", image, "--items", "-5"}, "out of range"},
      {{"hfa", "dump", image, "--items", "99999999999999999999999"}, "out of range"},
      {{"hfa", "dump", image, "--items", "2147483648"}, "out of range"},
      {{"pyramids"}, "IMAGE"},
      {{"camera", "convert", "only-one.cam"}, "NEW"},
      {{"demo", "--workdir"}, "--workdir"},
  };
  for (const auto& c : cases) {
    std::string line;
    for (const auto& a : c.args) line += a + " ";
    Outcome o = RunEpho(c.args);
    EXPECT_EQ(o.rc, 2) << line << "\n" << o.err;
    EXPECT_NE(o.err.find(c.message), std::string::npos) << line << "\n" << o.err;
    EXPECT_NE(o.err.find("Usage:"), std::string::npos) << line << "\n" << o.err;
  }
}

// Strictly parsed numbers that are well formed reach the command as values.
TEST(Cli, WellFormedNumbersAreTaken) {
  testutil::ScratchDir dir("cli_numbers");
  const std::string image = MakeImage(dir);
  for (const char* items : {"0", "7", "+7", "007", "1000000"}) {
    Outcome o = RunEpho({"hfa", "dump", image, "--items", items});
    EXPECT_EQ(o.rc, 0) << items << "\n" << o.err;
    EXPECT_NE(o.out.find("width = 40"), std::string::npos) << o.out;
  }
  std::string canonical = "+007";
  EXPECT_EQ(epho_tool::StrictInteger(0, 10)(canonical), "");
  EXPECT_EQ(canonical, "7");
  for (std::string bad : {"nan", "inf", "1e400", "1,5", "", "--1"})
    EXPECT_NE(epho_tool::StrictNumber(-1e9, 1e9)(bad), "") << bad;
  std::string number = "2.5e1";
  EXPECT_EQ(epho_tool::StrictNumber(0, 100)(number), "");
  EXPECT_EQ(number, "25");
}

// A failing command prints why and exits 1; nothing printed on standard
// error comes with exit 0.
TEST(Cli, FailuresExitOneWithMessage) {
  testutil::ScratchDir dir("cli_fail");
  const std::string image = MakeImage(dir);
  const std::string missing = dir.File("missing.img");
  const std::vector<std::vector<std::string>> failing = {
      {"hfa", "dump", missing},
      {"camera", "show", dir.File("missing.cam")},
      {"camera", "convert", dir.File("missing.cam"), dir.File("out.cam")},
      {"pyramids", missing},
      {"pyramids", "--check", missing},
  };
  for (const auto& args : failing) {
    Outcome o = RunEpho(args);
    EXPECT_EQ(o.rc, 1) << args[0] << " " << args[1] << "\n" << o.err;
    EXPECT_FALSE(o.err.empty()) << args[0] << " " << args[1];
  }
  Outcome ok = RunEpho({"hfa", "dump", image, "--json"});
  EXPECT_EQ(ok.rc, 0);
  EXPECT_TRUE(ok.err.empty()) << ok.err;
}

// Whatever a command returns, an error it printed (a library report or a
// GDAL error no handler took) makes the exit non-zero; a warning does not.
TEST(Cli, PrintedErrorMeansNonZeroExit) {
  struct Case {
    const char* name;
    epho_tool::Run (*declare)(CLI::App&);
    int rc;
  } cases[] = {
      {"test-report",
       [](CLI::App&) -> epho_tool::Run {
         return [] {
           Eerr_ErrorReport* r =
               eerr_CreateErrorReport(L"test", 1, EERR_SEVERITY_ERROR, nullptr, L"broken");
           eerr_PrintErrorReport(r, nullptr, 0);
           eerr_DeleteErrorReport(r);
           return 0;
         };
       },
       1},
      {"test-gdal",
       [](CLI::App&) -> epho_tool::Run {
         return [] {
           CPLError(CE_Failure, CPLE_AppDefined, "checksum of -1");
           return 0;
         };
       },
       1},
      {"test-warning",
       [](CLI::App&) -> epho_tool::Run {
         return [] {
           CPLError(CE_Warning, CPLE_AppDefined, "just so you know");
           return 0;
         };
       },
       0},
  };
  for (const auto& c : cases) {
    epho_tool::Commands().push_back({c.name, "test only", c.declare});
    Outcome o = RunEpho({c.name});
    epho_tool::Commands().pop_back();
    EXPECT_EQ(o.rc, c.rc) << c.name << "\n" << o.err;
    EXPECT_FALSE(o.err.empty()) << c.name;
  }
}

}  // namespace
