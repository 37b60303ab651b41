// Fuzz target of the block file reader: the input is a whole block file. It
// is opened as a block and every section is read (property node, coordinate
// system, tie-point settings, frames, sensor, points both ways, Z range,
// DTMs, orthos, the integer list); failures must be exceptions, never
// crashes, leaks or huge allocations.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "epho/block.h"
#include "platform/estr/utf8.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string path = "/tmp/block_reader_fuzz_" + std::to_string(::getpid()) + ".blk";
  FILE* out = std::fopen(path.c_str(), "wb");
  if (!out) return 0;
  if (size > 0) std::fwrite(data, 1, size, out);
  std::fclose(out);
  EtxtTextU name(kzdv::FromUtf8(path));
  EphoBlockFile* block = nullptr;
  try {
    block = EphoBlockFile::Open(name, false);
  } catch (const EerrException&) {
  }
  if (block) {
    auto attempt = [](auto&& fn) {
      try {
        fn();
      } catch (const EerrException&) {
      }
    };
    attempt([&] {
      LegacyHelperTemplate<_eprj_MapProjectionExEtxt_TextU> projection;
      LegacyHelperTemplate<_eprj_ElevationInfoEtxt_TextU> elevation;
      EtxtTextU units;
      block->GetCoordinateSystem(projection, elevation, units);
    });
    attempt([&] { emsc_HeapFree(block->GetAutoTieParameters()); });
    attempt([&] {
      EdlmList images(EphoBlockFile::freeBlkImage);
      Emif_Design* design = nullptr;
      block->GetImageListCopy(images, &design);
      emif_DesignDestroy(design);
    });
    attempt([&] {
      unsigned char* bytes = nullptr;
      Emif_Design* design = nullptr;
      block->GetSensorData(&bytes, &design);
      emsc_HeapFree(bytes);
      emif_DesignDestroy(design);
    });
    attempt([&] {
      double lo, hi;
      block->GetMinMaxZ(&lo, &hi);
    });
    attempt([&] {
      EdlmList points(EphoBlockFile::freeGroundPoint);
      block->GetObjectPointsListCopy(points);
    });
    attempt([&] {
      EdlmList dtms(EphoBlockFile::freeDtm);
      block->GetDTMListCopy(dtms);
    });
    attempt([&] {
      EdlmList orthos(EphoBlockFile::freeOrtho);
      block->GetOrthoListCopy(orthos);
    });
    attempt([&] {
      BlockIntList list;
      list.MIFLoad(block);
    });
    block->Close();
  }
  std::remove(path.c_str());
  return 0;
}
