// Internal side of the shared message queue.
#pragma once

namespace trv {

// Posts through `message` a line built with printf-style formatting, cut to
// the 255 characters `message` keeps.
int messagef(const char *prefix, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

}  // namespace trv
