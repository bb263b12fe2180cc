// Moves bytes between descriptors: reads and writes that survive signals, and above them a transfer engine.
//
// nread, nwrite and npread move bytes at most once: a partial read or write goes back to the caller as it is. What is
// waited out is an interrupted call, which is tried again unless `g_quit` is set.
//
// A *transfer* is a job, told by a `transfer_spec`; `transfer` does one *step* of it by the best means at hand: a
// memory mapping, sendfile, or the *transfer buffer*, of which the process has one. With an index (tsix.h) the job is
// *paced*: the file goes out in *chunks*, and a step that begins one tells how long the chunk lasts. Beside that stand
// the opening of a job's files, the passing of descriptors to another process, and waiting on a socket.
//
//     struct transfer_spec* tsp = new_transfer_spec(in_fd, out_fd, &offset, &flags, nullptr, 0);
//     while (transfer(tsp, 0, &n, nullptr) == 0 && !(flags & FDIO_EOF)) total += n;
//     free(tsp);
//
// Units: bytes; delays in microseconds; time-outs in milliseconds, -1 for none.
// Ownership: descriptors, offset, flags and buffers stay the caller's, and must live as long as the job; so does the
// job's record. The transfer buffer is the module's, from fdio_init to fdio_destroy.
// Results of reads and writes: the count moved; 0 when nothing moved (end of data, or `count` 0); the negative result
// of the failed call. After an interruption that ended the function `errno` is 0, otherwise it is the failed call's.
// Everything else says its results itself. The checked calls log; without FDIO_VERBOSE they keep quiet about EAGAIN,
// EPIPE, EINTR and ECONNRESET.
// The calls are measured by the sensors PRF_DATAIN, PRF_DATAOUT and, while waiting, PRF_EVIDLE (psensor.h).
// One thread, and `transfer` is not reentrant; reads `g_quit`, which a signal handler sets.
#ifndef FDIO_H
#define FDIO_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <type_traits>

struct tsix_stream;

// The low half of a job's flags are requests, the high half says how the last step went.
inline constexpr uint32_t FDIO_VERBOSE = 1;          // hold every error against the call, so that it is logged
inline constexpr uint32_t FDIO_TRF_RWEQ = 2;         // say so where the bytes written are not those read
inline constexpr uint32_t FDIO_MSYNC = 4;            // sync a memory mapping; reserved, nothing acts on it
inline constexpr uint32_t FDIO_SENDFILE = 256;       // use sendfile
inline constexpr uint32_t FDIO_SENDTO = 512;         // write with sendto, to the address in `aux`
inline constexpr uint32_t FDIO_UNLINK_DST = 1024;    // take the destination's name away once it is open
inline constexpr uint32_t FDIO_EOF = 65536;          // the end of the source was reached
inline constexpr uint32_t FDIO_ERR_READ = 131072;    // the read side failed, or had nothing to give
inline constexpr uint32_t FDIO_ERR_WRITE = 262144;   // the write side failed
inline constexpr uint32_t FDIO_REQUEST_MASK = 65535; // what a step leaves of the flags before it begins

// ---- reads and writes -----------------------------------------------------------------------------------------

// Writes at most `count` bytes. A call that writes nothing ends it like a failure; after an interruption the result is
// then that of the interrupted call.
// Requires: buf readable for count bytes.
ssize_t nwrite(int fd, const char* buf, size_t count, uint32_t flags);

// Reads at most `count` bytes; 0 is the end of the data. Requires: buf writable for count bytes.
ssize_t nread(int fd, char* buf, size_t count, uint32_t flags);

// nread at a position; of `flags` only FDIO_VERBOSE counts. Requires: buf writable for count bytes.
ssize_t npread(int fd, char* buf, size_t count, off_t offset, uint32_t flags);

// Sends at most `count` bytes of a file from `*offset` on, and moves `*offset`. The count sent; by design 0 for a
// failure as for the end, with errno as the call left it. `bsd_flags` is there for another system's form of the call,
// 0 here. Of `flags` only FDIO_VERBOSE counts. Requires: offset not null (asserted).
ssize_t nsendfile(int out_fd, int in_fd, off_t* offset, size_t count, int bsd_flags, uint32_t flags);

// ---- the transfer buffer --------------------------------------------------------------------------------------

inline constexpr size_t D_TRF_BUFSIZE = 2097152;
inline constexpr size_t MIN_TRF_BUFSIZE = 65536;

struct trfbuf {
    char* buf;     // null: none
    size_t buflen; // 0: none
};
static_assert(std::is_trivial_v<trfbuf> && std::is_standard_layout_v<trfbuf>);

extern struct trfbuf g_trf;

// Allocates the transfer buffer: -1 takes the default size; 0 or less otherwise does nothing, and transfers then can't
// be made. 0, or -1 as set_trf_bufsize gives it.
int fdio_init(ssize_t bufsize);
// Frees the transfer buffer; does nothing without one. Requires: a buffer that exists has a size (asserted).
void fdio_destroy();

// The buffer's size, 0 without one.
size_t get_trf_bufsize();
// Changes it. 0, also for the size that it has (with a warning); -1 for a size below MIN_TRF_BUFSIZE or without
// memory (with an error): the buffer is then as before.
int set_trf_bufsize(size_t newsize);

// ---- transfers ------------------------------------------------------------------------------------------------

// A copying job.
struct transfer_spec {
    int in_fd;             // source
    int out_fd;            // destination
    off_t* offset;         // position in the source, moved by each step; null: the descriptor's own position
    uint32_t* flags;       // FDIO_ bits
    void* aux;             // with FDIO_SENDTO: the destination's address
    ssize_t aux_len;       // its length
    void* mmem;            // mapped memory of the file, or null; with it `offset` is the position in the mapping
    size_t mmlen;          // its length
    unsigned mmem_out : 1; // the mapping is where the bytes come from; otherwise it is where they go

    // Filter of what was read, or null: works on `data` in place and stores what is left of `len` in *new_len, at most
    // what there was. 0, or non-zero to fail the step with that number; errno is to be left alone. It is not called
    // when nothing was read; by design into a mapping it is, with a length of 0 and perhaps no data, unless the read
    // failed. By design a filter that leaves nothing fails an assertion, unless a mapping is used.
    int (*inproc)(void* data, ssize_t len, ssize_t* new_len);

    struct tsix_stream* ix; // the paced file, or null
};
static_assert(std::is_trivial_v<transfer_spec> && std::is_standard_layout_v<transfer_spec>);

// A record with these fields, the others zero. The caller frees it with free(). Null without memory.
// With FDIO_SENDFILE says at ll::info that it is on. Requires: flags not null.
struct transfer_spec* new_transfer_spec(int in_fd, int out_fd, off_t* offset, uint32_t* flags, void* aux,
                                        ssize_t aux_len);

// One step: moves at most `count` bytes, and at most the transfer buffer's size, which 0 stands for, too. A mapping
// goes before sendfile, sendfile before the buffer. *tbytes (may be null) gets the bytes moved.
//   0   moved, or nothing to move; FDIO_EOF in the flags: the source has ended
//  -1   failed: errno tells why. Forgiven, with the result 0, are EAGAIN, EPIPE of the write side and EBUSY of
//       sendfile where they count as a fault, which EAGAIN and EPIPE do with FDIO_VERBOSE only.
// By design: a failed sendfile shows as FDIO_EOF with the result 0; a mapping that is all sent shows as a step that
// moves nothing, without FDIO_EOF; an empty read sets FDIO_ERR_READ, too.
//
// Paced, which takes `ix` and `delay_usc`: `count` plays no part. A step that begins a chunk adds the time that the
// chunk lasts to *delay_usc; one that goes on with a chunk sets it to 0. After the last chunk the result is -1 with
// errno 0, and -1 with EIO where the index can't be read. A chunk can be reported to last very long where the stream's
// clock steps back: a caller caps what it waits.
// Requires: tsp and its flags not null; with a mapping or FDIO_SENDFILE an offset (asserted); with FDIO_SENDTO an
// address; with `ix` an open index (asserted); the transfer buffer (asserted). Steps into a mapping move nothing
// without the buffer, and paced ones out of one don't need it.
int transfer(struct transfer_spec* tsp, size_t count, ssize_t* tbytes, size_t* delay_usc);

// ---- files of a job -------------------------------------------------------------------------------------------

// Opens a file to read. The descriptor, or -1 (logged). Requires: fpath not null, for both.
int open_src_file(const char* fpath);
// Makes a new file, mode 0644, to write; one that exists is refused. With FDIO_UNLINK_DST its name is gone once it is
// open. The descriptor, or -1 (logged); a file whose name can't be taken away is closed again.
int open_dst_file(const char* fpath, uint32_t flags);

// Tests whether sendfile can do it, for the types of source and destination (st_mode) and the destination's socket
// type: 1 if the source is no regular file, 2 if the destination is no socket, 3 if that is no stream; 0 otherwise,
// with FDIO_SENDFILE set in *flags, which are left alone else. Requires: flags not null.
int check_can_sendfile(mode_t src_mode, mode_t dst_mode, int dst_socktype, uint32_t* flags);

// ---- descriptors to another process ---------------------------------------------------------------------------

// Sends bytes and a descriptor over a local socket. The bytes sent, or -1 (logged; errno is kept).
// Requires: ptr readable for nbytes, nbytes above 0.
ssize_t send_fd(int dst_fd, void* ptr, size_t nbytes, int sendfd);
// Receives bytes, and in *recvfd the descriptor that came with them, which is the caller's from then on; -1 if none
// came, or not one alone (it is then said with FDIO_VERBOSE, and surplus ones are closed). The bytes received; 0 or -1
// (logged, but for EAGAIN without FDIO_VERBOSE; errno is kept) for a closed connection and a failure.
// Requires: ptr writable for nbytes; recvfd not null.
ssize_t recv_fd(int src_fd, void* ptr, size_t nbytes, int* recvfd, uint32_t fdio_flags);

// ---- waiting --------------------------------------------------------------------------------------------------

// Waits for events (POLLIN ...) on one descriptor: what has come, 0 when the time ran out, -1 for a failure.
short poll_on_socket(int sockfd, short events, int tmout);
// 0 when ready, 1 when the time ran out, -1 on a failure, an error on the socket, or a descriptor that isn't open.
short wait_to_read(int sockfd, int tmout);
short wait_to_write(int sockfd, int tmout);
// Waits, then reads up to 512 bytes, which are lost. 0 if some came; -1 (logged) otherwise.
int test_read_fd(int fd, int tmout);

// ---- debugging aids -------------------------------------------------------------------------------------------

// True when the buffer and the job hold together: a buffer with a size, flags, a length with each address, and what is
// left of a paced chunk not negative. No effects, no lines. A null job stands for the buffer alone.
bool transfer_validate(const struct transfer_spec* tsp);
// Prints the job in words.
void transfer_dump(const struct transfer_spec* tsp, FILE* out);

#endif // FDIO_H
