// The Camera class of the bindings, shared by the areas that hand cameras
// in and out (block frames, triangulation).
#ifndef KZDVPHOLIBU_PYTHON_CAMERA_BINDING_H
#define KZDVPHOLIBU_PYTHON_CAMERA_BINDING_H

#include "epho/camera.h"

namespace kzpy {

// Owns one Epho_Camera record.
class Camera {
 public:
  Camera();
  explicit Camera(Epho_Camera* owned);
  ~Camera();
  Camera(Camera&& other) noexcept : ptr(other.ptr) { other.ptr = nullptr; }
  Camera(const Camera&) = delete;
  Camera& operator=(const Camera&) = delete;
  Camera Copy() const;
  Epho_Camera* ptr = nullptr;
};

}  // namespace kzpy

#endif  // KZDVPHOLIBU_PYTHON_CAMERA_BINDING_H
