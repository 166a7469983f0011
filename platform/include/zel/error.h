/** @file error.h The platform's last error. */
#ifndef ZEL_ERROR_H
#define ZEL_ERROR_H

#include <stdint.h>
#include <zel/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Values of zel_error. Values below 0x10000 are errno values. */
enum ZelError {
  ZEL_ERROR_NONE = 0,
  ZEL_ERROR_BAD_PEER = 0x10001,  /**< no peer was given, or it has failed or ended */
  ZEL_ERROR_RESOLVE = 0x10002,   /**< a host name could not be resolved */
  ZEL_ERROR_ADDRESS = 0x10003,   /**< an address, port or path is not usable as given */
  ZEL_ERROR_NO_HANDLER = 0x10004 /**< a timer was started without a handler, or an event number is unknown */
};

/** The code of the last failure; set by failing calls only, never cleared. */
extern ZEL_API uint32_t zel_error;

/** A short text for @p error, never NULL; valid until the next call. */
ZEL_API const char *error_string(uint32_t error);

#ifdef __cplusplus
}
#endif
#endif
