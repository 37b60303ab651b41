// The photographs the demo renders, for the stages after it.
#ifndef EPHO_TOOL_DEMO_PHOTO_H
#define EPHO_TOOL_DEMO_PHOTO_H

#include <string>

#include "epho/camera.h"
#include "registry.h"

namespace epho_tool {

// Pixels a side of each photograph.
constexpr int kDemoPhotoSize = 1024;

// The true camera of photograph `which` ("left" or "right") as the
// photographs stage rendered it (heights from the demo's DEM), in
// `direction` (EMOD_FORWARD or EMOD_INVERSE); null before that stage ran.
// The caller frees it with epho_CameraDelete.
Epho_Camera* DemoPhotoCamera(const DemoContext& demo, const std::string& which, int direction);

}  // namespace epho_tool

#endif  // EPHO_TOOL_DEMO_PHOTO_H
