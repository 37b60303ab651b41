/* efio/efnp/etim and path parts: files, file-node names and time.
 *
 * File names are wide; they are converted to UTF-8 for the operating system.
 * A file-node name is "file(:node)": an image file and optionally one of its
 * layers, e.g. "photo.tif(:Layer_2)". */
#ifndef EFIO_H
#define EFIO_H

#include <stdio.h>
#include <time.h>

#include "eerr.h"
#include "emsc.h"
#include "kzdv_export.h"

typedef struct Efio_File Efio_File;

/* What efio_FileNameExistAsFileOrDir answers. */
#define EFIO_NOTHING 0
#define EFIO_DIRECTORY 1
#define EFIO_FILE 2

/* A list of wide strings owned by the toolkit heap. */
typedef struct Estr_StringList {
  long count;
  Etxt_Char** strings;
} Estr_StringList;

/* Which part of a path estr_GetPathPart returns. */
typedef enum {
  ESTR_PATH_DIRECTORY = 0,   /* "/a/b/c.img" -> "/a/b/" */
  ESTR_PATH_FILE = 1,        /* -> "c.img" */
  ESTR_PATH_ROOT = 2,        /* -> "c" (file name without extension) */
  ESTR_PATH_EXTENSION = 3,   /* -> ".img" */
  ESTR_PATH_NO_EXTENSION = 4 /* -> "/a/b/c" */
} Estr_PathPart;

KZDV_BEGIN_C

/* Opens a file with an fopen mode ("r", "w", "rb", "r+b", ...). Null with a
 * report naming the file on failure. */
KZDV_EXPORT Efio_File* efio_Open(const Etxt_Char* name, const char* mode,
                                 Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Closes and frees; reports a failed flush. Null is ignored. */
KZDV_EXPORT Emsc_Boolean efio_Close(Efio_File* file, Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* printf to the file (toolkit format: %s is wide). Returns the number of
 * characters written or -1 with a report. */
KZDV_EXPORT int efio_Fprintf(Efio_File* file, Eerr_ErrorReport** err, const Etxt_Char* format,
                             ...) KZDV_NOEXCEPT;
/* Reads one line of at most `limit`-1 characters into `buffer` (wide, UTF-8
 * decoded), keeping the newline as fgets does. Returns buffer, or null at end
 * of file (no report) or on a read error (report). A line longer than the
 * limit is returned in pieces, as fgets does. */
KZDV_EXPORT Etxt_Char* efio_Fgets(Etxt_Char* buffer, int limit, Efio_File* file,
                                  Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* fscanf on the file with a narrow format; returns what fscanf returns. */
KZDV_EXPORT int efio_Fscanf(Efio_File* file, const char* format, ...) KZDV_NOEXCEPT;
/* The underlying stdio stream (for code that needs fread/fwrite). */
KZDV_EXPORT FILE* efio_Stream(Efio_File* file) KZDV_NOEXCEPT;

/* EFIO_NOTHING, EFIO_DIRECTORY or EFIO_FILE. */
KZDV_EXPORT int efio_FileNameExistAsFileOrDir(const Etxt_Char* name) KZDV_NOEXCEPT;
/* Copies `from` to `to` (replacing it). `flags` and `meter` are reserved. */
KZDV_EXPORT Emsc_Boolean efio_FileCopy(const Etxt_Char* from, const Etxt_Char* to, int flags,
                                       void* meter, Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* The default temporary directory, with a trailing separator (heap string). */
KZDV_EXPORT Etxt_Char* efio_DirectoryGetTemporary(Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* A new unique file name "<directory><prefix>XXXXXX<extension>" that did not
 * exist when asked (the file is created empty so the name stays ours). A null
 * directory means the default temporary directory. Heap string. */
KZDV_EXPORT Etxt_Char* efio_TempName(const Etxt_Char* directory, const Etxt_Char* prefix,
                                     const Etxt_Char* extension,
                                     Eerr_ErrorReport** err) KZDV_NOEXCEPT;

/* Path parts (see Estr_PathPart); heap string, "" when the part is absent. */
KZDV_EXPORT Etxt_Char* estr_GetPathPart(const Etxt_Char* path, Estr_PathPart part) KZDV_NOEXCEPT;
/* Absolute, normalised form of a path ("~" expanded, "." and ".." removed);
 * the file need not exist. Heap string. */
KZDV_EXPORT Etxt_Char* estr_PathExpand(const Etxt_Char* path, Eerr_ErrorReport** err) KZDV_NOEXCEPT;
KZDV_EXPORT Emsc_Boolean estr_StringListAppend(Estr_StringList* list, const Etxt_Char* s,
                                               Eerr_ErrorReport** err) KZDV_NOEXCEPT;
KZDV_EXPORT Estr_StringList* estr_StringListCreate(Eerr_ErrorReport** err) KZDV_NOEXCEPT;
KZDV_EXPORT void estr_StringListDelete(Estr_StringList* list) KZDV_NOEXCEPT;

/* File-node names: the file part of "file(:node)" and the node part. */
KZDV_EXPORT Etxt_Char* efnp_FileNameGet(const Etxt_Char* file_node,
                                        Eerr_ErrorReport** err) KZDV_NOEXCEPT;
KZDV_EXPORT Etxt_Char* efnp_FileNodeGet(const Etxt_Char* file_node,
                                        Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Replaces the file part's extension (with its dot, e.g. L".uai"); heap. */
KZDV_EXPORT Etxt_Char* efnp_FileNameSet(const Etxt_Char* file_name, const Etxt_Char* extension,
                                        Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Splits "file(:n1)(:n2)" into its node list, and joins a file and nodes. */
KZDV_EXPORT Estr_StringList* efnp_FileNodeListGet(const Etxt_Char* file_node,
                                                  Eerr_ErrorReport** err) KZDV_NOEXCEPT;
KZDV_EXPORT Etxt_Char* efnp_FileNodeListSet(const Etxt_Char* file_name,
                                            const Estr_StringList* nodes,
                                            Eerr_ErrorReport** err) KZDV_NOEXCEPT;

/* strftime into a wide buffer of `size` characters; returns the length. */
KZDV_EXPORT size_t etim_Strftime(Etxt_Char* buffer, size_t size, const Etxt_Char* format,
                                 const struct tm* time) KZDV_NOEXCEPT;

KZDV_END_C

#endif /* EFIO_H */
