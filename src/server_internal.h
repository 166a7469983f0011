// What the server offers to those that write its replies from other connections' events.
#pragma once

#include <krohttp/server.h>

// Is told about the connection of a reply. Embedded by its owner.
struct ReplyFollower {
  void (*drained)(ReplyFollower* follower);  // all that was written has left, and the reply is not done
  void (*gone)(ReplyFollower* follower);     // the exchange is over: request and reply may not be touched any more
};

// Tells @p follower, and nobody else, until the exchange is over. False when @p reply is not on a server connection.
bool srv_follow(HttpReply* reply, ReplyFollower* follower);

// Tells @p follower no more; @p reply must be one that it follows.
void srv_unfollow(HttpReply* reply, const ReplyFollower* follower);

// The follower of @p reply waits for the event, even if the request is not complete yet.
void srv_tellDrained(HttpReply* reply);

// What is written of @p reply from now on leaves at once, for a slow source or an impatient reader.
void srv_uncork(HttpReply* reply);

// The announced length is more than the request may have.
bool srv_isBodyTooLong(const HttpMessage* request);

// Ends the connection of an incomplete @p reply, so that its reader can tell.
void srv_cut(HttpReply* reply);
