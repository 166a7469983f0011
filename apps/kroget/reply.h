// Judging the head of a reply.
#pragma once

#include <krohttp/reply.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Why the reply cannot be taken; nothing when it can.
// @param bodyless  it answers HEAD
// @param length    out: the length of its body, where that is announced
std::string refusalOf(HttpReply* reply, bool bodyless, std::optional<uint64_t>* length);

// Whether the other side keeps the connection open behind this reply (RFC 9112 section 9.3).
bool keepsConnection(HttpReply* reply);

// The values of all headers of this name, in their order.
std::vector<std::string> headerValues(HttpReply* reply, std::string_view name);

// The head as text, for people and for -i.
std::string statusLine(HttpReply* reply);
std::string headText(HttpReply* reply);
