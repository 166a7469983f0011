#include <zel/error.h>

#include <cstdio>
#include <cstring>

#include "platform_internal.h"

uint32_t zel_error = ZEL_ERROR_NONE;

bool zel::fail(uint32_t error) {
  zel_error = error;
  return false;
}

extern "C" const char* error_string(uint32_t error) {
  static char unknown[32];
  switch (error) {
    case ZEL_ERROR_NONE:
      return "no error";
    case ZEL_ERROR_BAD_PEER:
      return "no such peer, or it has ended";
    case ZEL_ERROR_RESOLVE:
      return "unable to resolve the host name";
    case ZEL_ERROR_ADDRESS:
      return "not a usable address";
    case ZEL_ERROR_NO_HANDLER:
      return "no handler, or an unknown event";
  }
  const char* text = error < 0x10000 ? strerrordesc_np(static_cast<int>(error)) : nullptr;
  if (text) return text;
  snprintf(unknown, sizeof(unknown), "unknown error %#x", error);
  return unknown;
}
