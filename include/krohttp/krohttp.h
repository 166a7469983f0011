/**
 * @file krohttp.h
 * All of libkrohttp: HTTP/1.0 and HTTP/1.1 on an event loop.
 *
 * Conventions, unless a function says otherwise:
 *
 * - Results. Functions that return int give 0 on success and -1 on failure; lookups give NULL (or -1) when there is
 *   nothing; a handler of a peer returns whether it handled the event. Would-block (EAGAIN) is not a failure.
 * - Failures are traced, with the function and the reason, before they are returned. A call that fails calls no
 *   handler afterwards.
 * - Ownership. Create goes with Destroy, Initialize (on the caller's storage) with Cleanup; Reset prepares for reuse.
 *   What a function allocates for its caller comes from the C allocator: release it with free().
 * - Texts that a message hands out point into its buffer: valid until it grows (a header is added, a line is read) or
 *   is reset. Copy what must live longer.
 * - Structures start zeroed.
 * - Threads. There is one: everything runs on the event loop's thread, nothing is locked.
 * - errno is kept by traces, so %m and errno after a failing call tell its reason.
 */
#ifndef KROHTTP_KROHTTP_H
#define KROHTTP_KROHTTP_H

#include <krohttp/auth.h>
#include <krohttp/body.h>
#include <krohttp/client.h>
#include <krohttp/cookie.h>
#include <krohttp/export.h>
#include <krohttp/header.h>
#include <krohttp/message.h>
#include <krohttp/multipart.h>
#include <krohttp/protocol.h>
#include <krohttp/proxy.h>
#include <krohttp/reply.h>
#include <krohttp/request.h>
#include <krohttp/server.h>
#include <krohttp/uri.h>
#include <krohttp/utils.h>

#endif
