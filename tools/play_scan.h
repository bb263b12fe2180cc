// Finds the TS packets of a recording, whatever stands between them, and what they say of the stream's time.
//
// A recording may be plain packets of 188 bytes, packets of 192, 204 or 208, or RTP datagrams one behind the other, as
// a snapshot holds them; it may begin and end inside a packet. *Stray* bytes are those that belong to none of this.
// The *clock PID* is the PID with the most PCRs. A PCR *jumps* if it doesn't step forward by at most a second; one that
// only repeats the one before it counts for nothing.
//
// Units: bytes; PCRs in ticks of 90 kHz. Results: false after a line on standard error, or when told to
// quit (g_quit). One thread.
#ifndef TOOLS_PLAY_SCAN_H
#define TOOLS_PLAY_SCAN_H

#include <cstddef>
#include <cstdint>

// Less can't be indexed, in which each datagram has a time: streams of more than 750 Mbit/s.
inline constexpr double LEAST_TICKS_PER_PACKET = 1.25 / 7;

// What a recording holds.
struct stream_account {
    size_t file_bytes;
    size_t packets;
    size_t stray_bytes;
    bool is_plain;           // every 188 bytes a packet, as it is or damaged: it can go out as it stands
    bool has_even_clock;     // an index can be built from the PCRs as they are
    uint16_t clock_pid;      // counts if clock_pcrs is above 0
    size_t clock_pcrs;       // PCRs on it
    double ticks_per_packet; // where the clock does not jump; 0: not known
};

// Reads the whole recording.
bool scan_stream(int fd, struct stream_account* acc);

// Writes the plain packets to `plain_fd`, and to `clock_fd` as many packets that hold nothing but a clock that an index
// can be built from: the clock PID's, its PCRs far enough apart, with the time that packets take on average in the place
// of jumps, ahead of the first PCR and behind the last. Either may be -1. Requires: acc from scan_stream of the same
// file, with LEAST_TICKS_PER_PACKET and more than a datagram's packets where there is a clock_fd.
bool copy_stream(int fd, const struct stream_account& acc, int plain_fd, int clock_fd);

#endif // TOOLS_PLAY_SCAN_H
