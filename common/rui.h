// Request listeners: listening sockets whose connections become queued requests on the event loop (rqs.h).
//
// There are three *classes* of listener, `user`, `admin` and `custom`, with up to four listeners each; all are handled
// by one set of functions. A service names each class's requests and makes, frees and times them out by the callbacks
// of a `rui_socket_cb`. A *listener* (`rui_socket_ctx`) holds a listening socket and the *requests* (records that begin
// with a `rui_rq_header`) of its connections. It is *set up*, *listening*, or *stopped* on purpose, to be resumed.
// A request is *marked* when its removal is postponed to rui_pprm_all, since the event loop may still hold events of it.
//
//     rui_set_cb(RUI_USER, &my_callbacks);
//     if (rui_ctx_init(&cfg, &ctx) == 0 && rui_ctx_start(&ctx) == 0) rc = rqs_event_loop();
//     rui_ctx_destroy(&ctx);
//
// The loop's callbacks get a listener or a request as `udata`; the tag at its start tells which (rui_is_listener).
// docs/services.md shows a service as a whole.
//
// Units: milliseconds, counts of requests and connections.
// Ownership: a listener owns its socket, its queue and the requests in it, with their descriptors. rui_ctx_destroy
// also frees the interfaces that the configuration owns. Configuration, callbacks and context are the service's: they
// must outlive the context's use and stay where they are.
// Results: 0; -1 or another error code as each call says. Failures are logged.
// One thread, that of the event loop; not for signal handlers.
#ifndef COMMON_RUI_H
#define COMMON_RUI_H

#include "appcfg.h"
#include "dlep.h"
#include "tvtypes.h"
#include "xvdat.h"

#include <sys/select.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <type_traits>

struct ifc_info;

inline constexpr size_t MAX_USOCK_SZ = 104;    // path of a local-domain listener, with its zero
inline constexpr size_t RUI_MAX_LISTENERS = 4; // of one class
inline constexpr size_t RUI_MAX_QUEUED = 1000; // requests of one listener

// Classes.
inline constexpr int RUI_USER = 0;
inline constexpr int RUI_ADMIN = 1;
inline constexpr int RUI_CUSTOM = 2;
inline constexpr int RUI_MAX = 3;

// The tag of a listener that is set up.
inline constexpr union n32_tag RUI_LISTENER_TAG = {{'R', 's', 'c', 0}};

// Flags of rui_accept.
inline constexpr uint32_t RUI_TCP_NODELAY = 1;

// What rui_add_request gives for a full queue.
inline constexpr int RUI_QUEUE_FULL = 16;

// ---- configuration --------------------------------------------------------------------------------------------

struct rui_listener_cfg {
    bool is_valid;                  // this slot was loaded
    char alias[32];                 // name in logs
    size_t index;                   // 1-based position in its class
    struct ifc_info* ifc;           // owned; null: all interfaces
    char port[6];                   // as text
    int pref_af;                    // preferred family: 0, AF_INET or AF_INET6
    char domain_path[MAX_USOCK_SZ]; // if not empty, a local-domain listener
    int proto;                      // IPPROTO_TCP or IPPROTO_UDP
    union n32_tag kind;             // the service's
};

struct rui_cfg {
    struct rui_listener_cfg user[RUI_MAX_LISTENERS];
    struct rui_listener_cfg admin[RUI_MAX_LISTENERS];
    struct rui_listener_cfg custom[RUI_MAX_LISTENERS];
    size_t max_accept; // for rui_accept
    int user_request_tmout;
    int admin_request_tmout;
    int custom_request_tmout;
};

static_assert(std::is_trivial_v<rui_cfg> && std::is_standard_layout_v<rui_cfg>);

// ---- callbacks ------------------------------------------------------------------------------------------------

struct rui_socket_ctx;

// Makes the record of a new connection, which begins with a rui_rq_header: from calloc, or cleared. The listener fills
// `tag`, `srv`, `fd` and `trk_tag` of the header where they are zero, and queues the request. Null refuses the
// connection. It must not close fd. `data` is what rui_accept or rui_add_request was given.
typedef void* (*rui_newrq_t)(int fd, struct rui_socket_ctx* srv, void* data);
// Frees what rui_newrq_t made; the request has left loop and queue, and its descriptor is closed. It must neither
// remove nor mark other requests.
typedef void (*rui_rmrq_t)(void* rq);
// True if the request timed out. It may mark the request for removal (rui_pprm_request).
typedef bool (*rui_tmout_t)(void* rq, u_int tmout_ms);

struct rui_socket_cb {
    union n32_tag tag; // names the class's requests, up to 3 letters
    rui_newrq_t new_rq;
    rui_rmrq_t rm_rq;
    rui_tmout_t time_out; // null in a service that never calls rui_tmout_all
};

// ---- state ----------------------------------------------------------------------------------------------------

struct rui_socket_ctx {
    union n32_tag tag;  // RUI_LISTENER_TAG once set up; 0: a free slot
    int sockfd;         // -1 when not listening
    fd_set accset;      // descriptors that are queued
    dlep_t requests;    // of rui_rq_header, the oldest at the tail
    struct xvlst pprm;  // of rui_rq_header*: marked for removal
    bool deferred;      // listening stopped on purpose and to be resumed
    size_t rqcount;     // the service's
    ssize_t nblk_count; // the service's
    struct rui_listener_cfg* lc;
    union n32_tag rqtag; // the class's
    struct rui_socket_cb* cb;
};

// What a request begins with. The first three fields are those of dlep_elem.
struct rui_rq_header {
    union n32_tag tag;
    struct rui_rq_header* prev;
    struct rui_rq_header* next;
    struct rui_socket_ctx* srv;
    int fd;                // -1 once closed
    union n64_tag trk_tag; // tracking number
};

struct rui_ctx {
    struct rui_socket_ctx user[RUI_MAX_LISTENERS];
    struct rui_socket_ctx admin[RUI_MAX_LISTENERS];
    struct rui_socket_ctx custom[RUI_MAX_LISTENERS];
    fd_set user_fds; // these three: the service's
    fd_set admin_fds;
    fd_set custom_fds;
};

static_assert(std::is_trivially_default_constructible_v<rui_ctx> && std::is_standard_layout_v<rui_ctx>);
static_assert(std::is_standard_layout_v<rui_rq_header> &&
                  offsetof(rui_rq_header, tag) == offsetof(dlep_elem, type_id) &&
                  offsetof(rui_rq_header, prev) == offsetof(dlep_elem, prev) &&
                  offsetof(rui_rq_header, next) == offsetof(dlep_elem, next),
              "a request is queued by its own header");

// ---- a service's listeners ------------------------------------------------------------------------------------

// Sets the callbacks of a class. To be called for each class in use ahead of rui_ctx_init.
// Requires: type is a class (assertion); cb stays alive.
void rui_set_cb(int type, struct rui_socket_cb* cb);

// Clears the context and sets up a listener for each valid configuration. 0; an error code after a line, with what was
// set up before it left to rui_ctx_destroy. Nothing listens yet.
// Requires: callbacks with new_rq and rm_rq for each class that has a valid configuration (assertion).
int rui_ctx_init(struct rui_cfg* cfg, struct rui_ctx* ctx);
// Starts all listeners. 0; -1 at the first that can't be started, with those before it listening.
// Requires: rqs_init, rui_ctx_init; none of them listening (assertion).
int rui_ctx_start(struct rui_ctx* ctx);
// Stops all listeners; their requests stay and can be served to their end. A listener can be resumed.
void rui_ctx_stop(struct rui_ctx* ctx);
// Stops all listeners, removes their requests, frees the configuration's interfaces and clears its is_valid. By design
// the path of a local-domain listener stays in the file system. Harmless after a failed rui_ctx_init, on a cleared
// context and when repeated; to be called ahead of rqs_destroy, or behind it. Requires: not from a callback.
void rui_ctx_destroy(struct rui_ctx* ctx);

// The same for one class: `lc` and `srv` are arrays of four. By design the first configuration that isn't valid ends
// the walk.
int rui_setup_listeners(int type, struct rui_listener_cfg* lc, struct rui_socket_ctx* srv);
int rui_enable_listeners(struct rui_socket_ctx* srv);

// Opens the listener's socket by its configuration and puts it into the loop, with `srv` as udata. 0; -1, logged, with
// sockfd -1. Also resumes a listener that was stopped. A UDP listener without an interface takes the any address of
// pref_af, the IPv4 one if that is 0; datagrams are read by the service, rui_accept is for the others.
// Requires: srv set up and not listening (assertions). Descriptor 0 is taken: a listener with it could not be stopped.
int rui_start_listener(struct rui_listener_cfg* cfg, struct rui_socket_ctx* srv);
// Stops listening, to be resumed by rui_start_listener; queued requests stay. Nothing if it isn't listening. 0, or
// the error code of leaving the loop, logged, with the socket closed all the same.
// Requires: a listening listener is not marked deferred (assertion).
int rui_stop_listener(struct rui_socket_ctx* srv);
// A listening socket must never fail: says which one and why, and aborts. For the loop's error callback, and for its
// read callback where error flags come with a listener.
[[noreturn]] void rui_crash_on_error(struct rui_socket_ctx* rsc, bool is_hup);

// True if a loop's udata is a listener; otherwise it is a request, or what else the service put into the loop.
// Requires: udata begins with an n32_tag.
bool rui_is_listener(const void* udata);

// ---- requests -------------------------------------------------------------------------------------------------

// Takes connections until none waits, g_quit is set, or max_accept of them were queued (a warning). A connection that
// can't be queued is closed, logged, and not counted. IP connections are non-blocking and readable from 32 bytes on, or
// at their end (a service that waits for less sets SO_RCVLOWAT in its new_rq), with TCP_NODELAY if asked for.
// The result is that of the last connection taken: 0, RUI_QUEUE_FULL, or another code of a connection that had to be
// closed; 0 if there was none; or the errno of an accept that failed otherwise, such as EMFILE, which ends the walk: the
// connection still waits then, and a service stops the listener unless it wants to be called again at once.
// Requires: srv set up, by any protocol but UDP.
int rui_accept(struct rui_socket_ctx* srv, size_t max_accept, uint32_t flags, void* data);

// Makes a request for a descriptor, queues it and puts it into the loop, with the request as udata. 0; RUI_QUEUE_FULL
// with 1000 requests queued; -1 for a descriptor that no fd_set can hold or that new_rq refused; all these leave fd to
// the caller. The loop's code if that takes no descriptor: by design the request stays queued then, with fd.
// Requires: srv set up (assertion).
int rui_add_request(int fd, struct rui_socket_ctx* srv, void* data);

// Takes a request out of loop, marks and queue, closes its descriptor and frees it. One that isn't queued is an error
// line, and not freed. The loop may still deliver events of the running turn with it as udata: during dispatch mark it
// instead. Requires: p is a request with `srv` set up (assertion).
void rui_rm_request(void* p);
// Marks a request for removal. 0, also where it is marked; -1 for want of memory. Adding it to `pprm` by hand does the
// same.
int rui_pprm_request(void* p);
// Removes all marked requests. For the loop's post_process, where no event is under way.
void rui_pprm_all(struct rui_ctx* ctx);
// Calls time_out for each request, oldest first. Requires: each class set up has time_out (assertion).
void rui_tmout_all(struct rui_ctx* ctx, u_int tmout_ms);

// Load control. A listener may take requests below max_requests; one that was stopped should resume below three
// quarters of max_req only, so that it doesn't flap (an info line then, if it is stopped). By design the quarters are
// rounded down: with a max_req of 1 it never should.
bool rui_can_listen(const struct rui_socket_ctx* srv, size_t max_requests);
bool rui_should_listen(const struct rui_socket_ctx* srv, size_t max_req);

// The next tracking number: prefix and at least four digits, counted from 1 to max and from 1 again. The counter's owner
// starts it at 0. Requires: max at most 999999 (assertion: the tag holds six digits).
void rui_mk_trknum(size_t* count, union n64_tag* tag, char pfx, size_t max);

// ---- settings (read by load_rui_config, appcfg.h) -------------------------------------------------------------

// Frees the interfaces of a configuration that never came to rui_ctx_init, and clears is_valid.
void rui_cfg_free(struct rui_cfg* cfg);

// ---- debugging aids -------------------------------------------------------------------------------------------

// True when every invariant of a listener, or of all of a context, holds. No effects, no lines; null is not valid.
bool rui_socket_validate(const struct rui_socket_ctx* srv);
bool rui_validate(const struct rui_ctx* ctx);
// Prints the listeners of a context that are set up, in words, valid or not.
void rui_dump(const struct rui_ctx* ctx, FILE* fp);

#endif // COMMON_RUI_H
