/** @file export.h Visibility of the bundled platform's functions. */
#ifndef ZEL_EXPORT_H
#define ZEL_EXPORT_H
#if defined(ZEL_BUILDING)
#define ZEL_API __attribute__((visibility("default")))
#else
#define ZEL_API
#endif
#endif
