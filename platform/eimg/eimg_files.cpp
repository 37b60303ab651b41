// The files of an image, as GDAL lists them.
#include "platform/eimg/eimg_files.h"

#include <cpl_string.h>
#include <gdal.h>

#include "platform/eimg/eimg_internal.h"

namespace kzdv::eimg {

std::vector<std::string> ImageFiles(const std::string& path) {
  std::vector<std::string> files{path};
  EnsureGdalRegistered();
  GdalQuiet quiet;
  GDALDatasetH ds =
      GDALOpenEx(path.c_str(), GDAL_OF_RASTER | GDAL_OF_READONLY, nullptr, nullptr, nullptr);
  if (!ds) return files;
  char** list = GDALGetFileList(ds);
  for (char** f = list; f && *f; ++f)
    if (path != *f) files.emplace_back(*f);
  CSLDestroy(list);
  GDALClose(ds);
  return files;
}

}  // namespace kzdv::eimg
