// What the two halves of the log share: log.cpp (lines, levels, channels) and log_file.cpp (files, rotation, syslog).
#ifndef TV_LOG_INT_H
#define TV_LOG_INT_H

struct log_ctx;

namespace log_int
{

// True for the streams that a channel never owns.
bool is_std_stream(const struct log_ctx* log);

// Rotates the channel's file if its size or the end of the day says so. A channel that is being rotated already is
// left alone, however long the rotation's own line is. Not from a signal handler.
void rotate_if_due(struct log_ctx* log);

} // namespace log_int

#endif // TV_LOG_INT_H
