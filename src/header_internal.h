// What the header module offers to its neighbours and tests only: parameters, the tails of Content-Type and its kin;
// and the rows of its registry that belong to the modules above.
#pragma once

#include <krohttp/header.h>

extern "C" {
// See auth.h and cookie.h.
KROHTTP_API int auth_hdrFactoryAuthorization(HttpHeader* header, char* text);
KROHTTP_API int auth_hdrSerializeAuthorization(HttpHeader* header, HttpMessage* message);
KROHTTP_API void auth_hdrFreeAuthorization(HttpHeader* header);
KROHTTP_API int cookie_hdrFactoryCookie(HttpHeader* header, char* text);
KROHTTP_API int cookie_hdrSerializeCookie(HttpHeader* header, HttpMessage* message);
KROHTTP_API void cookie_hdrFreeCookie(HttpHeader* header);
KROHTTP_API int cookie_hdrFactorySetCookie(HttpHeader* header, char* text);
KROHTTP_API int cookie_hdrSerializeSetCookie(HttpHeader* header, HttpMessage* message);
KROHTTP_API void cookie_hdrFreeSetCookie(HttpHeader* header);
}

// Cuts "a=1; b=2" into a list, the last one first. Returns *list; null for no parameters and on failure (traced).
HttpHeaderParameter* hdr_loadHdrParameters(char* text, HttpHeaderParameter** list);

// The list as "a=1; b=2", to be freed by the caller; null for an empty list and on failure (traced).
char* hdr_serializeHdrParameters(const HttpHeaderParameter* list);

void hdr_freeHdrParameters(HttpHeaderParameter* list);
