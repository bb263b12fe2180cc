// What tests of the application share: directories that vanish, children whose output and status are told, a world
// with ring, analyzer and source in place, and servers that a source URL can name.
#ifndef TESTS_SUPPORT_APP_KIT_H
#define TESTS_SUPPORT_APP_KIT_H

#include "log.h"
#include "support/ts_build.h"
#include "tavrin/app.h"
#include "util.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

namespace akit
{

// ---- files ----------------------------------------------------------------------------------------------------

class temp_dir
{
public:
    temp_dir()
    {
        char name[] = "/tmp/kvt-test-XXXXXX";
        if (mkdtemp(name) == nullptr) abort();
        path_ = name;
    }
    ~temp_dir()
    {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    temp_dir(const temp_dir&) = delete;
    temp_dir& operator=(const temp_dir&) = delete;

    const std::string& path() const { return path_; }
    std::string path(const std::string& name) const { return path_ + "/" + name; }
    // Writes a file and returns its path.
    std::string file(const std::string& name, const std::string& text) const
    {
        std::ofstream(path(name), std::ios::binary) << text;
        return path(name);
    }
    // Names of the files that are there, in order.
    std::vector<std::string> names() const
    {
        std::vector<std::string> out;
        for (const auto& e : std::filesystem::directory_iterator(path_))
            out.push_back(e.path().filename());
        std::sort(out.begin(), out.end());
        return out;
    }

private:
    std::string path_;
};

inline std::string content_of(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// ---- children -------------------------------------------------------------------------------------------------

struct outcome {
    int status = -1; // exit status, or minus the signal
    std::string out; // what was written to standard output
    std::string err; // and to standard error
};

// The exit status of a child whose function came back.
inline constexpr int CAME_BACK = 111;

// Runs a function in a forked child and tells how that ended.
inline outcome in_child(const std::function<void()>& run)
{
    const temp_dir dir;
    const std::string out = dir.path("out");
    const std::string err = dir.path("err");
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0666), STDOUT_FILENO);
        dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0666), STDERR_FILENO);
        run();
        fflush(nullptr);
        _exit(CAME_BACK);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) == -1 && errno == EINTR) {
    }
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status), content_of(out), content_of(err)};
}

// ---- command lines --------------------------------------------------------------------------------------------

// Arguments as main gets them, the program's name ahead.
class cmdline
{
public:
    cmdline(std::initializer_list<std::string> args) : texts_(args)
    {
        texts_.insert(texts_.begin(), "/usr/bin/kvt");
        for (std::string& t : texts_)
            ptrs_.push_back(t.data());
        ptrs_.push_back(nullptr);
    }
    int argc() const { return static_cast<int>(texts_.size()); }
    char** argv() { return ptrs_.data(); }

private:
    std::vector<std::string> texts_;
    std::vector<char*> ptrs_;
};

// setup_config as main calls it.
inline int set_up(std::initializer_list<std::string> args)
{
    cmdline line(args);
    reset_getopt_state();
    glog_init("kvt");
    log_default(&g_log, stderr);
    return setup_config(line.argc(), line.argv());
}

// ---- a running application ------------------------------------------------------------------------------------

// Settings as built in, a ring, an analyzer; no source. Everything goes with the object.
class app_world
{
public:
    explicit app_world(size_t cache_mb = 1)
    {
        glog_init("kvt");
        init_kvti_config(&g_cfg);
        g_cfg.cache_sz_mb = cache_mb;
        g_cfg.tsa.is_enabled = true;
        g_cfg.tsa.max_skip_pkts = D_MAX_NO_ANALYZE;
        strcpy(g_cfg.tsa.source, "chan1");
        strcpy(g_cfg.snap_dir, dir.path().c_str());
        g_ctx.ssock = -1;
        g_ctx.mode = SM_STM;
        if (mmr_create(&g_ctx.mmr, cache_mb << 20) != 0) abort();
        g_ctx.tc = tsan_init(nullptr, &g_cfg.tsa, nullptr);
    }
    ~app_world() { destroy_kvti_ctx(); }
    app_world(const app_world&) = delete;
    app_world& operator=(const app_world&) = delete;

    // Bytes into the ring, as a read would bring them; the place where they stand.
    uint8_t* store(tsb::bytes_view data)
    {
        struct mm_point pt = {};
        uint8_t* dest = mmr_iget(g_ctx.mmr, &pt);
        if (dest == nullptr || pt.len < data.size()) abort();
        memcpy(dest, data.data(), data.size());
        pt.len = data.size();
        stored_rc = mmr_iput(g_ctx.mmr, &pt);
        return dest;
    }
    // The same, and then through the analysis feed.
    int feed(tsb::bytes_view data)
    {
        uint8_t* dest = store(data);
        return analyze_input(dest, data.size());
    }
    struct mm_info info() const
    {
        struct mm_info mi = {};
        mmr_get_info(g_ctx.mmr, &mi);
        return mi;
    }

    temp_dir dir; // where snapshots go
    int stored_rc = 0;
};

// A stream socket pair or datagram socket pair, one end of which is the application's source.
class socket_source
{
public:
    explicit socket_source(int type = SOCK_STREAM)
    {
        int sv[2];
        if (socketpair(AF_UNIX, type, 0, sv) != 0) abort();
        g_ctx.ssock = sv[0];
        g_ctx.mode = type == SOCK_DGRAM ? SM_PKT : SM_STM;
        g_ctx.is_ready = true;
        peer = sv[1];
    }
    ~socket_source() { hang_up(); }
    socket_source(const socket_source&) = delete;
    socket_source& operator=(const socket_source&) = delete;

    void send_all(tsb::bytes_view data) const
    {
        size_t done = 0;
        while (done < data.size()) {
            const ssize_t n = send(peer, data.data() + done, data.size() - done, MSG_NOSIGNAL);
            if (n <= 0) return;
            done += static_cast<size_t>(n);
        }
    }
    void send_dgram(tsb::bytes_view data) const
    {
        ASSERT_EQ(send(peer, data.data(), data.size(), 0), ssize_t(data.size()));
    }
    void hang_up()
    {
        if (peer >= 0) close(peer);
        peer = -1;
    }

    int peer = -1;
};

// Listens on a port of its own, takes one connection, reads up to a blank line if it is to answer a request, sends
// its bytes and closes.
class tcp_server
{
public:
    tcp_server(tsb::bytes data, bool wait_for_request = false) : data_(std::move(data))
    {
        listener_ = socket(AF_INET, SOCK_STREAM, 0);
        struct sockaddr_in sa = {};
        sa.sin_family = AF_INET;
        sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof(sa);
        if (bind(listener_, reinterpret_cast<struct sockaddr*>(&sa), len) != 0 || listen(listener_, 1) != 0) abort();
        getsockname(listener_, reinterpret_cast<struct sockaddr*>(&sa), &len);
        port = ntohs(sa.sin_port);
        thread_ = std::thread([this, wait_for_request] { serve(wait_for_request); });
    }
    ~tcp_server()
    {
        shutdown(listener_, SHUT_RDWR);
        thread_.join();
        close(listener_);
    }
    tcp_server(const tcp_server&) = delete;
    tcp_server& operator=(const tcp_server&) = delete;

    std::string url(const std::string& scheme) const
    {
        return scheme + "://127.0.0.1:" + std::to_string(port) + (scheme == "http" ? "/live.ts" : "");
    }

    int port = 0;
    std::string request; // complete once the answer has been read

private:
    void serve(bool wait_for_request)
    {
        const int fd = accept(listener_, nullptr, nullptr);
        if (fd < 0) return;
        char c;
        while (wait_for_request && request.find("\r\n\r\n") == std::string::npos && recv(fd, &c, 1, 0) == 1)
            request += c;
        size_t done = 0;
        while (done < data_.size()) {
            const ssize_t n = send(fd, data_.data() + done, data_.size() - done, MSG_NOSIGNAL);
            if (n <= 0) break;
            done += static_cast<size_t>(n);
        }
        close(fd);
    }

    tsb::bytes data_;
    int listener_ = -1;
    std::thread thread_;
};

// `count` packets of a clean single-program stream, from its start.
inline tsb::bytes clean_stream(size_t count)
{
    tsb::stream st(tsb::one_program());
    return tsb::cat(st.take(count));
}

inline tsb::bytes_view part(const tsb::bytes& all, size_t from, size_t len)
{
    return tsb::bytes_view(all).subspan(from, len);
}

} // namespace akit

#endif // TESTS_SUPPORT_APP_KIT_H
