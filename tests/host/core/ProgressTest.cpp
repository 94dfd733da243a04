#include "host/core/Progress.h"

#include "host/core/Log.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

using namespace Velmoria;
using Task = Progress::Task;
using TaskInfo = Progress::TaskInfo;

namespace {

// Records every hook call, from any thread.
class RecordingProgress : public Progress
{
public:
    struct Event
    {
        char kind; // 'S'tarted, 'C'hanged, 'E'nded
        TaskInfo task;
    };

    std::vector<Event> events() const
    {
        std::lock_guard lock(m_mutex);
        return m_events;
    }
    // A compact trace: "S1:outer 0/3 p0 d0".
    std::vector<std::string> trace() const
    {
        std::vector<std::string> lines;
        for (Event const& event : events())
            lines.push_back(std::string(1, event.kind) + std::to_string(event.task.id) + ":" +
                            event.task.description + " " + std::to_string(event.task.currentStep) + "/" +
                            std::to_string(event.task.totalSteps) + " p" +
                            std::to_string(event.task.parentId) + " d" + std::to_string(event.task.depth));
        return lines;
    }

protected:
    void onTaskStarted(TaskInfo const& task) override { record('S', task); }
    void onTaskChanged(TaskInfo const& task) override { record('C', task); }
    void onTaskEnded(TaskInfo const& task) override { record('E', task); }

private:
    void record(char kind, TaskInfo const& task)
    {
        std::lock_guard lock(m_mutex);
        m_events.push_back({kind, task});
    }

    mutable std::mutex m_mutex;
    std::vector<Event> m_events;
};

class ProgressTest : public ::testing::Test
{
protected:
    RecordingProgress progress;
};

} // namespace

TEST_F(ProgressTest, StepsAndNestingReachTheHooks)
{
    {
        Task outer = progress.addTask(3, "outer");
        {
            Task inner(&progress, 2, "inner");
            EXPECT_EQ(progress.activeTasks().size(), 2u);
            inner.incrementStep();
            inner.setDescription("inner b");
            inner.incrementStep();
        }
        outer.incrementStep();
        Task sibling = progress.addTask(0, "sibling"); // child of outer, not of the ended inner task
        sibling.incrementStep(5);
        outer.setSteps(3, 3);
    }
    EXPECT_EQ(progress.trace(), (std::vector<std::string>{
                                    "S1:outer 0/3 p0 d0",
                                    "S2:inner 0/2 p1 d1",
                                    "C2:inner 1/2 p1 d1",
                                    "C2:inner b 1/2 p1 d1",
                                    "C2:inner b 2/2 p1 d1",
                                    "E2:inner b 2/2 p1 d1",
                                    "C1:outer 1/3 p0 d0",
                                    "S3:sibling 0/0 p1 d1",
                                    "C3:sibling 5/0 p1 d1",
                                    "C1:outer 3/3 p0 d0",
                                    "E3:sibling 5/0 p1 d1",
                                    "E1:outer 3/3 p0 d0",
                                }));
    EXPECT_TRUE(progress.activeTasks().empty());
}

TEST_F(ProgressTest, ActiveTasksIsASnapshotInStartOrder)
{
    Task a = progress.addTask(10, "a");
    Task b = progress.addTask(4, "b");
    b.setSteps(2, 4);
    std::vector<TaskInfo> const tasks = progress.activeTasks();
    ASSERT_EQ(tasks.size(), 2u);
    EXPECT_EQ(tasks[0].description, "a");
    EXPECT_EQ(tasks[1].description, "b");
    EXPECT_EQ(tasks[1].currentStep, 2);
    EXPECT_DOUBLE_EQ(tasks[1].fraction(), 0.5);
    a.end(); // ending out of order leaves the other running
    ASSERT_EQ(progress.activeTasks().size(), 1u);
    EXPECT_EQ(progress.activeTasks()[0].id, b.id());
    EXPECT_EQ(a.id(), 0);
}

namespace {

struct StepCase
{
    char const* name;
    int initialTotal;
    void (*apply)(Task&);
    int current;
    int total;
};

class ProgressSteps : public ::testing::TestWithParam<StepCase>
{};

} // namespace

TEST_P(ProgressSteps, AreKeptInRangeAndReachTheSnapshot)
{
    StepCase const& step = GetParam();
    RecordingProgress progress;
    Task task = progress.addTask(step.initialTotal, "t");
    step.apply(task);
    EXPECT_EQ(task.currentStep(), step.current);
    EXPECT_EQ(task.totalSteps(), step.total);
    ASSERT_EQ(progress.activeTasks().size(), 1u);
    EXPECT_EQ(progress.activeTasks()[0].currentStep, step.current);
    EXPECT_EQ(progress.activeTasks()[0].totalSteps, step.total);

    // The same operations on a task without a Progress count the same way.
    Task detached(nullptr, step.initialTotal, "t");
    step.apply(detached);
    EXPECT_EQ(detached.currentStep(), step.current);
    EXPECT_EQ(detached.totalSteps(), step.total);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ProgressSteps,
    ::testing::Values(StepCase{"IncrementStopsAtTotal", 3, [](Task& t) { t.incrementStep(5); }, 3, 3},
                      StepCase{"NegativeIncrementStopsAtZero", 3,
                               [](Task& t) {
                                   t.incrementStep(2);
                                   t.incrementStep(-7);
                               },
                               0, 3},
                      StepCase{"SetStepsClampsCurrent", 3, [](Task& t) { t.setSteps(9, 4); }, 4, 4},
                      StepCase{"SetStepsNegativeCurrent", 3, [](Task& t) { t.setSteps(-2, 4); }, 0, 4},
                      StepCase{"NegativeTotalIsUnknown", -5, [](Task& t) { t.incrementStep(7); }, 7, 0},
                      StepCase{"UnknownLengthDoesNotOverflow", 0,
                               [](Task& t) {
                                   t.setSteps(2147483000, 0);
                                   t.incrementStep(2000);
                               },
                               2147483647, 0},
                      StepCase{"ShrinkingTotalClampsCurrent", 10,
                               [](Task& t) {
                                   t.incrementStep(8);
                                   t.setSteps(t.currentStep(), 5);
                               },
                               5, 5}),
    [](::testing::TestParamInfo<StepCase> const& info) { return std::string(info.param.name); });

TEST_F(ProgressTest, ReportsThatChangeNothingCallNoHook)
{
    Task task = progress.addTask(2, "same");
    task.incrementStep(0);
    task.setDescription("same");
    task.setSteps(0, 2);
    task.incrementStep(2);
    task.incrementStep(); // already at the end
    std::vector<std::string> const trace = progress.trace();
    EXPECT_EQ(trace, (std::vector<std::string>{"S1:same 0/2 p0 d0", "C1:same 2/2 p0 d0"}));
}

TEST_F(ProgressTest, MovedTasksEndExactlyOnce)
{
    Task first = progress.addTask(1, "first");
    Task moved = std::move(first);
    EXPECT_EQ(first.id(), 0);
    first.incrementStep(); // a moved-from task reports nothing
    Task second = progress.addTask(1, "second");
    second = std::move(moved); // ends "second", then carries "first"
    EXPECT_EQ(second.description(), "first");
    second.end();
    second.end();
    int ends = 0;
    std::set<int> endedIds;
    for (auto const& event : progress.events()) {
        if (event.kind == 'E') {
            ++ends;
            endedIds.insert(event.task.id);
        }
        EXPECT_NE(event.kind, 'C');
    }
    EXPECT_EQ(ends, 2);
    EXPECT_EQ(endedIds, (std::set<int>{1, 2}));
    EXPECT_TRUE(progress.activeTasks().empty());
}

TEST(Progress, NullProgressIsANoOp)
{
    Task task(nullptr, 4, "alone");
    task.incrementStep(3);
    task.setDescription("still alone");
    EXPECT_EQ(task.currentStep(), 3);
    EXPECT_EQ(task.description(), "still alone");
    EXPECT_EQ(task.id(), 0);
    EXPECT_FALSE(task.wasCanceled());
}

TEST_F(ProgressTest, CancelReachesEveryTaskAndCanBeReset)
{
    Task outer = progress.addTask(2, "outer");
    Task inner = progress.addTask(2, "inner");
    EXPECT_FALSE(inner.wasCanceled());
    progress.cancel();
    EXPECT_TRUE(outer.wasCanceled());
    EXPECT_TRUE(inner.wasCanceled());
    EXPECT_TRUE(progress.addTask(1, "later").wasCanceled());
    inner.end();
    EXPECT_TRUE(inner.wasCanceled()); // an ended task still tells its work to stop
    progress.resetCanceled();
    EXPECT_FALSE(outer.wasCanceled());
}

TEST_F(ProgressTest, CancelFromAnotherThreadStopsAPollingWorker)
{
    std::atomic<bool> started{false};
    long long iterations = 0;
    constexpr long long kLimit = 100'000'000; // a bound, so a lost cancel fails instead of hanging
    std::thread worker([&] {
        Task task = progress.addTask(0, "work");
        while (!task.wasCanceled() && iterations < kLimit) {
            ++iterations;
            started.store(true);
            std::this_thread::yield();
        }
    });
    for (long long spin = 0; !started.load() && spin < kLimit; ++spin)
        std::this_thread::yield();
    progress.cancel();
    worker.join();
    EXPECT_TRUE(started.load());
    EXPECT_LT(iterations, kLimit);
}

TEST_F(ProgressTest, TasksFromSeveralThreadsAreAllStartedAndEnded)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([this] {
            for (int i = 0; i < 100; ++i) {
                Task task = progress.addTask(2, "parallel");
                task.incrementStep();
                (void)progress.activeTasks();
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    std::set<int> started, ended;
    for (auto const& event : progress.events()) {
        if (event.kind == 'S') {
            EXPECT_TRUE(started.insert(event.task.id).second) << "id " << event.task.id << " started twice";
        }
        if (event.kind == 'E') {
            EXPECT_TRUE(ended.insert(event.task.id).second) << "id " << event.task.id << " ended twice";
        }
    }
    EXPECT_EQ(started.size(), 400u);
    EXPECT_EQ(started, ended);
    EXPECT_TRUE(progress.activeTasks().empty());
}

// ---------------------------------------------------------------------------------------------
// TextProgress

namespace {

struct BarCase
{
    char const* description;
    int current;
    int total;
    int width;
    char const* text;
};

class TextProgressBar : public ::testing::TestWithParam<BarCase>
{};

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

} // namespace

TEST_P(TextProgressBar, Formats)
{
    BarCase const& bar = GetParam();
    TaskInfo task;
    task.description = bar.description;
    task.currentStep = bar.current;
    task.totalSteps = bar.total;
    EXPECT_EQ(TextProgress::formatBar(task, bar.width), bar.text);
}

INSTANTIATE_TEST_SUITE_P(Bars, TextProgressBar,
                         ::testing::Values(BarCase{"Loading", 5, 10, 10, "Loading [#####     ] 50%"},
                                           BarCase{"Loading", 0, 3, 4, "Loading [    ] 0%"},
                                           BarCase{"Loading", 2, 3, 4, "Loading [##  ] 66%"},
                                           BarCase{"Done", 7, 7, 5, "Done [#####] 100%"},
                                           BarCase{"", 1, 2, 2, "[# ] 50%"},
                                           BarCase{"Scanning", 12, 0, 10, "Scanning ..."}));

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
