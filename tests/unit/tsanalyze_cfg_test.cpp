// Statements about the analyzer's settings: the file's group, the options -A and -k, the text form.
#include "config.h"
#include "tavrin/tsanalyze.h"

#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace
{

using lines_t = std::vector<std::string>;

// Loads the text of a group; what it does not say is as `cfg` was.
int load(const std::string& group, tsan_config* cfg)
{
    config_t c;
    config_init(&c);
    EXPECT_EQ(CONFIG_TRUE, config_read_string(&c, ("g: {" + group + "};").c_str()))
        << config_error_line(&c) << ": " << config_error_text(&c);
    const int rc = tsan_load_config(config_lookup(&c, "g"), cfg);
    config_destroy(&c);
    return rc;
}

tsan_config loaded(const std::string& group)
{
    LogCapture log;
    tsan_config cfg = {};
    EXPECT_EQ(0, load("enabled = true; " + group, &cfg));
    EXPECT_EQ(lines_t{}, log.messages());
    return cfg;
}

std::string dumped(const tsan_config& cfg)
{
    char* mem = nullptr;
    size_t len = 0;
    FILE* fp = open_memstream(&mem, &len);
    tsan_dump_config(fp, "analyzer", &cfg);
    fclose(fp);
    const std::string s(mem, len);
    free(mem);
    return s;
}

// The flags as digits, in the record's order.
std::string flags(const tracking_opt& t)
{
    std::string s;
    for (bool b : {t.sdt_ignore, t.misc_ignore, t.pdts_update, t.pat_pmt_pkt, t.pcr_update, t.cc_track, t.pmt_diff,
                   t.pat_diff}) {
        s += b ? '1' : '0';
    }
    return s;
}

std::string tracked(const char* optstr, tsan_config cfg = {})
{
    EXPECT_EQ(0, tsan_xtrack_opt(optstr, &cfg));
    return flags(cfg.trk);
}

} // namespace

// ---- records --------------------------------------------------------------------------------------------------

TEST(tsan_config_record, fields_stand_in_their_order)
{
    const std::vector<size_t> at = {offsetof(tsan_config, is_enabled),
                                    offsetof(tsan_config, source),
                                    offsetof(tsan_config, max_skip_pkts),
                                    offsetof(tsan_config, max_pdts_delta),
                                    offsetof(tsan_config, max_pcr_delta),
                                    offsetof(tsan_config, pcr_freq_ms),
                                    offsetof(tsan_config, access_log_alerts),
                                    offsetof(tsan_config, dump_stats_period),
                                    offsetof(tsan_config, max_ndat_pcount),
                                    offsetof(tsan_config, cc_track),
                                    offsetof(tsan_config, cc_max_ms0_ms),
                                    offsetof(tsan_config, trk),
                                    offsetof(tsan_config, no_rlog)};
    for (size_t i = 1; i < at.size(); i++)
        EXPECT_LT(at[i - 1], at[i]) << "field " << i;
    EXPECT_EQ(64U, sizeof(tsan_config::source));
    EXPECT_EQ(8U, sizeof(tracking_opt));
}

// ---- the file's group -----------------------------------------------------------------------------------------

TEST(tsan_load_config, missing_enabled_stops_before_any_default)
{
    LogCapture log;
    tsan_config cfg = {};
    cfg.is_enabled = true;
    EXPECT_EQ(0, load("source_tag = \"x\"; max_skipped_pkts = 5;", &cfg));
    EXPECT_FALSE(cfg.is_enabled);
    EXPECT_STREQ("", cfg.source);
    EXPECT_EQ(0U, cfg.max_skip_pkts);
    EXPECT_EQ(0U, cfg.max_pdts_delta);
    EXPECT_EQ(0U, cfg.max_ndat_pcount);
    EXPECT_EQ((lines_t{"tsan_load_config: TSAN disabled, skipping further settings"}), log.messages(ll::debug));
}

TEST(tsan_load_config, enabled_false_reads_nothing_else_even_if_it_is_wrong)
{
    LogCapture log;
    tsan_config cfg = {};
    EXPECT_EQ(0, load("enabled = false; max_skipped_pkts = \"nonsense\";", &cfg));
    EXPECT_FALSE(cfg.is_enabled);
    EXPECT_TRUE(log.messages(ll::error).empty());
}

// Users switch a disabled analyzer on from the command line and get no limits: the file's defaults never applied.
TEST(tsan_load_config, disabled_in_the_file_and_switched_on_by_option_has_zero_limits)
{
    LogCapture log;
    tsan_config cfg = {};
    EXPECT_EQ(0, load("enabled = false;", &cfg));
    EXPECT_EQ(0, tsan_cli_opt("on", &cfg));
    EXPECT_TRUE(cfg.is_enabled);
    EXPECT_EQ(0U, cfg.max_skip_pkts);
    EXPECT_EQ(0U, cfg.max_pdts_delta);
    EXPECT_EQ(0U, cfg.max_ndat_pcount);
}

TEST(tsan_load_config, enabled_as_a_number_counts_as_missing)
{
    LogCapture log;
    tsan_config cfg = {};
    EXPECT_EQ(0, load("enabled = 1;", &cfg));
    EXPECT_FALSE(cfg.is_enabled);
}

TEST(tsan_load_config, silent_group_gets_the_defaults)
{
    const tsan_config cfg = loaded("");
    EXPECT_TRUE(cfg.is_enabled);
    EXPECT_FALSE(cfg.access_log_alerts);
    EXPECT_STREQ("", cfg.source);
    EXPECT_EQ(9000U, cfg.max_skip_pkts);
    EXPECT_EQ(500U, cfg.max_pdts_delta);
    EXPECT_EQ(0U, cfg.max_pcr_delta);
    EXPECT_EQ(0U, cfg.pcr_freq_ms);
    EXPECT_EQ(0U, cfg.dump_stats_period);
    EXPECT_EQ(10000U, cfg.max_ndat_pcount);
    EXPECT_FALSE(cfg.cc_track);
    EXPECT_EQ(0, cfg.cc_max_ms0_ms);
    EXPECT_EQ("00000000", flags(cfg.trk));
    EXPECT_FALSE(cfg.no_rlog);
}

TEST(tsan_load_config, missing_keys_get_their_defaults_over_what_stood_there)
{
    tsan_config cfg = {};
    cfg.access_log_alerts = true;
    strcpy(cfg.source, "old");
    cfg.max_skip_pkts = cfg.max_pdts_delta = cfg.max_pcr_delta = cfg.pcr_freq_ms = cfg.dump_stats_period = 77;
    cfg.max_ndat_pcount = 77;
    EXPECT_EQ(0, load("enabled = true;", &cfg));
    EXPECT_FALSE(cfg.access_log_alerts);
    EXPECT_STREQ("", cfg.source);
    EXPECT_EQ(9000U, cfg.max_skip_pkts);
    EXPECT_EQ(500U, cfg.max_pdts_delta);
    EXPECT_EQ(0U, cfg.max_pcr_delta);
    EXPECT_EQ(0U, cfg.pcr_freq_ms);
    EXPECT_EQ(0U, cfg.dump_stats_period);
    EXPECT_EQ(10000U, cfg.max_ndat_pcount);
}

TEST(tsan_load_config, every_key_reaches_its_field)
{
    const tsan_config cfg = loaded("access_log_alerts = true; source_tag = \"chan1\"; max_skipped_pkts = 1;"
                                   "max_pdts_delta_ms = 2; max_pcr_delta_ms = 3; pcr_freq_ms = 4;"
                                   "dump_stats_period = 5; max_ndat_pcount = 6;"
                                   "cc: { track = true; max_zreset_time = 7; };");
    EXPECT_TRUE(cfg.access_log_alerts);
    EXPECT_STREQ("chan1", cfg.source);
    EXPECT_EQ(1U, cfg.max_skip_pkts);
    EXPECT_EQ(2U, cfg.max_pdts_delta);
    EXPECT_EQ(3U, cfg.max_pcr_delta);
    EXPECT_EQ(4U, cfg.pcr_freq_ms);
    EXPECT_EQ(5U, cfg.dump_stats_period);
    EXPECT_EQ(6U, cfg.max_ndat_pcount);
    EXPECT_TRUE(cfg.cc_track);
    EXPECT_EQ(7000, cfg.cc_max_ms0_ms);
}

TEST(tsan_load_config, sizes_may_be_written_with_a_unit)
{
    const tsan_config cfg = loaded("max_skipped_pkts = \"2Kb\"; max_ndat_pcount = 5000000000L;");
    EXPECT_EQ(2048U, cfg.max_skip_pkts);
    EXPECT_EQ(5000000000U, cfg.max_ndat_pcount);
}

TEST(tsan_load_config, source_tag_of_63_bytes_is_the_longest)
{
    LogCapture log;
    const std::string tag(63, 't');
    EXPECT_EQ(tag, loaded("source_tag = \"" + tag + "\";").source);

    tsan_config cfg = {};
    EXPECT_EQ(-1, load("enabled = true; source_tag = \"" + tag + "t\";", &cfg));
    EXPECT_STREQ("", cfg.source);
    EXPECT_TRUE(log.contains("tsan_load_config: failed to load config, rc=-1"));
}

TEST(tsan_load_config, first_failure_stops_the_reading)
{
    LogCapture log;
    tsan_config cfg = {};
    const int rc = load("enabled = true; access_log_alerts = true; max_skipped_pkts = 11; max_pdts_delta_ms = \"10x\";"
                        "max_pcr_delta_ms = 3; cc: { track = true; }; track = true; pmt_diff = true;",
                        &cfg);
    EXPECT_EQ(-5, rc);
    EXPECT_TRUE(cfg.is_enabled);
    EXPECT_TRUE(cfg.access_log_alerts);
    EXPECT_EQ(11U, cfg.max_skip_pkts);
    EXPECT_EQ(0U, cfg.max_pcr_delta);
    EXPECT_EQ(0U, cfg.max_ndat_pcount);
    EXPECT_FALSE(cfg.cc_track);
    EXPECT_EQ("00000000", flags(cfg.trk));
    EXPECT_EQ(1U, log.count("tsan_load_config: failed to load config, rc=-5"));
}

TEST(tsan_load_config, without_the_group_cc_both_fields_stay)
{
    tsan_config cfg = {};
    cfg.cc_track = true;
    cfg.cc_max_ms0_ms = 77;
    EXPECT_EQ(0, load("enabled = true;", &cfg));
    EXPECT_TRUE(cfg.cc_track);
    EXPECT_EQ(77, cfg.cc_max_ms0_ms);
}

TEST(tsan_load_config, empty_group_cc_clears_both_fields)
{
    tsan_config cfg = {};
    cfg.cc_track = true;
    cfg.cc_max_ms0_ms = 77;
    EXPECT_EQ(0, load("enabled = true; cc: {};", &cfg));
    EXPECT_FALSE(cfg.cc_track);
    EXPECT_EQ(0, cfg.cc_max_ms0_ms);
}

TEST(tsan_load_config, reset_time_is_multiplied_in_32_bits)
{
    EXPECT_EQ(2147483000, loaded("cc: { max_zreset_time = 2147483; };").cc_max_ms0_ms);
    EXPECT_EQ(-2147483296, loaded("cc: { max_zreset_time = 2147484; };").cc_max_ms0_ms);
}

// Configuration files in use are written this way: the flags beside "track", which holds nothing.
TEST(tsan_load_config, trace_flags_stand_beside_track)
{
    EXPECT_EQ("11111011", flags(loaded("track: {}; sdt_ignore = true; misc_ignore = true; pdts_update = true;"
                                       "pat_pmt_pkt = true; pcr_update = true; pmt_diff = true; pat_diff = true;"
                                       "cc: { track = false; };")
                                    .trk));
    EXPECT_EQ("00000100", flags(loaded("track: {}; cc = true;").trk));
}

TEST(tsan_load_config, each_trace_flag_has_a_key_of_its_own)
{
    const char* keys[] = {"sdt_ignore", "misc_ignore", "pdts_update", "pat_pmt_pkt",
                          "pcr_update", "cc",          "pmt_diff",    "pat_diff"};
    for (size_t i = 0; i < 8; i++) {
        std::string expected(8, '0');
        expected[i] = '1';
        EXPECT_EQ(expected, flags(loaded(std::string("track = 1; ") + keys[i] + " = true;").trk)) << keys[i];
    }
}

TEST(tsan_load_config, trace_flags_inside_track_are_not_seen)
{
    EXPECT_EQ("00000000", flags(loaded("track: { sdt_ignore = true; pmt_diff = true; };").trk));
}

TEST(tsan_load_config, trace_flags_without_track_are_not_read)
{
    tsan_config cfg = {};
    cfg.trk.pat_diff = true;
    EXPECT_EQ(0, load("enabled = true; pmt_diff = true;", &cfg));
    EXPECT_EQ("00000001", flags(cfg.trk));
}

TEST(tsan_load_config, missing_trace_flag_becomes_false)
{
    tsan_config cfg = {};
    cfg.trk.pat_diff = true;
    EXPECT_EQ(0, load("enabled = true; track = true; pmt_diff = true;", &cfg));
    EXPECT_EQ("00000010", flags(cfg.trk));
}

TEST(tsan_load_config, group_cc_keeps_the_flag_cc_false)
{
    const tsan_config cfg = loaded("track = true; cc: { track = true; };");
    EXPECT_TRUE(cfg.cc_track);
    EXPECT_FALSE(cfg.trk.cc_track);
}

TEST(tsan_load_config, flag_cc_leaves_the_continuity_settings_alone)
{
    tsan_config cfg = {};
    cfg.cc_track = true;
    cfg.cc_max_ms0_ms = 77;
    EXPECT_EQ(0, load("enabled = true; track = true; cc = true;", &cfg));
    EXPECT_TRUE(cfg.cc_track);
    EXPECT_EQ(77, cfg.cc_max_ms0_ms);
    EXPECT_TRUE(cfg.trk.cc_track);
}

// ---- option -A ------------------------------------------------------------------------------------------------

TEST(tsan_cli_opt, words_switch_the_analyzer_in_any_case)
{
    LogCapture log;
    tsan_config cfg = {};
    for (const char* w : {"on", "ON", "enable", "Enable"}) {
        cfg.is_enabled = false;
        EXPECT_EQ(0, tsan_cli_opt(w, &cfg));
        EXPECT_TRUE(cfg.is_enabled) << w;
    }
    for (const char* w : {"off", "Off", "disable", "DISABLE"}) {
        cfg.is_enabled = true;
        EXPECT_EQ(0, tsan_cli_opt(w, &cfg));
        EXPECT_FALSE(cfg.is_enabled) << w;
    }
    EXPECT_EQ(1U, log.count("tsan_cli_opt: on=0 OK"));
    EXPECT_EQ(1U, log.count("tsan_cli_opt: DISABLE=0 OK"));
}

TEST(tsan_cli_opt, text_without_an_equals_sign_is_refused)
{
    LogCapture log;
    tsan_config cfg = {};
    EXPECT_EQ(22, tsan_cli_opt("pcr_delta", &cfg));
    EXPECT_EQ(22, tsan_cli_opt("", &cfg));
    EXPECT_EQ((lines_t{"tsan_cli_opt: invalid option string format: pcr_delta",
                       "tsan_cli_opt: invalid option string format: "}),
              log.messages(ll::error));
    EXPECT_TRUE(log.messages(ll::debug).empty());
}

TEST(tsan_cli_opt, negative_value_is_refused_and_changes_nothing)
{
    LogCapture log;
    tsan_config cfg = {};
    cfg.max_pcr_delta = 5;
    EXPECT_EQ(22, tsan_cli_opt("pcr_delta=-1", &cfg));
    EXPECT_EQ(5U, cfg.max_pcr_delta);
    EXPECT_EQ((lines_t{"tsan_cli_opt: invalid parameter value: pcr_delta/-1"}), log.messages(ll::error));
}

TEST(tsan_cli_opt, every_key_reaches_its_field)
{
    LogCapture log;
    tsan_config cfg = {};
    EXPECT_EQ(0, tsan_cli_opt("skipped_pkts=1", &cfg));
    EXPECT_EQ(0, tsan_cli_opt("pdts_delta=2", &cfg));
    EXPECT_EQ(0, tsan_cli_opt("pcr_delta=3", &cfg));
    EXPECT_EQ(0, tsan_cli_opt("pcr_freq=4", &cfg));
    EXPECT_EQ(0, tsan_cli_opt("max_zreset_time=5", &cfg));
    EXPECT_EQ(0, tsan_cli_opt("cc_track=6", &cfg));
    EXPECT_EQ(1U, cfg.max_skip_pkts);
    EXPECT_EQ(2U, cfg.max_pdts_delta);
    EXPECT_EQ(3U, cfg.max_pcr_delta);
    EXPECT_EQ(4U, cfg.pcr_freq_ms);
    EXPECT_EQ(5, cfg.cc_max_ms0_ms) << "ms here, seconds in the file";
    EXPECT_TRUE(cfg.cc_track);
    EXPECT_FALSE(cfg.is_enabled);
    EXPECT_EQ(1U, log.count("tsan_cli_opt: pcr_freq=4 OK"));
}

TEST(tsan_cli_opt, continuity_is_switched_on_by_one_and_off_by_zero)
{
    LogCapture log;
    tsan_config cfg = {};
    EXPECT_EQ(0, tsan_cli_opt("cc_track=1", &cfg));
    EXPECT_TRUE(cfg.cc_track);
    EXPECT_EQ(0, tsan_cli_opt("cc_track=0", &cfg));
    EXPECT_FALSE(cfg.cc_track);
}

TEST(tsan_cli_opt, value_that_is_no_number_counts_as_zero)
{
    LogCapture log;
    tsan_config cfg = {};
    cfg.max_pcr_delta = 5;
    EXPECT_EQ(0, tsan_cli_opt("pcr_delta=x", &cfg));
    EXPECT_EQ(0U, cfg.max_pcr_delta);
}

TEST(tsan_cli_opt, value_ends_at_the_first_character_that_is_no_digit)
{
    LogCapture log;
    tsan_config cfg = {};
    EXPECT_EQ(0, tsan_cli_opt("pcr_delta=40=50", &cfg));
    EXPECT_EQ(40U, cfg.max_pcr_delta);
}

TEST(tsan_cli_opt, unknown_key_is_accepted_and_changes_nothing)
{
    LogCapture log;
    tsan_config cfg;
    memset(&cfg, 0, sizeof(cfg));
    const tsan_config before = cfg;
    EXPECT_EQ(0, tsan_cli_opt("foo=1", &cfg));
    EXPECT_EQ(0, tsan_cli_opt("PCR_DELTA=1", &cfg)) << "keys are compared exactly";
    EXPECT_EQ(0, memcmp(&before, &cfg, sizeof(cfg)));
    EXPECT_EQ(1U, log.count("tsan_cli_opt: foo=1 OK"));
}

// ---- option -k ------------------------------------------------------------------------------------------------

TEST(tsan_xtrack_opt, each_mark_sets_its_flag)
{
    EXPECT_EQ("10000000", tracked("sdt_i"));
    EXPECT_EQ("01000000", tracked("misc_i"));
    EXPECT_EQ("00100000", tracked("pdts_u"));
    EXPECT_EQ("00010000", tracked("pat_pmt"));
    EXPECT_EQ("00001000", tracked("pcr_u"));
    EXPECT_EQ("00000100", tracked("cc_t"));
    EXPECT_EQ("00000010", tracked("pmt_d"));
    EXPECT_EQ("00000001", tracked("pat_d"));
}

TEST(tsan_xtrack_opt, full_names_and_short_forms_work_alike_with_any_separator)
{
    EXPECT_EQ("10001000", tracked("sdt_ignore:pcr_update"));
    EXPECT_EQ("10001000", tracked("pcr_u, sdt_i"));
    EXPECT_EQ("00010010", tracked("pat_pmt:pmt_d"));
}

TEST(tsan_xtrack_opt, text_without_a_known_mark_sets_nothing)
{
    EXPECT_EQ("00000000", tracked(""));
    EXPECT_EQ("00000000", tracked("SDT_I"));
    EXPECT_EQ("00000000", tracked("all:sdt"));
}

TEST(tsan_xtrack_opt, all_sets_five_flags_and_leaves_three)
{
    EXPECT_EQ("11111000", tracked("all"));
    EXPECT_EQ("11111000", tracked("ALL"));
    tsan_config cfg = {};
    cfg.trk.pmt_diff = true;
    EXPECT_EQ("11111010", tracked("all", cfg));
}

TEST(tsan_xtrack_opt, five_flags_are_cleared_first_and_three_are_not)
{
    tsan_config cfg = {};
    memset(&cfg.trk, 1, sizeof(cfg.trk));
    EXPECT_EQ("10000111", tracked("sdt_i", cfg));
}

// ---- text form ------------------------------------------------------------------------------------------------

TEST(tsan_dump_config, disabled_analyzer_is_one_line)
{
    tsan_config cfg = {};
    cfg.max_pcr_delta = 5;
    EXPECT_EQ("analyzer: disabled\n", dumped(cfg));
}

TEST(tsan_dump_config, limits_of_zero_are_left_out)
{
    tsan_config cfg = {};
    cfg.is_enabled = true;
    EXPECT_EQ("analyzer: \n"
              "\tsource:                []\n"
              "\tskipped packets:       0\n"
              "\tNDAT p-count:          0\n"
              "\tvalidate CC sequence:  no\n"
              "\tT:sdt_ignore:          no\n"
              "\tT:misc_ignore:         no\n"
              "\tT:pdts_update:         no\n"
              "\tT:pat_pmt_pkt:         no\n"
              "\tT:pcr_update:          no\n"
              "\tT:cc_track:            no\n"
              "\tT:pmt_diff:            no\n"
              "\tT:pat_diff:            no\n"
              "\taccess-log-alerts:     no\n"
              "\twrite-to-log:          yes\n",
              dumped(cfg));
}

TEST(tsan_dump_config, everything_that_is_set_is_shown_in_order)
{
    tsan_config cfg = {};
    cfg.is_enabled = true;
    strcpy(cfg.source, "chan1");
    cfg.max_skip_pkts = 1;
    cfg.max_ndat_pcount = 2;
    cfg.max_pdts_delta = 3;
    cfg.max_pcr_delta = 4;
    cfg.pcr_freq_ms = 5;
    cfg.dump_stats_period = 6;
    cfg.cc_track = true;
    cfg.cc_max_ms0_ms = 7;
    memset(&cfg.trk, 1, sizeof(cfg.trk));
    cfg.access_log_alerts = true;
    cfg.no_rlog = true;
    EXPECT_EQ("analyzer: \n"
              "\tsource:                [chan1]\n"
              "\tskipped packets:       1\n"
              "\tNDAT p-count:          2\n"
              "\tPTS/DTS delta:         3 (ms)\n"
              "\tPCR delta:             4 (ms)\n"
              "\tPCR frequency:         5 (ms)\n"
              "\tdump stats every:      6 (sec)\n"
              "\tvalidate CC sequence:  yes\n"
              "\tCC reset threshold:    7 (ms)\n"
              "\tT:sdt_ignore:          yes\n"
              "\tT:misc_ignore:         yes\n"
              "\tT:pdts_update:         yes\n"
              "\tT:pat_pmt_pkt:         yes\n"
              "\tT:pcr_update:          yes\n"
              "\tT:cc_track:            yes\n"
              "\tT:pmt_diff:            yes\n"
              "\tT:pat_diff:            yes\n"
              "\taccess-log-alerts:     YES\n"
              "\twrite-to-log:          NO\n",
              dumped(cfg));
}

TEST(tsan_dump_config, reset_threshold_shows_only_with_continuity_checking)
{
    tsan_config cfg = {};
    cfg.is_enabled = true;
    cfg.cc_max_ms0_ms = 7;
    EXPECT_EQ(std::string::npos, dumped(cfg).find("CC reset threshold"));
    cfg.cc_track = true;
    cfg.cc_max_ms0_ms = 0;
    EXPECT_EQ(std::string::npos, dumped(cfg).find("CC reset threshold"));
}
