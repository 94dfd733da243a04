// The small utilities of the host core: text helpers, flag sets, type names and timers.
#include "host/core/Flags.h"
#include "host/core/Log.h"
#include "host/core/Platform.h"
#include "host/core/Random.h"
#include "host/core/String.h"
#include "host/core/Timer.h"
#include "host/gl/ContextManager.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

using namespace Velmoria;

namespace {

using Strings = std::vector<std::string>;

TEST(String, SplitTrimReplaceCaseAndAffixes)
{
    EXPECT_EQ(String::split("a,,b", ','), (Strings{"a", "", "b"}));
    EXPECT_EQ(String::split("a,,b", ',', true), (Strings{"a", "b"}));
    EXPECT_EQ(String::split("", ','), (Strings{""}));
    EXPECT_TRUE(String::split("", ',', true).empty());
    EXPECT_EQ(String::split("a::b::", "::"), (Strings{"a", "b", ""}));
    EXPECT_EQ(String::split("abc", ""), (Strings{"abc"}));
    EXPECT_EQ(String::splitWhitespace("  1 \t2\n 3  "), (Strings{"1", "2", "3"}));
    EXPECT_TRUE(String::splitWhitespace(" \t\n").empty());
    EXPECT_EQ(String::trimCopy("  a b \r\n"), "a b");
    EXPECT_EQ(String::trimCopy(" \t "), "");
    std::string text = "\tx ";
    String::trim(text);
    EXPECT_EQ(text, "x");
    // Replaced text is not scanned again.
    EXPECT_EQ(String::replaceAllCopy("aaa", "a", "aa"), "aaaaaa");
    EXPECT_EQ(String::replaceAllCopy("abc", "", "x"), "abc");
    EXPECT_EQ(String::toLowerCopy("TrUe"), "true");
    EXPECT_EQ(String::toUpperCopy("ml.Engine"), "ML.ENGINE");
    EXPECT_TRUE(String::equalsIgnoreCase("FALSE", "false"));
    EXPECT_FALSE(String::equalsIgnoreCase("false", "fals"));
    EXPECT_TRUE(String::startsWith("model.yaml", "model"));
    EXPECT_TRUE(String::endsWith("model.yaml", ".yaml"));
    EXPECT_FALSE(String::endsWith("a", "ab"));
    EXPECT_TRUE(String::contains("ML.Operation", "Oper"));
    EXPECT_EQ(String::join({"a", "b", "c"}, ", "), "a, b, c");
    EXPECT_EQ(String::join({}, ", "), "");
}

// "Did you mean" hints: one edit per three letters at most, swapped neighbours count once, case
// is ignored, and nothing is suggested for a word that resembles no candidate.
TEST(String, ClosestMatchSuggestsOnlyNearKeys)
{
    std::vector<std::string> const keys = {"resolution", "target_dims", "max", "min", "apply_to"};
    EXPECT_EQ(String::closestMatch("resolutoin", keys), "resolution");
    EXPECT_EQ(String::closestMatch("target_dim", keys), "target_dims");
    EXPECT_EQ(String::closestMatch("MAX", keys), "max");
    EXPECT_EQ(String::closestMatch("mxa", keys), "max");
    EXPECT_EQ(String::closestMatch("maxx", keys), "max");
    EXPECT_EQ(String::closestMatch("spacing", keys), "");
    EXPECT_EQ(String::closestMatch("reso", keys), "");
    EXPECT_EQ(String::closestMatch("x", {}), "");
}

// This build has no GPU backend: asking for a context is refused with one line saying so, and
// work meant for the GL thread runs directly.
TEST(ContextManager, NoBackendMeansNoContextAndFunctionsRunDirectly)
{
    EXPECT_FALSE(GL::ContextManager::hasCurrent());
    Log::Capture capture;
    EXPECT_FALSE(GL::ContextManager::get().createContext());
    EXPECT_TRUE(capture.contains(
        "Cannot create an OpenGL context: this build has no GPU backend, everything runs on the CPU",
        "Host.ContextManager"));
    EXPECT_EQ(GL::ContextManager::get().runWithOpenGL([] { return 41 + 1; }, true), 42);
}

enum class Option : unsigned
{
    None = 0,
    A = 1,
    B = 2,
    C = 4,
    AB = 3,
};

TEST(Flags, SetTestResetAndCombine)
{
    Flags<Option> flags;
    EXPECT_TRUE(flags.empty());
    flags |= Option::A;
    flags.set(Option::C);
    EXPECT_EQ(flags.value(), 5u);
    EXPECT_FALSE(flags.test(Option::B));
    flags.reset(Option::A);
    EXPECT_EQ(flags.value(), 4u);
    EXPECT_FALSE(flags.test(Option::None)) << "a zero flag is never reported as set";

    Flags<Option> ab{Option::A, Option::B};
    Flags<Option> bc{Option::B, Option::C};
    EXPECT_EQ((ab & bc).value(), 2u);
    EXPECT_EQ((ab | bc).value(), 7u);
    EXPECT_EQ((ab ^ bc).value(), 5u);
    EXPECT_EQ(Flags<Option>::fromValue(ab.value()), ab);
    EXPECT_FALSE(static_cast<bool>(Flags<Option>()));
    // A flag of several bits is set only when all of them are.
    Flags<Option> const a = Option::A;
    EXPECT_FALSE(a.test(Option::AB));
    EXPECT_TRUE(a.testAny(Option::AB));
    EXPECT_TRUE(ab.test(Option::AB));
}

struct LocalType
{};

TEST(Platform, TypeNamesAreReadable)
{
    EXPECT_EQ(Platform::demangleTypeName(typeid(unsigned long)), "unsigned long");
    EXPECT_EQ(Platform::demangleTypeName(typeid(std::vector<int>)), "std::vector<int, std::allocator<int> >");
    EXPECT_EQ(Platform::demangleTypeName(typeid(double const*)), "double const*");
    EXPECT_EQ(Platform::demangleTypeName(typeid(LocalType)), "(anonymous namespace)::LocalType");
    // References and top-level const are dropped.
    EXPECT_EQ(Platform::typeName<Random::Pcg64Engine const&>(), "Velmoria::Random::Pcg64Engine");
    EXPECT_EQ(Platform::typeName<float[3]>(), "float [3]");
    // Invalid mangled names come back unchanged.
    EXPECT_EQ(Platform::demangle("i"), "int");
    EXPECT_EQ(Platform::demangle("not a mangled name"), "not a mangled name");
    EXPECT_EQ(Platform::demangle("_Z"), "_Z");
    EXPECT_EQ(Platform::demangle(nullptr), "");
}

TEST(Timer, FormatChoosesUnitAndDigits)
{
    struct Case
    {
        double ms;
        char const* text;
    };
    for (Case const& c :
         {Case{-5.0, "0.000 ms"}, Case{std::nan(""), "0.000 ms"}, Case{0.1234, "0.123 ms"},
          Case{0.9996, "1.00 ms"}, Case{9.996, "10.0 ms"}, Case{12.34, "12.3 ms"}, Case{99.96, "100 ms"},
          Case{999.4, "999 ms"}, Case{999.6, "1.00 s"}, Case{4560.0, "4.56 s"}, Case{59940.0, "59.9 s"},
          Case{59960.0, "1 min 0 s"}, Case{123000.0, "2 min 3 s"}, Case{3599600.0, "1 h 0 min 0 s"},
          Case{3723000.0, "1 h 2 min 3 s"}, Case{90000000.0, "25 h 0 min 0 s"}})
        EXPECT_EQ(Timer::formatDuration(c.ms), c.text) << "for " << c.ms << " ms";
}

TEST(Timer, PausedTimeDoesNotCountAndResetsRestartFromZero)
{
    Timer created(false);
    Timer::sleep(2);
    EXPECT_EQ(created.formatPassed(), "0.000 ms") << "created paused, it stays at zero until resumed";

    Timer reference;
    Timer timer;
    timer.pause();
    double const atPause = timer.getPassedMs();
    Timer::sleep(20);
    EXPECT_EQ(timer.getPassedMs(), atPause); // a paused timer does not advance at all
    timer.pause();                           // a second pause changes nothing
    timer.resume();
    timer.resume(); // neither does a second resume
    Timer::sleep(3);
    timer.pause();
    double const timed = timer.getPassedMs();
    // The reference counted the 20 ms pause as well; the timer did not.
    EXPECT_GE(reference.getPassedMs() - timed, 20.0);
    EXPECT_GE(timer.getPassedMsAndReset() - atPause, 3.0); // sleep waits at least this long on the same clock
    EXPECT_EQ(timer.getPassedMs(), 0.0) << "restarted at zero and, being paused, stays there";
    EXPECT_FALSE(timer.isRunning());

    timer.resume();
    Timer::sleep(2);
    EXPECT_NE(timer.formatPassedAndReset(), "0.000 ms");
    timer.pause();
    timer.reset(); // reset also starts a paused timer
    EXPECT_TRUE(timer.isRunning());
    Timer::sleep(1);
    EXPECT_GT(timer.getPassedMs(), 0.0);
}

} // namespace
