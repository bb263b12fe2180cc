// Process services: signal flags and handlers, daemon, users, pid file, core dumps, limits, and small checks on files
// and paths.
//
// Each operation stands by itself and keeps no state but the signal flags. All of them report and return; none ends
// the process, but for daemonize(), whose parents leave on purpose, and create_pidfile_extra(), which asserts on
// arguments that can't be right.
// Words: a *signal flag* is set by a handler and read (and cleared) by the main road.
// Units: sizes and limits in bytes, times in seconds since the epoch.
// Ownership: nothing returned is to be freed; a returned pointer points into an argument, and lives as long as that.
// Results: 0, or -1 after one line on g_log at ll::error that names the reason, with errno as the failed call left
// it; where a function gives errno values or has other results, it says so.
// One thread. A signal handler may touch the flags; the on_... functions are handlers, and nothing else here may be
// called from one.
#ifndef TV_UTIL_H
#define TV_UTIL_H

#include <sys/resource.h>
#include <sys/types.h>

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>

// ---- signal flags ---------------------------------------------------------------------------------------------

// Written by handlers, read by the main road; 0 at start.
extern volatile sig_atomic_t g_quit;      // the run is to end
extern volatile sig_atomic_t g_goodbye;   // asked to end politely; nobody reads it so far
extern volatile sig_atomic_t g_sigctx;    // 1 while a handler runs: the log then neither rotates nor calls syslog
extern volatile sig_atomic_t g_snapshot;  // number of the signal that asked for a snapshot; 0: none is pending
extern volatile sig_atomic_t g_snapalarm; // the alarm of a delayed snapshot has gone off
extern volatile sig_atomic_t g_hup;       // SIGHUP has come
extern volatile sig_atomic_t g_usr1;      // SIGUSR1 has come
extern volatile sig_atomic_t g_tdbg;      // the debugging signal has come

// ---- signals --------------------------------------------------------------------------------------------------

// Installs a handler for SIGTERM, SIGQUIT and SIGINT, in this order, with an empty mask and without restart: a blocked
// read returns with EINTR. Stops at the first failure: 0 or -1.
int handle_quit_signals(void (*handle_quit)(int signum));

// The same for one signal.
int handle_sig(int signum, void (*handler)(int signum));

// Sets SIGPIPE to be ignored. 0 or -1. A program that lives in a pipe leaves SIGPIPE at its default instead.
int ignore_sigpipe();

// Ready-made handlers: each holds g_sigctx at 1 while it runs, sets its flag to 1, logs one line at ll::normal, and
// leaves errno as it was.
void on_sighup(int signum);  // g_hup
void on_sigusr1(int signum); // g_usr1
void on_tdbg(int signum);    // g_tdbg
void on_sigquit(int signum); // g_quit

// ---- process --------------------------------------------------------------------------------------------------

// Makes the process a daemon: two forks with a new session in between, so that it can't regain a terminal, the root
// directory, umask 0, descriptors 0 and 1 closed. Descriptor 2 stays open for what can't be logged otherwise, and
// a g_log that stands on one of the three descriptors goes on at stderr. Both parents leave with exit(0), so that
// their buffered output is flushed; standard output's goes out ahead of that, and only once. What is written to stdin
// and stdout afterwards goes wherever the next two descriptors lead: the caller had better occupy them.
// 0 in the daemon; -1 in the process in which a step failed.
int daemonize();

// Becomes the named user, with that user's group. 0, or -1 also for an unknown user.
// Requires: user not null.
int run_as_user(const char* user);

// Sets the group, then the user: the other way round the right to set the group would be gone. 0 or -1.
// By design the supplementary groups stay as they are.
int run_as_user_id(uid_t uid, gid_t gid);

// Makes sure that a crash leaves a core: the process becomes dumpable, and both core limits unlimited. The limits as
// they were go to *old unless it is null. 0 or -1; progress is logged at ll::debug.
int set_unlimited_core(struct rlimit* old);

// Goes to the directory `saved`; if that is null, or the process has lost the right to enter it (EACCES), to `home`,
// and if that is null to the effective user's home directory. 0 or -1.
int goto_runtime_home(const char* saved, const char* home);

// Adjusts the nice value by `increment`; logs success at ll::info. 0 or -1.
int set_nice(int increment);

// Pins the process to one CPU. 0, or -1 also for a number outside 0 to CPU_SETSIZE - 1.
int pin2cpu(int cpunum);

// Number of CPUs that are on line; at least 1.
size_t get_core_count();

// For a second pass of getopt_long over the same arguments.
void reset_getopt_state();

// ---- limits ---------------------------------------------------------------------------------------------------

// Sets the soft limit of a resource (an RLIMIT_ constant), and pulls the hard limit up only where the soft one
// would stand above it, which takes privileges. RLIM_INFINITY: no limit. 0 or -1.
int set_limit(int resource, rlim_t limit);

// The same for the address space, and for the resident set (which Linux stores and does not enforce). 0 or -1.
int set_vmem_limit(size_t limit_bytes);
int set_rss_limit(size_t limit_bytes);

// Both; 0 leaves the one in question alone. Stops at the first failure: 0 or -1.
int set_mem_limits(size_t vmem_bytes, size_t rss_bytes);

// ---- pid file -------------------------------------------------------------------------------------------------

// Bit of `flags`: say nothing of success and failure, and the short form of "already running".
inline constexpr uint32_t PIDF_TERSE = 0x1;

// Writes the process ID to a file as a decimal number without line end; creates the file with mode 0644 if need be.
// The inode of the file goes to *inode unless that is null.
// By design the lock on the file lasts for the moment of writing only: a process that is started later takes the file
// over without complaint. Only a writer at the same moment is refused.
// 0 or -1. A null path or a pid below 1 is a logged assertion.
int create_pidfile_extra(const char* fpath, pid_t pid, ino_t* inode, uint32_t flags);

// Asks for a write lock on the whole file without waiting. Result and errno are those of fcntl; logs nothing.
int write_lock(int fd);

// "dir/app.pid", or "dir/app-N.pid" for an instance N other than 0. 0, or -1 for a text that doesn't fit (buf then
// holds the empty text).
// Requires: buflen above 0.
int mk_pidfile_name(const char* dir, const char* app, unsigned int instance, char* buf, size_t buflen);

// ---- files and directories ------------------------------------------------------------------------------------

// Tests that a directory can be read. With `trim_slash`, one slash at the end is cut off in the caller's buffer, so
// that file names built from the path have no double slash; "/" is left alone. 0 or errno.
int dir_check(char* dirpath, bool trim_slash);

// Stores the file's modification time in *mtime (-1 for a missing file, which is logged) and returns true if it is
// greater than what stood there.
bool chk_file_updated(const char* path, time_t* mtime);

// The file's modification time, or -1; logs a failure unless `quiet`.
time_t get_file_mtime(const char* path, bool quiet);

// The first path of the table that exists, or null.
const char* pick_first_file(const char** path, size_t count);

// Size of a file in bytes, or -1.
off_t get_file_size(const char* path);

// Stores type and permissions (st_mode) of what the path names in *mode. 0, or -1 (*mode is then left alone).
int get_stat_mode(const char* path, mode_t* mode);

// Type and permissions in the manner of ls, such as "drwxr-xr-x", in FMODE_STR_SIZE bytes at least. Returns buf, or
// null if buflen is too small.
inline constexpr size_t FMODE_STR_SIZE = 11;
const char* fmode_str(mode_t mode, char* buf, size_t buflen);

// Opens the first path of the table that can be opened; its index goes to *index unless that is null. Null, with one
// line logged, if none can be. The caller closes the stream.
FILE* fopen_any(const char** path, size_t count, const char* mode, size_t* index);

// Reads a whole file. The number of bytes, 0 for an empty file; -1 for a failure, and for a file that doesn't fit
// into buflen bytes: a part of a file is never taken for the whole. Adds no terminating zero.
ssize_t read_file_buf(const char* path, void* buf, size_t buflen);

// Makes the directories that lead to a file, as far as they are missing. The last component isn't made: it is the
// file's name, unless the path ends in a slash. 0 or -1.
int mk_fpath_dirs(const char* fpath, mode_t mode);

// Sends standard output and standard error to a file, which is appended to, or made with mode 0644. 0 or -1.
int redirect_output(const char* fpath);

// Closes the ends of a pipe that are open (0 or above) and sets both to -1. 0, or -1 if a close failed.
int close_pipe(int pipefd[2]);

// ---- paths and texts ------------------------------------------------------------------------------------------

// The part of a path behind its last slash; the path itself if it has none. Never null.
const char* get_base(const char* path);

// "newdir/base" with the base of fpath; newdir may end in a slash. 0, or -1 for a text that doesn't fit (buf then
// holds the empty text).
// Requires: buflen above 0.
int replace_dir(const char* fpath, const char* newdir, char* buf, size_t buflen);

// The last character of a text, 0 for an empty one.
char lastchar(const char* s);

// Index of a word in a table, compared without regard to case, or -1.
ssize_t tag_index(const char* word, const char* const* table, size_t count);

// Copies src up to the first character that stands in `stops`, or its end, and terminates the copy; what doesn't fit
// is cut. Returns the length of the copy.
// Requires: dstlen above 0.
size_t cpy_till(char* dst, size_t dstlen, const char* src, const char* stops);

#endif // TV_UTIL_H
