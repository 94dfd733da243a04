#pragma once

// Log: the one place where every component of Velmoria reports what happened.
//
// A message has a level (1 debug, 2 information, 3 warning, 4 error) and a category that names
// the component ("ML.Operation", "Host.Properties", ...). A caller first compares the level with
// `Log::g_globalLevel`, then asks `Log::isAccepted`, and only then builds the text: the
// VELMORIA_LOG_* macros below do exactly that, so a filtered message costs one comparison.
//
// Messages go to every installed sink. Without any sink installed by the application, records
// go to standard error as "[level] category: message". `Log::Capture` collects records for
// tests. All functions are thread-safe.

#include <fmt/core.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Velmoria {

class Log
{
public:
    enum Level : int
    {
        Debug = 1,
        Info = 2,
        Warning = 3,
        Error = 4,
    };

    // Messages below this level are dropped before anything else is looked at.
    static std::atomic<int> g_globalLevel;

    struct Record
    {
        int level = Info;
        std::string category;
        std::string message;
        std::string file; // empty when the caller gave none
        int line = 0;
        std::chrono::system_clock::time_point time;
    };

    // Receives every accepted record. `write` may be called from several threads at once.
    class Sink
    {
    public:
        virtual ~Sink() = default;
        virtual void write(Record const& record) = 0;
    };

    // True when a message of this level and category passes the global threshold and the
    // threshold of the most specific category rule (see setCategoryLevel).
    static bool isAccepted(int level, std::string_view category);

    // Hands one message to the sinks. Applies isAccepted itself, so direct calls are safe too.
    static void log(int level, std::string_view category, std::string_view message,
                    char const* file = nullptr, int line = 0);

    // A threshold for one category and everything below it: "ML" covers "ML" and "ML.Engine"
    // but not "MLX". The longest matching rule wins. A level of 0 accepts everything.
    static void setCategoryLevel(std::string const& category, int level);
    static void clearCategoryLevels();

    // Sinks. While at least one is installed, the default standard-error sink is silent
    // unless it was added explicitly with addStandardErrorSink().
    static void addSink(std::shared_ptr<Sink> sink);
    static void removeSink(Sink const* sink);
    static std::shared_ptr<Sink> standardErrorSink();

    // "DEBUG", "INFO", "WARNING", "ERROR" (and "LEVEL n" for anything else).
    static std::string_view levelName(int level);

    // Collects the records logged during its lifetime, for tests. With `passThrough` false
    // (the default) the other sinks are muted meanwhile, so expected errors do not clutter the
    // output of a test run.
    class Capture
    {
    public:
        explicit Capture(bool passThrough = false);
        ~Capture();
        Capture(Capture const&) = delete;
        Capture& operator=(Capture const&) = delete;

        std::vector<Record> records() const;
        // Messages only, optionally of one level (0 = all levels).
        std::vector<std::string> messages(int level = 0) const;
        // Number of records whose message equals `message` exactly (and whose category equals
        // `category` when it is not empty).
        int count(std::string_view message, std::string_view category = {}) const;
        bool contains(std::string_view message, std::string_view category = {}) const
        {
            return count(message, category) > 0;
        }
        // True when some record's message contains `fragment`.
        bool containsFragment(std::string_view fragment) const;
        void clear();

    private:
        class CaptureSink;
        std::shared_ptr<CaptureSink> m_sink;
        bool m_passThrough;
    };
};

namespace LogDetail {

template <typename... Args>
void write(int level, std::string_view category, char const* file, int line,
           fmt::format_string<Args...> format, Args&&... args)
{
    if (level < Log::g_globalLevel.load(std::memory_order_relaxed) || !Log::isAccepted(level, category))
        return;
    Log::log(level, category, fmt::vformat(format, fmt::make_format_args(args...)), file, line);
}

} // namespace LogDetail

} // namespace Velmoria

// VELMORIA_LOG_ERROR("ML.Engine", "Could not open {}", path);
#define VELMORIA_LOG(level, category, ...)                                                                   \
    ::Velmoria::LogDetail::write(level, category, __FILE__, __LINE__, __VA_ARGS__)
#define VELMORIA_LOG_DEBUG(category, ...) VELMORIA_LOG(::Velmoria::Log::Debug, category, __VA_ARGS__)
#define VELMORIA_LOG_INFO(category, ...) VELMORIA_LOG(::Velmoria::Log::Info, category, __VA_ARGS__)
#define VELMORIA_LOG_WARNING(category, ...) VELMORIA_LOG(::Velmoria::Log::Warning, category, __VA_ARGS__)
#define VELMORIA_LOG_ERROR(category, ...) VELMORIA_LOG(::Velmoria::Log::Error, category, __VA_ARGS__)
