// `epho block import` and `epho block export`, and the conversions between a
// block and the interchange project that they run (shared with the tests).
#ifndef EPHO_TOOL_BLOCK_INTERCHANGE_COMMAND_H
#define EPHO_TOOL_BLOCK_INTERCHANGE_COMMAND_H

#include <string>

#include "epho/block.h"
#include "epho/interchange/interchange.h"

namespace epho_tool {

// Replaces the block's images and points by the project's (in memory; the
// caller saves). False with a message in *error.
bool PutProject(EphoBlockFile* block, const epho::interchange::Project& project,
                std::string* error);
// The block's images and points; false with a message when its frames
// cannot be read.
bool GetProject(EphoBlockFile* block, epho::interchange::Project* project, std::string* error);

struct BlockImportOptions {
  std::string block;
  std::string project;  // hand-written project file, or
  std::string colmap;   // COLMAP text model folder
  std::string control;  // optional control file applied after either
  std::string units = "meters";
  bool replace = false;
  bool quiet = false;
};
struct BlockExportOptions {
  std::string block;
  std::string colmap;
  bool quiet = false;
};

// The commands: 0 on success, 1 on failure (printed on standard error).
int BlockImport(const BlockImportOptions& options);
int BlockExport(const BlockExportOptions& options);

}  // namespace epho_tool

#endif  // EPHO_TOOL_BLOCK_INTERCHANGE_COMMAND_H
