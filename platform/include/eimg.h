/* eimg: image layers, layer stacks, pixel rectangles, statistics, map
 * information and pyramid levels, over GDAL.
 *
 * A layer is one band of a raster file, named "file(:Layer_N)" for band N
 * (N from 1). A bare file name designates its first layer. A pyramid level of
 * a layer is named "<layer name>:ephoPyramid_K" (K from 1, each level half the
 * size of the one before) and is a GDAL overview of the band, so every
 * GDAL-based tool sees and uses the levels.
 *
 * Pixel coordinates are (column, row) of the layer, origin at the upper-left
 * pixel, in pixels. Layer handles that share a private storage (and all the
 * layers of one stack that live in the same file) share one GDAL dataset and
 * its block cache; calls on handles that share a dataset are serialised, so
 * they may come from several threads. One handle must not be closed while
 * another thread uses it. */
#ifndef EIMG_H
#define EIMG_H

#include "eerr.h"
#include "efio.h"
#include "eint.h"
#include "emsc.h"
#include "kzdv_export.h"

/* Pixel types of a layer and of a pixel rectangle. */
typedef enum {
  EGDA_TYPE_U1 = 0, /* 1-bit, stored as one byte per pixel in memory */
  EGDA_TYPE_U2,     /* 2-bit, one byte per pixel in memory */
  EGDA_TYPE_U4,     /* 4-bit, one byte per pixel in memory */
  EGDA_TYPE_U8,
  EGDA_TYPE_S8,
  EGDA_TYPE_U16,
  EGDA_TYPE_S16,
  EGDA_TYPE_U32,
  EGDA_TYPE_S32,
  EGDA_TYPE_F32,
  EGDA_TYPE_F64,
  EGDA_TYPE_C64,  /* complex of two 32-bit floats */
  EGDA_TYPE_C128, /* complex of two 64-bit floats */
  EGDA_TYPE_INVALID
} Egda_PixelType;

/* Access asked of eimg_LayerOpen / eimg_LayerStackOpen. With
 * EIMG_ACCESS_UPDATE the file is opened for writing when its format and file
 * allow it, and read-only otherwise (the layer's readOnly is then set). A file
 * without any write permission bit is treated as read-only even for a
 * privileged user, so that a user can protect an image with chmod. */
#define EIMG_ACCESS_READ 0
#define EIMG_ACCESS_UPDATE 1
/* EIMG_ACCESS_LEVELS opens the file itself read-only (nothing ever writes
 * it) while its pyramid levels and layer records are written beside it, in
 * GDAL's companion files "<file>.ovr" (the levels) and "<file>.aux.xml" (the
 * records, such as the pyramid algorithm). Its layers are not readOnly: levels
 * may be removed, made and written and records set, but a write to the
 * pixels of a layer itself is refused. Removing levels that the file holds
 * itself fails, as GDAL cannot change a file opened read-only. */
#define EIMG_ACCESS_LEVELS 2

/* Algorithm name recorded on a layer whose levels are 3x3 binomial. */
#define EIMG_PYRAMID_ALGORITHM_BINOMIAL3 L"KordaBino3"

typedef struct Eimg_LayerImpl Eimg_LayerImpl;
typedef struct Eimg_PrivateStorage Eimg_PrivateStorage;

/* An open layer. The fields describe it and must not be changed. */
typedef struct Eimg_Layer {
  Etxt_Char* name; /* the name it was opened under */
  long width;      /* columns, pixels */
  long height;     /* rows, pixels */
  Egda_PixelType pixelType;
  long blockWidth; /* the file's natural block, pixels */
  long blockHeight;
  Emsc_Boolean readOnly; /* writes and pyramid changes are refused */
  long pyramidLevel;     /* 0 for the layer itself, K for level K */
  Eimg_LayerImpl* impl;
} Eimg_Layer;

/* A set of layers processed together. Stacks from eimg_LayerStackOpen own
 * their layers; a structure from eimg_LayerStackStructureCreate only borrows
 * the layers placed in it. */
typedef struct Eimg_LayerStack {
  long count;
  Eimg_Layer** layers;
  Emsc_Boolean ownsLayers;
} Eimg_LayerStack;

/* Pixels of a window in memory: row-major, `width` pixels of
 * eimg_PixelTypeBytes(pixelType) bytes per row, no padding. */
typedef struct Eimg_PixelRect {
  long width;
  long height;
  Egda_PixelType pixelType;
  unsigned char* data;
} Eimg_PixelRect;

typedef struct Eimg_PixelRectStack {
  long count;
  Eimg_PixelRect** rects;
} Eimg_PixelRectStack;

/* Statistics of a layer's valid pixels (the null value excluded). */
typedef struct Eimg_Statistics {
  double minimum;
  double maximum;
  double mean;
  double stddev;
} Eimg_Statistics;

/* Where a layer lies on the map: the centre of its upper-left pixel and the
 * pixel size in map units (pixelSizeY positive, rows run south), for a layer
 * without rotation terms; `geoTransform` holds GDAL's six coefficients
 * (map x = g0 + col*g1 + row*g2 at a pixel's corner, map y = g3 + col*g4 + row*g5). */
typedef struct Eimg_MapInfo {
  double upperLeftCenterX;
  double upperLeftCenterY;
  double pixelSizeX;
  double pixelSizeY;
  double geoTransform[6];
  Etxt_Char* units; /* linear unit name of the map coordinates, e.g. "meters" */
} Eimg_MapInfo;

KZDV_BEGIN_C

/* Bytes a pixel of `type` takes in memory (0 for EGDA_TYPE_INVALID). */
KZDV_EXPORT int eimg_PixelTypeBytes(Egda_PixelType type) KZDV_NOEXCEPT;
KZDV_EXPORT Emsc_Boolean eimg_PixelTypeIsComplex(Egda_PixelType type) KZDV_NOEXCEPT;

/* Names of every layer of a raster file: "file(:Layer_1)", ... Free with
 * estr_StringListDelete. */
KZDV_EXPORT Estr_StringList* eimg_LayerGetNames(const Etxt_Char* file_name,
                                                Eint_InitToolkitData* init,
                                                Eerr_ErrorReport** err) KZDV_NOEXCEPT;

/* A private storage for the file of `layer_name`: layers opened with it share
 * one dataset and one block cache. Free with eimg_PrivateStorageDelete once
 * (the dataset stays open while a layer opened with it is open). */
KZDV_EXPORT Eimg_PrivateStorage* eimg_LayerPrivateStorageCreate(
    const Etxt_Char* layer_name, int access, Eerr_ErrorReport** err) KZDV_NOEXCEPT;
KZDV_EXPORT void eimg_PrivateStorageDelete(Eimg_PrivateStorage* storage) KZDV_NOEXCEPT;

/* Opens a layer (or a pyramid level, by its level name). `storage` may be null
 * (the layer gets a dataset of its own). Close with eimg_LayerClose. */
KZDV_EXPORT Eimg_Layer* eimg_LayerOpen(const Etxt_Char* layer_name, Eint_InitToolkitData* init,
                                       Eimg_PrivateStorage* storage, int access,
                                       Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Closes a layer; pending writes are flushed (a failed flush is reported).
 * Null is ignored. */
KZDV_EXPORT Emsc_Boolean eimg_LayerClose(Eimg_Layer* layer, Eerr_ErrorReport** err) KZDV_NOEXCEPT;

/* Reads rect->width x rect->height pixels whose upper-left pixel is (x, y)
 * into rect, converted to rect's pixel type. The window must lie inside the
 * layer. */
KZDV_EXPORT Emsc_Boolean eimg_LayerRead(Eimg_Layer* layer, long x, long y, Eimg_PixelRect* rect,
                                        Eerr_ErrorReport** err) KZDV_NOEXCEPT;
KZDV_EXPORT Emsc_Boolean eimg_LayerWrite(Eimg_Layer* layer, long x, long y,
                                         const Eimg_PixelRect* rect,
                                         Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Reads the cells of `rect` at (x, y); used with a 1 x 1 rectangle to fetch
 * one DEM cell. Same contract as eimg_LayerRead. */
KZDV_EXPORT Emsc_Boolean eimg_LayerRasterPixelRectGet(Eimg_Layer* layer, long x, long y,
                                                      Eimg_PixelRect* rect,
                                                      Eerr_ErrorReport** err) KZDV_NOEXCEPT;

/* Opens every named layer (stored by name order) as one stack; layers of the
 * same file share one dataset. */
KZDV_EXPORT Eimg_LayerStack* eimg_LayerStackOpen(const Estr_StringList* layer_names,
                                                 Eint_InitToolkitData* init, int access,
                                                 Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Closes the layers a stack owns and frees it; frees a structure only. */
KZDV_EXPORT Emsc_Boolean eimg_LayerStackClose(Eimg_LayerStack* stack,
                                              Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* A stack structure of `count` empty slots that borrows the layers put in it. */
KZDV_EXPORT Eimg_LayerStack* eimg_LayerStackStructureCreate(long count,
                                                            Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Reads/writes the same window of every layer of the stack into/from the
 * rectangle of the same index. */
KZDV_EXPORT Emsc_Boolean eimg_LayerStackRead(Eimg_LayerStack* stack, long x, long y,
                                             Eimg_PixelRectStack* rects,
                                             Eerr_ErrorReport** err) KZDV_NOEXCEPT;
KZDV_EXPORT Emsc_Boolean eimg_LayerStackWrite(Eimg_LayerStack* stack, long x, long y,
                                              const Eimg_PixelRectStack* rects,
                                              Eerr_ErrorReport** err) KZDV_NOEXCEPT;

/* A zeroed rectangle; free with eimg_PixelRectDelete (null ignored). */
KZDV_EXPORT Eimg_PixelRect* eimg_PixelRectCreate(long width, long height, Egda_PixelType type,
                                                 Eerr_ErrorReport** err) KZDV_NOEXCEPT;
KZDV_EXPORT void eimg_PixelRectDelete(Eimg_PixelRect* rect) KZDV_NOEXCEPT;
/* `count` rectangles of one size and type; free with eimg_PixelRectStackDelete. */
KZDV_EXPORT Eimg_PixelRectStack* eimg_PixelRectStackCreate(long count, long width, long height,
                                                           Egda_PixelType type,
                                                           Eerr_ErrorReport** err) KZDV_NOEXCEPT;
KZDV_EXPORT void eimg_PixelRectStackDelete(Eimg_PixelRectStack* stack) KZDV_NOEXCEPT;

/* The layer's null (no-data) value. *defined is EMSC_FALSE when the layer has
 * none (then *value is 0). */
KZDV_EXPORT Emsc_Boolean eimg_LayerNullValueGet(Eimg_Layer* layer, double* value,
                                                Emsc_Boolean* defined,
                                                Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Sets the layer's null value (stored with the file, or beside it when the
 * file is read-only). */
KZDV_EXPORT Emsc_Boolean eimg_LayerRasterNillValueSet(Eimg_Layer* layer, double value,
                                                      Eerr_ErrorReport** err) KZDV_NOEXCEPT;

/* Statistics of the layer: read when stored, otherwise computed over every
 * valid pixel and stored for the next reader. */
KZDV_EXPORT Emsc_Boolean eimg_StatisticsRead(Eimg_Layer* layer, Eimg_Statistics* stats,
                                             Eerr_ErrorReport** err) KZDV_NOEXCEPT;

/* Map information of a georeferenced layer; null with a report when the layer
 * has none. Free with eimg_MapInfoFree. */
KZDV_EXPORT Eimg_MapInfo* eimg_LayerMapInformationRead(Eimg_Layer* layer,
                                                       Eerr_ErrorReport** err) KZDV_NOEXCEPT;
KZDV_EXPORT void eimg_MapInfoFree(Eimg_MapInfo* info) KZDV_NOEXCEPT;
/* The layer's map projection as OGC WKT (heap string), or null with a report
 * when it has none. */
KZDV_EXPORT Etxt_Char* eimg_LayerMapProjectionRead(Eimg_Layer* layer,
                                                   Eerr_ErrorReport** err) KZDV_NOEXCEPT;

/* Unit of the layer's pixel values (e.g. "meters" for a DEM in metres), as
 * the file records it; "" when it records none. Heap string. */
KZDV_EXPORT Etxt_Char* eimg_LayerUnitTypeGet(Eimg_Layer* layer,
                                             Eerr_ErrorReport** err) KZDV_NOEXCEPT;

/* Raster data order of a file: "BIP" (pixel interleaved), "BIL" (line
 * interleaved) or "BSQ" (band sequential, also every one-band file). Heap
 * string. */
KZDV_EXPORT Etxt_Char* eimg_FileRasterDataOrderGet(const Etxt_Char* file_name,
                                                   Eint_InitToolkitData* init,
                                                   Eerr_ErrorReport** err) KZDV_NOEXCEPT;

/* Writes a proxy of a raster file under `proxy_name`: a GDAL VRT that reads
 * the file's layers. The proxy is replaced atomically, so readers never see a
 * half-written one. */
KZDV_EXPORT Emsc_Boolean eimg_FileProxyWithName(const Etxt_Char* file_name,
                                                const Etxt_Char* proxy_name,
                                                Eerr_ErrorReport** err) KZDV_NOEXCEPT;

/* Pyramid levels of the layer's file (GDAL overviews, factors 2, 4, 8, ...).
 * Levels belong to the whole file: removing or creating them acts on every
 * layer of it. Create makes `count` uninitialised levels to be filled by
 * writes through eimg_LayerPyramidLevelOpen. Both refuse read-only layers. */
KZDV_EXPORT long eimg_LayerPyramidLevelCount(Eimg_Layer* layer,
                                             Eerr_ErrorReport** err) KZDV_NOEXCEPT;
KZDV_EXPORT Emsc_Boolean eimg_LayerPyramidLevelsRemove(Eimg_Layer* layer,
                                                       Eerr_ErrorReport** err) KZDV_NOEXCEPT;
KZDV_EXPORT Emsc_Boolean eimg_LayerPyramidLevelsCreate(Eimg_Layer* layer, long count,
                                                       Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Level `level` (1..count) of a layer as a layer handle sharing its dataset;
 * close it before the layer. */
KZDV_EXPORT Eimg_Layer* eimg_LayerPyramidLevelOpen(Eimg_Layer* layer, long level,
                                                   Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Drops the cached blocks of a layer after writing those that changed, so
 * streaming work keeps little memory. */
KZDV_EXPORT Emsc_Boolean eimg_LayerFlush(Eimg_Layer* layer, Eerr_ErrorReport** err) KZDV_NOEXCEPT;

/* Records the algorithm that made the layer's pyramid levels (band metadata
 * item "PYRAMID_ALGORITHM"), and reads it back (heap string, "" when none). */
KZDV_EXPORT Emsc_Boolean eimg_SSLayerNamesSet(Eimg_Layer* layer, const Etxt_Char* algorithm,
                                              Eerr_ErrorReport** err) KZDV_NOEXCEPT;
KZDV_EXPORT Etxt_Char* eimg_SSLayerNamesGet(Eimg_Layer* layer,
                                            Eerr_ErrorReport** err) KZDV_NOEXCEPT;

KZDV_END_C

#endif /* EIMG_H */
