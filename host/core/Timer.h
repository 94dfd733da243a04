#pragma once

// Timer: wall-clock time of a piece of work, for log lines and progress reports.
//
// Measures with std::chrono::steady_clock, so changes of the system clock do not disturb it. A
// timer accumulates the time it was running: pause() stops the count, resume() continues it,
// and paused time never counts. Not synchronized: one thread uses a timer at a time.
//
// Text form (formatDuration), chosen to stay short in log lines:
//   below 1 ms       "0.123 ms"          (three decimals)
//   below 1 s        "12.3 ms", "123 ms" (three significant digits)
//   below 1 min      "4.56 s", "12.3 s"  (three significant digits)
//   from 1 min on    "2 min 3 s"; from 1 h on "1 h 2 min 3 s" (whole seconds)
// Each range starts where the rounded text of the one below would reach its limit, so the
// text never reads "1000 ms" or "60.0 s". Negative and NaN durations read as "0.000 ms".

#include <chrono>
#include <string>

namespace Velmoria {

class Timer
{
public:
    // With `start` false the timer is created paused at zero; resume() starts it.
    explicit Timer(bool start = true);

    // Milliseconds counted so far.
    double getPassedMs() const;
    // Returns the milliseconds counted so far and restarts the count at zero. A paused timer
    // stays paused.
    double getPassedMsAndReset();

    std::string formatPassed() const;
    std::string formatPassedAndReset();

    // Restarts the count at zero and leaves the timer running.
    void reset();
    // Stops counting; a second pause() changes nothing.
    void pause();
    // Continues counting; resume() on a running timer changes nothing.
    void resume();
    bool isRunning() const { return m_running; }

    // Blocks the calling thread for at least `ms` milliseconds (nothing for ms <= 0).
    static void sleep(int ms);

    // The text form described above.
    static std::string formatDuration(double ms);

private:
    using Clock = std::chrono::steady_clock;

    Clock::duration m_accumulated{};
    Clock::time_point m_startedAt;
    bool m_running = false;
};

} // namespace Velmoria
