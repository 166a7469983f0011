// The requests that the benchmarks work on.
#pragma once

#include <krohttp/request.h>

#include <cstdlib>
#include <string_view>

// What a small client sends.
inline constexpr std::string_view kSmallHead =
    "GET /hello HTTP/1.1\r\n"
    "Host: 127.0.0.1\r\n"
    "User-Agent: sensor\r\n"
    "Accept: */*\r\n"
    "\r\n";

// What the script of a page sends from a browser.
inline constexpr std::string_view kBrowserHead =
    "GET /status/overview?view=full&refresh=5 HTTP/1.1\r\n"
    "Host: device.example.net\r\n"
    "Connection: keep-alive\r\n"
    "sec-ch-ua-platform: \"Linux\"\r\n"
    "X-Requested-With: XMLHttpRequest\r\n"
    "User-Agent: Mozilla/5.0 (X11; Linux x86_64) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/120.0.0.0 "
    "Safari/537.36\r\n"
    "Accept: application/json, text/javascript, */*; q=0.01\r\n"
    "Sec-Fetch-Site: same-origin\r\n"
    "Sec-Fetch-Mode: cors\r\n"
    "Sec-Fetch-Dest: empty\r\n"
    "Referer: http://device.example.net/status/\r\n"
    "Accept-Encoding: gzip, deflate\r\n"
    "Accept-Language: en-GB,en;q=0.9,de;q=0.8\r\n"
    "Cookie: session=3b1f9a7c5d2e4f60; theme=dark\r\n"
    "\r\n";

static_assert(kSmallHead.size() == 73);
static_assert(kBrowserHead.size() == 575);

// A request that is read from a stream, as a server connection does it.
class IncomingRequest {
 public:
  explicit IncomingRequest(FILE* stream) {
    http_requestInitialize(&request_);
    http_requestModeSet(&request_, HTTP_MSG_READING);
    http_requestStreamSet(&request_, stream);
  }
  ~IncomingRequest() { http_requestCleanup(&request_); }
  IncomingRequest(const IncomingRequest&) = delete;
  IncomingRequest& operator=(const IncomingRequest&) = delete;

  HttpRequest* get() { return &request_; }

  // A benchmark of a request that was refused would measure nothing.
  void readHead() {
    http_requestReset(&request_);
    while (request_.message.state <= HTTP_MSG_HEADERS)
      if (http_requestParse(&request_) < 0) std::abort();
  }

 private:
  HttpRequest request_{};
};
