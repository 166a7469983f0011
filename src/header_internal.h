// What the header module offers to its neighbours and tests only: parameters, the tails of Content-Type and its kin.
#pragma once

#include <krohttp/header.h>

// Cuts "a=1; b=2" into a list, the last one first. Returns *list; null for no parameters and on failure (traced).
HttpHeaderParameter* hdr_loadHdrParameters(char* text, HttpHeaderParameter** list);

// The list as "a=1; b=2", to be freed by the caller; null for an empty list and on failure (traced).
char* hdr_serializeHdrParameters(const HttpHeaderParameter* list);

void hdr_freeHdrParameters(HttpHeaderParameter* list);
