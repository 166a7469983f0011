// Answers that wait: for a timer, while the loop goes on with everybody else.
#pragma once

#include <krohttp/krohttp.h>

#include <functional>
#include <string>

using Answer = std::function<int(HttpRequest* request, HttpReply* reply)>;

// Whether so many answers to @p source, or to all, wait that no more attempts are to be judged.
bool isWaitingFull(const std::string& source);

// Runs @p answer for @p request after @p milliseconds, or at once when they are 0 or the daemon is stopping; not at all
// when the client leaves before. A body that is still to come is not read meanwhile.
// Returns as the handlers of a server do, and as answer does: -1 drops the connection.
int answerLater(HttpRequest* request, HttpReply* reply, const std::string& source, unsigned milliseconds,
                Answer answer);

// Runs what waits: the daemon is stopping.
void waitingStop();

// Forgets what waits.
void waitingTearDown();
