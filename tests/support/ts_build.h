// A vocabulary for building streams in tests: TS packets, PSI sections, PES packets, RTP packets, whole streams.
//
//     using namespace tsb;
//     packet p = pkt().pid(101).cc(14).payload();                       // 188 bytes, filled payload
//     packet q = pkt().pid(101).cc(15).pcr(90000).random_access();      // adaptation field as needed
//     bytes s = pat({{1, 100}, {2, 200}}).version(3);                   // a section with its CRC
//     bytes m = pmt(1, 101, {{ES_AVC, 101}, {ES_AAC, 102, lang_desc("eng")}});
//     std::vector<packet> v = wrap(s, PID_PAT, 0);                      // pointer field, stuffing
//     bytes e = pes(0xe0).pts(93600).dts(90000).payload(1000);
//     bytes r = rtp({p, q}).seq(7).marker();
//     stream st(one_program());  std::vector<packet> all = st.take(1000);
//
// A builder is a plain record whose members return the builder itself; it turns into the thing built where that is
// asked for (or call build()). Values that can't be right are taken as they are wherever the bytes allow it: tests
// build hostile packets on purpose. PCR, PTS and DTS are in ticks of 90 kHz.
#ifndef TESTS_SUPPORT_TS_BUILD_H
#define TESTS_SUPPORT_TS_BUILD_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <map>
#include <optional>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

namespace tsb
{

using bytes = std::vector<uint8_t>;
using bytes_view = std::span<const uint8_t>;
inline constexpr size_t pkt_bytes = 188;
using packet = std::array<uint8_t, pkt_bytes>;

inline constexpr uint16_t PID_PAT = 0;
inline constexpr uint16_t PID_NULL = 8191;

// Stream types of a PMT.
inline constexpr uint8_t ES_MPEG1_VIDEO = 0x01;
inline constexpr uint8_t ES_MPEG2_VIDEO = 0x02;
inline constexpr uint8_t ES_MPEG1_AUDIO = 0x03;
inline constexpr uint8_t ES_MPEG2_AUDIO = 0x04;
inline constexpr uint8_t ES_PRIVATE_SECTION = 0x05;
inline constexpr uint8_t ES_PRIVATE = 0x06;
inline constexpr uint8_t ES_AAC = 0x0f;
inline constexpr uint8_t ES_AVC = 0x1b;
inline constexpr uint8_t ES_HEVC = 0x24;
inline constexpr uint8_t ES_AC3 = 0x81;

// ---- bytes ----------------------------------------------------------------------------------------------------

// The parts behind each other.
bytes cat(std::initializer_list<bytes_view> parts);
bytes cat(std::span<const packet> packets);
bytes cat(const std::vector<bytes>& parts);
// `count` bytes of one value.
bytes fill(size_t count, uint8_t value);
// `count` bytes that look random and never hold a TS sync byte or anything like the first byte of RTP. Same seed,
// same bytes.
bytes noise(size_t count, uint32_t seed = 1);
// The CRC that ends a section (polynomial 04c11db7, start all ones).
uint32_t crc32_mpeg(bytes_view data);

// A copy of bytes with readable ones behind, for functions that look ahead of what they are given.
struct with_margin {
    explicit with_margin(bytes_view data, size_t margin = 16, uint8_t margin_value = 0);
    const uint8_t* data() const { return mem.data(); }
    uint8_t* data() { return mem.data(); }
    size_t size() const { return len; }
    bytes mem;
    size_t len;
};

// ---- TS packets -----------------------------------------------------------------------------------------------

// By default: PID 0, continuity counter 0, payload of 0xa5 bytes, no adaptation field.
struct pkt_builder {
    pkt_builder& pid(unsigned value);
    pkt_builder& cc(unsigned value); // the low four bits
    pkt_builder& unit_start(bool on = true);
    pkt_builder& transport_error(bool on = true);
    pkt_builder& priority(bool on = true);
    pkt_builder& scrambling(unsigned control);

    // A payload of filler bytes.
    pkt_builder& payload();
    // These bytes; room that they leave is stuffed in the adaptation field (as PES carriers do). No more than fit.
    pkt_builder& payload(bytes_view data);
    // These bytes as they are; room that they leave is 0xff behind them (as PSI carriers do).
    pkt_builder& section_payload(bytes_view data);
    pkt_builder& no_payload();
    pkt_builder& filler(uint8_t value);

    pkt_builder& pcr(uint64_t base, unsigned extension = 0);
    pkt_builder& discontinuity(bool on = true);
    pkt_builder& random_access(bool on = true);
    pkt_builder& af_flags(unsigned bits); // further flag bits of the adaptation field
    // An adaptation field whose length byte has this value, stuffed; 0: the length byte alone.
    pkt_builder& af_len(unsigned value);

    // The byte at an offset of the finished packet, whatever the rest says.
    pkt_builder& set(size_t offset, unsigned value);

    packet build() const;
    // The packet with bytes behind it, for the sizes 192, 204 and 208.
    bytes build(size_t packet_size, uint8_t behind = 0) const;
    operator packet() const { return build(); }

    uint16_t pid_ = 0;
    uint8_t cc_ = 0;
    uint8_t scrambling_ = 0;
    bool unit_start_ = false, error_ = false, priority_ = false;
    bool has_payload_ = true, stuff_behind_ = false;
    uint8_t filler_ = 0xa5;
    std::optional<bytes> payload_;
    std::optional<uint64_t> pcr_;
    unsigned pcr_ext_ = 0;
    uint8_t af_flags_ = 0;
    std::optional<unsigned> af_len_;
    std::vector<std::pair<size_t, uint8_t>> sets_;
};

inline pkt_builder pkt()
{
    return {};
}

// A null packet.
packet null_pkt(unsigned cc = 0);

// Each packet made larger by bytes of one value behind it.
bytes widen(std::span<const packet> packets, size_t packet_size, uint8_t behind = 0);

// Fields of a finished packet.
uint16_t pid_of(const packet& p);
unsigned cc_of(const packet& p);
packet with_cc(packet p, unsigned cc);

// ---- PSI sections ---------------------------------------------------------------------------------------------

struct pat_entry {
    unsigned program;
    unsigned pid;
};

// Head fields that all tables have; members of the builders below set them.
struct section_head {
    uint8_t table_id = 0;
    uint16_t id_ext = 1; // transport stream ID or program number
    uint8_t version = 0;
    bool current = true;
    uint8_t section = 0;
    uint8_t last_section = 0;
    std::optional<unsigned> length; // instead of the right section length
    bool bad_crc = false;
};

// Any table with the long head: the body gets head and CRC.
bytes section(const section_head& head, bytes_view body);

struct pat_builder {
    pat_builder& tsid(unsigned value);
    pat_builder& version(unsigned value);
    pat_builder& current(bool on);
    pat_builder& number(unsigned section, unsigned last_section);
    pat_builder& table_id(unsigned value);
    pat_builder& length(unsigned section_length); // a wrong one, the CRC stands where it would for the right one
    pat_builder& bad_crc();
    bytes build() const;
    operator bytes() const { return build(); }

    section_head head;
    std::vector<pat_entry> entries;
};

pat_builder pat(std::vector<pat_entry> entries);

struct es {
    unsigned type;
    unsigned pid;
    bytes descs = {};
};

struct pmt_builder {
    pmt_builder& version(unsigned value);
    pmt_builder& current(bool on);
    pmt_builder& number(unsigned section, unsigned last_section);
    pmt_builder& table_id(unsigned value);
    pmt_builder& length(unsigned section_length);
    pmt_builder& bad_crc();
    pmt_builder& descs(bytes_view program_descs);
    bytes build() const;
    operator bytes() const { return build(); }

    section_head head;
    uint16_t pcr_pid = PID_NULL;
    bytes descs_;
    std::vector<es> streams;
};

pmt_builder pmt(unsigned program, unsigned pcr_pid, std::vector<es> streams);

// Descriptors.
bytes desc(unsigned tag, bytes_view data);
bytes lang_desc(std::string_view iso639, unsigned audio_type = 0);

// Sections in packets of a PID: a pointer field of 0 in the first, 0xff behind the last. Counters go on from `cc`.
std::vector<packet> wrap(bytes_view sections, unsigned pid, unsigned cc = 0);
// The same with bytes of an earlier section in front: the pointer field is their number.
std::vector<packet> wrap_behind(bytes_view earlier, bytes_view sections, unsigned pid, unsigned cc = 0);
// For a section that is known to fit one packet.
packet wrap1(bytes_view section, unsigned pid, unsigned cc = 0);

// ---- PES ------------------------------------------------------------------------------------------------------

struct pes_builder {
    pes_builder& pts(uint64_t value);
    pes_builder& dts(uint64_t value);
    pes_builder& payload(bytes_view data);
    pes_builder& payload(size_t count); // filler bytes
    pes_builder& length(unsigned pes_packet_length);
    bytes build() const;
    operator bytes() const { return build(); }

    uint8_t stream_id = 0xe0;
    std::optional<uint64_t> pts_, dts_;
    bytes payload_;
    std::optional<unsigned> length_; // default: 0 for video, else the right one
};

pes_builder pes(unsigned stream_id);

// A PES packet in TS packets: unit start in the first, adaptation field stuffing in the last.
std::vector<packet> carry(bytes_view pes_packet, unsigned pid, unsigned cc = 0);

// ---- RTP ------------------------------------------------------------------------------------------------------

struct rtp_builder {
    rtp_builder& seq(unsigned value);
    rtp_builder& timestamp(uint32_t value);
    rtp_builder& ssrc(uint32_t value);
    rtp_builder& marker(bool on = true);
    rtp_builder& version(unsigned value);
    rtp_builder& type(unsigned payload_type);
    rtp_builder& csrc(std::vector<uint32_t> sources);
    rtp_builder& extension(bytes_view data); // a multiple of 4 bytes
    rtp_builder& padding(unsigned count);    // bytes of padding, the last of them is the count; 0: flag alone
    bytes build() const;
    operator bytes() const { return build(); }

    uint16_t seq_ = 0;
    uint32_t timestamp_ = 0, ssrc_ = 1;
    bool marker_ = false;
    uint8_t version_ = 2, type_ = 33;
    std::vector<uint32_t> csrc_;
    std::optional<bytes> extension_;
    std::optional<unsigned> padding_;
    bytes payload_;
};

rtp_builder rtp(const std::vector<packet>& packets);
rtp_builder rtp_raw(bytes_view payload);

// A run of packets in RTP, `per_packet` at a time, with running sequence numbers.
std::vector<bytes> rtp_run(std::span<const packet> packets, size_t per_packet = 7, unsigned seq = 0);

// ---- streams --------------------------------------------------------------------------------------------------

struct program_plan {
    unsigned number = 1;
    unsigned pmt_pid = 100;
    unsigned pcr_pid = 101; // should be one of the streams' PIDs
    std::vector<es> streams;
};

// A stream goes in rounds. A round has the PAT and each PMT (in every `psi_every`th round, the first included),
// then of each stream one PES packet of `video_pkts` or `other_pkts` TS packets, its unit start with a PTS, and
// then `null_pkts` null packets. The first packet of a round on a PCR PID has the PCR. Each round is
// `ticks_per_round` later than the one before; the PTS is `pts_lead` ahead of the PCR.
struct stream_plan {
    std::vector<program_plan> programs;
    unsigned tsid = 1;
    unsigned video_pkts = 6;
    unsigned other_pkts = 2;
    unsigned null_pkts = 1;
    unsigned psi_every = 5;
    uint64_t first_pcr = 90000;
    uint64_t ticks_per_round = 1800; // 20 ms
    uint64_t pts_lead = 9000;
};

// Program 1: PMT on 100, AVC with PCR on 101, AAC ("eng") on 102.
stream_plan one_program();
// `count` programs from number 1; program n has its PMT on 100 * n and streams from 100 * n + 1, the first of them
// AVC with the PCR and the others AAC. At most 80 programs.
stream_plan many_programs(unsigned count, unsigned streams_each);

class stream
{
public:
    explicit stream(stream_plan plan);
    // The next packet.
    packet next();
    // The next `count` packets.
    std::vector<packet> take(size_t count);
    // The rest of the round, or a whole one at its start.
    std::vector<packet> take_round();
    // A hook sees each packet before it is given out, with its number from 0, and may change it; a packet for which
    // it returns false is left out (as if lost on the way: counters go on).
    using hook = std::function<bool(packet&, size_t)>;
    void on_packet(hook h) { hook_ = std::move(h); }
    // The plan of the rounds to come; a change in programs begins with the next round.
    stream_plan plan;
    // Table versions of the rounds to come.
    unsigned pat_version = 0;
    unsigned pmt_version = 0;
    // The PCR of the round to come.
    uint64_t clock;

private:
    void make_round();
    void add(packet p);
    std::vector<packet> round_;
    size_t at_ = 0;
    size_t rounds_ = 0;
    size_t given_ = 0;
    std::map<unsigned, unsigned> cc_;
    hook hook_;
};

// ---- damage ---------------------------------------------------------------------------------------------------

// Without the n-th packet (from 0) of a PID; without `count` from there on.
std::vector<packet> drop(std::vector<packet> packets, unsigned pid, size_t nth, size_t count = 1);
// With the n-th packet of a PID given twice.
std::vector<packet> repeat(std::vector<packet> packets, unsigned pid, size_t nth);

} // namespace tsb

#endif // TESTS_SUPPORT_TS_BUILD_H
