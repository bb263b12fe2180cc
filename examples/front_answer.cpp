// Answers: from the head to its target, from the target to a name, from the name to a file. The first step that fails
// has the status.
#include "front_answer.h"

#include "front_file.h"
#include "front_name.h"
#include "front_request.h"
#include "log.h"
#include "webops.h"

#include <algorithm>

TV_LOG_MODULE(0)

namespace
{

using std::string_view;

constexpr size_t LOGGED_NAME_MAX = 128;

char mask(char c)
{
    return c > ' ' && c <= '~' ? c : '?';
}

// A name may have any byte but control characters; the log gets what is ASCII of it.
void log_answer(const char* tag, const struct front_answer& a, const struct front_name& name)
{
    if (!log_gate_open(&g_llctx, ll::info)) return;
    const string_view whole = string_view(name.path).substr(0, LOGGED_NAME_MAX - 1);
    char text[LOGGED_NAME_MAX] = "";
    std::transform(whole.begin(), whole.end(), text, mask);
    tv_log(ll::info, "%s: status %d, %s [%s] of %ld bytes\n", tag, a.code, front_kind_text(name.kind), text,
           static_cast<long>(a.size));
}

void look_up(int root, const struct front_name& name, struct front_answer* a)
{
    if (name.kind == front_kind::ping || name.kind == front_kind::favicon) {
        a->code = name.kind == front_kind::ping ? g_resp_ok.code : g_resp_ok204.code;
        return;
    }
    const int rc = front_open(root, name.path, &a->size);
    a->code = rc < 0 ? -rc : g_resp_ok.code;
    if (rc < 0) return;
    a->file = rc;
    a->type = front_content_type(name.path);
}

} // namespace

struct front_answer front_answer_to(string_view head, int root, const char* tag)
{
    struct front_request rq;
    struct front_name name = {};
    struct front_answer a = front_refusal(front_read_request(head, &rq));
    if (a.code == 0) {
        a.is_head = rq.is_head;
        a.is_http10 = rq.is_http10;
        a.is_keep_alive = rq.is_keep_alive;
        a.code = front_name_of(rq.target, &name);
    }
    if (a.code == 0) look_up(root, name, &a);
    log_answer(tag, a, name);
    return a;
}

struct front_answer front_refusal(int code)
{
    return {.code = code,
            .is_head = false,
            .is_http10 = false,
            .is_keep_alive = false,
            .file = -1,
            .size = 0,
            .type = nullptr};
}
