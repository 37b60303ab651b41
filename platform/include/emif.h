/* emif: self-describing object designs, design dictionaries and MIF objects.
 *
 * A design is a named list of typed fields. It fixes two layouts of the same
 * object:
 *  - memory: a plain C struct (LP64 natural alignment), built field by field
 *    in order, so a caller declares the matching struct and hands its address;
 *  - disk: the packed little-endian encoding of hierarchical (HFA) files,
 *    described by the design's dictionary text ("{1:lwidth,...}Eimg_Layer,").
 *
 * Field type codes (the value passed to emif_DesignCreate) are a base type in
 * the low byte with at most one modifier:
 *
 *   base  memory              disk   | modifier (| base)          memory / disk
 *   0x01  object by pointer   "*o"   | none    one value          T       / "1:X"
 *   0x02  object in place     "o"    | 0x100   fixed array of n   T[n]    / "n:X"   (extra: n)
 *   0x03  enumeration int32   "e"u16 | 0x200   counted array      Emif_Counted{count,T*} / "0:pX"
 *   0x04  time uint32         "t"    | 0x400   pointer to one     T* (null: none) / "1:*X"
 *   0x05  Emif_BaseData*      "*b"   |
 *   0x07  unsigned char       "C"    | Objects: 0x01 alone, 0x401 and 0x402 are all a pointer to
 *   0x08  char                "c"    |   one object of the design (null: none); 0x202 a counted
 *   0x09  uint16              "s"    |   array of objects in place {count, T*}; 0x102 a fixed
 *   0x0a  int16               "S"    |   array of objects in place.
 *   0x0b  uint32              "l"    | 0x208 is a string: {int32 count, Etxt_Char*} in memory,
 *   0x0c  int32               "L"    |   count = wide length + 1 (0 and null: no string); on disk
 *   0x0d  float               "f"    |   "0:pc", UTF-8 bytes with their terminating zero.
 *   0x0e  double              "d"    | 0x108 is a fixed char array (narrow bytes, e.g. names).
 *   0x0f  complex float[2]    "m"    |
 *   0x10  complex double[2]   "M"    |
 *
 * Extras that follow a field's name in emif_DesignCreate: an enumeration
 * (0x03, 0x103, 0x203) takes its value names (const Etxt_Char*) closed by a
 * null pointer; a fixed array (0x1xx) takes its element count (int); every
 * object field (base 0x01 or 0x02) takes the design of its objects (const
 * Emif_Design*), after the count for a fixed array of objects. The design is
 * shared, so the caller keeps ownership of its handle.
 *
 * Thread safety: designs are immutable once made and may be shared between
 * threads; a dictionary is not thread-safe (callers serialise, e.g. in the
 * thread-unsafe section). */
#ifndef EMIF_H
#define EMIF_H

#include <stddef.h>
#include <stdint.h>

#include "eerr.h"
#include "emsc.h"
#include "etxt.h"
#include "kzdv_export.h"

typedef struct Emif_Design Emif_Design;
/* The name class code uses for a design. */
typedef Emif_Design EMIF_DESIGNEtxt_TextU;
typedef struct Emif_Dictionary Emif_Dictionary;

/* Base types. */
#define EMIF_T_OBJECT_PTR 0x01
#define EMIF_T_OBJECT 0x02
#define EMIF_T_ENUM 0x03
#define EMIF_T_TIME 0x04
#define EMIF_T_BASEDATA 0x05
#define EMIF_T_UCHAR 0x07
#define EMIF_T_CHAR 0x08
#define EMIF_T_USHORT 0x09
#define EMIF_T_SHORT 0x0a
#define EMIF_T_ULONG 0x0b
#define EMIF_T_LONG 0x0c
#define EMIF_T_FLOAT 0x0d
#define EMIF_T_DOUBLE 0x0e
#define EMIF_T_COMPLEX 0x0f
#define EMIF_T_DCOMPLEX 0x10
/* Modifiers. */
#define EMIF_M_FIXED 0x100
#define EMIF_M_COUNTED 0x200
#define EMIF_M_POINTER 0x400
/* Codes used by name. */
#define EMIF_T_STRING (EMIF_M_COUNTED | EMIF_T_CHAR)         /* 0x208 */
#define EMIF_T_BYTES (EMIF_M_COUNTED | EMIF_T_UCHAR)         /* 0x207 */
#define EMIF_T_LONG_ARRAY (EMIF_M_COUNTED | EMIF_T_LONG)     /* 0x20c */
#define EMIF_T_DOUBLE_ARRAY (EMIF_M_COUNTED | EMIF_T_DOUBLE) /* 0x20e */
#define EMIF_T_OBJECT_ARRAY (EMIF_M_COUNTED | EMIF_T_OBJECT) /* 0x202 */

/* Memory form of counted fields (0x2xx): a 32-bit count, then a pointer to
 * a toolkit-heap block of that many elements. */
typedef struct Emif_CountedString {
  int32_t count; /* wide length + 1, or 0 */
  Etxt_Char* data;
} Emif_CountedString;
typedef struct Emif_CountedBytes {
  int32_t count;
  unsigned char* data;
} Emif_CountedBytes;
typedef struct Emif_CountedLongs {
  int32_t count;
  int32_t* data;
} Emif_CountedLongs;
typedef struct Emif_CountedDoubles {
  int32_t count;
  double* data;
} Emif_CountedDoubles;
typedef struct Emif_CountedObjects {
  int32_t count;
  void* data; /* count records of the field's design, contiguous */
} Emif_CountedObjects;

/* Memory form of a base-data field (0x05): a small matrix of pixel-typed
 * values. data_type follows the file's pixel types (0 u1 ... 8 s32, 9 f32,
 * 10 f64, 11 c64, 12 c128); data holds the packed little-endian values. */
typedef struct Emif_BaseData {
  int32_t rows;
  int32_t columns;
  int32_t data_type;
  int32_t object_type;
  int32_t byte_count; /* size of data */
  unsigned char* data;
} Emif_BaseData;

/* What emif_DesignFieldGet tells about one field. Strings are borrowed from
 * the design. */
typedef struct Emif_FieldInfo {
  const Etxt_Char* name;
  int code;                  /* as passed to emif_DesignCreate */
  int fixed_count;           /* element count of a fixed array, else 1 */
  size_t offset;             /* byte offset in the memory record */
  size_t size;               /* byte size in the memory record */
  const Emif_Design* design; /* design of an object field, else null */
  int enum_count;            /* number of enumeration names */
  const Etxt_Char* const* enum_names;
} Emif_FieldInfo;

/* One field for emif_DesignCreateFromFields (the non-variadic form). */
typedef struct Emif_FieldSpec {
  int code;
  const Etxt_Char* name;
  int fixed_count;                    /* fixed arrays */
  const Emif_Design* design;          /* object fields */
  const Etxt_Char* const* enum_names; /* enumerations, closed by a null */
} Emif_FieldSpec;

KZDV_BEGIN_C

/* ---- designs ---------------------------------------------------------- */

/* Makes a design. Arguments after the name: for each field its code (int),
 * its name and its extras (see above); then a 0 closes the list, and the
 * error report pointer comes last:
 *   emif_DesignCreate(L"IntList", 0x20c, L"Ints", 0, err);
 *   emif_DesignCreate(L"P", 3, L"used", L"FALSE", L"TRUE", (Etxt_Char*)0,
 *                     0x10d, L"color", 3, 0x402, L"sub", subDesign, 0, err);
 * Returns a new design (free with emif_DesignDestroy) or null with a report
 * (unknown code, duplicate field name, missing design). */
KZDV_EXPORT Emif_Design* emif_DesignCreate(const Etxt_Char* name, ...) KZDV_NOEXCEPT;
KZDV_EXPORT Emif_Design* emif_DesignCreateFromFields(const Etxt_Char* name,
                                                     const Emif_FieldSpec* fields, int count,
                                                     Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* A copy the caller owns (designs are shared internally; copying is cheap). */
KZDV_EXPORT Emif_Design* emif_DesignCopy(const Emif_Design* design,
                                         Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Frees a design handle; null is ignored. */
KZDV_EXPORT void emif_DesignDestroy(Emif_Design* design) KZDV_NOEXCEPT;
KZDV_EXPORT const Etxt_Char* emif_DesignNameGet(const Emif_Design* design) KZDV_NOEXCEPT;
/* Size and alignment of the memory record. */
KZDV_EXPORT size_t emif_DesignSizeGet(const Emif_Design* design) KZDV_NOEXCEPT;
KZDV_EXPORT int emif_DesignFieldCount(const Emif_Design* design) KZDV_NOEXCEPT;
/* Field `index` (0-based) or, by name, the field called `name`. EMSC_FALSE
 * when there is none (no report). */
KZDV_EXPORT Emsc_Boolean emif_DesignFieldGet(const Emif_Design* design, int index,
                                             Emif_FieldInfo* info) KZDV_NOEXCEPT;
KZDV_EXPORT Emsc_Boolean emif_DesignFieldFind(const Emif_Design* design, const Etxt_Char* name,
                                              Emif_FieldInfo* info) KZDV_NOEXCEPT;
/* True when both designs have the same name and the same disk layout. */
KZDV_EXPORT Emsc_Boolean emif_DesignsEqual(const Emif_Design* a,
                                           const Emif_Design* b) KZDV_NOEXCEPT;
/* The design's definition as dictionary text, e.g.
 * "{0:pcstring,}Emif_String,", UTF-8, heap (emsc_HeapFree). */
KZDV_EXPORT char* emif_DesignTextGet(const Emif_Design* design,
                                     Eerr_ErrorReport** err) KZDV_NOEXCEPT;

/* ---- dictionaries ----------------------------------------------------- */

/* An empty dictionary; free with emif_DictionaryDestroy. */
KZDV_EXPORT Emif_Dictionary* emif_DictionaryCreate(Eerr_ErrorReport** err) KZDV_NOEXCEPT;
KZDV_EXPORT void emif_DictionaryDestroy(Emif_Dictionary* dictionary) KZDV_NOEXCEPT;
/* Adds a copy of `design` and, first, of every design its object fields use.
 * A design of the same name and layout is kept as it is; one of the same
 * name and another layout is replaced (objects stored under the old layout
 * must be rewritten by the caller). */
KZDV_EXPORT Emsc_Boolean emif_DictionaryAddDesign(Emif_Dictionary* dictionary,
                                                  const Emif_Design* design,
                                                  Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* The design called `name`, borrowed (valid until the dictionary changes or
 * dies), or null when absent (no report). */
KZDV_EXPORT const Emif_Design* emif_FindDesignByName(const Emif_Dictionary* dictionary,
                                                     const Etxt_Char* name) KZDV_NOEXCEPT;
/* As emif_FindDesignByName, but a missing design is a failure:
 * "Design %s is not in the dictionary". */
KZDV_EXPORT const Emif_Design* emif_DesignFetch(const Emif_Dictionary* dictionary,
                                                const Etxt_Char* name,
                                                Eerr_ErrorReport** err) KZDV_NOEXCEPT;
KZDV_EXPORT int emif_DictionaryDesignCount(const Emif_Dictionary* dictionary) KZDV_NOEXCEPT;
/* Design `index` in definition order, borrowed; null when out of range. */
KZDV_EXPORT const Emif_Design* emif_DictionaryDesignGet(const Emif_Dictionary* dictionary,
                                                        int index) KZDV_NOEXCEPT;
/* Dictionary text of all designs, in definition order, closed by ".":
 * "{...}A,{...}B,." UTF-8, heap. */
KZDV_EXPORT char* emif_DictionaryTextGet(const Emif_Dictionary* dictionary,
                                         Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Parses dictionary text (at most `length` bytes; it may stop at "." or a
 * zero). Definitions written inline ("1:x{0:pcstring,}Emif_String,type,")
 * become designs of their own. Malformed text is reported with the offset of
 * the fault; nothing is left half-built. */
KZDV_EXPORT Emif_Dictionary* emif_DictionaryFromText(const char* text, size_t length,
                                                     Eerr_ErrorReport** err) KZDV_NOEXCEPT;

/* ---- objects ---------------------------------------------------------- */

/* A zeroed record of the design's memory layout (toolkit heap). */
KZDV_EXPORT void* emif_ObjectCreate(const Emif_Design* design,
                                    Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Frees everything the record points to (strings, arrays, pointed objects,
 * recursively) and zeroes those fields; the record itself is kept. */
KZDV_EXPORT Emsc_Boolean emif_ObjectContentsFree(const Emif_Design* design, void* object,
                                                 Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* emif_ObjectContentsFree, then frees the record. Null is ignored. */
KZDV_EXPORT Emsc_Boolean emif_ObjectFree(const Emif_Design* design, void* object,
                                         Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Deep copy into a new record / into the caller's record `target` (whose old
 * contents are not freed). On failure nothing is left allocated. */
KZDV_EXPORT void* emif_ObjectCopy(const Emif_Design* design, const void* object,
                                  Eerr_ErrorReport** err) KZDV_NOEXCEPT;
KZDV_EXPORT Emsc_Boolean emif_ObjectCopyContents(const Emif_Design* design, const void* source,
                                                 void* target,
                                                 Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Fills the caller's record `target` of design `to` from `source` of design
 * `from`, matching fields by name: a field the source lacks stays zero, one
 * only the source has is dropped, numbers convert between integer and float
 * types (rounded, clamped), objects convert field by field, other mismatches
 * stay zero. For reading objects stored under an older or newer layout.
 * `target`'s old contents are not freed; on failure it is left zeroed. */
KZDV_EXPORT Emsc_Boolean emif_ObjectConvert(const Emif_Design* from, const void* source,
                                            const Emif_Design* to, void* target,
                                            Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Packed disk bytes of a record. Pointer fields store their count and the
 * position of their data, counted from `base_offset` (the file position the
 * bytes will occupy; 0 for free-standing bytes). Heap block, size in *size. */
KZDV_EXPORT unsigned char* emif_ObjectEncode(const Emif_Design* design, const void* object,
                                             uint32_t base_offset, uint32_t* size,
                                             Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* A new record decoded from packed bytes. Counts are checked against the
 * bytes at hand, so damaged input gives a report, never a huge allocation.
 * Pointed data are taken to follow their count/offset pair, as written. */
KZDV_EXPORT void* emif_ObjectDecode(const Emif_Design* design, const unsigned char* bytes,
                                    size_t size, Eerr_ErrorReport** err) KZDV_NOEXCEPT;

/* ---- MIF form ----------------------------------------------------------
 * The MIF form of an object travels without its dictionary: the design name,
 * the dictionary text that defines the design and every design it uses, and
 * the packed bytes (offsets counted from 0). Fields of the caller's record
 * are filled with new heap blocks (counts include the terminating zero). */
KZDV_EXPORT Emsc_Boolean emif_MIFableObjectConvertToMIF(
    const Emif_Design* design, const void* object, Emif_CountedString* design_name,
    Emif_CountedString* dictionary, Emif_CountedBytes* bytes, Eerr_ErrorReport** err) KZDV_NOEXCEPT;
/* Rebuilds the design (caller owns; emif_DesignDestroy) and the object (free
 * with emif_ObjectFree and that design) from the three MIF fields. */
KZDV_EXPORT Emsc_Boolean emif_MIFableObjectConvertFromMIF(const Emif_CountedString* design_name,
                                                          const Emif_CountedString* dictionary,
                                                          const Emif_CountedBytes* bytes,
                                                          Emif_Design** design, void** object,
                                                          Eerr_ErrorReport** err) KZDV_NOEXCEPT;

KZDV_END_C

#endif /* EMIF_H */
