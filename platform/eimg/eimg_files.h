// The files that make up a raster image on disk, for code that copies or
// replaces whole images (the pyramid run). Internal to the libraries; include
// as "platform/eimg/eimg_files.h". Inline, so each shared library carries its
// own hidden copy and nothing of it is exported.
#ifndef KZDV_PLATFORM_EIMG_EIMG_FILES_H_
#define KZDV_PLATFORM_EIMG_EIMG_FILES_H_

#include <cpl_error.h>
#include <cpl_string.h>
#include <gdal.h>

#include <string>
#include <vector>

namespace kzdv::eimg {

// Every file GDAL reads for the image `path` (UTF-8): the image itself first,
// then its companions (a raw format's header, external levels, the .aux.xml
// metadata). Just `path` when GDAL cannot open it.
inline std::vector<std::string> ImageFiles(const std::string& path) {
  std::vector<std::string> files{path};
  if (GDALGetDriverCount() == 0) GDALAllRegister();
  CPLPushErrorHandler(CPLQuietErrorHandler);
  GDALDatasetH ds =
      GDALOpenEx(path.c_str(), GDAL_OF_RASTER | GDAL_OF_READONLY, nullptr, nullptr, nullptr);
  if (ds) {
    char** list = GDALGetFileList(ds);
    for (char** f = list; f && *f; ++f)
      if (path != *f) files.emplace_back(*f);
    CSLDestroy(list);
    GDALClose(ds);
  }
  CPLPopErrorHandler();
  return files;
}

}  // namespace kzdv::eimg

#endif  // KZDV_PLATFORM_EIMG_EIMG_FILES_H_
