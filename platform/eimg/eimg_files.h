// The files that make up a raster image on disk, for code that copies or
// replaces whole images (the pyramid run). Internal to the libraries; include
// as "platform/eimg/eimg_files.h".
#ifndef KZDV_PLATFORM_EIMG_EIMG_FILES_H_
#define KZDV_PLATFORM_EIMG_EIMG_FILES_H_

#include <string>
#include <vector>

namespace kzdv::eimg {

// Every file GDAL reads for the image `path` (UTF-8): the image itself first,
// then its companions (a raw format's header, external levels, the .aux.xml
// metadata). Just `path` when GDAL cannot open it.
std::vector<std::string> ImageFiles(const std::string& path);

}  // namespace kzdv::eimg

#endif  // KZDV_PLATFORM_EIMG_EIMG_FILES_H_
