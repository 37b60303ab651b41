// The block file: open or create, images (frames with their frame cameras),
// ground points with their image measurements, save.
#include "epho/block.h"

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "camera_binding.h"
#include "common.h"
#include "epho/camera.h"

namespace {

using kzpy::Camera;
using kzpy::CArray;

// Runs class code of the block and turns its exception into Error.
template <typename F>
auto Guard(F&& f) -> decltype(f()) {
  try {
    return f();
  } catch (EerrException& e) {
    kzpy::RaiseReport(e.Release(), e.what());
  }
}

// Frames are "Epho_BlockFrame" records: image name, id, size and the frame
// camera as a "Camera_ModelX" record, as the epho tool writes them.
const wchar_t kFrameDesignName[] = L"Epho_BlockFrame";

struct FrameRecord {
  Emif_CountedString imageName;
  int32_t imageId;
  int32_t columns;
  int32_t rows;
  void* camera;
};

struct DesignDelete {
  void operator()(Emif_Design* d) const { emif_DesignDestroy(d); }
};
using DesignPtr = std::unique_ptr<Emif_Design, DesignDelete>;

DesignPtr FrameDesign() {
  Eerr_ErrorReport* err = nullptr;
  const Emif_Design* camera = epho_CameraModelXDesignGet(&err);
  if (!camera) kzpy::RaiseReport(err, "the camera design is not available");
  DesignPtr d(emif_DesignCreate(kFrameDesignName, EMIF_T_STRING, L"imageName", EMIF_T_LONG,
                                L"imageId", EMIF_T_LONG, L"columns", EMIF_T_LONG, L"rows",
                                EMIF_T_OBJECT_PTR, L"camera", camera, 0, &err));
  if (!d) kzpy::RaiseReport(err, "cannot define the frame design");
  return d;
}

class Block {
 public:
  static std::unique_ptr<Block> Open(const std::wstring& path, bool create) {
    EtxtTextU name(path);
    EphoBlockFile* b = Guard([&] { return EphoBlockFile::Open(name, create); });
    if (!b)
      throw kzpy::LibraryError(kzpy::ToUtf8(path.c_str()) +
                               ": no such block file (or a directory)");
    return std::unique_ptr<Block>(new Block(b));
  }
  ~Block() {
    if (b_) b_->Close();
  }
  void Close() {
    if (b_) b_->Close();
    b_ = nullptr;
  }
  EphoBlockFile* Get() const {
    if (!b_) throw kzpy::LibraryError("the block is closed");
    return b_;
  }
  void Save() {
    EphoBlockFile* b = Get();
    py::gil_scoped_release release;
    Guard([&] { b->Save(); });
  }
  void SaveAs(const std::wstring& path) {
    EphoBlockFile* b = Get();
    EtxtTextU name(path);
    py::gil_scoped_release release;
    Guard([&] { b->SaveAs(name); });
  }

  py::list Images() {
    EphoBlockFile* b = Get();
    EdlmList images(EphoBlockFile::freeBlkImage);
    Emif_Design* stored = nullptr;
    unsigned long count = 0;
    std::vector<long> sizes;
    Guard([&] {
      count = b->GetImageListCopy(images, &stored);
      sizes = b->GetFrameDataSizes();
    });
    DesignPtr storedHold(stored);
    py::list out;
    if (count == 0) return out;
    if (!stored || std::wcscmp(emif_DesignNameGet(stored), kFrameDesignName) != 0)
      throw kzpy::LibraryError("the block's frames are not Epho_BlockFrame records");
    DesignPtr ours = FrameDesign();
    Eerr_ErrorReport* err = nullptr;
    const Emif_Design* cameraDesign = epho_CameraModelXDesignGet(&err);
    if (!cameraDesign) kzpy::RaiseReport(err, "the camera design is not available");
    for (unsigned long i = 0; i < count; ++i) {
      const auto* bytes = static_cast<const unsigned char*>(
          edlm_GetAddr(images.Get(), static_cast<long>(i), nullptr));
      void* decoded =
          bytes ? emif_ObjectDecode(stored, bytes, static_cast<size_t>(sizes[i]), &err) : nullptr;
      FrameRecord rec{};
      const bool ok = decoded && emif_ObjectConvert(stored, decoded, ours.get(), &rec, &err);
      emif_ObjectFree(stored, decoded, nullptr);
      if (!ok) kzpy::RaiseReport(err, "frame " + std::to_string(i) + " cannot be read");
      py::dict f;
      f["image"] = rec.imageName.data ? std::wstring(rec.imageName.data) : std::wstring();
      f["id"] = rec.imageId;
      f["columns"] = rec.columns;
      f["rows"] = rec.rows;
      Epho_CameraXform* xform =
          rec.camera ? epho_CameraXformConvertFromMIFable(cameraDesign, rec.camera, &err) : nullptr;
      emif_ObjectContentsFree(ours.get(), &rec, nullptr);
      Epho_Camera* camera = xform ? epho_CameraCopy(xform->camera, &err) : nullptr;
      epho_CameraXformDelete(xform);
      if (camera)
        f["camera"] = std::make_shared<Camera>(camera);
      else if (err)
        kzpy::RaiseReport(err, "camera of frame " + std::to_string(i));
      else
        f["camera"] = py::none();
      out.append(f);
    }
    return out;
  }

  void PutImages(const py::list& frames) {
    EphoBlockFile* b = Get();
    DesignPtr design = FrameDesign();
    Eerr_ErrorReport* err = nullptr;
    EdlmList images(EphoBlockFile::freeBlkImage);
    images.Reset(edlm_InitList(sizeof(void*), static_cast<long>(frames.size()),
                               EphoBlockFile::freeBlkImage, nullptr, nullptr));
    std::vector<long> sizes;
    for (const py::handle& h : frames) {
      const py::dict f = py::reinterpret_borrow<py::dict>(h);
      for (const char* key : {"image", "id", "columns", "rows", "camera"})
        if (!f.contains(key))
          throw py::value_error(std::string("frame: missing key '") + key + "'");
      const auto& camera = f["camera"].cast<const Camera&>();
      const std::wstring name = f["image"].cast<std::wstring>();
      Epho_CameraXform* xform =
          epho_CameraXformGetFromCameraData(epho_CameraCopy(camera.ptr, &err), &err);
      Emif_Design* cameraDesign = nullptr;
      void* cameraRecord = nullptr;
      const bool ok =
          xform && epho_CameraXformConvertToMIFable(xform, &cameraDesign, &cameraRecord, &err);
      epho_CameraXformDelete(xform);
      DesignPtr cameraDesignHold(cameraDesign);
      if (!ok) kzpy::RaiseReport(err, "the camera cannot be stored");
      FrameRecord rec{{static_cast<int32_t>(name.size() + 1), const_cast<wchar_t*>(name.c_str())},
                      f["id"].cast<int32_t>(),
                      f["columns"].cast<int32_t>(),
                      f["rows"].cast<int32_t>(),
                      cameraRecord};
      uint32_t size = 0;
      unsigned char* bytes = emif_ObjectEncode(design.get(), &rec, 0, &size, &err);
      emif_ObjectFree(cameraDesign, cameraRecord, nullptr);
      if (!bytes) kzpy::RaiseReport(err, "the frame cannot be encoded");
      if (!edlm_Add(images.Get(), bytes, &err)) {
        emsc_HeapFree(bytes);
        kzpy::RaiseReport(err, "out of memory");
      }
      sizes.push_back(static_cast<long>(size));
    }
    Guard([&] { b->PutImageList(images, sizes.data(), design.get()); });
  }

  // Ground points as arrays, one row per point; measurements as arrays, one
  // row per image point, with the index of their ground point.
  py::dict Points() {
    EphoBlockFile* b = Get();
    EdlmList points(EphoBlockFile::freeGroundPoint);
    Guard([&] { b->GetObjectPointsListCopy(points); });
    const long n = points.Get() ? points.Count() : 0;
    py::array_t<int32_t> ids(n), type(n), usage(n);
    py::array_t<bool> used(n);
    CArray<double> xyz(std::vector<py::ssize_t>{n, 3}), res(std::vector<py::ssize_t>{n, 3});
    CArray<float> stds(std::vector<py::ssize_t>{n, 3});
    py::array_t<bool> defined(std::vector<py::ssize_t>{n, 3});
    py::list descriptions;
    long m = 0;
    for (long k = 0; k < n; ++k) {
      auto* gp = static_cast<Epho_GroundPoint*>(edlm_GetAddr(points.Get(), k, nullptr));
      m += gp->imagePoints ? edlm_CountList(gp->imagePoints) : 0;
    }
    py::array_t<int32_t> mPoint(m), mImage(m);
    CArray<double> mXY(std::vector<py::ssize_t>{m, 2}), mRes(std::vector<py::ssize_t>{m, 2});
    py::array_t<bool> mUsed(m), mGross(m);
    long j = 0;
    for (long k = 0; k < n; ++k) {
      auto* gp = static_cast<Epho_GroundPoint*>(edlm_GetAddr(points.Get(), k, nullptr));
      ids.mutable_at(k) = gp->id;
      type.mutable_at(k) = gp->pointType;
      usage.mutable_at(k) = gp->pointUsage;
      used.mutable_at(k) = gp->pointUsed != 0;
      const double g[3] = {gp->groundX, gp->groundY, gp->groundZ};
      const double r[3] = {gp->residualX, gp->residualY, gp->residualZ};
      const float s[3] = {gp->stdX, gp->stdY, gp->stdZ};
      const int32_t d[3] = {gp->xDefined, gp->yDefined, gp->zDefined};
      for (int a = 0; a < 3; ++a) {
        xyz.mutable_at(k, a) = g[a];
        res.mutable_at(k, a) = r[a];
        stds.mutable_at(k, a) = s[a];
        defined.mutable_at(k, a) = d[a] != 0;
      }
      descriptions.append(gp->description.data ? std::wstring(gp->description.data)
                                               : std::wstring());
      const long c = gp->imagePoints ? edlm_CountList(gp->imagePoints) : 0;
      for (long i = 0; i < c; ++i, ++j) {
        auto* ip = static_cast<Epho_ImagePoint*>(edlm_GetAddr(gp->imagePoints, i, nullptr));
        mPoint.mutable_at(j) = static_cast<int32_t>(k);
        mImage.mutable_at(j) = ip->imageId;
        mXY.mutable_at(j, 0) = ip->imageX;
        mXY.mutable_at(j, 1) = ip->imageY;
        mRes.mutable_at(j, 0) = ip->residualX;
        mRes.mutable_at(j, 1) = ip->residualY;
        mUsed.mutable_at(j) = ip->pointUsed != 0 && ip->xDefined && ip->yDefined;
        mGross.mutable_at(j) = ip->grossError != 0;
      }
    }
    py::dict out;
    out["id"] = ids;
    out["type"] = type;
    out["usage"] = usage;
    out["used"] = used;
    out["xyz"] = xyz;
    out["defined"] = defined;
    out["std"] = stds;
    out["residual"] = res;
    out["description"] = descriptions;
    py::dict meas;
    meas["point"] = mPoint;
    meas["image"] = mImage;
    meas["xy"] = mXY;
    meas["residual"] = mRes;
    meas["used"] = mUsed;
    meas["gross_error"] = mGross;
    out["measurements"] = meas;
    return out;
  }

  void PutPoints(const py::dict& d) {
    EphoBlockFile* b = Get();
    if (!d.contains("id") || !d.contains("xyz"))
      throw py::value_error("points: 'id' and 'xyz' are required");
    auto ids = py::array_t<int32_t, py::array::c_style | py::array::forcecast>::ensure(d["id"]);
    if (!ids || ids.ndim() != 1) throw py::type_error("points['id']: expected a 1-D integer array");
    const long n = static_cast<long>(ids.shape(0));
    auto xyz = kzpy::Doubles(d["xyz"], "points['xyz']", {n, 3});
    auto intColumn = [&](const char* key, int32_t fallback) {
      std::vector<int32_t> v(static_cast<size_t>(n), fallback);
      if (!d.contains(key)) return v;
      auto a = py::array_t<int32_t, py::array::c_style | py::array::forcecast>::ensure(d[key]);
      if (!a || a.ndim() != 1 || a.shape(0) != n)
        throw py::value_error(std::string("points['") + key + "']: expected " + std::to_string(n) +
                              " integers");
      std::memcpy(v.data(), a.data(), sizeof(int32_t) * static_cast<size_t>(n));
      return v;
    };
    const std::vector<int32_t> type = intColumn("type", GCP_FULL),
                               usage = intColumn("usage", GCP_TIE);
    // A default array_t is an empty array, not a null handle: flags tell
    // which optional columns were given.
    const bool hasStd = d.contains("std"), hasResidual = d.contains("residual");
    CArray<double> stds, residuals;
    if (d.contains("std")) stds = kzpy::Doubles(d["std"], "points['std']", {n, 3});
    if (d.contains("residual"))
      residuals = kzpy::Doubles(d["residual"], "points['residual']", {n, 3});
    std::vector<std::wstring> descriptions(static_cast<size_t>(n));
    if (d.contains("description")) {
      auto list = d["description"].cast<std::vector<std::wstring>>();
      if (static_cast<long>(list.size()) != n)
        throw py::value_error("points['description']: one text per point");
      descriptions = list;
    }
    // Measurements: ground point index, image id, (x, y).
    py::array_t<int32_t, py::array::c_style | py::array::forcecast> mPoint, mImage;
    CArray<double> mXY, mRes;
    bool hasMeasResidual = false;
    long m = 0;
    if (d.contains("measurements")) {
      const py::dict meas = d["measurements"].cast<py::dict>();
      mPoint = decltype(mPoint)::ensure(meas["point"]);
      mImage = decltype(mImage)::ensure(meas["image"]);
      if (!mPoint || !mImage || mPoint.ndim() != 1 || mImage.ndim() != 1 ||
          mImage.shape(0) != mPoint.shape(0))
        throw py::value_error(
            "points['measurements']: 'point' and 'image' must be integer arrays of one length");
      m = static_cast<long>(mPoint.shape(0));
      mXY = kzpy::Doubles(meas["xy"], "points['measurements']['xy']", {m, 2});
      hasMeasResidual = meas.contains("residual");
      if (hasMeasResidual)
        mRes = kzpy::Doubles(meas["residual"], "points['measurements']['residual']", {m, 2});
      for (long j = 0; j < m; ++j)
        if (mPoint.at(j) < 0 || mPoint.at(j) >= n)
          throw py::value_error("points['measurements']['point']: index " +
                                std::to_string(mPoint.at(j)) + " out of range");
    }
    EdlmList list(EphoBlockFile::freeGroundPoint);
    list.Reset(edlm_InitList(sizeof(void*), n, EphoBlockFile::freeGroundPoint,
                             EphoBlockFile::copyGroundPoint, nullptr));
    if (!list.Get()) throw std::bad_alloc();
    std::vector<Epho_GroundPoint*> made(static_cast<size_t>(n), nullptr);
    for (long k = 0; k < n; ++k) {
      auto* gp = static_cast<Epho_GroundPoint*>(emsc_HeapCalloc(1, sizeof(Epho_GroundPoint)));
      if (!gp) throw std::bad_alloc();
      gp->id = ids.at(k);
      gp->groundX = xyz.at(k, 0);
      gp->groundY = xyz.at(k, 1);
      gp->groundZ = xyz.at(k, 2);
      gp->xDefined = gp->yDefined = gp->zDefined = EMSC_TRUE;
      gp->pointType = type[static_cast<size_t>(k)];
      gp->pointUsage = usage[static_cast<size_t>(k)];
      gp->pointUsed = EMSC_TRUE;
      if (hasStd) {
        gp->stdX = static_cast<float>(stds.at(k, 0));
        gp->stdY = static_cast<float>(stds.at(k, 1));
        gp->stdZ = static_cast<float>(stds.at(k, 2));
      }
      if (hasResidual) {
        gp->residualX = residuals.at(k, 0);
        gp->residualY = residuals.at(k, 1);
        gp->residualZ = residuals.at(k, 2);
      }
      const std::wstring& text = descriptions[static_cast<size_t>(k)];
      if (!text.empty()) {
        gp->description.data = etxt_Text_strdup(text.c_str());
        gp->description.count = static_cast<int32_t>(text.size() + 1);
      }
      gp->imagePoints = edlm_InitList(sizeof(void*), 2, EphoBlockFile::freeImagePoint,
                                      EphoBlockFile::copyImagePoint, nullptr);
      if (!edlm_Add(list.Get(), gp, nullptr) || !gp->imagePoints) {
        EphoBlockFile::freeGroundPoint(gp);
        throw std::bad_alloc();
      }
      made[static_cast<size_t>(k)] = gp;
    }
    for (long j = 0; j < m; ++j) {
      Epho_GroundPoint* gp = made[static_cast<size_t>(mPoint.at(j))];
      auto* ip = static_cast<Epho_ImagePoint*>(emsc_HeapCalloc(1, sizeof(Epho_ImagePoint)));
      if (!ip) throw std::bad_alloc();
      ip->imageId = mImage.at(j);
      ip->imageX = mXY.at(j, 0);
      ip->imageY = mXY.at(j, 1);
      ip->xDefined = ip->yDefined = ip->pointUsed = EMSC_TRUE;
      if (hasMeasResidual) {
        ip->residualX = mRes.at(j, 0);
        ip->residualY = mRes.at(j, 1);
      }
      if (!edlm_Add(gp->imagePoints, ip, nullptr)) {
        emsc_HeapFree(ip);
        throw std::bad_alloc();
      }
      ++gp->imagePointCount;
    }
    Guard([&] { b->PutObjectPointsList(list); });
  }

 private:
  explicit Block(EphoBlockFile* b) : b_(b) {}
  EphoBlockFile* b_ = nullptr;
};

#define KZPY_TEXT_PROPERTY(cls, pyname, getter, putter) \
  cls.def_property(                                     \
      pyname,                                           \
      [](Block& self) {                                 \
        EtxtTextU v;                                    \
        Guard([&] { self.Get()->getter(v); });          \
        return std::wstring(v);                         \
      },                                                \
      [](Block& self, const std::wstring& value) {      \
        EtxtTextU v(value);                             \
        Guard([&] { self.Get()->putter(v); });          \
      })

}  // namespace

void BindBlock(py::module_& m) {
  py::class_<Block> cls(m, "Block",
                        "A block file (the project of a photogrammetric block). Changes stay in\n"
                        "memory until save(); use it as a context manager to close it.");
  cls.def_static("open", &Block::Open, py::arg("path"), py::arg("create") = false,
                 "Opens the block file (create: make a new one when nothing is there). Raises\n"
                 "Error for a missing file without create and for an unreadable file.")
      .def("close", &Block::Close, "Gives the block back (unsaved changes are lost).")
      .def("save", &Block::Save, "Writes the block, replacing the file in one step.")
      .def("save_as", &Block::SaveAs, py::arg("path"))
      .def_property_readonly("dirty",
                             [](Block& b) { return Guard([&] { return b.Get()->IsDirty(); }); })
      .def_property_readonly("file_name",
                             [](Block& b) {
                               EtxtTextU v;
                               Guard([&] { b.Get()->GetFileName(v); });
                               return std::wstring(v);
                             })
      .def("images", &Block::Images,
           "The frames: a list of dicts (image, id, columns, rows, camera).")
      .def("put_images", &Block::PutImages, py::arg("frames"),
           "Replaces the frames by a list of dicts (image, id, columns, rows, camera).")
      .def("points", &Block::Points,
           "Ground points as arrays (id, type, usage, used, xyz, defined, std, residual,\n"
           "description) and their measurements (point index, image id, xy, residual,\n"
           "used, gross_error).")
      .def("put_points", &Block::PutPoints, py::arg("points"),
           "Replaces the ground points by arrays as points() gives them (id and xyz\n"
           "required; usage defaults to tie, type to full; optional std, residual,\n"
           "description; measurements: point index, image id, xy, optional residual).")
      .def(
          "__enter__", [](Block& b) -> Block& { return b; }, py::return_value_policy::reference)
      .def("__exit__", [](Block& b, py::args) { b.Close(); });
  KZPY_TEXT_PROPERTY(cls, "horizontal_units", GetHorizontalUnits, PutHorizontalUnits);
  KZPY_TEXT_PROPERTY(cls, "vertical_units", GetVerticalUnits, PutVerticalUnits);
  KZPY_TEXT_PROPERTY(cls, "angular_units", GetAngularUnits, PutAngularUnits);
  KZPY_TEXT_PROPERTY(cls, "model_name", GetModelName, PutModelName);
  m.attr("USAGE_CONTROL") = static_cast<int>(GCP_CONTROL);
  m.attr("USAGE_CHECK") = static_cast<int>(GCP_CHECK);
  m.attr("USAGE_TIE") = static_cast<int>(GCP_TIE);
}
