// One pyramid level from the previous one, streamed by tiles.
//
// Output rows are made in chunks of H rows (input rows 2*r0 .. 2*r0 + 2H - 1)
// chosen to cover whole blocks of both levels, and each chunk in tiles of up to
// TW output columns. Every input row is read once: the last input row of a
// chunk is kept in a line buffer per layer and serves as the row above the
// next chunk (two lines, since neighbouring tiles overlap by a column).
// Blocks of both levels are flushed as soon as they are done (after each tile
// for tiled levels, after each chunk for striped ones), so GDAL's cache holds
// about one tile, or one chunk of rows, whatever the image size.
#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <numeric>
#include <vector>

#include "epho/pyramid/pyramid_filter_internal.h"
#include "epho/pyramid/pyramid_internal.h"

namespace epho::pyramid {
namespace {

constexpr long kMaxTileWidth = 1024;  // output columns per tile
constexpr long kMinChunkRows = 64;    // output rows per chunk, at least
constexpr long kMaxChunkRows = 512;
constexpr long kTileBytesPerLayer = 4 << 20;  // input window budget per layer
constexpr long kChunkBytes = 8 << 20;         // whole-width input rows of one chunk

struct Geometry {
  long sw, sh, dw, dh;  // source and destination sizes, pixels
  long chunk_rows;      // H
  long tile_width;      // TW
};

Geometry Plan(const Eimg_Layer* src, const Eimg_Layer* dst, long layers) {
  Geometry g{src->width, src->height, dst->width, dst->height, 0, 0};
  long sbh = std::max(1L, src->blockHeight), dbh = std::max(1L, dst->blockHeight);
  long half_src = sbh % 2 == 0 ? sbh / 2 : sbh;
  long h = std::lcm(dbh, half_src);
  if (h > kMaxChunkRows) h = std::min(dbh, kMaxChunkRows);
  if (h < kMinChunkRows) h *= (kMinChunkRows + h - 1) / h;
  g.chunk_rows = std::min(h, kMaxChunkRows);
  long bytes = eimg_PixelTypeBytes(src->pixelType);
  // Whole-width (striped) source blocks stay cached until the chunk ends:
  // very wide levels get shorter chunks (a block of the new level may then be
  // written in parts, which GDAL merges), so memory stays bounded. Tiled
  // sources are flushed tile by tile instead.
  if (src->blockWidth >= src->width) {
    const long row_bytes = g.sw * bytes * layers;
    while (g.chunk_rows > 8 && 2 * g.chunk_rows * row_bytes > kChunkBytes) g.chunk_rows /= 2;
  }
  long tw = kTileBytesPerLayer / (bytes * (2 * g.chunk_rows + 1)) / 2;
  g.tile_width = std::clamp(tw, 64L, kMaxTileWidth);
  // Whole blocks of the new level per tile, so each is written once.
  const long dbw = std::max(1L, dst->blockWidth);
  if (dbw < g.dw && g.tile_width >= dbw) g.tile_width -= g.tile_width % dbw;
  return g;
}

// Filters one tile of every layer: `in` holds input rows 2*r0 .. 2*r0+nr-1 of
// columns xa .. xa+ww-1; `above[l]` the full-width input row 2*r0-1.
template <typename T>
void FilterTile(const Geometry& g, long r0, long nout, long c0, long tw, long xa, long ww, long nr,
                Eimg_PixelRectStack* in, Eimg_PixelRectStack* out,
                std::vector<std::vector<unsigned char>>& above, std::vector<unsigned char>& vbuf) {
  using Acc = typename Binomial<T>::Acc;
  Acc* v = reinterpret_cast<Acc*>(vbuf.data());
  const long off = xa - (2 * c0 - 1);  // 1 when column -1 was clamped away
  const long needed = 2 * tw + 1;      // padded sums per output row
  for (long l = 0; l < in->count; ++l) {
    const T* rows = reinterpret_cast<const T*>(in->rects[l]->data);
    const T* line_above = reinterpret_cast<const T*>(above[l].data()) + xa;
    T* dst = reinterpret_cast<T*>(out->rects[l]->data);
    auto row = [&](long g_row) -> const T* {
      g_row = std::clamp(g_row, 0L, g.sh - 1);
      if (g_row < 2 * r0) return line_above;
      return rows + (g_row - 2 * r0) * ww;
    };
    for (long r = 0; r < nout; ++r) {
      long gr = 2 * (r0 + r);
      VerticalSum<T, Acc>(row(gr - 1), row(gr), row(gr + 1), v + off, ww);
      if (off == 1) v[0] = v[1];
      for (long j = off + ww; j < needed; ++j) v[j] = v[off + ww - 1];
      HorizontalReduce<T, Acc>(v, dst + r * tw, tw);
    }
    (void)nr;
  }
}

template <typename T>
bool Reduce(Eimg_LayerStack* src, Eimg_LayerStack* dst, Emet_MeterInfo* meter,
            kzdv::ErrorFrame& frame) {
  const Geometry g = Plan(src->layers[0], dst->layers[0], src->count);
  const long count = src->count;
  const Egda_PixelType type = src->layers[0]->pixelType;
  const long tw_max = std::min(g.tile_width, g.dw);
  const long ww_max = std::min(2 * tw_max + 1, g.sw);
  const long nr_max = std::min(2 * g.chunk_rows, g.sh);
  const long h_max = std::min(g.chunk_rows, g.dh);

  std::unique_ptr<Eimg_PixelRectStack, void (*)(Eimg_PixelRectStack*)> in(
      eimg_PixelRectStackCreate(count, ww_max, nr_max, type, frame.Callee()),
      eimg_PixelRectStackDelete);
  if (frame.CalleeFailed()) {
    frame.Fail(__LINE__, L"eimg_PixelRectStackCreate failed");
    return false;
  }
  std::unique_ptr<Eimg_PixelRectStack, void (*)(Eimg_PixelRectStack*)> out(
      eimg_PixelRectStackCreate(count, tw_max, h_max, type, frame.Callee()),
      eimg_PixelRectStackDelete);
  if (frame.CalleeFailed()) {
    frame.Fail(__LINE__, L"eimg_PixelRectStackCreate failed");
    return false;
  }
  std::vector<std::vector<unsigned char>> above(count,
                                                std::vector<unsigned char>(g.sw * sizeof(T)));
  std::vector<std::vector<unsigned char>> next_above = above;
  std::vector<unsigned char> vbuf((2 * tw_max + 2) * sizeof(typename Binomial<T>::Acc));

  const bool flush_dst_per_tile = dst->layers[0]->blockWidth < g.dw ||
                                  g.chunk_rows % std::max(1L, dst->layers[0]->blockHeight) != 0;
  const bool flush_src_per_tile = src->layers[0]->blockWidth < g.sw;
  for (long r0 = 0; r0 < g.dh; r0 += g.chunk_rows) {
    if (emet_MeterInfoCancelled(meter)) {
      frame.Fail(__LINE__, L"Pyramid generaton is canceled!");
      return false;
    }
    const long nout = std::min(g.chunk_rows, g.dh - r0);
    const long nr = std::min(2 * g.chunk_rows, g.sh - 2 * r0);
    for (long c0 = 0; c0 < g.dw; c0 += tw_max) {
      const long tw = std::min(tw_max, g.dw - c0);
      const long xa = std::max(0L, 2 * c0 - 1);
      const long xb = std::min(g.sw - 1, 2 * (c0 + tw) - 1);
      const long ww = xb - xa + 1;
      for (long l = 0; l < count; ++l) {
        in->rects[l]->width = ww, in->rects[l]->height = nr;
        out->rects[l]->width = tw, out->rects[l]->height = nout;
      }
      if (!eimg_LayerStackRead(src, xa, 2 * r0, in.get(), frame.Callee())) {
        frame.Fail(__LINE__, L"eimg_LayerStackRead failed");
        return false;
      }
      FilterTile<T>(g, r0, nout, c0, tw, xa, ww, nr, in.get(), out.get(), above, vbuf);
      if (!eimg_LayerStackWrite(dst, c0, r0, out.get(), frame.Callee())) {
        frame.Fail(__LINE__, L"eimg_LayerStackWrite failed");
        return false;
      }
      // Tiled levels give up the blocks of a tile as soon as it is done, so
      // GDAL's cache holds about one tile, not one row of tiles.
      for (long l = 0; l < count; ++l)
        if ((flush_dst_per_tile && !eimg_LayerFlush(dst->layers[l], frame.Callee())) ||
            (flush_src_per_tile && !eimg_LayerFlush(src->layers[l], frame.Callee()))) {
          frame.Fail(__LINE__, L"eimg_LayerFlush failed");
          return false;
        }
      // Keep the chunk's last input row as the row above the next chunk.
      for (long l = 0; l < count; ++l)
        std::memcpy(next_above[l].data() + xa * sizeof(T),
                    in->rects[l]->data + (nr - 1) * ww * sizeof(T), ww * sizeof(T));
    }
    above.swap(next_above);
    for (long l = 0; l < count; ++l) {
      if (!eimg_LayerFlush(dst->layers[l], frame.Callee()) ||
          !eimg_LayerFlush(src->layers[l], frame.Callee())) {
        frame.Fail(__LINE__, L"eimg_LayerFlush failed");
        return false;
      }
    }
    if (!emet_MeterInfoPrint(meter, 100.0 * double(r0 + nout) / double(g.dh), frame.Callee())) {
      frame.Fail(__LINE__, L"emet_MeterInfoPrint failed");
      return false;
    }
  }
  return true;
}

}  // namespace

static bool ReduceTyped(Eimg_LayerStack* src, Eimg_LayerStack* dst, Emet_MeterInfo* meter,
                        kzdv::ErrorFrame& frame);

bool ReduceLevel(Eimg_LayerStack* src, Eimg_LayerStack* dst, Emet_MeterInfo* meter,
                 kzdv::ErrorFrame& frame) {
  const Eimg_Layer* s = src->layers[0];
  const Eimg_Layer* d = dst->layers[0];
  if (d->width != (s->width + 1) / 2 || d->height != (s->height + 1) / 2) {
    frame.Fail(__LINE__, L"Pyramid level %s is %ldx%ld, expected %ldx%ld", d->name, d->width,
               d->height, (s->width + 1) / 2, (s->height + 1) / 2);
    return false;
  }
  try {
    return ReduceTyped(src, dst, meter, frame);
  } catch (const std::bad_alloc&) {
    frame.Fail(__LINE__, L"Out of memory");
    return false;
  }
}

bool ReduceTyped(Eimg_LayerStack* src, Eimg_LayerStack* dst, Emet_MeterInfo* meter,
                 kzdv::ErrorFrame& frame) {
  const Eimg_Layer* s = src->layers[0];
  switch (s->pixelType) {
    case EGDA_TYPE_U1:
    case EGDA_TYPE_U2:
    case EGDA_TYPE_U4:
    case EGDA_TYPE_U8:
      return Reduce<uint8_t>(src, dst, meter, frame);
    case EGDA_TYPE_S8:
      return Reduce<int8_t>(src, dst, meter, frame);
    case EGDA_TYPE_U16:
      return Reduce<uint16_t>(src, dst, meter, frame);
    case EGDA_TYPE_S16:
      return Reduce<int16_t>(src, dst, meter, frame);
    case EGDA_TYPE_U32:
      return Reduce<uint32_t>(src, dst, meter, frame);
    case EGDA_TYPE_S32:
      return Reduce<int32_t>(src, dst, meter, frame);
    case EGDA_TYPE_F32:
      return Reduce<float>(src, dst, meter, frame);
    case EGDA_TYPE_F64:
      return Reduce<double>(src, dst, meter, frame);
    default:
      frame.Fail(__LINE__, L"Image layer %s has an unsupported pixel type!", s->name);
      return false;
  }
}

}  // namespace epho::pyramid
