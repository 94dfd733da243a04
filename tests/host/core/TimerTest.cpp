#include "host/core/Timer.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

using Velmoria::Timer;

namespace {

struct FormatCase
{
    double ms;
    char const* text;
};

class TimerFormat : public ::testing::TestWithParam<FormatCase>
{};

} // namespace

TEST_P(TimerFormat, ChoosesUnitAndDigits)
{
    EXPECT_EQ(Timer::formatDuration(GetParam().ms), GetParam().text) << "for " << GetParam().ms << " ms";
}

INSTANTIATE_TEST_SUITE_P(
    Durations, TimerFormat,
    ::testing::Values(FormatCase{0.0, "0.000 ms"}, FormatCase{-5.0, "0.000 ms"},
                      FormatCase{std::numeric_limits<double>::quiet_NaN(), "0.000 ms"},
                      FormatCase{0.1234, "0.123 ms"}, FormatCase{0.9996, "1.00 ms"},
                      FormatCase{1.0, "1.00 ms"}, FormatCase{9.996, "10.0 ms"}, FormatCase{12.34, "12.3 ms"},
                      FormatCase{99.96, "100 ms"}, FormatCase{123.4, "123 ms"}, FormatCase{999.4, "999 ms"},
                      FormatCase{999.6, "1.00 s"}, FormatCase{4560.0, "4.56 s"},
                      FormatCase{12345.0, "12.3 s"}, FormatCase{59940.0, "59.9 s"},
                      FormatCase{59960.0, "1 min 0 s"}, FormatCase{123000.0, "2 min 3 s"},
                      FormatCase{3599600.0, "1 h 0 min 0 s"}, FormatCase{3723000.0, "1 h 2 min 3 s"},
                      FormatCase{90000000.0, "25 h 0 min 0 s"}));

TEST(Timer, CreatedPausedStaysAtZeroUntilResumed)
{
    Timer timer(false);
    EXPECT_FALSE(timer.isRunning());
    Timer::sleep(2);
    EXPECT_EQ(timer.getPassedMs(), 0.0);
    EXPECT_EQ(timer.formatPassed(), "0.000 ms");
    timer.resume();
    EXPECT_TRUE(timer.isRunning());
    Timer::sleep(2);
    EXPECT_GE(timer.getPassedMs(), 2.0); // sleep waits at least this long on the same clock
}

TEST(Timer, PausedTimeDoesNotCount)
{
    Timer reference;
    Timer timer;
    timer.pause();
    double const atPause = timer.getPassedMs();
    Timer::sleep(20);
    EXPECT_EQ(timer.getPassedMs(), atPause); // a paused timer does not advance at all
    timer.pause();                           // a second pause changes nothing
    EXPECT_EQ(timer.getPassedMs(), atPause);
    timer.resume();
    timer.resume(); // neither does a second resume
    Timer::sleep(1);
    double const timed = timer.getPassedMs();
    double const total = reference.getPassedMs();
    EXPECT_GT(timed, atPause);
    // The reference counted the 20 ms pause as well; the timer did not.
    EXPECT_GE(total - timed, 20.0);
}

TEST(Timer, ResetVariantsRestartFromZero)
{
    Timer timer;
    Timer::sleep(3);
    timer.pause();
    double const passed = timer.getPassedMsAndReset();
    EXPECT_GE(passed, 3.0);
    EXPECT_EQ(timer.getPassedMs(), 0.0); // restarted at zero and, being paused, stays there
    EXPECT_FALSE(timer.isRunning());

    timer.resume();
    Timer::sleep(2);
    timer.pause();
    std::string const text = timer.formatPassedAndReset();
    EXPECT_NE(text, "0.000 ms");
    EXPECT_EQ(timer.formatPassed(), "0.000 ms");

    timer.reset(); // reset also starts a paused timer
    EXPECT_TRUE(timer.isRunning());
    Timer::sleep(1);
    EXPECT_GT(timer.getPassedMs(), 0.0);
}
