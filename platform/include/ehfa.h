/* ehfa: hierarchical (HFA) files.
 *
 * An HFA file is a tree of named, typed entries, each optionally holding the
 * packed bytes of one object of a design in the file's dictionary. Files are
 * little-endian and byte-compatible with the public format (16-byte tag
 * "EHFA_HEADER_TAG", file header, dictionary text, 128-byte entry headers
 * with next/prev/parent/child links, data pointer and size, name (63 bytes
 * UTF-8), type (31 bytes) and modification time); GDAL's HFA driver reads
 * what we write and we read what it writes (raster blocks included in copies).
 *
 * Node paths are ":"-separated from the root ":" (":BlockProperty:GroundPoint0").
 * A file keeps a current node (the root after open and create). Seeks move it;
 * every read or write leaves it on the node read or written.
 *
 * Robustness: opening reads the header, the dictionary and every entry header
 * (never raster data); links out of the file, cycles, shared children and bad
 * dictionary text are reported, never followed. Object data are read on demand
 * and checked against the file size before any allocation.
 *
 * Thread safety: one Ehfa_File is used by one thread at a time. */
#ifndef EHFA_H
#define EHFA_H

#include <stddef.h>
#include <stdint.h>

#include "eerr.h"
#include "eint.h"
#include "emif.h"
#include "emsc.h"
#include "etxt.h"
#include "kzdv_export.h"

typedef struct Ehfa_File Ehfa_File;

/* How ehfa_EntrySeek (and the object readers) find a node. */
typedef enum {
  EHFA_SEEK_ROOT = 0,         /* the root ":" */
  EHFA_SEEK_FIRST_CHILD = 2,  /* first child of the current node */
  EHFA_SEEK_NEXT_SIBLING = 4, /* next sibling of the current node */
  EHFA_SEEK_PARENT = 6,       /* back to the parent of the current node */
  EHFA_SEEK_INTO = 8,         /* the node `path` (joined with `name` when given); with
                                 neither, the current node itself */
  EHFA_SEEK_BY_NAME = 12,     /* the child `name` of node `path` (of the current
                                 node when path is null) */
  EHFA_SEEK_NEXT_IN_FILE = 18 /* the next entry in file order: the first child of
                                 the current node, else its next sibling, else the
                                 next sibling of the nearest ancestor that has one
                                 (depth first, the order in which nodes are written
                                 one after another); when `name` is given the
                                 entry found must carry it */
} Ehfa_SeekMethod;

/* Where a write puts a new node. `path` names the parent (null: the current
 * node's parent for EHFA_WRITE_AFTER, the current node otherwise).
 *  1 AFTER: directly after the current node when that is a child of the
 *    parent, else as the parent's last child. Always makes a new node.
 *  3 FIRST_CHILD: as the parent's first child. Always makes a new node.
 *  4 REPLACE: the parent's child of that name gets the new type and data in
 *    place (its links and children are kept); without one, a new node is
 *    appended as the last child. Used for single objects that a save rewrites
 *    (statistics, lists, version and property objects). */
typedef enum {
  EHFA_WRITE_AFTER = 1,
  EHFA_WRITE_FIRST_CHILD = 3,
  EHFA_WRITE_REPLACE = 4
} Ehfa_WritePos;

/* ehfa_FileChange kinds. */
#define EHFA_CHANGE_BULK 3 /* value 0 begins, 1 ends a bulk write */

/* One node of an ehfa_FileCopy table; the table ends with a record whose
 * name is empty. `name` is a top-level node (child of the root) or, when it
 * starts with ':', a full node path. */
typedef void (*Ehfa_CopyFunction)(Ehfa_File* source, Ehfa_File* target, Eerr_ErrorReport** err);
typedef struct Ehfa_CEFRecord {
  Etxt_Char name[32];          /* up to 32 characters, zero-terminated when shorter */
  Ehfa_CopyFunction entryCopy; /* may be null */
  Ehfa_CopyFunction dataCopy;  /* may be null */
  long reserved;               /* 0 */
  Emsc_Boolean copyChildren;   /* whether the source node's children are copied */
} Ehfa_CEFRecord;

/* What ehfa_EntryInfoGet tells about the current node. Strings are borrowed
 * and valid until the next call on the file. */
typedef struct Ehfa_EntryInfo {
  const char* name;           /* UTF-8 */
  const char* type;           /* design name of the data */
  uint32_t file_offset;       /* position of the entry header */
  uint32_t data_offset;       /* position of the data (0: none) */
  uint32_t data_size;         /* bytes */
  uint32_t modification_time; /* seconds since 1970 */
  long child_count;
} Ehfa_EntryInfo;

KZDV_BEGIN_C

/* ---- files ------------------------------------------------------------ */

/* Creates (or truncates) `name` with a root node and a dictionary of the
 * file-structure designs; opened for reading and writing, current node root. */
KZDV_EXPORT Ehfa_File* ehfa_FileCreate(const Etxt_Char* name, Eint_InitToolkitData* init,
                                       Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Opens an existing file: mode "r" (read-only) or "r+b"/"r+" (read and write).
 * Reports "%s is not a hierarchical file" for a file without the tag. */
KZDV_EXPORT Ehfa_File* ehfa_FileOpen(const Etxt_Char* name, const char* mode,
                                     Eint_InitToolkitData* init,
                                     Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Writes what is pending (entry headers, dictionary), closes and frees. A
 * pending bulk write is ended. Null is ignored. */
KZDV_EXPORT Emsc_Boolean ehfa_FileClose(Ehfa_File* file, Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Writes pending entry headers and the dictionary without closing. */
KZDV_EXPORT Emsc_Boolean ehfa_FileFlush(Ehfa_File* file, Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* The name given at open or create, borrowed. */
KZDV_EXPORT const Etxt_Char* ehfa_FileNameGet(const Ehfa_File* file) KZDV_NOEXCEPT;
/* The file's design dictionary, borrowed. Designs added with
 * emif_DictionaryAddDesign are written with the file. */
KZDV_EXPORT Emif_Dictionary* ehfa_FileDictionaryGet(Ehfa_File* file) KZDV_NOEXCEPT;
/* Bulk writes: ehfa_FileChange(file, EHFA_CHANGE_BULK, 0, 0, err) begins one,
 * (…, 1, 0, err) ends it. Outside a bulk write every call leaves the file
 * consistent on disk (new entry headers and the links of their neighbours are
 * written at once). Inside, link and header updates are kept in memory and
 * written in one ordered pass at the end (or at close), so writing many small
 * nodes costs one header write per node. Bulk writes nest. */
KZDV_EXPORT Emsc_Boolean ehfa_FileChange(Ehfa_File* file, int kind, int value, void* reserved,
                                         Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Copies the file `source_name` into a new file `target_name`, node by node
 * in tree order. A node named in `table` (may be null) is handed to the
 * table's functions: with both functions null it is dropped with its
 * children; otherwise the entry copy function and then the data copy function
 * are called with both files open (the target's current node is the node's
 * parent, the source's the node itself), and when copyChildren is true the
 * node's children are copied (under the node of the same path in the target;
 * a bare entry is made when the functions wrote none). A node not in the table
 * is copied as it is, with its data and, for image layers, its raster blocks,
 * block tables and overview references moved to their new positions. */
KZDV_EXPORT Emsc_Boolean ehfa_FileCopy(const Etxt_Char* source_name, const Etxt_Char* target_name,
                                       const Ehfa_CEFRecord* table, Eint_InitToolkitData* init,
                                       Eerr_ErrorReport** err) KZDV_NOEXCEPT;

/* ---- navigation -------------------------------------------------------- */

/* Moves the current node (see Ehfa_SeekMethod). A node that is not there is a
 * failure ("Node %s not found"), and the current node is kept. */
KZDV_EXPORT Emsc_Boolean ehfa_EntrySeek(Ehfa_File* file, Ehfa_SeekMethod method,
                                        const Etxt_Char* path, const Etxt_Char* name,
                                        Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* As ehfa_EntrySeek, but a missing node is not a failure: EMSC_FALSE without
 * a report and the current node kept. */
KZDV_EXPORT Emsc_Boolean ehfa_EntrySeekIfPresent(Ehfa_File* file, Ehfa_SeekMethod method,
                                                 const Etxt_Char* path, const Etxt_Char* name,
                                                 Eerr_ErrorReport** err) KZDV_NOEXCEPT;
KZDV_EXPORT Emsc_Boolean ehfa_EntryInfoGet(Ehfa_File* file, Ehfa_EntryInfo* info,
                                           Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Path of the current node (":A:B"), wide, heap. */
KZDV_EXPORT Etxt_Char* ehfa_EntryPathGet(Ehfa_File* file, Eerr_ErrorReport** err) KZDV_NOEXCEPT;

/* ---- writing ------------------------------------------------------------ */

/* A node without data (see Ehfa_WritePos; the parent is the current node, or
 * for EHFA_WRITE_AFTER its parent). It becomes the current node. */
KZDV_EXPORT Emsc_Boolean ehfa_EntryWrite(Ehfa_File* file, Ehfa_WritePos position,
                                         const Etxt_Char* name, const Etxt_Char* type,
                                         Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Removes the current node with its children; its parent becomes current.
 * The root cannot be removed. */
KZDV_EXPORT Emsc_Boolean ehfa_EntryDelete(Ehfa_File* file, Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Writes `object` (a memory record of `design`) as node `name` of type
 * design-name under `path` at `position`; the design (and those it uses) are
 * added to the file's dictionary. The node becomes current. */
KZDV_EXPORT Emsc_Boolean ehfa_ObjectWrite(Ehfa_File* file, const Etxt_Char* path,
                                          const Etxt_Char* name, Ehfa_WritePos position,
                                          const Emif_Design* design, const void* object,
                                          Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Writes already encoded bytes (free-standing packed bytes, offsets from 0,
 * as emif_ObjectEncode(…, 0, …) makes them) as node `name` of type `type`.
 * When the dictionary knows `type` the pointer offsets are moved to the
 * file position; otherwise the bytes are stored as given. */
KZDV_EXPORT Emsc_Boolean ehfa_ObjectDataWrite(Ehfa_File* file, const Etxt_Char* path,
                                              const Etxt_Char* name, Ehfa_WritePos position,
                                              const Etxt_Char* type, const void* data,
                                              uint32_t size, Eerr_ErrorReport** err) KZDV_NOEXCEPT;

/* ---- reading ------------------------------------------------------------ */

/* Seeks (method, path, name as ehfa_EntrySeek) and decodes the node's data
 * with the design of its type from the file's dictionary: *object gets a new
 * record (emif_ObjectFree with *design), *design (may be null) the design,
 * borrowed from the file's dictionary (valid until the file is closed; keep
 * a copy with emif_DesignCopy). A node without data gives a zeroed record. */
KZDV_EXPORT Emsc_Boolean ehfa_ObjectRead(Ehfa_File* file, Ehfa_SeekMethod method,
                                         const Etxt_Char* path, const Etxt_Char* name,
                                         const Emif_Design** design, void** object,
                                         Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Reads the node into the caller's `record` of the caller's `design` (zeroed
 * first), converting from the stored design by field name (see
 * emif_ObjectConvert): fields the stored object lacks read as zero. Free
 * what the record then points to with emif_ObjectContentsFree. */
KZDV_EXPORT Emsc_Boolean ehfa_ObjectReadInto(Ehfa_File* file, Ehfa_SeekMethod method,
                                             const Etxt_Char* path, const Etxt_Char* name,
                                             const Emif_Design* design, void* record,
                                             Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* As ehfa_ObjectReadInto; a missing node gives EMSC_FALSE without a report
 * and the record zeroed. */
KZDV_EXPORT Emsc_Boolean ehfa_ObjectReadIntoIfPresent(Ehfa_File* file, Ehfa_SeekMethod method,
                                                      const Etxt_Char* path, const Etxt_Char* name,
                                                      const Emif_Design* design, void* record,
                                                      Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* As ehfa_ObjectRead, but a missing node is not a failure: returns
 * EMSC_FALSE, *object null, no report. Check the report for failures. */
KZDV_EXPORT Emsc_Boolean ehfa_ObjectReadIfPresent(Ehfa_File* file, Ehfa_SeekMethod method,
                                                  const Etxt_Char* path, const Etxt_Char* name,
                                                  const Emif_Design** design, void** object,
                                                  Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* The node's raw data as free-standing packed bytes (offsets from 0 when the
 * dictionary knows the type): *data a heap block, *size its size, *type
 * (may be null) the node's type, wide, heap. Missing node: EMSC_FALSE, no
 * report. */
KZDV_EXPORT Emsc_Boolean ehfa_ObjectDataReadIfPresent(Ehfa_File* file, Ehfa_SeekMethod method,
                                                      const Etxt_Char* path, const Etxt_Char* name,
                                                      unsigned char** data, uint32_t* size,
                                                      Etxt_Char** type,
                                                      Eerr_ErrorReport** err) KZDV_NOEXCEPT;

KZDV_END_C

#endif /* EHFA_H */
