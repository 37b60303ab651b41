/* Export and linkage macros shared by the three kzdv libraries.
 *
 * All libraries are built with hidden visibility; only declarations marked
 * KZDV_EXPORT leave the shared object. Plain functions have C linkage so that
 * any language can call them. */
#ifndef KZDV_EXPORT_H
#define KZDV_EXPORT_H

#if defined(_WIN32)
#define KZDV_EXPORT __declspec(dllexport)
#else
#define KZDV_EXPORT __attribute__((visibility("default")))
#endif

/* Exported C functions never let a C++ exception out: to C++ callers they are
 * noexcept; a C compiler sees nothing. */
#ifdef __cplusplus
#define KZDV_BEGIN_C extern "C" {
#define KZDV_END_C }
#define KZDV_NOEXCEPT noexcept
#else
#define KZDV_BEGIN_C
#define KZDV_END_C
#define KZDV_NOEXCEPT
#endif

#endif /* KZDV_EXPORT_H */
