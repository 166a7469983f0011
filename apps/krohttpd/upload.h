// --upload: stores the files of forms that are posted to a path, and shows a page with such a form there.
#pragma once

#include <krohttp/krohttp.h>

#include <string>

#include "options.h"

// Prepares the uploads of @p options. Returns false with @p error when files cannot be stored where they should.
bool uploadSetUp(const Options& options, std::string* error);

// Ends what is under way, and leaves nothing of it.
void uploadTearDown();

// The upload that @p path (may be null) leads to, null when there is none.
const Upload* uploadAt(const char* path);

// Answers a request for @p upload, or begins to receive its files. Returns 0, or -1 to drop the connection.
int uploadBegin(HttpRequest* request, HttpReply* reply, const Upload& upload);

// Whether files of @p request are being received.
bool isUploading(HttpRequest* request);

// Receives what has arrived. Returns 0, or -1 to drop the connection.
int uploadBody(HttpRequest* request, HttpReply* reply);

// Forgets what has been received of @p request and is not complete, if anything.
void uploadEnd(HttpRequest* request);
