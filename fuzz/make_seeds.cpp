// Writes the seed corpora: fuzz_make_seeds CORPUS_FOLDER. Same program, same files.
#include "support/ts_build.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

using namespace tsb;

namespace
{

std::filesystem::path g_root;

void seed(const char* corpus, const char* name, bytes_view data)
{
    const std::filesystem::path dir = g_root / corpus;
    std::filesystem::create_directories(dir);
    std::ofstream out(dir / name, std::ios::binary);
    out.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
    if (!out) {
        perror((dir / name).c_str());
        exit(1);
    }
}

void seed(const char* corpus, const char* name, std::string_view text)
{
    seed(corpus, name, bytes_view(reinterpret_cast<const uint8_t*>(text.data()), text.size()));
}

// The first byte of these corpora chooses flags.
bytes with_flags(uint8_t flags, bytes_view data)
{
    return cat({bytes_view(&flags, 1), data});
}

void make_dstream()
{
    const std::vector<packet> v = stream(one_program()).take(21);
    seed("dstream", "ts188", with_flags(0, cat(v)));
    seed("dstream", "ts192", with_flags(2, widen(v, 192)));
    seed("dstream", "ts204_behind_noise", with_flags(0, cat({noise(40), widen(v, 204)})));
    seed("dstream", "ts208", with_flags(0, widen(v, 208)));
    seed("dstream", "rtp_stream", with_flags(2, cat(rtp_run(v, 7))));
    seed("dstream", "rtp_datagram", with_flags(3, rtp_run(v, 7)[0]));
    seed("dstream", "rtp_padded", with_flags(2, rtp_raw(cat(std::span(v).first(6))).padding(20).build()));
    seed("dstream", "rtp_short", with_flags(2, rtp(std::vector<packet>{v[0]}).build()));
    seed("dstream", "noise", with_flags(0, noise(300)));
    const bytes unit = pes(0xe0).pts(90000).payload(
        cat({bytes{0, 0, 1, 0xb3, 1, 2, 3, 4, 0, 0, 1, 0, 0, 0x0f, 0xff}, fill(200, 0x55)}));
    const std::vector<packet> picture = {
        pkt().pid(101).pcr(90000).random_access().unit_start().payload(bytes_view(unit).first(150)),
        carry(unit, 101)[0]};
    seed("dstream", "iframe", with_flags(0, cat(picture)));
}

void make_rtp()
{
    const std::vector<packet> v = stream(one_program()).take(7);
    seed("rtp", "seven", with_flags(0, rtp(v).build()));
    seed("rtp", "marker_and_padding", with_flags(0, rtp(v).marker().padding(9).build()));
    seed("rtp", "extension", with_flags(0, rtp(v).extension(fill(8, 0)).build()));
    seed("rtp", "sources", with_flags(0, rtp(v).csrc({1, 2}).build()));
    seed("rtp", "video", with_flags(0, rtp(v).type(32).build()));
    seed("rtp", "one", with_flags(0, rtp(std::vector<packet>{v[0]}).build()));
    seed("rtp", "plain_ts", with_flags(0, cat(v)));
    seed("rtp", "no_rtp_hint", with_flags(1, rtp(v).build()));
    seed("rtp", "cut", with_flags(0, bytes_view(rtp(v).build()).first(14)));
}

void make_tsan()
{
    seed("tsan", "one_program", cat(stream(one_program()).take(30)));
    seed("tsan", "three_programs", cat(stream(many_programs(3, 3)).take(40)));
    seed("tsan", "lost_packets", cat(drop(drop(stream(one_program()).take(40), 101, 3, 2), 102, 2)));

    stream changing(one_program());
    std::vector<packet> v = changing.take_round();
    changing.plan.psi_every = 1;
    changing.plan.programs[0].streams.push_back({ES_AC3, 103, lang_desc("deu")});
    changing.plan.programs.push_back({2, 200, 201, {{ES_MPEG2_VIDEO, 201}, {ES_PRIVATE, 202}}});
    changing.pat_version = changing.pmt_version = 1;
    for (int i = 0; i < 2; ++i)
        for (const packet& p : changing.take_round())
            v.push_back(p);
    seed("tsan", "changing_tables", cat(v));

    // Descriptors of every shape that the printer knows, a few bytes each.
    const bytes descs[] = {desc(0x0a, bytes{'e', 'n', 'g', 0}), desc(0x59, bytes{'e', 'n', 'g', 0x10, 0, 1, 0, 1}),
                           desc(0x45, bytes{1, 1, 0xe7}), desc(0x05, bytes{'H', 'D', 'M', 'V'})};
    std::vector<packet> d = wrap(pat({{1, 100}}).build(), PID_PAT);
    unsigned cc = 0;
    for (const bytes& one : descs)
        d.push_back(wrap1(pmt(1, 101, {{ES_AVC, 101, one}, {ES_PRIVATE, 102, one}}).descs(one).build(), 100, cc++));
    d.push_back(pkt().pid(101).pcr(90000).unit_start().payload(pes(0xe0).pts(90000).dts(80000).payload(20).build()));
    d.push_back(pkt().pid(101).cc(1).no_payload().af_len(183));
    d.push_back(pkt().pid(101).cc(1).unit_start().payload(bytes{0, 0, 1, 0xe0}));
    seed("tsan", "descriptors", cat(d));

    // A descriptor of every tag, with fewer bytes than most of them ask for.
    std::vector<packet> short_ones = wrap(pat({{1, 100}}).build(), PID_PAT);
    for (size_t len : {0, 3}) {
        bytes loop;
        for (unsigned tag = 0; tag < 256; ++tag) {
            loop = cat({loop, desc(tag, fill(len, 1))});
            if (loop.size() < 140 && tag < 255) continue;
            short_ones.push_back(wrap1(pmt(1, 101, {{ES_AVC, 101}}).descs(loop).build(), 100, cc++));
            loop.clear();
        }
    }
    seed("tsan", "short_descriptors", cat(short_ones));

    // Tables that come again byte by byte, and tables that are cut by the packet's end: an entry behind its head, ahead
    // of its head, and within. One PMT has more text than there is room for.
    std::vector<packet> again;
    const bytes two_entries = pmt(1, 101, {{ES_AVC, 101, lang_desc("eng")}, {ES_AAC, 102, lang_desc("deu")}});
    bytes wordy;
    while (wordy.size() < 120)
        wordy = cat({wordy, desc(0x6e, bytes{0, 0})});
    const bytes long_text = pmt(1, 101, {{ES_AVC, 101}}).descs(wordy);
    for (int i = 0; i < 4; ++i) {
        again.push_back(wrap1(pat({{1, 100}, {2, 200}}).build(), PID_PAT, cc++));
        again.push_back(wrap1(two_entries, 100, cc++));
        if (i > 1) again.push_back(wrap1(long_text, 100, cc++));
    }
    for (const size_t n : {20, 25, 28, 31})
        again.push_back(pkt().pid(100).payload(bytes_view(two_entries).first(n)));
    const bytes three_programs = pat({{1, 100}, {2, 200}, {3, 300}});
    for (const size_t n : {12, 14, 18})
        again.push_back(pkt().pid(PID_PAT).payload(bytes_view(three_programs).first(n)));
    seed("tsan", "tables_again_and_cut", cat(again));

    std::vector<packet> split = wrap(pat({{1, 100}}).number(0, 1).build(), PID_PAT);
    split.push_back(wrap1(pat({{2, 200}}).number(1, 1).build(), PID_PAT, 1));
    split.push_back(wrap1(pat({}).version(1).build(), PID_PAT, 2));
    split.push_back(wrap1(pat({{1, 100}}).version(2).build(), PID_PAT, 3));
    std::vector<es> many(30, es{ES_AAC, 300, lang_desc("eng")});
    for (const packet& p : wrap(pmt(1, 101, many).build(), 100))
        split.push_back(p);
    seed("tsan", "long_tables", cat(split));
}

// An index of these clocks; with `rsize` each record has that size.
bytes index_of(std::vector<uint64_t> clocks, uint8_t units, unsigned rsize)
{
    bytes out = {'T', 'S', 'I', 'X', 1, units};
    const auto put = [&out](uint64_t value, size_t size) {
        for (size_t i = 0; i < size; ++i)
            out.push_back(static_cast<uint8_t>(value >> (8 * i)));
    };
    put(0, 2);
    put(clocks.size(), 8);
    put(rsize > 0 ? 10 : 8, 2);
    out.insert(out.end(), 16, 0xfe);
    for (const uint64_t c : clocks) {
        put(c, 8);
        if (rsize > 0) put(rsize, 2);
    }
    return out;
}

void make_index()
{
    std::vector<uint64_t> even;
    for (uint64_t i = 1; i <= 30; ++i)
        even.push_back(i * 900);
    seed("tsix", "even", with_flags(8, index_of(even, 7, 0)));
    seed("tsix", "one_packet_records", with_flags(2, index_of(even, 1, 0)));
    seed("tsix", "largest_records", with_flags(254, index_of(even, 255, 0)));
    seed("tsix", "sizes_in_records", with_flags(9, index_of(even, 7, 1316)));
    seed("tsix", "stepping_back", with_flags(40, index_of({900, 1800, 400, 1300}, 7, 0)));
    // A count of 2^33 in a file of thirty records; a file that ends inside a record.
    bytes lying = index_of(even, 7, 0);
    lying[12] = 2;
    seed("tsix", "count_too_large", with_flags(8, lying));
    lying = index_of(even, 7, 0);
    lying.resize(lying.size() - 3);
    seed("tsix", "cut", with_flags(8, lying));

    stream_plan plan = one_program();
    plan.psi_every = 2;
    seed("tsix_build", "clean", with_flags(6, cat(stream(plan).take(60))));
    seed("tsix_build", "small_records", with_flags(0, cat(stream(plan).take(40))));
    seed("tsix_build", "sizes_in_records", with_flags(0x83, cat(stream(plan).take(40))));
    plan.first_pcr = (uint64_t{1} << 33) - 2000;
    seed("tsix_build", "wrap", with_flags(2, cat(stream(plan).take(50))));
}

void make_recordings()
{
    stream_plan plan = one_program();
    plan.psi_every = 2;
    const std::vector<packet> v = stream(plan).take(40);
    const bytes plain = cat(v);
    seed("recording", "plain", plain);
    seed("recording", "torn", bytes_view(plain).subspan(50, plain.size() - 100));
    bytes damaged = plain;
    damaged[12 * sizeof(packet)] = 0x55;
    seed("recording", "damaged", damaged);
    seed("recording", "ts204", widen(v, 204));
    seed("recording", "rtp", cat(rtp_run(v, 7)));
    seed("recording", "two_clocks", cat(stream(many_programs(2, 2)).take(40)));
    plan.first_pcr = (uint64_t{1} << 33) - 60000;
    plan.ticks_per_round = 70000;
    seed("recording", "wide_wrap", cat(stream(plan).take(40)));
    plan.ticks_per_round = 0;
    seed("recording", "still", cat(stream(plan).take(30)));
    seed("recording", "jump", cat({bytes_view(plain), cat(stream(plan).take(20)), bytes_view(plain)}));
}

void make_texts()
{
    seed("uri", "multicast", "udp://239.1.1.1:5000");
    seed("uri", "source_specific", "rtp://10.0.0.1@239.1.1.1:5000/x?ifc=eth0&ttl=3");
    seed("uri", "ipv6", "tcp://[::1]:8080/a/b");
    seed("uri", "http", "http://user:pw@example.com/live/a.ts?q=1?r=2");
    seed("uri", "file", "file:///tmp/x.ts");
    seed("uri", "plain", "/tmp/x.ts");
    seed("uri", "open_bracket", "[fe80::1%eth0");
    seed("uri", "empty", " \tudp://");
    seed("uri", "relay_path", "http:///udp/239.1.1.1:5000/");
    seed("uri", "pair_cut_escape", "http:///src/a/dst/b%2");
    seed("uri", "playlist_item", "http://h/c/list.m3u8\n1.ts");
    seed("uri", "playlist_url_item", "http://h/c/list.m3u8\nHTTP://other/1.ts");

    seed("http", "ok", "HTTP/1.1 200 OK\r\nServer: x\r\nContent-Type: video/MP2T\r\n\r\nG1234567");
    seed("http", "bare_newlines", "HTTP/1.0 200 OK\n\nG123");
    seed("http", "redirect", "HTTP/1.1 302 Found\r\nLocation: http://x/\r\n\r\n");
    seed("http", "cut", "HTTP/1.1 200 OK\r\nServer");
    seed("http", "no_reason", "HTTP/1.1 200\r\n\r\n");
    seed("http", "long_tail", "HTTP/1.1 200 OK\r\n\r\n" + std::string(600, 'G'));
}

void make_configs()
{
    seed("config", "kvt",
         "kvt: { log: { file = \"/tmp/k{N}.log\"; level = \"info\"; time_format = \"gmt\"; max_size_mb = 1; };\n"
         "alert_log: { file = \"|logger\"; syslog_facility = \"local3\"; eod_rotate = true; };\n"
         "runtime: { pidfile = \"/tmp/k.pid\"; non_daemon = true; run_as_user = \"nobody\"; cpunum = 1; };\n"
         "stream_analyzer: { enabled = true; pcr_freq_ms = 100; cc: { track = true; }; };\n"
         "snapshot: { dir_path = \"/tmp\"; }; };\n");
    seed("config", "listeners",
         "user: ( { alias = \"front\"; ifc = \"lo\"; port = 7007; }, { domain_path = \"/tmp/e.sock\"; },\n"
         "        { protocol = \"UDP\"; default_af = \"inet6\"; port = \"0080\"; }, { default_af = \"all\"; } );\n"
         "admin: { ifc = \"127.0.0.1\"; default_af = \"inet\"; port = 65535; };\n"
         "max_to_accept = 128; user_request_timeout = 5000; admin_request_timeout = 1;\n");
    seed("config", "bad_listeners",
         "user: ( 1, { port = 99999999999L; } ); custom: [\"a\"]; max_to_accept = -1; custom_request_timeout = 0x0;");
    seed("config", "no_group", "kvt = 1; user = ( ( ( ) ) ); max_to_accept = 1.5;");
}

void make_requests()
{
    const std::string_view headers = " HTTP/1.1\r\nHost: example.com:80\r\nUser-Agent: A b/1 (c; d)\r\nConnection: "
                                     "keep-alive\r\nAccept-Encoding: gzip, deflate\r\nContent-Length: 42\r\n\r\n";
    const auto get = [&](const char* name, const std::string& target) {
        seed("request", name, "GET " + target + std::string(headers));
    };
    get("relay", "/udp/239.1.1.1:5000/");
    get("pair", "/src/udp/239.1.1.1:5000/dst/a%20b.ts?x=1");
    get("alias", "/$chan?utime=900&duration=now");
    get("fragment", "/hls-fra/ch/1.ts");
    get("playlist", "/h/hls-m3u/ch/playlist_dvr_range-900-now.m3u8");
    get("ping", "/ping");
    get("no_path", "/");
    get("cut_escape", "/$a%4");
    get("authority", "http://user@host/a@b?c@d");
    get("long_query", "/$a?" + std::string(255, 'q'));
    seed("request", "head_1_0", "HEAD /favicon.ico HTTP/1.0\nConnection: close\n\n");
    seed("request", "post", "POST / HTTP/1.1\r\n\r\n");
    seed("request", "no_protocol", "GET /a");
    seed("request", "long_headers",
         "GET /$a HTTP/1.1\r\nHost: " + std::string(64, 'h') + "\r\nUser-Agent: " + std::string(128, '@') +
             "\r\nAccept-Encoding: " + std::string(32, 'e') + "\r\nContent-Length: " + std::string(40, '9') +
             "\r\n\r\n");
    seed("request", "zero_in_path", std::string_view("GET /a\0b HTTP/1.1\r\nHost: h\r\n\r\n", 30));

    seed("query", "pairs", "utime=900&duration=60&vod=1");
    seed("query", "escapes", "a+b=%41%zz&%4a=%ff&c=");
    seed("query", "twice", "a=1&%61=2");
    seed("query", "limits", std::string(31, 'n') + "=" + std::string(32, 'v') + "&x=" + std::string(33, 'v'));
    std::string many;
    for (int i = 0; i < 130; ++i)
        many += "n" + std::to_string(i) + "=&";
    seed("query", "many", many);
    seed("query", "playlist", "http://h/hls-m3u/ch/list.m3u8?utime=900&duration=now");
    seed("query", "vod", "/ch/list.m3u?vod=");
    seed("query", "range", "/x/hls-m3u/ch/index-900-60.m3u8");
    seed("query", "nested", "/src/src/a/dst/b/dst/c/d");
    seed("query", "fragment", "/hls-fra/ch/1.ts?x");

    seed("urlcode", "escapes", with_flags(1, bytes{'%', '4', '1', '+', '%', 'z', 'z', '%', '0', '0', '%', 'f', 'F'}));
    seed("urlcode", "cut", with_flags(0, bytes{'a', '%', '4'}));
    seed("urlcode", "reserved", with_flags(0, bytes{';', '/', '?', ':', '@', '&', '=', '+', '$', ',', '*', ' '}));
    seed("urlcode", "page", with_flags(0, bytes{'<', 'a', '>', '&', '\'', '"', 'b'}));
    seed("urlcode", "high", with_flags(1, fill(20, 0xe4)));
}

void make_front()
{
    const auto get = [](const char* name, const std::string& target, const std::string& more) {
        seed("front", name, "GET " + target + " HTTP/1.1\r\nHost: h\r\n" + more + "\r\n");
    };
    get("playlist", "/x/hls-m3u/ch/index-900-now.m3u8?utime=900&duration=now", "Connection: keep-alive, TE\r\n");
    get("fragment", "http://h:80/hls-fra//ch/%31.ts?a?b", "Connection: close\r\nContent-Length: 0\r\n");
    get("upwards", "/%2e%2e/..%2f%252e", "");
    get("escapes", "/a+b%20%c3%a4%5c%00", "");
    get("body", "/ping/", "Content-Length: 5\r\nTransfer-Encoding: chunked\r\n");
    get("live", "/udp/239.1.1.1:5000/", "");
    seed("front", "head_1_0", "HEAD /favicon.ico HTTP/1.0\n\n");
    seed("front", "mixed_ends", "GET / HTTP/1.1\r\nHost: h\n\r\nGET / HTTP/1.1\r\n\r\n");
    seed("front", "target", "/hls-m3u/%2e%2e/src/a/dst/b");
}

bytes text_bytes(std::string_view text)
{
    return bytes(text.begin(), text.end());
}

// A ring log of one page: start and length of its text, then the ring.
bytes ring_of(uint16_t start, uint16_t len, bytes_view ring)
{
    bytes out;
    for (const uint16_t v : {start, len}) {
        out.push_back(static_cast<uint8_t>(v));
        out.push_back(static_cast<uint8_t>(v >> 8));
    }
    return cat({out, ring});
}

void make_lard()
{
    constexpr uint16_t size = 4096;
    bytes full;
    while (full.size() < size)
        full = cat({full, text_bytes("a line of text\n")});
    full.resize(size);
    full[100] = 0;
    seed("lard", "two_lines", ring_of(0, 8, text_bytes("one\ntwo\n")));
    seed("lard", "empty", ring_of(0, 0, {}));
    seed("lard", "full", ring_of(100, size, full));
    seed("lard", "full_at_0", ring_of(0, size, full));
    seed("lard", "full_at_1", ring_of(1, size, full));
    seed("lard", "start_without_full", ring_of(100, 50, full));
    seed("lard", "outside", ring_of(size, size + 1, full));
    seed("lard", "wild", ring_of(UINT16_MAX, UINT16_MAX, {}));
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: %s CORPUS_FOLDER\n", argv[0]);
        return 2;
    }
    g_root = argv[1];
    make_dstream();
    make_lard();
    make_rtp();
    make_tsan();
    make_index();
    make_recordings();
    make_texts();
    make_configs();
    make_requests();
    make_front();
    return 0;
}
