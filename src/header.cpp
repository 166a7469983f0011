#include <krohttp/header.h>
#include <krohttp/message.h>
#include <krohttp/utils.h>

#include <strings.h>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "header_internal.h"
#include "memory.h"
#include "protocol_internal.h"

#define TRACE_ZONE "http-header"
#include "trace.h"

namespace {

constexpr const char* kHeaderDate = "%a, %d %b %Y %H:%M:%S %z";

bool isKnownCode(int code) { return code >= 0 && code < HTTP_HEADER_COUNT; }

// --- generic: the text is the value ----------------------------------------------------------------------------------

int hdr_factoryGeneric(HttpHeader*, char*) { return 0; }

int hdr_serializeGeneric(HttpHeader* header, HttpMessage* message) {
  return msg_setHeaderLine(message, "%s: %s", prot_headerString(header->code), textOrNull(header->raw));
}

// --- Content-Length --------------------------------------------------------------------------------------------------

int hdr_factoryContentLength(HttpHeader* header, char* text) {
  header->contentLength.length = std::strtoull(text, nullptr, 10);
  return 0;
}

int hdr_serializeContentLength(HttpHeader* header, HttpMessage* message) {
  return msg_setHeaderLine(message, "%s: %" PRIu64, prot_headerString(header->code), header->contentLength.length);
}

// --- Content-Type and Content-Disposition: a value, and parameters behind a semicolon --------------------------------

// Cuts the parameters off @p value. True when there are none, or they could be loaded.
bool cutParameters(char* value, HttpHeaderParameter** parameters) {
  *parameters = nullptr;
  char* semicolon = std::strchr(value, ';');
  if (semicolon == nullptr) return true;
  *semicolon = '\0';
  if (hdr_loadHdrParameters(semicolon + 1, parameters) != nullptr) return true;
  TRACE_ERROR("unable to parse key values %s", semicolon + 1);
  return false;
}

int hdr_factoryContentType(HttpHeader* header, char* text) {
  auto& type = header->contentType;
  type = {text, nullptr, nullptr};
  char* slash = std::strchr(text, '/');
  if (slash == nullptr) {
    TRACE_ERROR("unable to parse content type %s", text);
    return -1;
  }
  *slash = '\0';
  type.subType = slash + 1;
  return cutParameters(type.subType, &type.parameters) ? 0 : -1;
}

int hdr_serializeContentType(HttpHeader* header, HttpMessage* message) {
  const auto& type = header->contentType;
  const char* name = prot_headerString(header->code);
  const CString parameters(hdr_serializeHdrParameters(type.parameters));
  return parameters
             ? msg_setHeaderLine(message, "%s: %s/%s; %s", name, textOrNull(type.mediaType), textOrNull(type.subType),
                                 parameters.get())
             : msg_setHeaderLine(message, "%s: %s/%s", name, textOrNull(type.mediaType), textOrNull(type.subType));
}

void hdr_freeContentType(HttpHeader* header) { hdr_freeHdrParameters(header->contentType.parameters); }

int hdr_factoryContentDisposition(HttpHeader* header, char* text) {
  auto& disposition = header->contentDisposition;
  disposition = {text, nullptr};
  return cutParameters(text, &disposition.parameters) ? 0 : -1;
}

int hdr_serializeContentDisposition(HttpHeader* header, HttpMessage* message) {
  const auto& value = header->contentDisposition;
  const char* name = prot_headerString(header->code);
  const CString parameters(hdr_serializeHdrParameters(value.parameters));
  return parameters ? msg_setHeaderLine(message, "%s: %s; %s", name, textOrNull(value.disposition), parameters.get())
                    : msg_setHeaderLine(message, "%s: %s", name, textOrNull(value.disposition));
}

void hdr_freeContentDisposition(HttpHeader* header) { hdr_freeHdrParameters(header->contentDisposition.parameters); }

// --- Connection (RFC 9110 section 7.6.1) -----------------------------------------------------------------------------

int hdr_factoryConnection(HttpHeader* header, char* text) {
  unsigned flags = 0;
  char* cursor = nullptr;
  for (char* token = strtok_r(text, ",", &cursor); token != nullptr; token = strtok_r(nullptr, ",", &cursor)) {
    token += std::strspn(token, " \t");
    // A blank behind the token is part of it, so "close " is no "close".
    if (strcasecmp(token, "close") == 0) flags |= HTTP_CONNECTION_CLOSE;
    if (strcasecmp(token, "te") == 0) flags |= HTTP_CONNECTION_TE;
    if (strcasecmp(token, "keep-alive") == 0) flags |= HTTP_CONNECTION_KEEP_ALIVE;
  }
  header->connection.flags = flags;
  return 0;
}

// The separator stands before "TE" always, and before "Keep-Alive" unless "TE" does.
int hdr_serializeConnection(HttpHeader* header, HttpMessage* message) {
  const unsigned flags = header->connection.flags;
  char value[64];
  std::snprintf(value, sizeof value, "%s%s%s%s", flags & HTTP_CONNECTION_CLOSE ? "close" : "",
                flags & HTTP_CONNECTION_TE ? ", TE" : "",
                (flags & HTTP_CONNECTION_KEEP_ALIVE) && !(flags & HTTP_CONNECTION_TE) ? ", " : "",
                flags & HTTP_CONNECTION_KEEP_ALIVE ? "Keep-Alive" : "");
  return msg_setHeaderLine(message, "%s: %s", "Connection", value);
}

// --- Transfer-Encoding -----------------------------------------------------------------------------------------------

int hdr_factoryTransferEncoding(HttpHeader* header, char* text) {
  header->transferEncoding.chunked = strcasecmp(text, "chunked") == 0;
  if (!header->transferEncoding.chunked) TRACE_ERROR("unknown transfer encoding: %s", text);
  return 0;
}

int hdr_serializeTransferEncoding(HttpHeader* header, HttpMessage* message) {
  if (!header->transferEncoding.chunked) {
    TRACE_ERROR("unknown message encoding");
    return -1;
  }
  return msg_setHeaderLine(message, "%s: %s", prot_headerString(header->code), "chunked");
}

// --- Date ------------------------------------------------------------------------------------------------------------

int hdr_factoryDate(HttpHeader* header, char* text) {
  header->date.time = -1;
  if (prot_parseDateAs(text, kHeaderDate, &header->date.time)) return 0;
  TRACE_ERROR("unable to parse date \"%s\"", text);
  return -1;
}

int hdr_serializeDate(HttpHeader* header, HttpMessage* message) {
  char text[256];
  if (prot_formatDateAs(header->date.time, kHeaderDate, text, sizeof text) == 0) {
    TRACE_ERROR("unable to serialize date (%u)", static_cast<unsigned>(header->date.time));
    return -1;
  }
  return msg_setHeaderLine(message, "%s: %s", "Date", text);
}

// --- the registry ----------------------------------------------------------------------------------------------------

struct Row {
  HttpHeaderFactory factory = hdr_factoryGeneric;
  HttpHeaderSerializer serializer = hdr_serializeGeneric;
  HttpHeaderFree release = nullptr;
};

// The rows that are not generic. Everything is settled at compile time.
constexpr Row rowOf(int code) {
  switch (code) {
    case HTTP_HEADER_AUTHORIZATION:
    case HTTP_HEADER_WWW_AUTHENTICATE:
      return {auth_hdrFactoryAuthorization, auth_hdrSerializeAuthorization, auth_hdrFreeAuthorization};
    case HTTP_HEADER_CONNECTION:
      return {hdr_factoryConnection, hdr_serializeConnection, nullptr};
    case HTTP_HEADER_CONTENT_DISPOSITION:
      return {hdr_factoryContentDisposition, hdr_serializeContentDisposition, hdr_freeContentDisposition};
    case HTTP_HEADER_CONTENT_LENGTH:
      return {hdr_factoryContentLength, hdr_serializeContentLength, nullptr};
    case HTTP_HEADER_CONTENT_TYPE:
      return {hdr_factoryContentType, hdr_serializeContentType, hdr_freeContentType};
    case HTTP_HEADER_COOKIE:
      return {cookie_hdrFactoryCookie, cookie_hdrSerializeCookie, cookie_hdrFreeCookie};
    case HTTP_HEADER_SET_COOKIE:
    case HTTP_HEADER_SET_COOKIE2:
      return {cookie_hdrFactorySetCookie, cookie_hdrSerializeSetCookie, cookie_hdrFreeSetCookie};
    case HTTP_HEADER_DATE:
      return {hdr_factoryDate, hdr_serializeDate, nullptr};
    case HTTP_HEADER_TRANSFER_ENCODING:
      return {hdr_factoryTransferEncoding, hdr_serializeTransferEncoding, nullptr};
    default:
      return {};
  }
}

}  // namespace

#define ROWS_(field, at)                                                                               \
  rowOf(at).field, rowOf(at + 1).field, rowOf(at + 2).field, rowOf(at + 3).field, rowOf(at + 4).field, \
      rowOf(at + 5).field, rowOf(at + 6).field, rowOf(at + 7).field, rowOf(at + 8).field, rowOf(at + 9).field
#define TABLE_(field)                                                                                         \
  {                                                                                                           \
    ROWS_(field, 0), ROWS_(field, 10), ROWS_(field, 20), ROWS_(field, 30), ROWS_(field, 40), rowOf(50).field, \
        rowOf(51).field, rowOf(52).field                                                                      \
  }

extern "C" {

const HttpHeaderFactory hdr_factories[HTTP_HEADER_COUNT] = TABLE_(factory);
const HttpHeaderSerializer hdr_serializers[HTTP_HEADER_COUNT] = TABLE_(serializer);
const HttpHeaderFree hdr_frees[HTTP_HEADER_COUNT] = TABLE_(release);

int http_hdrFactory(HttpHeader* header, const char* text) {
  const bool usable = text != nullptr && isKnownCode(header->code);
  header->raw = usable ? strdup(text) : nullptr;
  if (header->raw == nullptr) {
    // Nothing to release later, whatever the storage held before.
    if (isKnownCode(header->code)) std::memset(&header->authorization, 0, sizeof header->authorization);
    if (!usable) errno = EINVAL;
    TRACE_ERROR("unable to create header: %m");
    return -1;
  }
  return hdr_factories[header->code](header, header->raw);
}

int http_hdrSerialize(HttpHeader* header, HttpMessage* message) {
  TRACE_INFO("code = %d", header->code);
  if (!isKnownCode(header->code)) {
    TRACE_ERROR("unable to serialize header: no such code %d", header->code);
    return -1;
  }
  return hdr_serializers[header->code](header, message);
}

void http_hdrCleanup(HttpHeader* header) {
  if (isKnownCode(header->code) && hdr_frees[header->code] != nullptr) hdr_frees[header->code](header);
  std::free(header->raw);
  header->code = HTTP_HEADER_NONE;
  header->raw = nullptr;
}

char* http_hdrGetParameter(HttpHeaderParameter* parameters, const char* name) {
  if (name == nullptr) return nullptr;
  for (; parameters != nullptr; parameters = parameters->next)
    if (parameters->name != nullptr && std::strcmp(parameters->name, name) == 0) return parameters->value;
  return nullptr;
}

}  // extern "C"

HttpHeaderParameter* hdr_loadHdrParameters(char* text, HttpHeaderParameter** list) {
  *list = nullptr;
  if (text == nullptr) {
    TRACE_ERROR("cannot load parameter from NULL value");
    return nullptr;
  }
  char* name = nullptr;
  char* value = nullptr;
  char* cursor = nullptr;
  for (char* rest = text; utils_keyvalue(rest, &name, &value, &cursor, ';') == 1; rest = nullptr) {
    auto parameter = makeZeroed<HttpHeaderParameter>();
    if (!parameter) {
      TRACE_ERROR("unable to create kv: %m");
      break;
    }
    *parameter = {name, value, *list};
    *list = parameter.release();
  }
  return *list;
}

char* hdr_serializeHdrParameters(const HttpHeaderParameter* list) {
  if (list == nullptr) return nullptr;
  char* text = nullptr;
  size_t size = 0;
  FILE* stream = open_memstream(&text, &size);
  if (stream == nullptr) {
    TRACE_ERROR("unable to serialize hdrParameter: %m");
    return nullptr;
  }
  for (const auto* parameter = list; parameter != nullptr; parameter = parameter->next) {
    TRACE_INFO("setting hdrParameter %s to %s", textOrNull(parameter->name), textOrNull(parameter->value));
    if (std::fprintf(stream, parameter == list ? "%s=%s" : "; %s=%s", textOrNull(parameter->name),
                     textOrNull(parameter->value)) < 0) {
      TRACE_ERROR("unable to serialize hdrParameter: %m");
      std::fclose(stream);
      return text;
    }
  }
  if (std::fflush(stream) != 0) TRACE_ERROR("unable to serialize cookie: %m");
  std::fclose(stream);
  return text;
}

void hdr_freeHdrParameters(HttpHeaderParameter* list) {
  while (list != nullptr) {
    CPointer<HttpHeaderParameter> parameter(list);
    list = list->next;
  }
}
