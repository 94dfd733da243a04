#pragma once

// Progress: how long-running work reports how far it got, and how a user stops it.
//
// Work creates a Progress::Task (through Progress::addTask or directly) with a number of steps,
// advances it, and polls wasCanceled() to stop early. A host UI derives from Progress and
// overrides the hooks onTaskStarted/onTaskChanged/onTaskEnded to draw; the base class is usable
// as it is (hooks do nothing) and keeps a thread-safe snapshot of the running tasks.
//
// Rules:
// - Nesting: a task started while other tasks of the same Progress are alive is the child of
//   the most recently started of them, whichever thread started it. Work that runs in
//   parallel should report as one task with several steps, or use separate Progress objects.
// - Steps: totalSteps 0 means "length unknown"; otherwise currentStep is kept within
//   [0, totalSteps]. Negative totals read as 0. A report that changes nothing calls no hook.
// - Hooks run on the thread that reports, outside the Progress's own lock (so they may call
//   activeTasks()), possibly on several threads at once; an override must be thread-safe when
//   its tasks are reported from several threads.
// - Cancel: cancel() may be called from any thread; every task of the Progress (running or
//   started later) then reports wasCanceled() until resetCanceled().
// - A task ends when it is destroyed (or moved-over). The Progress must outlive its tasks.
// - A Task with a null Progress counts its steps but reports nothing and is never canceled, so
//   work can take a Progress* that may be null without checking it.

#include <atomic>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace Velmoria {

class Progress
{
public:
    struct TaskInfo
    {
        int id = 0;       // unique within its Progress, counting from 1
        int parentId = 0; // 0 for a top-level task
        int depth = 0;    // 0 for a top-level task, parent's depth + 1 otherwise
        std::string description;
        int currentStep = 0;
        int totalSteps = 0; // 0: length unknown

        // currentStep / totalSteps, 0 when the length is unknown.
        double fraction() const
        {
            return totalSteps > 0 ? static_cast<double>(currentStep) / totalSteps : 0.0;
        }
    };

    class Task
    {
    public:
        Task(Progress* progress, int steps, std::string description);
        ~Task();
        Task(Task&& other) noexcept;
        // Ends this task's own report first, then takes over the other one's.
        Task& operator=(Task&& other) noexcept;
        Task(Task const&) = delete;
        Task& operator=(Task const&) = delete;

        void incrementStep(int n = 1);
        void setDescription(std::string text);
        void setSteps(int current, int total);
        // Ends the report now instead of at destruction; the task then reports nothing more.
        void end();

        bool wasCanceled() const;
        int currentStep() const { return m_current; }
        int totalSteps() const { return m_total; }
        std::string const& description() const { return m_description; }
        // 0 when the task reports to nothing (null progress, ended or moved from).
        int id() const { return m_id; }

    private:
        void report(bool descriptionChanged);

        Progress* m_progress = nullptr;
        int m_id = 0;
        int m_current = 0;
        int m_total = 0;
        std::string m_description;
    };

    Progress() = default;
    virtual ~Progress() = default;
    Progress(Progress const&) = delete;
    Progress& operator=(Progress const&) = delete;

    Task addTask(int steps, std::string description);

    void cancel() { m_canceled.store(true); }
    void resetCanceled() { m_canceled.store(false); }
    bool wasCanceled() const { return m_canceled.load(); }

    // The running tasks in the order they started; a copy, safe to use while tasks change.
    std::vector<TaskInfo> activeTasks() const;

protected:
    virtual void onTaskStarted(TaskInfo const& /*task*/) {}
    virtual void onTaskChanged(TaskInfo const& /*task*/) {}
    virtual void onTaskEnded(TaskInfo const& /*task*/) {}

private:
    friend class Task;
    TaskInfo startTask(int current, int total, std::string description);
    void changeTask(int id, int current, int total, std::string const* description);
    void endTask(int id);

    mutable std::mutex m_mutex;
    std::vector<TaskInfo> m_tasks; // alive, in start order
    int m_nextId = 1;
    std::atomic<bool> m_canceled{false};
};

// Draws progress as text, for command-line hosts.
// - Bar style (for terminals): one line redrawn in place with a carriage return,
//   "description [#####     ] 50%"; a finished top-level task ends the line.
// - Lines style (for log files and pipes): a line when a task starts and each time it passes
//   another 10%, indented by two blanks per nesting level.
// Automatic picks Bar when the stream is a terminal and Lines otherwise. The stream is not
// owned and must outlive this object.
class TextProgress : public Progress
{
public:
    enum class Style
    {
        Automatic,
        Bar,
        Lines,
    };

    explicit TextProgress(std::FILE* stream = stderr, Style style = Style::Automatic, int barWidth = 20);
    ~TextProgress() override;

    // "description [#####     ] 50%", or "description ..." when the length is unknown.
    static std::string formatBar(TaskInfo const& task, int barWidth);

    Style style() const { return m_style; }

protected:
    void onTaskStarted(TaskInfo const& task) override;
    void onTaskChanged(TaskInfo const& task) override;
    void onTaskEnded(TaskInfo const& task) override;

private:
    void drawBar(TaskInfo const& task);
    void writeLine(TaskInfo const& task);

    std::mutex m_outputMutex;
    std::FILE* m_stream;
    Style m_style;
    int m_barWidth;
    std::string m_lastBar;           // Bar style: what the line shows now
    bool m_lineOpen = false;         // Bar style: a line without its line break
    std::map<int, int> m_lastDecile; // Lines style: per task id, the last 10% step written
};

} // namespace Velmoria
