#include "host/core/Timer.h"

#include <fmt/format.h>

#include <cmath>
#include <thread>

namespace Velmoria {

Timer::Timer(bool start)
{
    if (start)
        resume();
}

double Timer::getPassedMs() const
{
    Clock::duration total = m_accumulated;
    if (m_running)
        total += Clock::now() - m_startedAt;
    return std::chrono::duration<double, std::milli>(total).count();
}

double Timer::getPassedMsAndReset()
{
    // One clock reading serves both the result and the restart, so no time falls between.
    Clock::time_point const now = Clock::now();
    Clock::duration total = m_accumulated;
    if (m_running) {
        total += now - m_startedAt;
        m_startedAt = now;
    }
    m_accumulated = {};
    return std::chrono::duration<double, std::milli>(total).count();
}

std::string Timer::formatPassed() const
{
    return formatDuration(getPassedMs());
}

std::string Timer::formatPassedAndReset()
{
    return formatDuration(getPassedMsAndReset());
}

void Timer::reset()
{
    m_accumulated = {};
    m_startedAt = Clock::now();
    m_running = true;
}

void Timer::pause()
{
    if (!m_running)
        return;
    m_accumulated += Clock::now() - m_startedAt;
    m_running = false;
}

void Timer::resume()
{
    if (m_running)
        return;
    m_startedAt = Clock::now();
    m_running = true;
}

void Timer::sleep(int ms)
{
    if (ms > 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

namespace {

// Three significant digits for values in [1, 1000): the number of decimals is chosen from the
// value as it will be rounded, so 9.996 reads "10.0", not "10.00".
std::string threeSignificant(double value, char const* unit)
{
    int const decimals = value < 9.995 ? 2 : value < 99.95 ? 1 : 0;
    return fmt::format("{:.{}f} {}", value, decimals, unit);
}

} // namespace

std::string Timer::formatDuration(double ms)
{
    if (!(ms > 0.0)) // negative and NaN
        ms = 0.0;
    if (ms < 0.9995)
        return fmt::format("{:.3f} ms", ms);
    if (ms < 999.5)
        return threeSignificant(ms, "ms");
    double const seconds = ms / 1000.0;
    if (seconds < 59.95)
        return threeSignificant(seconds, "s");

    double const rounded = std::round(seconds);
    if (rounded > 9.0e15) // beyond exact integers in a double: no point in h/min/s
        return fmt::format("{:.3g} s", seconds);
    auto const total = static_cast<long long>(rounded);
    long long const hours = total / 3600;
    long long const minutes = total / 60 % 60;
    long long const secs = total % 60;
    if (hours > 0)
        return fmt::format("{} h {} min {} s", hours, minutes, secs);
    return fmt::format("{} min {} s", minutes, secs);
}

} // namespace Velmoria
