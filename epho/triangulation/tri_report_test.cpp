// The text report of a fixed small block: byte for byte against the
// checked-in file, and every line against the report's quoted formats by a
// small scanf-like matcher (field widths, justification and decimals).
#include <gtest/gtest.h>

#include <cctype>
#include <fstream>
#include <sstream>

#include "epho/triangulation/synthetic_block_internal.h"
#include "platform/eerr/error_frame.h"
#include "platform/estr/utf8.h"
#include "test_util.h"

namespace {

using epho::triangulation::synthetic::Build;
using epho::triangulation::synthetic::Options;
using epho::triangulation::synthetic::Truth;

std::string ReadFile(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
}

// Runs the fixed block and returns its report text.
std::string SmallBlockReport(const testutil::ScratchDir& dir) {
  Options o;
  o.strips = 2;
  o.per_strip = 3;
  o.point_spacing = 200.0;
  o.per_axis = 2;
  o.noise_pixels = 0.3;
  o.control_every = 3;
  o.check_every = 4;
  o.fix_control = 1;
  Epho_TriRefineInput in{};
  Truth truth;
  Build(o, &in, &truth);
  // Some variety: a horizontal and a vertical control point, a fixed image
  // with one term per axis, a tie point measured on one image only.
  int control = 0;
  for (int p = 0; p < in.groundPointCount; ++p) {
    if (in.groundPoints[p].usage != EPHO_TRI_USAGE_CONTROL) continue;
    if (control == 1) in.groundPoints[p].type = EPHO_TRI_TYPE_HORIZONTAL;
    if (control == 2) in.groundPoints[p].type = EPHO_TRI_TYPE_VERTICAL;
    ++control;
  }
  in.images[5].parameterCount = 2;
  in.images[5].parameterMode = EPHO_TRI_MODE_FIXED;
  in.images[0].imagePoints[in.images[0].imagePointCount - 1].pointID = 99999;
  const std::wstring report = dir.WFile("small.txt");
  in.reportFileName = const_cast<Etxt_Char*>(report.c_str());
  Eerr_ErrorReport* err = nullptr;
  epho_TriRefine(&in, &err);
  EXPECT_EQ(err, nullptr) << kzdv::ToUtf8(kzdv::ReportText(err));
  EXPECT_EQ(in.converged, 1);
  eerr_DeleteErrorReportEx(&err);
  epho_FreeTriRefineMemory(&in, nullptr);
  return ReadFile(kzdv::ToUtf8(report));
}

// Matches `fmt` (printf conversions %d, %Nd, %N.Pf, %-N.Pf, %-.Pf, %.Pf,
// %-N.Pg, %s) at `pos` of `line`; returns the end position or npos.
size_t MatchAt(const std::string& line, size_t pos, const std::string& fmt) {
  size_t f = 0;
  while (f < fmt.size()) {
    if (fmt[f] != '%') {
      if (pos >= line.size() || line[pos] != fmt[f]) return std::string::npos;
      ++pos, ++f;
      continue;
    }
    ++f;
    bool left = false;
    if (fmt[f] == '-') left = true, ++f;
    int width = 0, precision = -1;
    while (std::isdigit(static_cast<unsigned char>(fmt[f]))) width = width * 10 + (fmt[f++] - '0');
    if (fmt[f] == '.') {
      precision = 0;
      ++f;
      while (std::isdigit(static_cast<unsigned char>(fmt[f])))
        precision = precision * 10 + (fmt[f++] - '0');
    }
    const char conv = fmt[f++];
    if (conv == 's') return line.size();  // a name to the end of the line
    size_t lead = 0;
    if (!left)
      while (pos + lead < line.size() && line[pos + lead] == ' ') ++lead;
    size_t p = pos + lead, start = p;
    if (p < line.size() && line[p] == '-') ++p;
    const size_t digits = p;
    while (p < line.size() && std::isdigit(static_cast<unsigned char>(line[p]))) ++p;
    if (conv == 'd') {
      if (p == digits) return std::string::npos;
    } else if (conv == 'f') {
      if (p == digits || p >= line.size() || line[p] != '.') return std::string::npos;
      const size_t d = ++p;
      while (p < line.size() && std::isdigit(static_cast<unsigned char>(line[p]))) ++p;
      if (static_cast<int>(p - d) != precision) return std::string::npos;
    } else if (conv == 'g') {
      if (p < line.size() && line[p] == '.') {
        ++p;
        while (p < line.size() && std::isdigit(static_cast<unsigned char>(line[p]))) ++p;
      }
      if (p == digits) return std::string::npos;
      if (p < line.size() && line[p] == 'e') {
        p += 2;  // e and its sign
        while (p < line.size() && std::isdigit(static_cast<unsigned char>(line[p]))) ++p;
      }
    } else {
      return std::string::npos;
    }
    const size_t len = p - start;
    if (left) {
      const size_t pad = width > static_cast<int>(len) ? width - len : 0;
      for (size_t k = 0; k < pad; ++k)
        if (p + k >= line.size() || line[p + k] != ' ') return std::string::npos;
      p += pad;
    } else if (static_cast<int>(lead + len) != std::max<int>(width, static_cast<int>(len))) {
      return std::string::npos;
    }
    pos = p;
  }
  return pos;
}

bool MatchesLine(const std::string& line) {
  static const char* const kWhole[] = {
      "              Triangulation Report With OVT",
      "",
      "         The output image x, y units:     pixels",
      "         The output ground X, Y units: %s",
      "         The output ground X, Y residual units: %s",
      "         The output ground X, Y, and their residual units: %s",
      "         The output ground Z and its residual units: %s",
      "                Input Image Coordinates",
      "                     Image ID = %d",
      "       Point ID            x             y",
      "%14d%17.3f%14.3f",
      "          Initial values of correction parameters",
      "          Initial standard deviation of parameters",
      "  ERROR! The GCP or Check point %d has no image point!",
      "  ERROR! The non-full GCP or Check %d has only one image point!",
      "  ERROR! The point %d is on less than two images",
      "  ERROR! Image %d has not enough image points! Use it as no refinement.",
      "              Coordinates of control points",
      "              Coordinates of check points",
      "   Point ID         X             Y             Z      Overlap",
      "%8d%17.4f%14.4f%14.4f%6d",
      "%8d%17.8f%14.8f%14.4f%6d",
      "%8d%17.4f%14.4f%20d",
      "%8d%17.8f%14.8f%20d",
      "%8d%45.4f%6d",
      "               OUTPUT OF BUNDLE BLOCK REFINEMENT",
      "      Error: Unknowns are more than observations !",
      "      iteration number = %d    unit-weight standard error = %-8.4f",
      "        maximum correction of the object points =%-.5f",
      "      Warning:  The iteration is not converged!",
      "Warning:  The iteration can not be converged! There are probably errors in your data!",
      "                      Final adjustment parameters",
      "                            Image ID = %d",
      "                     Adjustment parameter accuracy",
      "            Control point residuals",
      "             Check point residuals",
      "  Point ID      rX          rY          rZ",
      "%8d%12.4f%12.4f%12.4f",
      "%8d%12.4f%12.4f",
      "%8d%36.4f",
      "               meanX       meanY       meanZ",
      "%20.4f%12.4f%12.4f",
      "               rmseX       rmseY       rmseZ",
      "                   Object point coordinates",
      "  Point ID         X               Y             Z      Overlap",
      "%8d%16.4f%16.4f%14.4f%6d",
      "%8d%18.8f%16.8f%12.4f%6d",
      "              Total number of object points = %d",
      "            Image point residuals",
      "    Point   Image       Vx          Vy",
      "%8d%8d%12.3f%12.3f",
      "           Control point image residuals",
      "           Check point image residuals",
      "                The image ID = %d",
      "         Point ID       Vx          Vy",
      "%16d%12.3f%12.3f",
      "              meanx=%.3f, meany=%.3f",
      "              rmsex=%.3f, rmsey=%.3f",
      "       There are no GCPs on this image",
      "    There are no check points on this image.",
      "      Total number of all control image points = %d",
      "      Total number of all check image points = %d",
      "      Total meanx = %.3f, meany = %.3f",
      "      Total rmsex = %.3f, rmsey = %.3f",
  };
  for (const char* f : kWhole)
    if (MatchAt(line, 0, f) == line.size()) return true;
  // Parameter rows: a separator, then one or more parameters of one kind.
  for (const char* sep : {"                          ", "                    ", "      ", "    "}) {
    const size_t s = MatchAt(line, 0, sep);
    if (s == std::string::npos) continue;
    for (const char* unit :
         {"  a[%d]=%-14.5g", "  b[%d]=%-14.5g", " sa[%d]=%-14.5g", " sb[%d]=%-14.5g"}) {
      size_t p = s;
      int n = 0;
      for (size_t q; (q = MatchAt(line, p, unit)) != std::string::npos && q > p; p = q) ++n;
      if (n > 0 && p == line.size()) return true;
    }
  }
  return false;
}

TEST(TriReport, SmallBlockEqualsTheCheckedInReport) {
  testutil::ScratchDir dir("trireport");
  const std::string text = SmallBlockReport(dir);
  const std::string expected_path =
      std::string(EPHO_SOURCE_DIR) + "/testdata/triangulation/small_block_report.txt";
  if (std::getenv("EPHO_UPDATE_EXPECTED")) {
    std::ofstream(expected_path, std::ios::binary) << text;
  }
  const std::string expected = ReadFile(expected_path);
  ASSERT_FALSE(expected.empty()) << expected_path;
  EXPECT_EQ(text, expected);
}

TEST(TriReport, EveryLineHasAQuotedFormat) {
  testutil::ScratchDir dir("trireport");
  const std::string text = SmallBlockReport(dir);
  std::istringstream in(text);
  std::string line;
  int lines = 0;
  while (std::getline(in, line)) {
    EXPECT_TRUE(MatchesLine(line)) << "line " << lines + 1 << ": [" << line << "]";
    ++lines;
  }
  EXPECT_GT(lines, 200);
  // The sections the block must produce, in their order.
  size_t pos = 0;
  for (const char* heading :
       {"Input Image Coordinates", "ERROR! The point", "Coordinates of control points",
        "Coordinates of check points", "OUTPUT OF BUNDLE BLOCK REFINEMENT", "iteration number = 2",
        "Final adjustment parameters", "Adjustment parameter accuracy", "Control point residuals",
        "Check point residuals", "Object point coordinates", "Image point residuals",
        "Control point image residuals", "Check point image residuals"}) {
    const size_t at = text.find(heading, pos);
    ASSERT_NE(at, std::string::npos) << heading;
    pos = at;
  }
}

TEST(TriReport, MatcherRefusesWrongWidthsAndDecimals) {
  char buf[200];
  std::snprintf(buf, sizeof buf, "%8d%12.4f%12.4f%12.4f", 1001, 1.2345, -7.0, 99.9999);
  EXPECT_TRUE(MatchesLine(buf));
  std::snprintf(buf, sizeof buf, "%7d%12.4f%12.4f%12.4f", 1001, 1.2345, -7.0, 99.9999);
  EXPECT_FALSE(MatchesLine(buf));  // one column short
  std::snprintf(buf, sizeof buf, "%8d%12.3f%12.4f%12.4f", 1001, 1.2345, -7.0, 99.9999);
  EXPECT_FALSE(MatchesLine(buf));  // three decimals where four belong
  std::snprintf(buf, sizeof buf, "      a[%d]=%-14.5ga[%d]=%-14.5g", 0, 0.0012, 1, -3.5e-05);
  EXPECT_FALSE(MatchesLine(buf));  // the two blanks before a[1] are missing
  std::snprintf(buf, sizeof buf, "      a[%d]=%-14.5g  a[%d]=%-14.5g", 0, 0.0012, 1, -3.5e-05);
  EXPECT_TRUE(MatchesLine(buf));
}

}  // namespace
