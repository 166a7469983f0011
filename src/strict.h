// What a strict reader refuses instead of guessing: where two readers of one message could come to different ends of
// it (RFC 9112 section 11). Each gives the reason, traced, or HTTP_MSG_ACCEPTED.
#pragma once

#include <krohttp/message.h>

#include <string_view>

// A line of the head as it came, its LF included.
uint8_t strict_line(std::string_view line);

// The lines without their ends. @p authority: the one in the target, if there is one.
uint8_t strict_requestLine(std::string_view line, std::string_view* authority);
uint8_t strict_statusLine(std::string_view line);
uint8_t strict_headerLine(std::string_view line);

// A head that is complete: how its body is delimited, and for a request whom it is for.
uint8_t strict_head(HttpMessage* message);
