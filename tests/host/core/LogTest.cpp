#include "host/core/Log.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

using namespace Velmoria;

namespace {

// Restores the global threshold and category rules that a test changes.
class LogTest : public ::testing::Test
{
protected:
    void SetUp() override { m_savedLevel = Log::g_globalLevel.load(); }
    void TearDown() override
    {
        Log::g_globalLevel = m_savedLevel;
        Log::clearCategoryLevels();
    }

private:
    int m_savedLevel = Log::Info;
};

TEST_F(LogTest, MacroFormatsWithFmtAndKeepsCategoryAndSource)
{
    Log::Capture capture;
    VELMORIA_LOG_WARNING("ML.Engine", "Could not open {} (code {})", "model.pt", 3);
    auto records = capture.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].level, Log::Warning);
    EXPECT_EQ(records[0].category, "ML.Engine");
    EXPECT_EQ(records[0].message, "Could not open model.pt (code 3)");
    EXPECT_NE(records[0].file.find("LogTest.cpp"), std::string::npos);
    EXPECT_GT(records[0].line, 0);
    EXPECT_EQ(Log::levelName(Log::Debug), "DEBUG");
    EXPECT_EQ(Log::levelName(Log::Info), "INFO");
    EXPECT_EQ(Log::levelName(Log::Warning), "WARNING");
    EXPECT_EQ(Log::levelName(17), "LEVEL");
}

TEST_F(LogTest, GlobalLevelFiltersMacrosAndDirectCalls)
{
    Log::Capture capture;
    Log::g_globalLevel = Log::Warning;
    VELMORIA_LOG_DEBUG("Host.X", "debug");
    VELMORIA_LOG_INFO("Host.X", "info");
    VELMORIA_LOG_WARNING("Host.X", "warning");
    VELMORIA_LOG_ERROR("Host.X", "error");
    Log::log(Log::Info, "Host.X", "dropped");
    Log::log(Log::Error, "Host.X", "direct");
    EXPECT_EQ(capture.messages(), (std::vector<std::string>{"warning", "error", "direct"}));
    Log::g_globalLevel = Log::Debug;
    VELMORIA_LOG_DEBUG("Host.X", "debug");
    EXPECT_TRUE(capture.contains("debug", "Host.X"));
}

TEST_F(LogTest, MostSpecificCategoryRuleWinsWithinTheGlobalThreshold)
{
    Log::g_globalLevel = Log::Debug;
    Log::setCategoryLevel("ML", Log::Error);
    Log::setCategoryLevel("ML.Engine", Log::Debug);
    EXPECT_FALSE(Log::isAccepted(Log::Warning, "ML"));
    EXPECT_FALSE(Log::isAccepted(Log::Warning, "ML.Operation"));
    EXPECT_TRUE(Log::isAccepted(Log::Error, "ML.Operation"));
    EXPECT_TRUE(Log::isAccepted(Log::Debug, "ML.Engine.Torch"));
    // A rule covers whole dotted components only.
    EXPECT_TRUE(Log::isAccepted(Log::Debug, "MLX"));
    // Setting a rule again replaces it.
    Log::setCategoryLevel("ML", Log::Debug);
    EXPECT_TRUE(Log::isAccepted(Log::Debug, "ML.Operation"));

    Log::g_globalLevel = Log::Warning;
    EXPECT_FALSE(Log::isAccepted(Log::Info, "ML.Engine")) << "the global threshold applies as well";
}

TEST_F(LogTest, CapturesNestAndCountExactMessagesPerCategory)
{
    Log::Capture outer;
    {
        Log::Capture inner;
        VELMORIA_LOG_ERROR("A", "same");
        VELMORIA_LOG_ERROR("B", "same");
        EXPECT_EQ(inner.count("same"), 2);
    }
    VELMORIA_LOG_ERROR("A", "same but longer");
    EXPECT_EQ(outer.count("same"), 2);
    EXPECT_EQ(outer.count("same", "A"), 1);
    EXPECT_FALSE(outer.contains("sam"));
    EXPECT_TRUE(outer.containsFragment("but long"));
    EXPECT_EQ(outer.messages(Log::Warning).size(), 0u);
    outer.clear();
    EXPECT_TRUE(outer.records().empty());
}

TEST_F(LogTest, ConcurrentLoggingLosesNothing)
{
    Log::Capture capture;
    constexpr int threads = 4;
    constexpr int perThread = 500;
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t)
        workers.emplace_back([t] {
            for (int i = 0; i < perThread; ++i)
                VELMORIA_LOG_INFO("Host.Thread", "thread {} message {}", t, i);
        });
    for (auto& worker : workers)
        worker.join();
    EXPECT_EQ(capture.records().size(), static_cast<std::size_t>(threads * perThread));
    EXPECT_TRUE(capture.contains("thread 3 message 499", "Host.Thread"));
}

TEST_F(LogTest, InstalledSinkReceivesRecordsUnlessMutedByCapture)
{
    struct CountingSink : Log::Sink
    {
        std::atomic<int> count{0};
        void write(Log::Record const&) override { ++count; }
    };
    auto sink = std::make_shared<CountingSink>();
    Log::addSink(sink);
    VELMORIA_LOG_ERROR("Host.X", "to the sink");
    {
        Log::Capture muting;
        VELMORIA_LOG_ERROR("Host.X", "muted");
    }
    {
        Log::Capture passing(true);
        VELMORIA_LOG_ERROR("Host.X", "passed through");
    }
    Log::removeSink(sink.get());
    VELMORIA_LOG_ERROR("Host.X", "after removal");
    EXPECT_EQ(sink->count.load(), 2);
}

} // namespace
