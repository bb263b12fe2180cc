#include "support/ts_build.h"

#include <algorithm>

namespace tsb
{
namespace
{

constexpr uint8_t sync_byte = 0x47;
constexpr size_t head_bytes = 4;
constexpr size_t room_bytes = pkt_bytes - head_bytes;
constexpr size_t pcr_field_bytes = 6;
constexpr size_t crc_bytes = 4;

uint8_t low8(uint64_t v)
{
    return static_cast<uint8_t>(v & 0xff);
}

void put16(bytes& out, unsigned v)
{
    out.push_back(low8(v >> 8));
    out.push_back(low8(v));
}

void put32(bytes& out, uint32_t v)
{
    put16(out, v >> 16);
    put16(out, v & 0xffff);
}

void append(bytes& out, bytes_view more)
{
    out.insert(out.end(), more.begin(), more.end());
}

// A timestamp in its five bytes: 4 bits of prefix, and a marker bit behind 3, 15 and 15 bits.
void put_timestamp(bytes& out, unsigned prefix, uint64_t v)
{
    out.push_back(low8(prefix << 4 | (v >> 30 & 7) << 1 | 1));
    put16(out, static_cast<unsigned>((v >> 15 & 0x7fff) << 1 | 1));
    put16(out, static_cast<unsigned>((v & 0x7fff) << 1 | 1));
}

bool is_video(unsigned type)
{
    return type == ES_MPEG1_VIDEO || type == ES_MPEG2_VIDEO || type == ES_AVC || type == ES_HEVC;
}

} // namespace

// ---- bytes ----------------------------------------------------------------------------------------------------

bytes cat(std::initializer_list<bytes_view> parts)
{
    bytes out;
    for (bytes_view p : parts)
        append(out, p);
    return out;
}

bytes cat(std::span<const packet> packets)
{
    bytes out;
    out.reserve(packets.size() * pkt_bytes);
    for (const packet& p : packets)
        append(out, p);
    return out;
}

bytes cat(const std::vector<bytes>& parts)
{
    bytes out;
    for (const bytes& p : parts)
        append(out, p);
    return out;
}

bytes fill(size_t count, uint8_t value)
{
    return bytes(count, value);
}

bytes noise(size_t count, uint32_t seed)
{
    bytes out;
    out.reserve(count);
    uint32_t x = seed * 2654435761U + 1;
    while (out.size() < count) {
        x = x * 1664525U + 1013904223U;
        const uint8_t b = low8(x >> 24);
        if (b != sync_byte && (b & 0xc0) != 0x80) out.push_back(b);
    }
    return out;
}

uint32_t crc32_mpeg(bytes_view data)
{
    uint32_t crc = 0xffffffffU;
    for (uint8_t b : data) {
        crc ^= uint32_t{b} << 24;
        for (int i = 0; i < 8; ++i)
            crc = crc << 1 ^ ((crc & 0x80000000U) ? 0x04c11db7U : 0U);
    }
    return crc;
}

with_margin::with_margin(bytes_view data, size_t margin, uint8_t margin_value)
    : mem(data.begin(), data.end()), len(data.size())
{
    mem.insert(mem.end(), margin, margin_value);
}

// ---- TS packets -----------------------------------------------------------------------------------------------

pkt_builder& pkt_builder::pid(unsigned value)
{
    pid_ = static_cast<uint16_t>(value & 0x1fff);
    return *this;
}

pkt_builder& pkt_builder::cc(unsigned value)
{
    cc_ = static_cast<uint8_t>(value & 0x0f);
    return *this;
}

pkt_builder& pkt_builder::unit_start(bool on)
{
    unit_start_ = on;
    return *this;
}

pkt_builder& pkt_builder::transport_error(bool on)
{
    error_ = on;
    return *this;
}

pkt_builder& pkt_builder::priority(bool on)
{
    priority_ = on;
    return *this;
}

pkt_builder& pkt_builder::scrambling(unsigned control)
{
    scrambling_ = static_cast<uint8_t>(control & 3);
    return *this;
}

pkt_builder& pkt_builder::payload()
{
    has_payload_ = true;
    payload_.reset();
    return *this;
}

pkt_builder& pkt_builder::payload(bytes_view data)
{
    has_payload_ = true;
    stuff_behind_ = false;
    payload_ = bytes(data.begin(), data.end());
    return *this;
}

pkt_builder& pkt_builder::section_payload(bytes_view data)
{
    payload(data);
    stuff_behind_ = true;
    return *this;
}

pkt_builder& pkt_builder::no_payload()
{
    has_payload_ = false;
    payload_.reset();
    return *this;
}

pkt_builder& pkt_builder::filler(uint8_t value)
{
    filler_ = value;
    return *this;
}

pkt_builder& pkt_builder::pcr(uint64_t base, unsigned extension)
{
    pcr_ = base & ((uint64_t{1} << 33) - 1);
    pcr_ext_ = extension & 0x1ff;
    return *this;
}

pkt_builder& pkt_builder::discontinuity(bool on)
{
    af_flags_ = static_cast<uint8_t>(on ? af_flags_ | 0x80 : af_flags_ & ~0x80);
    af_len_ = af_len_.value_or(1);
    return *this;
}

pkt_builder& pkt_builder::random_access(bool on)
{
    af_flags_ = static_cast<uint8_t>(on ? af_flags_ | 0x40 : af_flags_ & ~0x40);
    af_len_ = af_len_.value_or(1);
    return *this;
}

pkt_builder& pkt_builder::af_flags(unsigned bits)
{
    af_flags_ = static_cast<uint8_t>(af_flags_ | bits);
    af_len_ = af_len_.value_or(1);
    return *this;
}

pkt_builder& pkt_builder::af_len(unsigned value)
{
    af_len_ = value & 0xff;
    return *this;
}

pkt_builder& pkt_builder::set(size_t offset, unsigned value)
{
    sets_.emplace_back(offset, low8(value));
    return *this;
}

packet pkt_builder::build() const
{
    // What the adaptation field takes behind its length byte, if there is one: what was asked for, what the PCR
    // needs, and what a short payload leaves.
    const size_t wanted = payload_ ? std::min(payload_->size(), room_bytes) : 0;
    const bool stuff = !has_payload_ || (payload_ && !stuff_behind_ && wanted < room_bytes);
    const bool has_af = af_len_ || pcr_ || stuff;
    size_t af = af_len_.value_or(0);
    if (pcr_) af = std::max(af, 1 + pcr_field_bytes);
    if (stuff) af = std::max(af, room_bytes - 1 - wanted);

    packet p;
    p.fill(filler_);
    p[0] = sync_byte;
    p[1] = static_cast<uint8_t>(error_ << 7 | unit_start_ << 6 | priority_ << 5 | pid_ >> 8);
    p[2] = low8(pid_);
    p[3] = static_cast<uint8_t>(scrambling_ << 6 | has_af << 5 | has_payload_ << 4 | cc_);
    size_t at = head_bytes;
    if (has_af) {
        p[at++] = low8(af);
        const size_t af_end = std::min(at + af, pkt_bytes); // an impossible length stays in the length byte
        std::fill(p.begin() + static_cast<ptrdiff_t>(at), p.begin() + static_cast<ptrdiff_t>(af_end), 0xff);
        if (af > 0 && at < pkt_bytes) p[at] = static_cast<uint8_t>(af_flags_ | (pcr_ ? 0x10 : 0));
        if (pcr_) {
            p[at + 1] = low8(*pcr_ >> 25);
            p[at + 2] = low8(*pcr_ >> 17);
            p[at + 3] = low8(*pcr_ >> 9);
            p[at + 4] = low8(*pcr_ >> 1);
            p[at + 5] = static_cast<uint8_t>((*pcr_ & 1) << 7 | 0x7e | pcr_ext_ >> 8);
            p[at + 6] = low8(pcr_ext_);
        }
        at = af_end;
    }
    if (payload_) {
        const size_t n = std::min(payload_->size(), pkt_bytes - at);
        std::copy_n(payload_->begin(), n, p.begin() + static_cast<ptrdiff_t>(at));
        std::fill(p.begin() + static_cast<ptrdiff_t>(at + n), p.end(), 0xff);
    }
    for (auto [offset, value] : sets_)
        p.at(offset) = value;
    return p;
}

bytes pkt_builder::build(size_t packet_size, uint8_t behind) const
{
    const packet p = build();
    bytes out(p.begin(), p.end());
    out.resize(packet_size, behind);
    return out;
}

packet null_pkt(unsigned cc)
{
    return pkt().pid(PID_NULL).cc(cc).filler(0xff).payload();
}

bytes widen(std::span<const packet> packets, size_t packet_size, uint8_t behind)
{
    bytes out;
    for (const packet& p : packets) {
        append(out, p);
        out.insert(out.end(), packet_size - pkt_bytes, behind);
    }
    return out;
}

uint16_t pid_of(const packet& p)
{
    return static_cast<uint16_t>((p[1] & 0x1f) << 8 | p[2]);
}

unsigned cc_of(const packet& p)
{
    return p[3] & 0x0fU;
}

packet with_cc(packet p, unsigned cc)
{
    p[3] = static_cast<uint8_t>((p[3] & 0xf0) | (cc & 0x0f));
    return p;
}

// ---- PSI sections ---------------------------------------------------------------------------------------------

bytes section(const section_head& head, bytes_view body)
{
    constexpr size_t behind_length = 5; // head bytes that the section length counts
    bytes out;
    out.push_back(head.table_id);
    const size_t len = behind_length + body.size() + crc_bytes;
    put16(out, 0xb000U | (head.length.value_or(static_cast<unsigned>(len)) & 0xfff));
    put16(out, head.id_ext);
    out.push_back(static_cast<uint8_t>(0xc0 | (head.version & 0x1f) << 1 | head.current));
    out.push_back(head.section);
    out.push_back(head.last_section);
    append(out, body);
    put32(out, crc32_mpeg(out) ^ (head.bad_crc ? 1U : 0U));
    return out;
}

pat_builder& pat_builder::tsid(unsigned value)
{
    head.id_ext = static_cast<uint16_t>(value);
    return *this;
}

pat_builder& pat_builder::version(unsigned value)
{
    head.version = low8(value);
    return *this;
}

pat_builder& pat_builder::current(bool on)
{
    head.current = on;
    return *this;
}

pat_builder& pat_builder::number(unsigned section, unsigned last_section)
{
    head.section = low8(section);
    head.last_section = low8(last_section);
    return *this;
}

pat_builder& pat_builder::table_id(unsigned value)
{
    head.table_id = low8(value);
    return *this;
}

pat_builder& pat_builder::length(unsigned section_length)
{
    head.length = section_length;
    return *this;
}

pat_builder& pat_builder::bad_crc()
{
    head.bad_crc = true;
    return *this;
}

bytes pat_builder::build() const
{
    bytes body;
    for (const pat_entry& e : entries) {
        put16(body, e.program & 0xffff);
        put16(body, 0xe000U | (e.pid & 0x1fff));
    }
    return section(head, body);
}

pat_builder pat(std::vector<pat_entry> entries)
{
    pat_builder b;
    b.entries = std::move(entries);
    return b;
}

pmt_builder& pmt_builder::version(unsigned value)
{
    head.version = low8(value);
    return *this;
}

pmt_builder& pmt_builder::current(bool on)
{
    head.current = on;
    return *this;
}

pmt_builder& pmt_builder::number(unsigned section, unsigned last_section)
{
    head.section = low8(section);
    head.last_section = low8(last_section);
    return *this;
}

pmt_builder& pmt_builder::table_id(unsigned value)
{
    head.table_id = low8(value);
    return *this;
}

pmt_builder& pmt_builder::length(unsigned section_length)
{
    head.length = section_length;
    return *this;
}

pmt_builder& pmt_builder::bad_crc()
{
    head.bad_crc = true;
    return *this;
}

pmt_builder& pmt_builder::descs(bytes_view program_descs)
{
    descs_.assign(program_descs.begin(), program_descs.end());
    return *this;
}

bytes pmt_builder::build() const
{
    bytes body;
    put16(body, 0xe000U | (pcr_pid & 0x1fffU));
    put16(body, 0xf000U | static_cast<unsigned>(descs_.size()));
    append(body, descs_);
    for (const es& s : streams) {
        body.push_back(low8(s.type));
        put16(body, 0xe000U | (s.pid & 0x1fff));
        put16(body, 0xf000U | static_cast<unsigned>(s.descs.size()));
        append(body, s.descs);
    }
    return section(head, body);
}

pmt_builder pmt(unsigned program, unsigned pcr_pid, std::vector<es> streams)
{
    pmt_builder b;
    b.head.table_id = 2;
    b.head.id_ext = static_cast<uint16_t>(program);
    b.pcr_pid = static_cast<uint16_t>(pcr_pid);
    b.streams = std::move(streams);
    return b;
}

bytes desc(unsigned tag, bytes_view data)
{
    bytes out{low8(tag), low8(data.size())};
    append(out, data);
    return out;
}

bytes lang_desc(std::string_view iso639, unsigned audio_type)
{
    bytes data(iso639.begin(), iso639.end());
    data.push_back(low8(audio_type));
    return desc(0x0a, data);
}

std::vector<packet> wrap(bytes_view sections, unsigned pid, unsigned cc)
{
    return wrap_behind({}, sections, pid, cc);
}

std::vector<packet> wrap_behind(bytes_view earlier, bytes_view sections, unsigned pid, unsigned cc)
{
    const uint8_t pointer = low8(earlier.size());
    const bytes all = cat({bytes_view(&pointer, 1), earlier, sections});
    std::vector<packet> out;
    for (size_t at = 0; at < all.size(); at += room_bytes) {
        const bytes_view part = bytes_view(all).subspan(at, std::min(room_bytes, all.size() - at));
        out.push_back(pkt().pid(pid).cc(cc++).unit_start(at == 0).section_payload(part));
    }
    return out;
}

packet wrap1(bytes_view section, unsigned pid, unsigned cc)
{
    return wrap(section, pid, cc).at(0);
}

// ---- PES ------------------------------------------------------------------------------------------------------

pes_builder& pes_builder::pts(uint64_t value)
{
    pts_ = value;
    return *this;
}

pes_builder& pes_builder::dts(uint64_t value)
{
    dts_ = value;
    return *this;
}

pes_builder& pes_builder::payload(bytes_view data)
{
    payload_.assign(data.begin(), data.end());
    return *this;
}

pes_builder& pes_builder::payload(size_t count)
{
    payload_.assign(count, 0x55);
    return *this;
}

pes_builder& pes_builder::length(unsigned pes_packet_length)
{
    length_ = pes_packet_length;
    return *this;
}

bytes pes_builder::build() const
{
    bytes stamps;
    if (pts_) put_timestamp(stamps, dts_ ? 3 : 2, *pts_);
    if (dts_) put_timestamp(stamps, 1, *dts_);
    const size_t right = 3 + stamps.size() + payload_.size();
    const bool unbounded = (stream_id & 0xf0) == 0xe0 || right > 0xffff;

    bytes out{0, 0, 1, stream_id};
    put16(out, length_.value_or(unbounded ? 0 : static_cast<unsigned>(right)));
    out.push_back(0x80);
    out.push_back(static_cast<uint8_t>((pts_ ? 0x80 : 0) | (dts_ ? 0x40 : 0)));
    out.push_back(low8(stamps.size()));
    append(out, stamps);
    append(out, payload_);
    return out;
}

pes_builder pes(unsigned stream_id)
{
    pes_builder b;
    b.stream_id = low8(stream_id);
    return b;
}

std::vector<packet> carry(bytes_view pes_packet, unsigned pid, unsigned cc)
{
    std::vector<packet> out;
    for (size_t at = 0; at < pes_packet.size(); at += room_bytes) {
        const bytes_view part = pes_packet.subspan(at, std::min(room_bytes, pes_packet.size() - at));
        out.push_back(pkt().pid(pid).cc(cc++).unit_start(at == 0).payload(part));
    }
    return out;
}

// ---- RTP ------------------------------------------------------------------------------------------------------

rtp_builder& rtp_builder::seq(unsigned value)
{
    seq_ = static_cast<uint16_t>(value);
    return *this;
}

rtp_builder& rtp_builder::timestamp(uint32_t value)
{
    timestamp_ = value;
    return *this;
}

rtp_builder& rtp_builder::ssrc(uint32_t value)
{
    ssrc_ = value;
    return *this;
}

rtp_builder& rtp_builder::marker(bool on)
{
    marker_ = on;
    return *this;
}

rtp_builder& rtp_builder::version(unsigned value)
{
    version_ = static_cast<uint8_t>(value & 3);
    return *this;
}

rtp_builder& rtp_builder::type(unsigned payload_type)
{
    type_ = static_cast<uint8_t>(payload_type & 0x7f);
    return *this;
}

rtp_builder& rtp_builder::csrc(std::vector<uint32_t> sources)
{
    csrc_ = std::move(sources);
    return *this;
}

rtp_builder& rtp_builder::extension(bytes_view data)
{
    extension_ = bytes(data.begin(), data.end());
    return *this;
}

rtp_builder& rtp_builder::padding(unsigned count)
{
    padding_ = count;
    return *this;
}

bytes rtp_builder::build() const
{
    bytes out;
    out.push_back(
        static_cast<uint8_t>(version_ << 6 | (padding_ ? 0x20 : 0) | (extension_ ? 0x10 : 0) | (csrc_.size() & 0x0f)));
    out.push_back(static_cast<uint8_t>(marker_ << 7 | type_));
    put16(out, seq_);
    put32(out, timestamp_);
    put32(out, ssrc_);
    for (uint32_t s : csrc_)
        put32(out, s);
    if (extension_) {
        put16(out, 0xbede);
        put16(out, static_cast<unsigned>(extension_->size() / 4));
        append(out, *extension_);
    }
    append(out, payload_);
    if (padding_.value_or(0) > 0) {
        out.insert(out.end(), *padding_ - 1, 0);
        out.push_back(low8(*padding_));
    }
    return out;
}

rtp_builder rtp(const std::vector<packet>& packets)
{
    return rtp_raw(cat(packets));
}

rtp_builder rtp_raw(bytes_view payload)
{
    rtp_builder b;
    b.payload_.assign(payload.begin(), payload.end());
    return b;
}

std::vector<bytes> rtp_run(std::span<const packet> packets, size_t per_packet, unsigned seq)
{
    std::vector<bytes> out;
    for (size_t at = 0; at < packets.size(); at += per_packet) {
        const std::span<const packet> part = packets.subspan(at, std::min(per_packet, packets.size() - at));
        out.push_back(rtp_raw(cat(part)).seq(seq++));
    }
    return out;
}

// ---- streams --------------------------------------------------------------------------------------------------

stream_plan one_program()
{
    stream_plan plan;
    plan.programs.push_back({1, 100, 101, {{ES_AVC, 101}, {ES_AAC, 102, lang_desc("eng")}}});
    return plan;
}

stream_plan many_programs(unsigned count, unsigned streams_each)
{
    stream_plan plan;
    for (unsigned n = 1; n <= count; ++n) {
        program_plan p{n, 100 * n, 100 * n + 1, {}};
        for (unsigned s = 1; s <= streams_each; ++s)
            p.streams.push_back({s == 1 ? ES_AVC : ES_AAC, 100 * n + s});
        plan.programs.push_back(std::move(p));
    }
    return plan;
}

stream::stream(stream_plan plan_) : plan(std::move(plan_)), clock(plan.first_pcr) {}

void stream::add(packet p)
{
    const unsigned pid = pid_of(p);
    const auto it = cc_.emplace(pid, 0).first;
    // Null packets and packets without payload don't count.
    const bool counts = pid != PID_NULL && (p[3] & 0x10) != 0;
    round_.push_back(with_cc(p, counts ? it->second++ : 0));
}

void stream::make_round()
{
    round_.clear();
    at_ = 0;
    if (rounds_ % plan.psi_every == 0) {
        std::vector<pat_entry> entries;
        for (const program_plan& p : plan.programs)
            entries.push_back({p.number, p.pmt_pid});
        for (const packet& q : wrap(pat(entries).tsid(plan.tsid).version(pat_version).build(), PID_PAT))
            add(q);
        for (const program_plan& p : plan.programs)
            for (const packet& q : wrap(pmt(p.number, p.pcr_pid, p.streams).version(pmt_version).build(), p.pmt_pid))
                add(q);
    }
    for (const program_plan& p : plan.programs) {
        for (const es& s : p.streams) {
            const bool video = is_video(s.type);
            const bytes unit = pes(video ? 0xe0 : 0xc0).pts(clock + plan.pts_lead).build();
            const bool has_pcr = s.pid == p.pcr_pid;
            const size_t count = std::max(1U, video ? plan.video_pkts : plan.other_pkts);
            for (size_t i = 0; i < count; ++i) {
                pkt_builder b = pkt().pid(s.pid);
                if (i == 0) {
                    if (has_pcr) b.pcr(clock);
                    const size_t room = room_bytes - (has_pcr ? 2 + pcr_field_bytes : 0);
                    bytes first = unit;
                    first.resize(room, 0x55);
                    b.unit_start().payload(first);
                }
                add(b);
            }
        }
    }
    for (unsigned i = 0; i < plan.null_pkts; ++i)
        add(null_pkt());
    clock = (clock + plan.ticks_per_round) & ((uint64_t{1} << 33) - 1);
    ++rounds_;
}

packet stream::next()
{
    for (;;) {
        if (at_ >= round_.size()) make_round();
        packet p = round_[at_++];
        if (!hook_ || hook_(p, given_++)) return p;
    }
}

std::vector<packet> stream::take(size_t count)
{
    std::vector<packet> out;
    out.reserve(count);
    while (out.size() < count)
        out.push_back(next());
    return out;
}

std::vector<packet> stream::take_round()
{
    if (at_ >= round_.size()) make_round();
    std::vector<packet> out;
    while (at_ < round_.size()) {
        packet p = round_[at_++];
        if (!hook_ || hook_(p, given_++)) out.push_back(p);
    }
    return out;
}

// ---- damage ---------------------------------------------------------------------------------------------------

std::vector<packet> drop(std::vector<packet> packets, unsigned pid, size_t nth, size_t count)
{
    std::vector<packet> out;
    size_t seen = 0;
    for (const packet& p : packets) {
        const bool lost = pid_of(p) == pid && seen >= nth && seen < nth + count;
        if (pid_of(p) == pid) ++seen;
        if (!lost) out.push_back(p);
    }
    return out;
}

std::vector<packet> repeat(std::vector<packet> packets, unsigned pid, size_t nth)
{
    std::vector<packet> out;
    size_t seen = 0;
    for (const packet& p : packets) {
        out.push_back(p);
        if (pid_of(p) == pid && seen++ == nth) out.push_back(p);
    }
    return out;
}

} // namespace tsb
