/* Pyramid layers of image files: reduced-resolution levels made with the 3x3
 * binomial filter, so that matching can work coarse to fine.
 *
 * Level k of a layer is half the size of level k-1 (odd sizes round up),
 * level 0 being the layer. Output pixel (c, r) of a level is
 * (1 2 1 / 2 4 2 / 1 2 1) / 16 over the 3x3 neighbourhood of input pixel
 * (2c, 2r); integer pixels are rounded half up, floats are not rounded.
 * Neighbours beyond the image border repeat the border pixel. A layer of W x H
 * pixels gets n levels, n = the number of halvings of W + H (integer
 * division) that stay above 127: 1024 x 1024 gets 4, W + H < 256 gets none.
 *
 * The levels are GDAL overviews, so GDAL-based tools display them. They
 * are written into GDAL's companion level file beside the image,
 * "<image>.ovr" (for "scan.tif", "scan.tif.ovr"), and each layer records
 * the algorithm name "KordaBino3" as the band metadata item
 * PYRAMID_ALGORITHM in "<image>.aux.xml"; the image file itself is only
 * read. An image that already holds levels of its own (internal GeoTIFF
 * overviews, the levels of an HFA file) has them rebuilt there. An image
 * named through a symbolic link gets its level file beside the link, where
 * GDAL looks when it opens that name; levels inside an image are rebuilt in
 * the file the link names, and the link stays a link. */
#ifndef EPHO_PYRAMID_H
#define EPHO_PYRAMID_H

#include "emet.h"
#include "epho/base.h"

KZDV_BEGIN_C

/* Computes the binomial pyramid levels of every layer of `file_name`,
 * replacing any levels the file had. Pixel-interleaved and line-interleaved
 * files whose layers agree in size, type and block are read once for all
 * layers; others layer by layer. `meter` (may be null) shows progress per
 * level and is polled for cancel. Complex pixels, 1- and 2-bit pixels
 * (which epho_PyramidLayersCheck refuses too) and read-only files (a format
 * GDAL cannot update, or no write permission bit) are refused before
 * anything is changed.
 *
 * One writer per image: the run holds an advisory lock (flock) on the image
 * file while it works; a second run on the same image, from this process or
 * another, waits for the first to finish (its meter shows "<file>: waiting
 * for another writer of the image to finish"; a cancel through the meter ends
 * the wait with a report naming the file) and then builds the levels anew.
 *
 * Nothing is lost on failure. Levels beside the image are built under a
 * hidden second name of the image (a hard link,
 * ".<name>.tmpXXXXXX.<ext>", with copies of its companions such as a raw
 * format's header and its .aux.xml), which GDAL opens read-only: the new
 * level file and .aux.xml are flushed to disk and renamed over the image's
 * only when every level is done, and the hidden names are removed. Levels
 * inside the image are built in a copy of it (holes of a sparse file kept)
 * that keeps the image's name in a hidden folder beside it
 * (".<name>.tmpXXXXXX.<ext>/"), and the copy replaces the image by a rename
 * only when every level is done; the folder must have room for that copy.
 * A folder without hard links (some network and FAT file systems) gets
 * the copy too, and the levels inside the image. Either way a failed or
 * cancelled run, a full disk or a file size limit (a report, never
 * SIGXFSZ) leaves the image, its levels from before and its companions
 * exactly as they were; what a killed run leaves behind is removed by the
 * next run on the image. The image's folder must be writable. */
EPHO_EXPORT void epho_ComputePyramidLayers3x3(const Etxt_Char* file_name, Emet_MeterInfo* meter,
                                              Eerr_ErrorReport** err) KZDV_NOEXCEPT;

/* The number of binomial levels a layer of width x height pixels gets. */
EPHO_EXPORT long epho_PyramidLevelCount(long width, long height) KZDV_NOEXCEPT;

/* EMSC_TRUE when every layer of `file_name` has usable binomial levels made
 * by epho_ComputePyramidLayers3x3: the level count of the rule above, each
 * level half the size of the one before, and the algorithm name recorded (a
 * layer too small for any level needs none and passes).
 * EMSC_FALSE (no report) when they are missing or different; a report only
 * when the file cannot be examined or its pixels cannot have such levels
 * (1-bit, 2-bit, complex). */
EPHO_EXPORT Emsc_Boolean epho_PyramidLayersCheck(const Etxt_Char* file_name,
                                                 Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* As epho_PyramidLayersCheck, but also accepts levels made by another
 * algorithm (reduced-resolution sets of other tools) when count and sizes
 * fit. */
EPHO_EXPORT Emsc_Boolean epho_PyramidLayersCheckAllowRSETS(const Etxt_Char* file_name,
                                                           Eerr_ErrorReport** err) KZDV_NOEXCEPT;

/* The range [*minimum, *maximum] of a layer's valid pixel values, the null
 * value excluded (read from stored statistics or computed and stored). Fails
 * when the layer has no valid pixel. */
EPHO_EXPORT Emsc_Boolean epho_LayerEffectiveRangeGet(const Etxt_Char* layer_name, double* minimum,
                                                     double* maximum,
                                                     Eerr_ErrorReport** err) KZDV_NOEXCEPT;

/* Name of the proxy file that stands for `file_name` in the temporary
 * directory: "<temp dir><file root in lower case>-<16 hex digits>.uai". The
 * digits hash the identity of the file (device and inode), so every spelling
 * of one file (letter case where the file system ignores it, "..", links)
 * maps to one proxy, while two files never share one: on a case-sensitive
 * file system "dem.tif" and "DEM.tif" get two proxies. A file that cannot be
 * examined hashes its expanded path as written. Heap string; free with
 * emsc_HeapFree. */
EPHO_EXPORT Etxt_Char* epho_ProxyImageNameGet(const Etxt_Char* file_name,
                                              Eerr_ErrorReport** err) KZDV_NOEXCEPT;

KZDV_END_C

#endif /* EPHO_PYRAMID_H */
