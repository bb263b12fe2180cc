// The front end's answers: what a request's head deserves, as a status and, with a 200, the file of the body.
//
// Ownership: the file of an answer is the caller's.
#ifndef EXAMPLES_FRONT_ANSWER_H
#define EXAMPLES_FRONT_ANSWER_H

#include <sys/types.h>

#include <string_view>

struct front_answer {
    int code;           // status
    bool is_head;       // no body, whatever its length
    bool is_http10;     // of the request
    bool is_keep_alive; // the peer may send another request
    int file;           // -1: none, and an empty body
    off_t size;         // of the body
    const char* type;   // its content type, or null
};

// Answers the request of a complete head with what lies beneath the root. `tag` names the request in the log.
struct front_answer front_answer_to(std::string_view head, int root, const char* tag);

// An answer that is a status and the end of the connection.
struct front_answer front_refusal(int code);

#endif // EXAMPLES_FRONT_ANSWER_H
