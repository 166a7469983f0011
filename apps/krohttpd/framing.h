// Where messages belong, and where their bodies end.
#pragma once

#include <krohttp/krohttp.h>

// What the headers of a message say about that.
struct Framing {
  int hosts = 0;
  int lengths = 0;
  int codings = 0;
  bool lengthIsNumber = true;
  bool tooLong = false;        // body streams count 32 bits
  bool namesAreTokens = true;  // "Content-Length : 5" may be a header to the next reader
};

Framing framingOf(HttpMessage* message);

// What Content-Length says, 0 when there is none.
uint64_t announcedLength(HttpRequest* request);

// Without a header that says so a body would last until the connection ends: there is none (RFC 9112 section 6.3).
// Returns 0 or -1.
int settleBody(HttpRequest* request);

// RFC 9112 section 6.3: with two ways to tell the body's end, or none that can be read, what follows may be meant as
// another message.
bool isAmbiguous(const Framing& framing);
