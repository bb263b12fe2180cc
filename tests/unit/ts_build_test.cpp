// The tests' own vocabulary, against accessors that know nothing of it.
#include "support/ts_build.h"

#include <bitstream/mpeg/pes.h>
#include <bitstream/mpeg/psi.h>
#include <bitstream/mpeg/ts.h>

#include <gtest/gtest.h>

using namespace tsb;

namespace
{

TEST(ts_build, puts_packet_fields_where_they_belong)
{
    packet p = pkt().pid(0x1abc).cc(29).unit_start().transport_error().scrambling(2);
    EXPECT_TRUE(ts_validate(p.data()));
    EXPECT_EQ(ts_get_pid(p.data()), 0x1abc);
    EXPECT_EQ(ts_get_cc(p.data()), 13);
    EXPECT_TRUE(ts_get_unitstart(p.data()));
    EXPECT_TRUE(ts_get_transporterror(p.data()));
    EXPECT_EQ(ts_get_scrambling(p.data()), 2);
    EXPECT_TRUE(ts_has_payload(p.data()));
    EXPECT_FALSE(ts_has_adaptation(p.data()));
    EXPECT_EQ(p[187], 0xa5);
}

TEST(ts_build, makes_the_adaptation_field_that_the_flags_need)
{
    packet p = pkt().pcr(0x1fffffffe, 299).discontinuity().random_access();
    ASSERT_TRUE(ts_has_adaptation(p.data()));
    EXPECT_EQ(ts_get_adaptation(p.data()), 7);
    EXPECT_TRUE(tsaf_has_pcr(p.data()));
    EXPECT_EQ(tsaf_get_pcr(p.data()), 0x1fffffffeU);
    EXPECT_EQ(tsaf_get_pcrext(p.data()), 299U);
    EXPECT_TRUE(tsaf_has_discontinuity(p.data()));
    EXPECT_TRUE(tsaf_has_randomaccess(p.data()));
    EXPECT_EQ(ts_payload(p.data()), p.data() + 12);

    packet empty = pkt().no_payload();
    EXPECT_EQ(ts_get_adaptation(empty.data()), 183);
    EXPECT_FALSE(ts_has_payload(empty.data()));
    packet bare = pkt().af_len(0);
    EXPECT_EQ(ts_payload(bare.data()), bare.data() + 5);
}

TEST(ts_build, stuffs_a_short_payload_to_the_end_of_the_packet)
{
    for (size_t n : {0, 1, 100, 182, 183, 184}) {
        packet p = pkt().payload(fill(n, 0x77));
        EXPECT_EQ(ts_payload(p.data()), p.data() + 188 - n) << n;
        EXPECT_EQ(ts_has_adaptation(p.data()), n < 184) << n;
    }
}

TEST(ts_build, ends_sections_with_a_right_crc)
{
    bytes p = pat({{1, 100}, {2, 200}}).tsid(7).version(31).number(1, 2);
    EXPECT_TRUE(psi_validate(p.data()));
    EXPECT_TRUE(psi_check_crc(p.data()));
    EXPECT_TRUE(pat_validate(p.data()));
    EXPECT_EQ(psi_get_tableidext(p.data()), 7);
    EXPECT_EQ(psi_get_version(p.data()), 31);
    EXPECT_EQ(psi_get_section(p.data()), 1);
    EXPECT_EQ(psi_get_lastsection(p.data()), 2);
    EXPECT_EQ(patn_get_pid(pat_get_program(p.data(), 1)), 200);
    EXPECT_EQ(pat_get_program(p.data(), 2), nullptr);
    bytes bad = pat({{1, 100}}).bad_crc();
    EXPECT_FALSE(psi_check_crc(bad.data()));
}

TEST(ts_build, lists_streams_and_descriptors_in_a_pmt)
{
    bytes m = pmt(5, 101, {{ES_AVC, 101}, {ES_AAC, 102, lang_desc("eng")}}).descs(desc(5, fill(4, 'x'))).version(3);
    EXPECT_TRUE(psi_check_crc(m.data()));
    EXPECT_TRUE(pmt_validate(m.data()));
    EXPECT_EQ(pmt_get_program(m.data()), 5);
    EXPECT_EQ(pmt_get_pcrpid(m.data()), 101);
    EXPECT_EQ(pmtn_get_pid(pmt_get_es(m.data(), 1)), 102);
    EXPECT_EQ(pmtn_get_streamtype(pmt_get_es(m.data(), 1)), ES_AAC);
    EXPECT_EQ(pmt_get_es(m.data(), 2), nullptr);
}

TEST(ts_build, wraps_a_long_section_in_packets_that_count_on)
{
    const bytes s = pmt(1, 101, std::vector<es>(60, es{ES_AAC, 300}));
    const std::vector<packet> v = wrap(s, 100, 15);
    ASSERT_EQ(v.size(), 2U);
    bytes joined(v[0].begin() + 5, v[0].end());
    joined.insert(joined.end(), v[1].begin() + 4, v[1].end());
    joined.resize(s.size());
    EXPECT_EQ(joined, s);
    EXPECT_EQ(cc_of(v[0]), 15U);
    EXPECT_EQ(cc_of(v[1]), 0U);
    EXPECT_EQ(v[1][187], 0xff);
}

TEST(ts_build, writes_pes_timestamps)
{
    bytes b = pes(0xe0).pts(0x1ffffffff).dts(0x123456789).payload(10);
    EXPECT_TRUE(pes_validate(b.data()));
    EXPECT_TRUE(pes_validate_header(b.data()));
    EXPECT_TRUE(pes_has_dts(b.data()));
    EXPECT_TRUE(pes_validate_pts(b.data()));
    EXPECT_TRUE(pes_validate_dts(b.data()));
    EXPECT_EQ(pes_get_pts(b.data()), 0x1ffffffffU);
    EXPECT_EQ(pes_get_dts(b.data()), 0x123456789U);
    EXPECT_EQ(pes(0xc0).payload(10).build()[5], 13);
}

TEST(ts_build, gives_streams_without_a_break)
{
    const std::vector<packet> v = stream(many_programs(3, 2)).take(2000);
    std::map<unsigned, unsigned> last;
    size_t pcrs = 0;
    for (packet p : v) {
        ASSERT_TRUE(ts_validate(p.data()));
        pcrs += ts_has_adaptation(p.data()) && ts_get_adaptation(p.data()) && tsaf_has_pcr(p.data());
        if (pid_of(p) == PID_NULL) continue;
        const auto [it, is_first] = last.emplace(pid_of(p), cc_of(p));
        EXPECT_TRUE(is_first || cc_of(p) == (it->second + 1) % 16);
        it->second = cc_of(p);
    }
    EXPECT_EQ(last.size(), 1U + 3 + 6);
    EXPECT_GT(pcrs, 100U);
}

TEST(ts_build, lets_a_hook_lose_packets_without_touching_the_counters)
{
    stream st(one_program());
    st.on_packet([](packet& p, size_t) { return pid_of(p) != PID_NULL; });
    for (const packet& p : st.take(100))
        EXPECT_NE(pid_of(p), PID_NULL);
    const std::vector<packet> v = {pkt().pid(5).cc(0), pkt().pid(6), pkt().pid(5).cc(1), pkt().pid(5).cc(2)};
    EXPECT_EQ(drop(v, 5, 1).size(), 3U);
    EXPECT_EQ(cc_of(drop(v, 5, 1)[2]), 2U);
    EXPECT_EQ(repeat(v, 5, 2)[4], v[3]);
}

} // namespace
