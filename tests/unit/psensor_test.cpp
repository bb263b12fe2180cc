// The performance sensors and their sites.
#include "psensor.h"

#include "fdio.h"
#include "support/assert_kit.h"
#include "support/fake_clock.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

namespace
{

// The sensors as the process found them.
const std::vector<psensor> g_at_start(std::begin(g_psensor), std::end(g_psensor));

const char* g_utag[] = {"first", "second", nullptr};

// So many application tags, "u0" and on.
struct Tags {
    explicit Tags(size_t n)
    {
        for (size_t i = 0; i < n; ++i)
            texts.push_back("u" + std::to_string(i));
        for (const std::string& t : texts)
            list.push_back(t.c_str());
        list.push_back(nullptr);
    }
    std::vector<std::string> texts;
    std::vector<const char*> list;
};

std::string dump()
{
    return printed([](FILE* fp) { psensors_dump(fp); });
}

// The seconds that a sensor has measured.
long seconds(size_t i)
{
    return g_psensor[i].sensor.accum.tm.tv_sec;
}

class PsensorTest : public testing::Test
{
protected:
    void TearDown() override
    {
        fake_clock::release();
        for (psensor& s : g_psensor)
            s = {};
        g_pctx = {};
    }
};

} // namespace

// ---- set-up ---------------------------------------------------------------------------------------------------

TEST_F(PsensorTest, all_sensors_are_off_before_the_set_up)
{
    for (const psensor& s : g_at_start) {
        EXPECT_FALSE(s.enabled);
        EXPECT_FALSE(s.started);
        EXPECT_EQ(s.nametag, nullptr);
    }
    psensor_start(PRF_APP);
    psensor_stop(PRF_APP);
    EXPECT_FALSE(g_psensor[PRF_APP].started);
    EXPECT_EQ(dump(), "");
}

TEST_F(PsensorTest, has_the_librarys_tags_in_their_order)
{
    const std::vector<std::string> tags = {"app",   "ev_loop", "ev_read", "ev_write", "ev_err",
                                           "ev_pp", "ev_idle", "data_in", "data_out"};
    EXPECT_EQ(PRF_SYS_COUNT, 9u);
    EXPECT_EQ(USENSOR_FIRST, 9u);
    EXPECT_EQ(MAX_PSENSORS, 73u);
    for (size_t i = 0; i < tags.size(); ++i)
        EXPECT_EQ(g_libsensor_tag[i], tags[i]);
    EXPECT_EQ(g_libsensor_tag[9], nullptr);
    EXPECT_EQ(g_libsensor_tag[PRF_EVLOOP], std::string("ev_loop"));
    EXPECT_EQ(g_libsensor_tag[PRF_EVREAD], std::string("ev_read"));
    EXPECT_EQ(g_libsensor_tag[PRF_EVWRITE], std::string("ev_write"));
    EXPECT_EQ(g_libsensor_tag[PRF_EVERR], std::string("ev_err"));
    EXPECT_EQ(g_libsensor_tag[PRF_EVPP], std::string("ev_pp"));
    EXPECT_EQ(g_libsensor_tag[PRF_EVIDLE], std::string("ev_idle"));
    EXPECT_EQ(g_libsensor_tag[PRF_DATAIN], std::string("data_in"));
    EXPECT_EQ(g_libsensor_tag[PRF_DATAOUT], std::string("data_out"));
}

TEST_F(PsensorTest, set_up_names_the_sensors_and_measures_time_and_the_process)
{
    EXPECT_EQ(psensors_init(g_utag, 0), 0);
    EXPECT_EQ(g_pctx.ucount, 2u);
    for (size_t i = 0; i < 11; ++i) {
        EXPECT_EQ(g_psensor[i].sensor.flags, 3) << i;
        EXPECT_EQ(g_psensor[i].sensor.who, 0) << i;
        EXPECT_FALSE(g_psensor[i].enabled) << i;
    }
    EXPECT_EQ(g_psensor[3].nametag, std::string("ev_write"));
    EXPECT_EQ(g_psensor[9].nametag, std::string("first"));
    EXPECT_EQ(g_psensor[10].nametag, std::string("second"));
    EXPECT_EQ(g_psensor[11].nametag, nullptr);
    EXPECT_EQ(g_psensor[11].sensor.flags, 0);
}

TEST_F(PsensorTest, set_up_switches_all_on_when_asked)
{
    EXPECT_EQ(psensors_init(g_utag, 1), 0);
    for (size_t i = 0; i < MAX_PSENSORS; ++i)
        EXPECT_EQ(g_psensor[i].enabled, i < 11 ? 1u : 0u) << i;
}

TEST_F(PsensorTest, set_up_starts_anew)
{
    EXPECT_EQ(psensors_init(g_utag, 1), 0);
    psensor_start(PRF_APP);
    EXPECT_EQ(psensors_init(nullptr, 0), 0);
    EXPECT_EQ(g_pctx.ucount, 0u);
    EXPECT_FALSE(g_psensor[PRF_APP].started);
    EXPECT_FALSE(g_psensor[PRF_APP].enabled);
    EXPECT_EQ(g_psensor[9].nametag, nullptr);
}

TEST_F(PsensorTest, set_up_leaves_out_tags_beyond_the_array)
{
    for (const auto& [given, taken] : {std::pair<size_t, size_t>{0, 0}, {63, 63}, {64, 64}, {65, 64}, {66, 64}}) {
        Tags tags(given);
        EXPECT_EQ(psensors_init(tags.list.data(), 0), 0);
        EXPECT_EQ(g_pctx.ucount, taken);
        const char* last_tag = g_psensor[USENSOR_FIRST + taken - 1].nametag; // data_out, without tags
        EXPECT_EQ(last_tag, taken > 0 ? tags.texts[taken - 1] : std::string("data_out"));
    }
}

TEST_F(PsensorTest, destroy_stops_the_meters_in_use)
{
    ASSERT_EQ(psensors_init(g_utag, 1), 0);
    g_psensor[9].sensor.accum.tm.tv_sec = 5;
    g_psensor[11].sensor.flags = 3; // nobody's
    psensors_destroy();
    for (size_t i = 0; i < 11; ++i)
        EXPECT_EQ(g_psensor[i].sensor.flags, 0) << i;
    EXPECT_EQ(seconds(9), 0);
    EXPECT_EQ(g_psensor[11].sensor.flags, 3);
    psensor_start(PRF_APP); // a meter without flags does nothing
    psensor_stop(PRF_APP);
    EXPECT_EQ(dump(), "");
}

// ---- lookup ---------------------------------------------------------------------------------------------------

TEST_F(PsensorTest, finds_a_library_tag_in_any_case)
{
    ASSERT_EQ(psensors_init(g_utag, 0), 0);
    EXPECT_EQ(libptag_index("EV_READ"), 2);
    EXPECT_EQ(libptag_index("app"), 0);
    EXPECT_EQ(libptag_index("Data_Out"), 8);
    EXPECT_EQ(libptag_index("first"), -1); // an application's
    EXPECT_EQ(libptag_index("ev_rea"), -1);
    EXPECT_EQ(libptag_index(""), -1);
}

// ---- sites ----------------------------------------------------------------------------------------------------

TEST_F(PsensorTest, a_site_adds_the_time_between_start_and_stop)
{
    ASSERT_EQ(psensors_init(nullptr, 0), 0);
    g_psensor[PRF_EVLOOP].enabled = 1;
    fake_clock::set(100);
    psensor_start(PRF_EVLOOP);
    psensor_start(PRF_EVREAD); // off
    EXPECT_TRUE(g_psensor[PRF_EVLOOP].started);
    EXPECT_FALSE(g_psensor[PRF_EVREAD].started);
    fake_clock::set(103);
    psensor_stop(PRF_EVREAD);
    psensor_stop(PRF_EVLOOP);
    EXPECT_FALSE(g_psensor[PRF_EVLOOP].started);
    EXPECT_EQ(seconds(PRF_EVLOOP), 3);
    EXPECT_EQ(seconds(PRF_EVREAD), 0);
}

TEST_F(PsensorTest, a_start_on_a_running_sensor_does_nothing)
{
    ASSERT_EQ(psensors_init(nullptr, 1), 0);
    fake_clock::set(100);
    psensor_start(PRF_APP);
    fake_clock::set(110);
    psensor_start(PRF_APP);
    fake_clock::set(115);
    psensor_stop(PRF_APP);
    EXPECT_EQ(seconds(PRF_APP), 15);
    fake_clock::set(120);
    psensor_stop(PRF_APP); // it has stopped
    EXPECT_EQ(seconds(PRF_APP), 15);
}

TEST_F(PsensorTest, a_sensor_switched_off_on_the_way_is_not_stopped)
{
    ASSERT_EQ(psensors_init(nullptr, 1), 0);
    fake_clock::set(100);
    psensor_start(PRF_APP);
    g_psensor[PRF_APP].enabled = 0;
    fake_clock::set(110);
    psensor_stop(PRF_APP);
    EXPECT_TRUE(g_psensor[PRF_APP].started);
    EXPECT_EQ(seconds(PRF_APP), 0);
}

TEST_F(PsensorTest, signal_proof_reads_and_writes_are_sites)
{
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const auto has_measured = [](size_t i) {
        const struct timespec& tm = g_psensor[i].sensor.accum.tm;
        return tm.tv_sec != 0 || tm.tv_nsec != 0;
    };
    char buf[8];
    ASSERT_EQ(psensors_init(nullptr, 1), 0);
    EXPECT_EQ(nwrite(fds[1], "abc", 3, 0), 3);
    EXPECT_TRUE(has_measured(PRF_DATAOUT));
    EXPECT_FALSE(has_measured(PRF_DATAIN));
    EXPECT_FALSE(g_psensor[PRF_DATAOUT].started);

    ASSERT_EQ(psensors_init(nullptr, 1), 0);
    EXPECT_EQ(nread(fds[0], buf, sizeof(buf), 0), 3);
    EXPECT_TRUE(has_measured(PRF_DATAIN));
    EXPECT_FALSE(has_measured(PRF_DATAOUT));
    EXPECT_FALSE(g_psensor[PRF_DATAIN].started);

    ASSERT_EQ(psensors_init(nullptr, 1), 0);
    const int fd = open("/proc/self/exe", O_RDONLY);
    EXPECT_EQ(npread(fd, buf, sizeof(buf), 1, 0), 8);
    EXPECT_TRUE(has_measured(PRF_DATAIN));
    EXPECT_FALSE(g_psensor[PRF_DATAIN].started);

    // The failed call's error gets past the sensor.
    const LogCapture log; // where it is told
    errno = 0;
    EXPECT_EQ(nread(-1, buf, sizeof(buf), 0), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_FALSE(g_psensor[PRF_DATAIN].started);
    for (const int f : {fds[0], fds[1], fd})
        close(f);
}

// ---- printing -------------------------------------------------------------------------------------------------

TEST_F(PsensorTest, dumps_enabled_sensors_that_have_measured_time)
{
    ASSERT_EQ(psensors_init(g_utag, 0), 0);
    for (const size_t i : {1u, 3u, 9u, 10u})
        g_psensor[i].enabled = 1;
    g_psensor[0].sensor.accum.tm.tv_sec = 1; // off
    g_psensor[1].sensor.accum.tm.tv_sec = 2;
    g_psensor[9].sensor.accum.tm.tv_nsec = 5;
    g_psensor[11].enabled = 1; // nobody's
    g_psensor[11].sensor.accum.tm.tv_sec = 1;
    const std::string usage = "== resource usage:\n"
                              "  user_time: 0.000000, sys_time: 0.000000\n"
                              "  maxrss: 0, ixrss: 0, idrss: 0, isrss: 0\n"
                              "  minflt: 0, majflt: 0, nswap=0\n"
                              "  inblock: 0, outblock: 0, msgsnd: 0, msgrcv: 0\n"
                              "  nsignals: 0, nvcsw: 0, nivcsw: 0\n"
                              "==\n";
    EXPECT_EQ(dump(), "P-Sensor [ev_loop]\n== time:\t2.000000000\n" + usage +
                          "P-Sensor [first]\n== time:\t0.000000005\n" + usage);
    g_psensor[1].enabled = g_psensor[9].enabled = 0;
    g_psensor[0].enabled = 1; // the first one
    EXPECT_EQ(dump(), "P-Sensor [app]\n== time:\t1.000000000\n" + usage);
}
