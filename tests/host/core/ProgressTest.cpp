#include "host/core/Progress.h"

#include "host/core/Log.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

using namespace Velmoria;
using Task = Progress::Task;
using TaskInfo = Progress::TaskInfo;

namespace {

// Records every hook call as "S1:outer 0/3 p0 d0": Started, Changed or Ended, then id,
// description, steps, parent id and depth.
class RecordingProgress : public Progress
{
public:
    std::vector<std::string> const& trace() const { return m_trace; }

protected:
    void onTaskStarted(TaskInfo const& task) override { record('S', task); }
    void onTaskChanged(TaskInfo const& task) override { record('C', task); }
    void onTaskEnded(TaskInfo const& task) override { record('E', task); }

private:
    void record(char kind, TaskInfo const& task)
    {
        m_trace.push_back(std::string(1, kind) + std::to_string(task.id) + ":" + task.description + " " +
                          std::to_string(task.currentStep) + "/" + std::to_string(task.totalSteps) + " p" +
                          std::to_string(task.parentId) + " d" + std::to_string(task.depth));
    }

    std::vector<std::string> m_trace;
};

TEST(Progress, StepsAndNestingReachTheHooks)
{
    RecordingProgress progress;
    {
        Task outer = progress.addTask(3, "outer");
        {
            Task inner(&progress, 2, "inner");
            inner.incrementStep();
            std::vector<TaskInfo> const active = progress.activeTasks(); // a snapshot in start order
            ASSERT_EQ(active.size(), 2u);
            EXPECT_EQ(active[1].description, "inner");
            EXPECT_DOUBLE_EQ(active[1].fraction(), 0.5);
            inner.setDescription("inner b");
            inner.incrementStep();
        }
        outer.incrementStep();
        Task sibling = progress.addTask(0, "sibling"); // child of outer, not of the ended inner task
        sibling.incrementStep(5);
        outer.setSteps(3, 3);
    }
    EXPECT_EQ(progress.trace(), (std::vector<std::string>{
                                    "S1:outer 0/3 p0 d0", "S2:inner 0/2 p1 d1", "C2:inner 1/2 p1 d1",
                                    "C2:inner b 1/2 p1 d1", "C2:inner b 2/2 p1 d1", "E2:inner b 2/2 p1 d1",
                                    "C1:outer 1/3 p0 d0", "S3:sibling 0/0 p1 d1", "C3:sibling 5/0 p1 d1",
                                    "C1:outer 3/3 p0 d0", "E3:sibling 5/0 p1 d1", "E1:outer 3/3 p0 d0"}));
    EXPECT_TRUE(progress.activeTasks().empty());
}

TEST(ProgressTask, StepsAreKeptInRange)
{
    // A task without a Progress counts the same way as one with.
    Task task(nullptr, 3, "t");
    task.incrementStep(5);
    EXPECT_EQ(task.currentStep(), 3) << "an increment stops at the total";
    task.incrementStep(-7);
    EXPECT_EQ(task.currentStep(), 0) << "and a negative one at zero";
    task.setSteps(9, 4);
    EXPECT_EQ(task.currentStep(), 4);
    task.setSteps(-2, 4);
    EXPECT_EQ(task.currentStep(), 0);
    task.setSteps(8, 10);
    task.setSteps(task.currentStep(), 5);
    EXPECT_EQ(task.currentStep(), 5) << "a shrinking total clamps the current step";
    EXPECT_FALSE(task.wasCanceled());

    Task unknown(nullptr, -5, "t");
    EXPECT_EQ(unknown.totalSteps(), 0) << "a negative total is unknown";
    unknown.setSteps(2147483000, 0);
    unknown.incrementStep(2000);
    EXPECT_EQ(unknown.currentStep(), 2147483647) << "an unknown length does not overflow";
}

TEST(Progress, ReportsThatChangeNothingCallNoHookAndMovedTasksEndOnce)
{
    RecordingProgress progress;
    Task first = progress.addTask(1, "first");
    Task moved = std::move(first);
    EXPECT_EQ(first.id(), 0);
    first.incrementStep(); // a moved-from task reports nothing
    Task second = progress.addTask(1, "second");
    second.incrementStep(0);
    second.setDescription("second");
    second.setSteps(0, 1);
    second = std::move(moved); // ends "second", then carries "first"
    second.incrementStep(2);
    second.incrementStep(); // already at the end
    second.end();
    second.end();
    EXPECT_EQ(progress.trace(),
              (std::vector<std::string>{"S1:first 0/1 p0 d0", "S2:second 0/1 p1 d1", "E2:second 0/1 p1 d1",
                                        "C1:first 1/1 p0 d0", "E1:first 1/1 p0 d0"}));
    EXPECT_TRUE(progress.activeTasks().empty());
}

TEST(Progress, CancelReachesEveryTaskAndCanBeReset)
{
    RecordingProgress progress;
    Task outer = progress.addTask(2, "outer");
    Task inner = progress.addTask(2, "inner");
    progress.cancel();
    EXPECT_TRUE(outer.wasCanceled());
    EXPECT_TRUE(inner.wasCanceled());
    EXPECT_TRUE(progress.addTask(1, "later").wasCanceled());
    inner.end();
    EXPECT_TRUE(inner.wasCanceled()); // an ended task still tells its work to stop
    progress.resetCanceled();
    EXPECT_FALSE(outer.wasCanceled());
}

// Everything a TextProgress wrote into a temporary file.
std::string readAll(std::FILE* file)
{
    std::fflush(file);
    std::rewind(file);
    std::string text;
    for (int c = std::fgetc(file); c != EOF; c = std::fgetc(file))
        text.push_back(static_cast<char>(c));
    return text;
}

using FilePointer = std::unique_ptr<std::FILE, decltype(&std::fclose)>;

TEST(TextProgress, FormatsABarOfTheGivenWidth)
{
    struct Case
    {
        char const* description;
        int current;
        int total;
        int width;
        char const* text;
    };
    for (Case const& bar :
         {Case{"Loading", 5, 10, 10, "Loading [#####     ] 50%"},
          Case{"Loading", 2, 3, 4, "Loading [##  ] 66%"}, Case{"Done", 7, 7, 5, "Done [#####] 100%"},
          Case{"", 1, 2, 2, "[# ] 50%"}, Case{"Scanning", 12, 0, 10, "Scanning ..."}}) {
        TaskInfo task;
        task.description = bar.description;
        task.currentStep = bar.current;
        task.totalSteps = bar.total;
        EXPECT_EQ(TextProgress::formatBar(task, bar.width), bar.text);
    }
}

TEST(TextProgress, LinesStyleWritesOneLinePerTenPercent)
{
    FilePointer file(std::tmpfile(), &std::fclose);
    ASSERT_NE(file, nullptr);
    {
        TextProgress progress(file.get(), TextProgress::Style::Automatic, 10);
        EXPECT_EQ(progress.style(), TextProgress::Style::Lines); // a file is no terminal
        Task task = progress.addTask(20, "Epoch");
        Task inner = progress.addTask(2, "Batch");
        inner.incrementStep(2);
        inner.end();
        for (int i = 0; i < 20; ++i)
            task.incrementStep();
    }
    std::string const expected = "Epoch [          ] 0%\n"
                                 "  Batch [          ] 0%\n"
                                 "  Batch [##########] 100%\n"
                                 "Epoch [#         ] 10%\n"
                                 "Epoch [##        ] 20%\n"
                                 "Epoch [###       ] 30%\n"
                                 "Epoch [####      ] 40%\n"
                                 "Epoch [#####     ] 50%\n"
                                 "Epoch [######    ] 60%\n"
                                 "Epoch [#######   ] 70%\n"
                                 "Epoch [########  ] 80%\n"
                                 "Epoch [######### ] 90%\n"
                                 "Epoch [##########] 100%\n";
    EXPECT_EQ(readAll(file.get()), expected);
}

TEST(TextProgress, BarStyleRedrawsOneLineInPlace)
{
    FilePointer file(std::tmpfile(), &std::fclose);
    ASSERT_NE(file, nullptr);
    {
        TextProgress progress(file.get(), TextProgress::Style::Bar, 4);
        Task task = progress.addTask(800, "Predicting case 1");
        task.incrementStep();    // still reads 0%: the line is not redrawn
        task.incrementStep(99);  // 12%
        task.incrementStep(100); // 25%
        task.setDescription("Saving");
        task.setSteps(800, 800);
    }
    std::string const expected = "\rPredicting case 1 [    ] 0%"
                                 "\rPredicting case 1 [    ] 12%"
                                 "\rPredicting case 1 [#   ] 25%"
                                 "\rSaving [#   ] 25%           " // blanks cover the longer text
                                 "\rSaving [####] 100%"
                                 "\n";
    EXPECT_EQ(readAll(file.get()), expected);
}

TEST(TextProgress, WithoutAStreamWarnsAndStaysSilent)
{
    Log::Capture capture;
    TextProgress progress(nullptr, TextProgress::Style::Bar);
    Task task = progress.addTask(2, "Nowhere");
    task.incrementStep(2);
    EXPECT_EQ(progress.activeTasks().at(0).currentStep, 2); // still tracked for other readers
    EXPECT_TRUE(capture.contains("TextProgress has no output stream; progress will not be shown",
                                 "Host.TextProgress"));
}

} // namespace
