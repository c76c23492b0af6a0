// Internal side of the shared message queue.
#pragma once

namespace trv {

// Posts through `message` a line built with printf-style formatting, cut to
// the 255 characters `message` keeps.
int messagef(const char *prefix, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

// Hands a line to this process's message tap only, never to the shared
// queue: detail that explains a request to a tool without filling every
// user's log.
void explain(const char *prefix, const char *text);

}  // namespace trv
