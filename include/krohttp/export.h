/** @file export.h Visibility of the library's functions and tables. */
#ifndef KROHTTP_EXPORT_H
#define KROHTTP_EXPORT_H
#if defined(KROHTTP_BUILDING)
#define KROHTTP_API __attribute__((visibility("default")))
#else
#define KROHTTP_API
#endif
/** The compiler checks arguments against the printf format at position @p text. */
#define KROHTTP_PRINTF(text, first) __attribute__((format(printf, text, first)))
#endif
