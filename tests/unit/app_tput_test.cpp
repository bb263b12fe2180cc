#include "support/app_kit.h"
#include "support/fake_clock.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

using strings = std::vector<std::string>;

namespace
{

class app_tput : public testing::Test
{
protected:
    app_tput()
    {
        g_cfg.report_tput_sec = 10;
        fake_clock::set(1000);
    }
    ~app_tput() override { fake_clock::release(); }

    akit::app_world world;
    LogCapture log;
    LogCapture alerts{&g_access_log};
};

} // namespace

TEST_F(app_tput, first_read_starts_the_first_period)
{
    update_tps(1000);
    fake_clock::advance_sec(9);
    update_tps(1000);
    EXPECT_EQ(log.messages(), strings{});
    EXPECT_EQ(g_ctx.tps.total_bytes, 2000.0);
    EXPECT_EQ(g_ctx.tps.total_pkts, 2.0);
    EXPECT_EQ(g_ctx.tps.total_sec, 0.0);
}

TEST_F(app_tput, report_comes_when_the_period_has_passed)
{
    update_tps(10240);
    fake_clock::advance_sec(10);
    update_tps(10240);
    EXPECT_EQ(log.messages(ll::info),
              strings{"IN total: chan1 20.00 Kb, 2 dgrams at local:2.00/global:2.00 Kbps, 0.00 Kb cached"});
    EXPECT_EQ(alerts.messages(), strings{"STAT TPS chan1 20.00 2 2.00 2.00 0.00"});
}

// A negative number in the file is a period without end, and no report of a span of 0 seconds with each read.
TEST_F(app_tput, period_that_is_negative_in_the_file_never_passes)
{
    g_cfg.report_tput_sec = static_cast<size_t>(-1);
    for (int i = 0; i < 3; ++i) {
        update_tps(1000);
        fake_clock::advance_sec(1000);
    }
    EXPECT_EQ(alerts.messages(), strings{});
    EXPECT_EQ(g_ctx.tps.total_pkts, 3.0);
}

TEST_F(app_tput, clock_that_goes_back_brings_no_report)
{
    update_tps(1000);
    fake_clock::set(500);
    update_tps(1000);
    EXPECT_EQ(alerts.messages(), strings{});
}

TEST_F(app_tput, local_speed_is_of_the_last_period_and_global_speed_of_all)
{
    update_tps(0);
    fake_clock::advance_sec(10);
    update_tps(102400);
    fake_clock::advance_sec(10);
    alerts.clear();
    update_tps(20480);
    EXPECT_EQ(alerts.messages(), strings{"STAT TPS chan1 120.00 3 2.00 6.00 0.00"});
    EXPECT_EQ(g_ctx.tps.lavg_speed, 2048.0);
    EXPECT_EQ(g_ctx.tps.gavg_speed, 6144.0);
    EXPECT_EQ(g_ctx.tps.total_sec, 20.0);
}

TEST_F(app_tput, slow_reads_are_divided_by_the_time_that_has_really_passed)
{
    update_tps(0);
    fake_clock::advance_sec(40);
    update_tps(40960);
    EXPECT_EQ(alerts.messages(), strings{"STAT TPS chan1 40.00 2 1.00 1.00 0.00"});
}

TEST_F(app_tput, report_tells_what_the_ring_holds)
{
    world.store(akit::clean_stream(1024));
    output_tps("chan1", &g_ctx.tps);
    EXPECT_EQ(alerts.messages(), strings{"STAT TPS chan1 0.00 0 0.00 0.00 188.00"});
}

TEST_F(app_tput, source_without_a_tag_shows_as_a_hyphen)
{
    output_tps(nullptr, &g_ctx.tps);
    output_tps("", &g_ctx.tps);
    const std::string line = "IN total: - 0.00 Kb, 0 dgrams at local:0.00/global:0.00 Kbps, 0.00 Kb cached";
    EXPECT_EQ(log.messages(), (strings{line, line}));
    EXPECT_EQ(alerts.messages(), (strings{"STAT TPS - 0.00 0 0.00 0.00 0.00", "STAT TPS - 0.00 0 0.00 0.00 0.00"}));
}

TEST_F(app_tput, record_is_written_at_any_level_and_the_line_from_info_on)
{
    g_mod_ll[0] = ll::normal;
    output_tps("chan1", &g_ctx.tps);
    EXPECT_EQ(log.messages(), strings{});
    EXPECT_EQ(alerts.messages().size(), 1u);

    g_mod_ll[0] = ll::info;
    output_tps("chan1", &g_ctx.tps);
    EXPECT_EQ(log.messages().size(), 1u);
    EXPECT_EQ(alerts.messages().size(), 2u);
}

TEST_F(app_tput, counting_without_a_period_is_an_assertion)
{
    g_cfg.report_tput_sec = 0;
    EXPECT_DEATH(update_tps(1), "g_cfg.report_tput_sec > 0");
}
