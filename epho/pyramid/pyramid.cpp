// Binomial pyramid levels of an image file: the exported entry and the work
// on one layer stack.
#include "epho/pyramid.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "eimg.h"
#include "eint.h"
#include "epho/pyramid/pyramid_internal.h"
#include "platform/eerr/error_frame.h"
#include "platform/efio/atomic_file.h"
#include "platform/eimg/eimg_files.h"
#include "platform/emsc/heap_ptr.h"
#include "platform/estr/utf8.h"

namespace {

using StackPtr = std::unique_ptr<Eimg_LayerStack, void (*)(Eimg_LayerStack*)>;
void CloseStack(Eimg_LayerStack* s) { eimg_LayerStackClose(s, nullptr); }
void FreeStructure(Eimg_LayerStack* s) {
  if (s) s->ownsLayers = EMSC_FALSE;
  eimg_LayerStackClose(s, nullptr);
}
using NamesPtr = std::unique_ptr<Estr_StringList, void (*)(Estr_StringList*)>;

// Level `level` of every layer of `stack` as a stack that owns the handles.
Eimg_LayerStack* OpenLevel(Eimg_LayerStack* stack, long level, kzdv::ErrorFrame& frame) {
  Eimg_LayerStack* out = eimg_LayerStackStructureCreate(stack->count, frame.Callee());
  if (!out) {
    frame.Fail(__LINE__, L"eimg_LayerStackStructureCreate failed");
    return nullptr;
  }
  out->ownsLayers = EMSC_TRUE;
  for (long i = 0; i < stack->count; ++i) {
    out->layers[i] = eimg_LayerPyramidLevelOpen(stack->layers[i], level, frame.Callee());
    if (!out->layers[i]) {
      eimg_LayerStackClose(out, nullptr);
      frame.Fail(__LINE__, L"eimg_LayerPyramidLevelOpen failed");
      return nullptr;
    }
  }
  return out;
}

bool SameLayout(const Eimg_Layer* a, const Eimg_Layer* b) {
  return a->width == b->width && a->height == b->height && a->pixelType == b->pixelType &&
         a->blockWidth == b->blockWidth && a->blockHeight == b->blockHeight;
}

}  // namespace

long epho_PyramidLevelCount(long width, long height) KZDV_NOEXCEPT {
  long s = width + height, n = 0;
  while ((s = s / 2) > 127) ++n;
  return n;
}

Emsc_Boolean computeBinomialPyramid(const Etxt_Char* task, Eimg_LayerStack* stack,
                                    Emsc_Boolean first_call, Emet_MeterInfo* meter,
                                    Eint_InitToolkitData* init, bool* levels_changed,
                                    Eerr_ErrorReport** err) {
  static const Etxt_Char* const kFn = L"computeBinomialPyramid";
  kzdv::ErrorFrame frame(kFn, err);
  (void)init;
  EERR_FAIL_IF(!stack || stack->count < 1 || !task, frame, EMSC_FALSE, L"Invalid arguments");
  Eimg_Layer* first = stack->layers[0];
  const long n = epho_PyramidLevelCount(first->width, first->height);

  // Everything that refuses the work is checked before the file is changed.
  for (long i = 0; i < stack->count; ++i) {
    const Eimg_Layer* l = stack->layers[i];
    EERR_FAIL_IF(eimg_PixelTypeIsComplex(l->pixelType), frame, EMSC_FALSE,
                 L"Binomial (3x3) pyramid layers cannot be computed on complex pixels!");
    EERR_FAIL_IF(l->readOnly, frame, EMSC_FALSE, L"Image layer %s is read only!", l->name);
    EERR_FAIL_IF(l->pixelType == EGDA_TYPE_INVALID || l->pixelType == EGDA_TYPE_U1 ||
                     l->pixelType == EGDA_TYPE_U2,
                 frame, EMSC_FALSE, L"Image layer %s has an unsupported pixel type!", l->name);
  }
  if (first_call) {
    // Levels belong to the whole file: replaced once, filled layer by layer.
    *levels_changed = true;
    EERR_CHECK(eimg_LayerPyramidLevelsRemove(first, frame.Callee()), frame, EMSC_FALSE,
               L"Cannot remove pyramid layers of %s!", first->name);
    if (n > 0)
      EERR_CHECK(eimg_LayerPyramidLevelsCreate(first, n, frame.Callee()), frame, EMSC_FALSE,
                 L"eimg_LayerPyramidLevelsCreate failed");
  }

  for (long k = 1; k <= n; ++k) {
    kzdv::HeapPtr<Etxt_Char> name(
        estr_Sprintf(L"%s, pyramid layer %d of %d", task, int(k), int(n)));
    EERR_FAIL_IF(!name, frame, EMSC_FALSE, L"estr_Sprintf failed");
    if (meter) {
      EERR_CHECK(emet_MeterInfoChangeTaskName(meter, name.get(), frame.Callee()), frame, EMSC_FALSE,
                 L"emet_MeterInfoChangeTaskName failed");
      EERR_CHECK(emet_MeterInfoPrint(meter, 0.0, frame.Callee()), frame, EMSC_FALSE,
                 L"emet_MeterInfoPrint failed");
    }
    EERR_FAIL_IF(emet_MeterInfoCancelled(meter), frame, EMSC_FALSE,
                 L"Pyramid generation has been canceled!");
    StackPtr src(k == 1 ? nullptr : OpenLevel(stack, k - 1, frame), CloseStack);
    if (k > 1 && !src) return EMSC_FALSE;
    StackPtr dst(OpenLevel(stack, k, frame), CloseStack);
    if (!dst) return EMSC_FALSE;
    if (!epho::pyramid::ReduceLevel(k == 1 ? stack : src.get(), dst.get(), meter, frame))
      return EMSC_FALSE;
    EERR_CHECK(eimg_LayerStackClose(dst.release(), frame.Callee()), frame, EMSC_FALSE,
               L"eimg_LayerStackClose failed");
  }
  EERR_CHECK(emet_MeterInfoPrint(meter, 100.0, frame.Callee()), frame, EMSC_FALSE,
             L"emet_MeterInfoPrint failed");
  for (long i = 0; i < stack->count; ++i)
    EERR_CHECK(
        eimg_SSLayerNamesSet(stack->layers[i], EIMG_PYRAMID_ALGORITHM_BINOMIAL3, frame.Callee()),
        frame, EMSC_FALSE, L"eimg_SSLayerNamesSet failed");
  return EMSC_TRUE;
}

namespace {

// Files GDAL may keep beside an image for its levels and metadata.
const char* const kSidecars[] = {".aux.xml", ".ovr", ".rrd"};

bool Exists(const std::string& path) {
  std::error_code ec;
  return std::filesystem::exists(path, ec);
}

// The file `path` names, through any symbolic links.
std::string RealFile(const std::string& path) {
  std::error_code ec;
  if (!std::filesystem::is_symlink(std::filesystem::symlink_status(path, ec))) return path;
  const std::filesystem::path real = std::filesystem::canonical(path, ec);
  return ec ? path : real.string();
}

// `file`, a companion of the image `from` (same folder, named after it), as
// the same companion of `to`: "dir/bil.hdr" for "dir/bil.img" becomes
// "dir/.bil.tmp123456.hdr" for "dir/.bil.tmp123456.img". Empty for a file
// not named after the image.
std::string Companion(const std::string& file, const std::string& from, const std::string& to) {
  namespace fs = std::filesystem;
  const fs::path f(file), a(from), b(to);
  const std::string stem = a.stem().string(), name = f.filename().string();
  if (f.parent_path() != a.parent_path() || name.compare(0, stem.size(), stem) != 0) return {};
  return (b.parent_path() / (b.stem().string() + name.substr(stem.size()))).string();
}

// The companions of `image` that exist (its files but the image itself, and
// the sidecars GDAL may add).
std::vector<std::string> Companions(const std::string& image) {
  std::vector<std::string> files = kzdv::eimg::ImageFiles(image);
  files.erase(files.begin());
  for (const char* s : kSidecars)
    if (Exists(image + s) && std::find(files.begin(), files.end(), image + s) == files.end())
      files.push_back(image + s);
  return files;
}

// The whole computation on the file `work`, opened with `access`, the meter
// naming the image by `shown` (its file name part). With EIMG_ACCESS_LEVELS
// a file that shows levels of its own is left alone: *own_levels is set and
// false returned with nothing reported.
bool BuildLevels(const Etxt_Char* work, const Etxt_Char* shown, int access, Emet_MeterInfo* meter,
                 Eint_InitToolkitData* init, bool* own_levels, kzdv::ErrorFrame& frame) {
  NamesPtr names(eimg_LayerGetNames(work, init, frame.Callee()), estr_StringListDelete);
  if (!names) {
    frame.Fail(__LINE__, L"Cannot get layer names from file %s!", shown);
    return false;
  }
  StackPtr stack(eimg_LayerStackOpen(names.get(), init, access, frame.Callee()), CloseStack);
  if (!stack) {
    frame.Fail(__LINE__, L"Cannot open image layers!");
    return false;
  }
  if (access == EIMG_ACCESS_LEVELS) {
    Eerr_ErrorReport* ignored = nullptr;  // a layer that cannot tell shows none
    *own_levels = eimg_LayerPyramidLevelCount(stack->layers[0], &ignored) > 0;
    eerr_DeleteErrorReportEx(&ignored);
    if (*own_levels) return false;
  }
  kzdv::HeapPtr<Etxt_Char> order(eimg_FileRasterDataOrderGet(work, init, frame.Callee()));
  if (!order) {
    frame.Fail(__LINE__, L"eimg_FileRasterDataOrderGet failed");
    return false;
  }
  bool one_pass = estr_Eqic(order.get(), L"BIP") || estr_Eqic(order.get(), L"BIL");
  for (long i = 1; one_pass && i < stack->count; ++i)
    one_pass = SameLayout(stack->layers[0], stack->layers[i]);

  bool levels_changed = false;
  if (one_pass) {
    // Interleaved files are read once for all bands.
    kzdv::HeapPtr<Etxt_Char> task(estr_Sprintf(L"%s: All Layers", shown));
    if (!task) {
      frame.Fail(__LINE__, L"estr_Sprintf failed");
      return false;
    }
    if (!computeBinomialPyramid(task.get(), stack.get(), EMSC_TRUE, meter, init, &levels_changed,
                                frame.Callee())) {
      frame.Fail(__LINE__, L"computeBinomialPyramid failed");
      return false;
    }
  } else {
    StackPtr one(eimg_LayerStackStructureCreate(1, frame.Callee()), FreeStructure);
    if (!one) {
      frame.Fail(__LINE__, L"Unable to create Layer Stack structure for sequential processing");
      return false;
    }
    for (long i = 0; i < stack->count; ++i) {
      one->layers[0] = stack->layers[i];
      kzdv::HeapPtr<Etxt_Char> task(estr_Sprintf(L"%s: Layer %d", shown, int(i + 1)));
      if (!task) {
        frame.Fail(__LINE__, L"Error producing layer name");
        return false;
      }
      if (!computeBinomialPyramid(task.get(), one.get(), i == 0 ? EMSC_TRUE : EMSC_FALSE, meter,
                                  init, &levels_changed, frame.Callee())) {
        frame.Fail(__LINE__, L"computeBinomialPyramid failed");
        return false;
      }
    }
  }
  if (!eimg_LayerStackClose(stack.release(), frame.Callee())) {
    frame.Fail(__LINE__, L"eimg_LayerStackClose failed");
    return false;
  }
  return true;
}

// The companions `built` of the work file `work` (its level file, its
// .aux.xml, copies of its other companions), and then `work` itself when
// `with_work`, replace the same files of `image`, each flushed to disk
// first; a level file the work no longer has goes too.
bool MoveCompanions(std::vector<std::string> built, const std::string& work,
                    const std::string& image, bool with_work, kzdv::ErrorFrame& frame) {
  std::wstring why;
  struct stat owner {};
  const bool has_owner = ::stat(image.c_str(), &owner) == 0;
  const std::vector<std::string> companions = built;
  if (with_work) built.push_back(work);
  for (const std::string& c : built) {
    const std::string target = Companion(c, work, image);
    std::error_code ec;
    if (!kzdv::efio::SyncFile(c, &why)) {
      frame.Fail(__LINE__, L"%s", why.c_str());
      return false;
    }
    // The image's owner keeps its companions where the process may set it
    // (a run by root on a user's image).
    const bool owned = has_owner && ::chown(c.c_str(), owner.st_uid, owner.st_gid) == 0;
    (void)owned;
    if (!target.empty()) std::filesystem::rename(c, target, ec);
    if (target.empty() || ec) {
      frame.Fail(__LINE__, L"Cannot replace %hs: %hs", target.c_str(), ec.message().c_str());
      return false;
    }
  }
  for (const char* s : kSidecars) {
    std::error_code ec;
    if (std::find(companions.begin(), companions.end(), work + s) == companions.end())
      std::filesystem::remove(image + s, ec);
  }
  kzdv::efio::SyncFolderOf(image);
  return true;
}

// Copies the companions of `image` (but its level file, which is built
// anew) to the same companions of `work`, adding each copy to *made.
bool CopyCompanions(const std::string& image, const std::string& work,
                    std::vector<std::string>* made, std::wstring* message) {
  for (const std::string& c : Companions(image)) {
    const std::string copy = Companion(c, image, work);
    if (copy.empty() || c == image + ".ovr") continue;
    made->push_back(copy);
    if (!kzdv::efio::CopyFileContents(c, copy, message)) return false;
  }
  return true;
}

void RemoveWork(const std::string& work, const std::vector<std::string>& made) {
  std::error_code ec;
  for (const std::string& m : made) std::filesystem::remove(m, ec);
  if (work.empty()) return;
  for (const char* s : kSidecars) std::filesystem::remove(work + s, ec);
}

// Work files of an earlier run on `image` that was killed before it could
// remove them: hidden second names of the image (".<name>.tmpXXXXXX.<ext>",
// the very same file) with their level files and .aux.xml, and hidden work
// folders of that name that hold a copy of the image. Called with the
// image's lock held, so no live run owns them.
void RemoveStaleWork(const std::string& image) {
  namespace fs = std::filesystem;
  struct stat target {};
  if (::lstat(image.c_str(), &target) != 0) return;
  const fs::path path(image);
  const std::string prefix = "." + path.stem().string() + ".tmp", ext = path.extension().string();
  const fs::path folder = path.has_parent_path() ? path.parent_path() : fs::path(".");
  std::error_code ec;
  std::vector<std::string> links, folders;
  for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
    const std::string name = it->path().filename().string();
    struct stat st {};
    if (name.size() != prefix.size() + 6 + ext.size() || name.compare(0, prefix.size(), prefix) ||
        name.compare(name.size() - ext.size(), ext.size(), ext) ||
        ::lstat(it->path().c_str(), &st) != 0)
      continue;
    if (S_ISDIR(st.st_mode) && Exists((it->path() / path.filename()).string())) {
      folders.push_back(it->path().string());
      continue;
    }
    if ((st.st_mode & S_IFMT) == (target.st_mode & S_IFMT) && st.st_dev == target.st_dev &&
        st.st_ino == target.st_ino)
      links.push_back(it->path().string());
  }
  for (const std::string& work : links) {
    RemoveWork(work, {});
    fs::remove(work, ec);
  }
  for (const std::string& folder : folders) fs::remove_all(folder, ec);
}

enum class Outcome { kDone, kFailed, kNotHere };

// The levels in GDAL's companion level file "<image>.ovr", built under a
// hidden second name of the image (a hard link, ".<name>.tmpXXXXXX.<ext>")
// that GDAL opens read-only, so that the image's bytes are never written and
// never copied. The new level file and .aux.xml replace the image's only when
// every level is done. kNotHere, with nothing changed, when the image holds
// levels of its own (they are rebuilt where they are) or its folder cannot
// take a second name for it.
Outcome BuildBeside(const std::string& image, const Etxt_Char* shown, Emet_MeterInfo* meter,
                    Eint_InitToolkitData* init, kzdv::ErrorFrame& frame) {
  kzdv::efio::FileSizeSignalGuard no_sigxfsz;  // a file size limit fails a write
  std::wstring why;
  const std::string work = kzdv::efio::LinkBeside(image, &why);
  if (work.empty()) return Outcome::kNotHere;
  std::vector<std::string> made;
  bool own_levels = false;
  bool ok = CopyCompanions(image, work, &made, &why);
  if (!ok) frame.Fail(__LINE__, L"%s (the image is unchanged)", why.c_str());
  ok = ok && BuildLevels(kzdv::FromUtf8(work).c_str(), shown, EIMG_ACCESS_LEVELS, meter, init,
                         &own_levels, frame);
  std::vector<std::string> built;
  if (ok) {
    built = Companions(work);
    ok = MoveCompanions(built, work, image, false, frame);
  }
  std::error_code ec;
  std::filesystem::remove(work, ec);
  if (!ok) RemoveWork(work, made);
  if (own_levels) return Outcome::kNotHere;
  return ok ? Outcome::kDone : Outcome::kFailed;
}

// The levels rebuilt inside a copy of the image. The copy and the copies of
// its companions keep their own names, in a hidden folder beside the image
// (".<name>.tmpXXXXXX.<ext>/"), so that the names a file holds of itself or
// of its companions (an HFA image's level references, a raw format's header)
// lead GDAL to the copies, never to the originals. Every file is flushed to
// disk and renamed over its original once every level is done, the image
// last; on failure the folder goes and the originals stay as they were.
void BuildInCopy(const std::string& image, const Etxt_Char* shown, Emet_MeterInfo* meter,
                 Eint_InitToolkitData* init, kzdv::ErrorFrame& frame) {
  namespace fs = std::filesystem;
  kzdv::efio::FileSizeSignalGuard no_sigxfsz;  // a file size limit fails a write
  std::wstring why;
  const std::string folder = kzdv::efio::MakeFolderBeside(image, &why);
  if (folder.empty()) {
    frame.Fail(__LINE__, L"%s (the image is unchanged)", why.c_str());
    return;
  }
  const std::string work = (fs::path(folder) / fs::path(image).filename()).string();
  std::vector<std::string> made;
  struct stat st {};
  bool ok =
      kzdv::efio::CopyFileContents(image, work, &why) && CopyCompanions(image, work, &made, &why);
  if (ok && (::stat(image.c_str(), &st) != 0 || ::chmod(work.c_str(), st.st_mode & 07777) != 0)) {
    why = L"Cannot give the copy of " + kzdv::FromUtf8(image) + L" its permissions: " +
          kzdv::FromUtf8(std::strerror(errno));
    ok = false;
  }
  if (!ok) frame.Fail(__LINE__, L"%s (the image is unchanged)", why.c_str());
  bool own_levels = false;
  ok = ok && BuildLevels(kzdv::FromUtf8(work).c_str(), shown, EIMG_ACCESS_UPDATE, meter, init,
                         &own_levels, frame);
  if (ok) {
    ok = MoveCompanions(Companions(work), work, image, true, frame);
  }
  std::error_code ec;
  fs::remove_all(folder, ec);
}

// What refuses the work, checked on the image itself before anything is
// copied or changed.
bool Refused(const Etxt_Char* file_name, Eint_InitToolkitData* init, kzdv::ErrorFrame& frame) {
  NamesPtr names(eimg_LayerGetNames(file_name, init, frame.Callee()), estr_StringListDelete);
  if (!names) {
    frame.Fail(__LINE__, L"Cannot get layer names from file %s!", file_name);
    return true;
  }
  StackPtr stack(eimg_LayerStackOpen(names.get(), init, EIMG_ACCESS_UPDATE, frame.Callee()),
                 CloseStack);
  if (!stack) {
    frame.Fail(__LINE__, L"Cannot open image layers!");
    return true;
  }
  for (long i = 0; i < stack->count; ++i) {
    const Eimg_Layer* l = stack->layers[i];
    if (eimg_PixelTypeIsComplex(l->pixelType)) {
      frame.Fail(__LINE__, L"Binomial (3x3) pyramid layers cannot be computed on complex pixels!");
      return true;
    }
    if (l->readOnly) {
      frame.Fail(__LINE__, L"Image layer %s is read only!", l->name);
      return true;
    }
    // 1- and 2-bit layers get no levels: the level check refuses them too.
    if (l->pixelType == EGDA_TYPE_INVALID || l->pixelType == EGDA_TYPE_U1 ||
        l->pixelType == EGDA_TYPE_U2) {
      frame.Fail(__LINE__, L"Image layer %s has an unsupported pixel type!", l->name);
      return true;
    }
  }
  return false;
}

}  // namespace

void epho_ComputePyramidLayers3x3(const Etxt_Char* file_name, Emet_MeterInfo* meter,
                                  Eerr_ErrorReport** err) KZDV_NOEXCEPT try {
  static const Etxt_Char* const kFn = L"epho_ComputePyramidLayers3x3";
  kzdv::ErrorFrame frame(kFn, err);
  EERR_FAIL_IF(!file_name || !*file_name, frame, , L"Invalid file name");
  Eint_InitToolkitData* init = eint_GetInit(frame.Callee());
  EERR_CHECK(init, frame, , L"eint_GetInit failed");
  kzdv::HeapPtr<Etxt_Char> file(efnp_FileNameGet(file_name, frame.Callee()));
  EERR_CHECK(file, frame, , L"efnp_FileNameGet failed");
  if (Refused(file_name, init, frame)) return;

  // One writer at a time: a second run on the same image waits here (a
  // cancel through the meter ends the wait) and then rebuilds the levels.
  const std::string image = kzdv::ToUtf8(file.get());
  std::wstring why;
  kzdv::efio::FileLock lock;
  if (!lock.Lock(image, kzdv::efio::LockMode::kRefuse, &why)) {
    if (meter) {
      kzdv::HeapPtr<Etxt_Char> task(
          estr_Sprintf(L"%s: waiting for another writer of the image to finish", file.get()));
      Eerr_ErrorReport* ignored = nullptr;  // the message is a courtesy
      if (task && emet_MeterInfoChangeTaskName(meter, task.get(), &ignored))
        emet_MeterInfoPrint(meter, 0.0, &ignored);
      eerr_DeleteErrorReportEx(&ignored);
    }
    EERR_FAIL_IF(!lock.Lock(image, kzdv::efio::LockMode::kWait, &why,
                            [meter] { return meter && emet_MeterInfoCancelled(meter); }),
                 frame, , L"%s", why.c_str());
  }

  RemoveStaleWork(image);
  if (RealFile(image) != image) RemoveStaleWork(RealFile(image));
  // Levels go beside the image, which is then only read; an image that holds
  // levels of its own has them rebuilt inside a copy of it.
  switch (BuildBeside(image, file.get(), meter, init, frame)) {
    case Outcome::kDone:
    case Outcome::kFailed:
      return;
    case Outcome::kNotHere:
      break;
  }
  // A symbolic link stays a link: levels inside the image are rebuilt in the
  // file it names (a level file goes beside the link, where GDAL looks).
  BuildInCopy(RealFile(image), file.get(), meter, init, frame);
}
EERR_BOUNDARY(err, )
