#include "host/core/Log.h"

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <shared_mutex>

namespace Velmoria {

std::atomic<int> Log::g_globalLevel{Log::Info};

namespace {

class StandardErrorSink final : public Log::Sink
{
public:
    void write(Log::Record const& record) override
    {
        std::string line =
            fmt::format("[{}] {}: {}\n", Log::levelName(record.level), record.category, record.message);
        std::lock_guard lock(m_mutex);
        std::fwrite(line.data(), 1, line.size(), stderr);
        std::fflush(stderr);
    }

private:
    std::mutex m_mutex;
};

struct CaptureEntry
{
    std::shared_ptr<Log::Sink> sink;
    bool passThrough;
};

struct LogState
{
    std::shared_mutex mutex;
    std::vector<std::pair<std::string, int>> categoryLevels;
    std::vector<std::shared_ptr<Log::Sink>> sinks;
    std::vector<CaptureEntry> captures;
    std::shared_ptr<Log::Sink> standardError = std::make_shared<StandardErrorSink>();
};

LogState& state()
{
    static LogState s;
    return s;
}

// "ML" covers "ML" and "ML.X", not "MLX".
bool coversCategory(std::string_view rule, std::string_view category)
{
    if (rule.empty())
        return true;
    if (category.size() < rule.size() || category.substr(0, rule.size()) != rule)
        return false;
    return category.size() == rule.size() || category[rule.size()] == '.';
}

bool acceptedLocked(LogState const& s, int level, std::string_view category)
{
    if (level < Log::g_globalLevel.load(std::memory_order_relaxed))
        return false;
    std::size_t bestLength = 0;
    int threshold = 0;
    bool found = false;
    for (auto const& [rule, ruleLevel] : s.categoryLevels) {
        if (coversCategory(rule, category) && (!found || rule.size() >= bestLength)) {
            bestLength = rule.size();
            threshold = ruleLevel;
            found = true;
        }
    }
    return level >= threshold;
}

} // namespace

bool Log::isAccepted(int level, std::string_view category)
{
    auto& s = state();
    std::shared_lock lock(s.mutex);
    return acceptedLocked(s, level, category);
}

void Log::log(int level, std::string_view category, std::string_view message, char const* file, int line)
{
    auto& s = state();
    std::vector<std::shared_ptr<Sink>> targets;
    {
        std::shared_lock lock(s.mutex);
        if (!acceptedLocked(s, level, category))
            return;
        bool muted = std::any_of(s.captures.begin(), s.captures.end(),
                                 [](CaptureEntry const& c) { return !c.passThrough; });
        for (auto const& capture : s.captures)
            targets.push_back(capture.sink);
        if (!muted) {
            if (s.sinks.empty())
                targets.push_back(s.standardError);
            else
                targets.insert(targets.end(), s.sinks.begin(), s.sinks.end());
        }
    }
    Record record{level,
                  std::string(category),
                  std::string(message),
                  file ? std::string(file) : std::string(),
                  line,
                  std::chrono::system_clock::now()};
    for (auto const& sink : targets)
        sink->write(record);
}

void Log::setCategoryLevel(std::string const& category, int level)
{
    auto& s = state();
    std::unique_lock lock(s.mutex);
    for (auto& [rule, ruleLevel] : s.categoryLevels) {
        if (rule == category) {
            ruleLevel = level;
            return;
        }
    }
    s.categoryLevels.emplace_back(category, level);
}

void Log::clearCategoryLevels()
{
    auto& s = state();
    std::unique_lock lock(s.mutex);
    s.categoryLevels.clear();
}

void Log::addSink(std::shared_ptr<Sink> sink)
{
    if (!sink)
        return;
    auto& s = state();
    std::unique_lock lock(s.mutex);
    s.sinks.push_back(std::move(sink));
}

void Log::removeSink(Sink const* sink)
{
    auto& s = state();
    std::unique_lock lock(s.mutex);
    std::erase_if(s.sinks, [sink](auto const& candidate) { return candidate.get() == sink; });
}

std::shared_ptr<Log::Sink> Log::standardErrorSink()
{
    return state().standardError;
}

std::string_view Log::levelName(int level)
{
    switch (level) {
    case Debug:
        return "DEBUG";
    case Info:
        return "INFO";
    case Warning:
        return "WARNING";
    case Error:
        return "ERROR";
    default:
        return "LEVEL";
    }
}

// ---------------------------------------------------------------------------------------------

class Log::Capture::CaptureSink final : public Log::Sink
{
public:
    void write(Record const& record) override
    {
        std::lock_guard lock(mutex);
        records.push_back(record);
    }

    mutable std::mutex mutex;
    std::vector<Record> records;
};

Log::Capture::Capture(bool passThrough)
    : m_sink(std::make_shared<CaptureSink>())
    , m_passThrough(passThrough)
{
    auto& s = state();
    std::unique_lock lock(s.mutex);
    s.captures.push_back({m_sink, m_passThrough});
}

Log::Capture::~Capture()
{
    auto& s = state();
    std::unique_lock lock(s.mutex);
    std::erase_if(s.captures, [this](CaptureEntry const& c) { return c.sink == m_sink; });
}

std::vector<Log::Record> Log::Capture::records() const
{
    std::lock_guard lock(m_sink->mutex);
    return m_sink->records;
}

std::vector<std::string> Log::Capture::messages(int level) const
{
    std::lock_guard lock(m_sink->mutex);
    std::vector<std::string> result;
    for (auto const& record : m_sink->records)
        if (level == 0 || record.level == level)
            result.push_back(record.message);
    return result;
}

int Log::Capture::count(std::string_view message, std::string_view category) const
{
    std::lock_guard lock(m_sink->mutex);
    return static_cast<int>(
        std::count_if(m_sink->records.begin(), m_sink->records.end(), [&](Record const& r) {
            return r.message == message && (category.empty() || r.category == category);
        }));
}

bool Log::Capture::containsFragment(std::string_view fragment) const
{
    std::lock_guard lock(m_sink->mutex);
    return std::any_of(m_sink->records.begin(), m_sink->records.end(),
                       [&](Record const& r) { return r.message.find(fragment) != std::string::npos; });
}

void Log::Capture::clear()
{
    std::lock_guard lock(m_sink->mutex);
    m_sink->records.clear();
}

} // namespace Velmoria
