// What the front end example makes of targets, and which files it opens for them.
#include "examples/front_file.h"
#include "examples/front_name.h"

#include "support/temp_dir.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace
{

struct named {
    int status;
    enum front_kind kind;
    std::string path;
};

struct named name_of(const std::string& target)
{
    struct front_name name;
    memset(&name, 0x55, sizeof(name));
    const int status = front_name_of(target.c_str(), &name);
    return {status, name.kind, name.path};
}

void expect_path(const std::string& target, enum front_kind kind, const std::string& path)
{
    const struct named got = name_of(target);
    EXPECT_EQ(got.status, 0) << target;
    EXPECT_EQ(got.kind, kind) << target;
    EXPECT_EQ(got.path, path) << target;
}

void expect_status(int status, const std::vector<std::string>& targets)
{
    for (const std::string& target : targets)
        EXPECT_EQ(name_of(target).status, status) << target;
}

TEST(front_name, plain_paths_are_files_of_the_root)
{
    expect_path("/a.ts", front_kind::file, "a.ts");
    expect_path("/ch/1.ts", front_kind::file, "ch/1.ts");
    expect_path("/ch/", front_kind::file, "ch/");
    expect_path("/", front_kind::file, ".");
    expect_path("//a//b", front_kind::file, "a//b");
    expect_path("/./a", front_kind::file, "./a");
    expect_path("/a..b/..c/d..", front_kind::file, "a..b/..c/d..");
}

TEST(front_name, whole_urls_lose_scheme_and_host)
{
    expect_path("http://host/a.ts", front_kind::file, "a.ts");
    expect_path("HTTP://host:80/ch/1.ts?x", front_kind::file, "ch/1.ts");
    expect_path("http://user@host/a@b", front_kind::file, "a@b");
    expect_path("http://host", front_kind::file, ".");
    expect_path("http://host?q=/x", front_kind::file, ".");
}

TEST(front_name, queries_are_no_part_of_a_path)
{
    expect_path("/a.ts?b=c", front_kind::file, "a.ts");
    expect_path("/a.ts?b?c", front_kind::file, "a.ts");
    expect_path("/a.ts?u=http://x/../y", front_kind::file, "a.ts");
    expect_path("/a.ts?b/", front_kind::file, "a.ts");
    expect_path("/a.ts?%", front_kind::file, "a.ts");
}

TEST(front_name, escapes_are_decoded_once)
{
    expect_path("/%61.ts", front_kind::file, "a.ts");
    expect_path("/a%2fb", front_kind::file, "a/b");
    expect_path("/a%20b+c", front_kind::file, "a b+c");
    expect_path("/a%3fb", front_kind::file, "a?b");
    expect_path("/%252e%252e/x", front_kind::file, "%2e%2e/x");
    expect_path("/%252f", front_kind::file, "%2f");
    expect_path("/%c3%a4", front_kind::file, "\xc3\xa4");
    expect_path("/hls%2dfra/ch/1.ts", front_kind::file, "hls-fra/ch/1.ts");
}

TEST(front_name, player_forms_lead_to_the_same_files)
{
    expect_path("/hls-fra/ch/1.ts", front_kind::segment, "ch/1.ts");
    expect_path("/hls-fra//ch/1.ts", front_kind::segment, "ch/1.ts");
    expect_path("/hls-m3u/ch/live.m3u8", front_kind::playlist, "ch/live.m3u8");
    expect_path("/x/hls-m3u/ch/live.m3u8", front_kind::playlist, "ch/live.m3u8");
    expect_path("/hls-m3u/ch/playlist_dvr_range-900-now.m3u8", front_kind::playlist,
                "ch/playlist_dvr_range-900-now.m3u8");
    expect_path("/hls-m3u/ch/live.m3u8?utime=5&duration=now", front_kind::playlist, "ch/live.m3u8");
    expect_path("/hls-m3u/ch/live.m3u8?session=7", front_kind::playlist, "ch/live.m3u8");
}

TEST(front_name, ping_and_favicon_are_no_files)
{
    expect_path("/ping", front_kind::ping, "");
    expect_path("/PING/", front_kind::ping, "");
    expect_path("/ping?x=y", front_kind::ping, "");
    expect_path("/favicon.ico", front_kind::favicon, "");
    expect_path("/ping.ts", front_kind::file, "ping.ts");
}

TEST(front_name, what_is_no_path_is_a_bad_request)
{
    expect_status(400, {"", "a.ts", "*", "ftp://h/x", "?x", "file:///etc/passwd"});
    expect_status(400, {"http://", "http:///x", "http://?x", "http://:80/x", "http:/x"});
    expect_status(400, {"/%0a/hls-m3u/ch/live.m3u8", "/a\\b/hls-m3u/ch/live.m3u8", "/%7f/udp/239.1.1.1:5000/"});
    expect_status(400, {"/%", "/%2", "/%zz", "/a%2", "/%2g", "/a%00", "/%00/b.ts", "/a%00.ts"});
    expect_status(400, {"/a\\b", "/..\\..\\x", "/%5c", "/..%5c..%5cx", "/a%0d%0ab", "/a%7f", "/a%1b[m"});
    expect_status(400, {"/hls-m3u/ch/playlist_dvr_range-0-now.m3u8", "/hls-m3u/ch/index-x.m3u8"});
}

TEST(front_name, a_playlists_query_must_make_sense)
{
    const std::string list = "/hls-m3u/ch/live.m3u8";
    for (const char* query : {"", "vod=1", "utime=5", "utime=0&duration=now", "a=", "a=/", "a=b/", "a=b?", "a=@",
                              "a=b@c", "a=http://h/x", "a=%3f&b=%2f"}) {
        expect_path(list + "?" + query, front_kind::playlist, "ch/live.m3u8");
        expect_path("http://h" + list + "?" + query, front_kind::playlist, "ch/live.m3u8");
    }
    for (const char* query : {"x", "vod", "&", "utime=", "utime=x", "utime=x/", "utime=x?duration=5", "utime=x@h/x",
                              "duration=x", "a=1&a=2", "utime=%2", "utime=%zz"}) {
        expect_status(400, {list + "?" + query, "http://h" + list + "?" + query});
    }
}

TEST(front_name, a_playlists_query_may_follow_a_long_path)
{
    const std::string path(FRONT_PATH_MAX - strlen("/hls-m3u/") - 1, 'a');
    expect_path("/hls-m3u/" + path + "?utime=5", front_kind::playlist, path);
    expect_status(400, {"/hls-m3u/" + path + "?utime=x"});
}

TEST(front_name, a_playlists_query_may_be_as_long_as_the_library_reads)
{
    const std::string list = "/hls-m3u/ch/live.m3u8?";
    std::string query;
    for (int i = 0; i < 8; ++i)
        query += "p" + std::to_string(i) + "=" + std::string(27, 'x') + "&"; // 31 each
    EXPECT_EQ(name_of(list + query + "q=3456").status, 0);                   // 254
    EXPECT_EQ(name_of(list + query + "q=34567").status, 400);
    EXPECT_EQ(name_of(list + query + query).status, 400);
    EXPECT_EQ(name_of(list + std::string(1900, '?')).status, 400);
}

TEST(front_name, no_path_leads_upwards)
{
    expect_status(403, {"/..", "/../x", "/a/..", "/a/../b", "/a/..//b", "//..", "http://h/../x"});
    expect_status(403, {"/%2e%2e/x", "/.%2e/x", "/%2E./x", "/%2e%2e%2fx", "/..%2fx", "/a%2f..%2f..%2fx"});
    expect_status(403, {"/hls-fra/../x", "/hls-fra/%2e%2e/x", "/hls-m3u/../x.m3u8", "/hls-fra/..%2f..%2fx"});
    expect_status(403, {"/../hls-m3u/ch/x.m3u8", "/a/%2e%2e/hls-m3u/ch/x.m3u8", "/..%2fa/hls-m3u/x.m3u8", "/$c/../x"});
}

TEST(front_name, live_streams_and_aliases_are_not_stored)
{
    expect_status(404, {"/udp/239.1.1.1:5000/", "/rtp/239.1.1.1:5000", "/src/udp/239.1.1.1:5000/dst/f.ts", "/$chan/x"});
}

TEST(front_name, a_path_may_be_as_long_as_its_room)
{
    const std::string longest(FRONT_PATH_MAX - 2, 'a');
    expect_path("/" + longest, front_kind::file, longest);
    expect_status(414, {"/" + longest + "a", "/" + longest + "aa"});
    const std::string pluses((FRONT_PATH_MAX - 2) / 3, '+'); // each takes three characters on its way
    expect_path("/" + pluses, front_kind::file, pluses);
    expect_status(414, {"/" + pluses + "+"});
    expect_path("/hls-fra/" + longest.substr(8), front_kind::segment, longest.substr(8));
}

TEST(front_name, a_target_cut_short_anywhere_is_still_judged)
{
    const std::string target = "http://host:80/hls-m3u/c%20h/playlist_dvr_range-900-now.m3u8?utime=5&duration=now";
    for (size_t len = 0; len <= target.size(); ++len) {
        const int status = name_of(target.substr(0, len)).status;
        EXPECT_TRUE(status == 0 || status == 400) << len << ": " << status;
    }
}

// ---- files ----------------------------------------------------------------------------------------------------

class front_file : public testing::Test
{
protected:
    void SetUp() override
    {
        write(dir.path() + "/secret", "secret");
        mkdir(root_path().c_str(), 0755);
        mkdir((root_path() + "/ch").c_str(), 0755);
        write(root_path() + "/a.ts", "12345");
        write(root_path() + "/ch/1.ts", "1");
        root = open(root_path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
        ASSERT_GE(root, 0);
    }
    void TearDown() override { close(root); }

    std::string root_path() const { return dir.path() + "/root"; }

    static void write(const std::string& path, const std::string& text)
    {
        FILE* fp = fopen(path.c_str(), "w");
        ASSERT_TRUE(fp);
        fputs(text.c_str(), fp);
        fclose(fp);
    }
    void link_to(const std::string& to, const std::string& name) const
    {
        ASSERT_EQ(symlink(to.c_str(), (root_path() + "/" + name).c_str()), 0);
    }

    // Size of the file, or the negative status.
    off_t opened(const std::string& path) const
    {
        off_t size = -1;
        const int fd = front_open(root, path.c_str(), &size);
        if (fd >= 0) close(fd);
        return fd < 0 ? fd : size;
    }
    // 0, or the errno.
    int walked(const std::string& path) const
    {
        const int fd = front_walk(root, path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) return errno;
        close(fd);
        return 0;
    }

    TempDir dir;
    int root = -1;
};

TEST_F(front_file, files_are_opened_with_their_size)
{
    EXPECT_EQ(opened("a.ts"), 5);
    EXPECT_EQ(opened("ch/1.ts"), 1);
    EXPECT_EQ(opened("ch//1.ts"), 1);
    EXPECT_EQ(opened("./a.ts"), 5);
    write(root_path() + "/empty", "");
    EXPECT_EQ(opened("empty"), 0);
}

TEST_F(front_file, what_is_not_there_is_not_found)
{
    for (const char* path : {"b.ts", "ch/b/c", "a.ts/b", "a.ts/", "nodir/a.ts", ""})
        EXPECT_EQ(opened(path), -404) << path;
    EXPECT_EQ(opened(std::string(300, 'a')), -404);
}

TEST_F(front_file, only_regular_files_are_served)
{
    ASSERT_EQ(mkfifo((root_path() + "/fifo").c_str(), 0644), 0);
    const int sock = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un sa = {};
    sa.sun_family = AF_UNIX;
    ASSERT_LT(static_cast<size_t>(snprintf(sa.sun_path, sizeof(sa.sun_path), "%s/sock", root_path().c_str())),
              sizeof(sa.sun_path));
    ASSERT_EQ(bind(sock, reinterpret_cast<const struct sockaddr*>(&sa), sizeof(sa)), 0);
    for (const char* path : {"fifo", "sock", "ch", "ch/", "."})
        EXPECT_EQ(opened(path), -403) << path;
    close(sock);
}

TEST_F(front_file, what_is_no_regular_file_is_not_even_opened)
{
    // An open would let a writer of the FIFO go on, and the close kill it.
    ASSERT_EQ(mkfifo((root_path() + "/fifo").c_str(), 0644), 0);
    const int watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    ASSERT_GE(inotify_add_watch(watch, root_path().c_str(), IN_OPEN), 0);
    const auto has_opened = [&] {
        alignas(struct inotify_event) char news[1024];
        return read(watch, news, sizeof(news)) > 0;
    };
    EXPECT_EQ(opened("fifo"), -403);
    EXPECT_FALSE(has_opened());
    EXPECT_EQ(opened("a.ts"), 5);
    EXPECT_TRUE(has_opened());
    close(watch);
}

TEST_F(front_file, a_file_that_may_not_be_read_is_forbidden)
{
    ASSERT_EQ(chmod((root_path() + "/a.ts").c_str(), 0), 0);
    const bool is_root = geteuid() == 0; // who may read everything
    ASSERT_EQ(is_root ? seteuid(65534) : 0, 0);
    EXPECT_EQ(opened("a.ts"), -403);
    ASSERT_EQ(is_root ? seteuid(0) : 0, 0);
}

TEST_F(front_file, devices_are_not_served)
{
    const int dev = open("/dev", O_PATH | O_DIRECTORY | O_CLOEXEC);
    off_t size = 0;
    EXPECT_EQ(front_open(dev, "null", &size), -403);
    EXPECT_EQ(front_open(dev, "zero", &size), -403);
    close(dev);
}

TEST_F(front_file, links_are_followed_inside_the_root_only)
{
    link_to("a.ts", "inside");
    link_to("../secret", "above");
    link_to(dir.path() + "/secret", "absolute");
    link_to("..", "up");
    link_to("loop", "loop");
    link_to("/proc/self/fd/0", "magic");
    EXPECT_EQ(opened("inside"), 5);
    for (const char* path : {"above", "absolute", "up/secret", "loop", "magic", "../secret", "ch/../../secret"})
        EXPECT_EQ(opened(path), -403) << path;
    EXPECT_EQ(opened(dir.path() + "/secret"), -403);
}

TEST_F(front_file, a_root_that_was_moved_is_still_the_root)
{
    ASSERT_EQ(rename(root_path().c_str(), (dir.path() + "/moved").c_str()), 0);
    EXPECT_EQ(opened("a.ts"), 5);
}

TEST_F(front_file, the_walk_opens_the_same_files)
{
    EXPECT_EQ(walked("a.ts"), 0);
    EXPECT_EQ(walked("ch/1.ts"), 0);
    EXPECT_EQ(walked("ch//1.ts"), 0);
    EXPECT_EQ(walked("./ch/./1.ts"), 0);
    EXPECT_EQ(walked("ch/"), 0); // a directory, which front_open refuses
    EXPECT_EQ(walked("b.ts"), ENOENT);
    EXPECT_EQ(walked("a.ts/b"), ENOTDIR);
    EXPECT_EQ(walked("a.ts/"), ENOTDIR);
    EXPECT_EQ(walked(std::string(255, 'a')), ENOENT);
    EXPECT_EQ(walked(std::string(256, 'a')), ENAMETOOLONG);
}

TEST_F(front_file, the_walk_goes_through_no_link_and_never_up)
{
    link_to("a.ts", "inside");
    link_to("ch", "dir");
    EXPECT_EQ(walked("inside"), ELOOP);
    EXPECT_EQ(walked("dir/1.ts"), ENOTDIR);
    for (const char* path : {"..", "../secret", "ch/../../secret", "ch/..", "/etc/passwd", "/"})
        EXPECT_EQ(walked(path), EXDEV) << path;
}

// Makes openat2 fail for the rest of the process, as kernels before 5.6 and older sandboxes do.
void refuse_openat2(uint32_t err)
{
    struct sock_filter rules[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_openat2, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | err),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const struct sock_fprog program = {4, rules};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) || prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program)) _exit(99);
}

TEST_F(front_file, the_walk_stands_in_where_the_kernel_cannot)
{
    link_to("a.ts", "inside");
    for (const int err : {ENOSYS, EPERM}) {
        const auto open_all = [&] {
            refuse_openat2(static_cast<uint32_t>(err));
            const bool is_good = opened("ch/1.ts") == 1 && opened("inside") == -403 && opened("nope") == -404 &&
                                 opened("../secret") == -403 && opened("ch") == -403;
            _exit(is_good ? 0 : 1);
        };
        EXPECT_EXIT(open_all(), testing::ExitedWithCode(0), "") << err;
    }
}

TEST_F(front_file, the_walk_leaves_no_descriptor_behind)
{
    const int before = dup(root);
    close(before);
    for (const char* path : {"ch/1.ts", "ch/nope", "ch/../x", "ch/", "a.ts/b"})
        (void)walked(path);
    const int after = dup(root);
    close(after);
    EXPECT_EQ(after, before);
}

TEST(front_type, endings_decide_in_any_case)
{
    EXPECT_STREQ(front_content_type("ch/1.ts"), "video/MP2T");
    EXPECT_STREQ(front_content_type("live.M3U8"), "application/x-mpegURL");
    EXPECT_STREQ(front_content_type("live.m3u"), "application/x-mpegURL");
    EXPECT_STREQ(front_content_type("a.mp4"), "video/mp4");
    EXPECT_STREQ(front_content_type("a.ts.bak"), "application/octet-stream");
    EXPECT_STREQ(front_content_type("ts"), "application/octet-stream");
}

} // namespace
