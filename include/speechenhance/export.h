/* Marks the functions and globals that the shared library exports. */
#ifndef SPEECHENHANCE_EXPORT_H
#define SPEECHENHANCE_EXPORT_H

#if defined(__GNUC__)
#define SE_API __attribute__((visibility("default")))
#else
#define SE_API
#endif

#ifdef __cplusplus
#define SE_BEGIN_C extern "C" {
#define SE_END_C }
#else
#define SE_BEGIN_C
#define SE_END_C
#endif

#endif
