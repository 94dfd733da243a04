#pragma once

// ConversionLoss: how many values an assignment to an integer image could not store as they were
// computed (a fraction cut off, a value beyond the pixel type's range saturated, a NaN made 0).
//
// The CPU evaluator adds the count of every assignment to a counter of the calling thread; the
// code that runs a whole computation (an operation on one field) opens a Scope around it and asks
// lost() afterwards, so that it can say once, with the names the user knows, that an integer
// image lost information (the usual cure being a float image: MakeFloat). ImageMath itself never
// warns: it does not know which field or step it works for.

#include <cstdint>

namespace Velmoria::ImageMath {

class ConversionLoss
{
public:
    // Values changed on their way into an integer image, on this thread, since it started.
    static std::int64_t count() { return s_count; }
    static void add(std::int64_t values) { s_count += values; }

    // Counts what the assignments made on this thread within its lifetime changed.
    class Scope
    {
    public:
        Scope()
            : m_start(count())
        {}
        std::int64_t lost() const { return count() - m_start; }

    private:
        std::int64_t m_start;
    };

private:
    static inline thread_local std::int64_t s_count = 0;
};

} // namespace Velmoria::ImageMath
