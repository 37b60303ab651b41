// Helpers of the block file tests: scoped blocks, synthetic points, file
// bytes and folder listings, and running a piece of a test in a child process.
#ifndef EPHO_BLOCK_BLOCK_TEST_SUPPORT_INTERNAL_H
#define EPHO_BLOCK_BLOCK_TEST_SUPPORT_INTERNAL_H

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <set>
#include <sstream>
#include <string>

#include "epho/block.h"
#include "platform/eerr/error_frame.h"
#include "test_util.h"

namespace blocktest {

// Closes the block when the scope ends.
class BlockRef {
 public:
  BlockRef(const std::wstring& name, bool create) {
    EtxtTextU n(name);
    block_ = EphoBlockFile::Open(n, create);
  }
  ~BlockRef() { Close(); }
  BlockRef(const BlockRef&) = delete;
  BlockRef& operator=(const BlockRef&) = delete;
  EphoBlockFile* operator->() const { return block_; }
  EphoBlockFile* get() const { return block_; }
  void Close() {
    if (block_) block_->Close();
    block_ = nullptr;
  }

 private:
  EphoBlockFile* block_ = nullptr;
};

inline std::string Bytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

inline std::set<std::string> FilesIn(const std::filesystem::path& dir) {
  std::set<std::string> names;
  for (const auto& e : std::filesystem::directory_iterator(dir))
    names.insert(e.path().filename().string());
  return names;
}

// Ground point i with `images` image points; every field follows from i.
inline Epho_GroundPoint* MakePoint(long i, long images) {
  auto* gp = static_cast<Epho_GroundPoint*>(emsc_HeapCalloc(1, sizeof(Epho_GroundPoint)));
  gp->id = static_cast<int32_t>(1000 + i);
  const std::wstring text = L"point " + std::to_wstring(i);
  gp->description.data = etxt_Text_strdup(text.c_str());
  gp->description.count = static_cast<int32_t>(text.size() + 1);
  gp->groundX = 500000.0 + 10.25 * i;
  gp->groundY = 4100000.0 - 7.5 * i;
  gp->groundZ = 100.0 + (i % 101);
  gp->xDefined = gp->yDefined = 1;
  gp->zDefined = i % 2;
  gp->pointType = static_cast<int32_t>(i % 4);
  gp->pointUsage = static_cast<int32_t>(i % 3);
  gp->pointUsed = 1;
  gp->color[0] = 0.25f;
  gp->color[1] = 0.5f;
  gp->color[2] = static_cast<float>(i % 7);
  gp->stdX = 0.05f;
  gp->stdY = 0.06f;
  gp->stdZ = 0.1f * static_cast<float>(1 + i % 3);
  gp->residualX = 0.001 * i;
  gp->residualY = -0.002 * i;
  gp->residualZ = 0.003;
  gp->imagePoints = edlm_InitList(sizeof(void*), images, EphoBlockFile::freeImagePoint,
                                  EphoBlockFile::copyImagePoint, nullptr);
  for (long j = 0; j < images; ++j) {
    auto* ip = static_cast<Epho_ImagePoint*>(emsc_HeapCalloc(1, sizeof(Epho_ImagePoint)));
    ip->imageId = static_cast<int32_t>(j + 1);
    ip->imageX = 1000.5 + i + 0.125 * j;
    ip->imageY = 2000.25 - i + 0.5 * j;
    ip->xDefined = ip->yDefined = ip->pointUsed = 1;
    ip->color[0] = 1.0f;
    ip->color[1] = static_cast<float>(j);
    ip->residualX = 0.5 * j;
    ip->residualY = -0.25 * j;
    ip->grossError = (i + j) % 5 == 0;
    edlm_Add(gp->imagePoints, ip, nullptr);
  }
  gp->imagePointCount = static_cast<int32_t>(images);
  return gp;
}

inline void MakePoints(EdlmList& list, long n, long images) {
  list.Reset(edlm_InitList(sizeof(void*), n, EphoBlockFile::freeGroundPoint,
                           EphoBlockFile::copyGroundPoint, nullptr));
  for (long i = 0; i < n; ++i) edlm_Add(list.Get(), MakePoint(i, images), nullptr);
}

// Field-by-field equality of two ground points and their image points
// (description by text). Returns "" or the first difference.
inline std::string ComparePoints(const Epho_GroundPoint& a, const Epho_GroundPoint& b) {
  std::ostringstream why;
  const std::wstring da = a.description.data ? a.description.data : L"";
  const std::wstring db = b.description.data ? b.description.data : L"";
  if (a.id != b.id || da != db || a.groundX != b.groundX || a.groundY != b.groundY ||
      a.groundZ != b.groundZ || a.xDefined != b.xDefined || a.yDefined != b.yDefined ||
      a.zDefined != b.zDefined || a.pointType != b.pointType || a.pointUsage != b.pointUsage ||
      a.pointUsed != b.pointUsed || std::memcmp(a.color, b.color, sizeof a.color) != 0 ||
      a.stdX != b.stdX || a.stdY != b.stdY || a.stdZ != b.stdZ || a.residualX != b.residualX ||
      a.residualY != b.residualY || a.residualZ != b.residualZ ||
      a.imagePointCount != b.imagePointCount) {
    why << "ground point " << a.id << " differs";
    return why.str();
  }
  const long n = edlm_CountList(a.imagePoints);
  if (n != edlm_CountList(b.imagePoints)) return "image point count differs";
  for (long j = 0; j < n; ++j) {
    auto* p = static_cast<Epho_ImagePoint*>(edlm_GetAddr(a.imagePoints, j, nullptr));
    auto* q = static_cast<Epho_ImagePoint*>(edlm_GetAddr(b.imagePoints, j, nullptr));
    if (p->imageId != q->imageId || p->imageX != q->imageX || p->imageY != q->imageY ||
        p->xDefined != q->xDefined || p->yDefined != q->yDefined || p->pointUsed != q->pointUsed ||
        std::memcmp(p->color, q->color, sizeof p->color) != 0 || p->residualX != q->residualX ||
        p->residualY != q->residualY || p->grossError != q->grossError) {
      why << "image point " << j << " of ground point " << a.id << " differs";
      return why.str();
    }
  }
  return "";
}

// Runs `body` in a forked child and returns its exit status (the child's
// exit code, or 128 + signal). The body returns the child's exit code.
inline int InChild(const std::function<int()>& body) {
  fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    int code = 99;
    try {
      code = body();
    } catch (...) {
      code = 98;
    }
    _exit(code);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return WEXITSTATUS(status);
}

inline bool ReportMentions(const EerrException& e, const std::wstring& text) {
  return kzdv::ReportText(e.Report()).find(text) != std::wstring::npos;
}

}  // namespace blocktest

#endif  // EPHO_BLOCK_BLOCK_TEST_SUPPORT_INTERNAL_H
