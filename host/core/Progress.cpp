#include "host/core/Progress.h"

#include "host/core/Log.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <utility>

namespace Velmoria {

namespace {

int clampStep(long long current, int total)
{
    if (current < 0)
        return 0;
    if (total > 0 && current > total)
        return total;
    return static_cast<int>(std::min<long long>(current, INT_MAX));
}

} // namespace

// ---------------------------------------------------------------------------------------------
// Progress::Task

Progress::Task::Task(Progress* progress, int steps, std::string description)
    : m_progress(progress)
    , m_total(std::max(0, steps))
    , m_description(std::move(description))
{
    if (m_progress)
        m_id = m_progress->startTask(m_current, m_total, m_description).id;
}

Progress::Task::~Task()
{
    end();
}

Progress::Task::Task(Task&& other) noexcept
    : m_progress(std::exchange(other.m_progress, nullptr))
    , m_id(std::exchange(other.m_id, 0))
    , m_current(other.m_current)
    , m_total(other.m_total)
    , m_description(std::move(other.m_description))
{}

Progress::Task& Progress::Task::operator=(Task&& other) noexcept
{
    if (this != &other) {
        end();
        m_progress = std::exchange(other.m_progress, nullptr);
        m_id = std::exchange(other.m_id, 0);
        m_current = other.m_current;
        m_total = other.m_total;
        m_description = std::move(other.m_description);
    }
    return *this;
}

void Progress::Task::incrementStep(int n)
{
    int const next = clampStep(static_cast<long long>(m_current) + n, m_total);
    if (next == m_current)
        return;
    m_current = next;
    report(false);
}

void Progress::Task::setDescription(std::string text)
{
    if (text == m_description)
        return;
    m_description = std::move(text);
    report(true);
}

void Progress::Task::setSteps(int current, int total)
{
    int const nextTotal = std::max(0, total);
    int const nextCurrent = clampStep(current, nextTotal);
    if (nextTotal == m_total && nextCurrent == m_current)
        return;
    m_total = nextTotal;
    m_current = nextCurrent;
    report(false);
}

void Progress::Task::end()
{
    if (m_progress && m_id != 0)
        m_progress->endTask(m_id);
    m_id = 0; // keep m_progress: wasCanceled() still answers for the work
}

bool Progress::Task::wasCanceled() const
{
    return m_progress && m_progress->wasCanceled();
}

void Progress::Task::report(bool descriptionChanged)
{
    if (m_progress && m_id != 0)
        m_progress->changeTask(m_id, m_current, m_total, descriptionChanged ? &m_description : nullptr);
}

// ---------------------------------------------------------------------------------------------
// Progress

Progress::Task Progress::addTask(int steps, std::string description)
{
    return Task(this, steps, std::move(description));
}

std::vector<Progress::TaskInfo> Progress::activeTasks() const
{
    std::lock_guard lock(m_mutex);
    return m_tasks;
}

Progress::TaskInfo Progress::startTask(int current, int total, std::string description)
{
    TaskInfo info;
    {
        std::lock_guard lock(m_mutex);
        info.id = m_nextId++;
        if (!m_tasks.empty()) {
            info.parentId = m_tasks.back().id;
            info.depth = m_tasks.back().depth + 1;
        }
        info.description = std::move(description);
        info.currentStep = current;
        info.totalSteps = total;
        m_tasks.push_back(info);
    }
    onTaskStarted(info);
    return info;
}

void Progress::changeTask(int id, int current, int total, std::string const* description)
{
    TaskInfo info;
    {
        std::lock_guard lock(m_mutex);
        auto const found =
            std::find_if(m_tasks.begin(), m_tasks.end(), [id](TaskInfo const& t) { return t.id == id; });
        if (found == m_tasks.end())
            return;
        found->currentStep = current;
        found->totalSteps = total;
        if (description)
            found->description = *description;
        info = *found;
    }
    onTaskChanged(info);
}

void Progress::endTask(int id)
{
    TaskInfo info;
    {
        std::lock_guard lock(m_mutex);
        auto const found =
            std::find_if(m_tasks.begin(), m_tasks.end(), [id](TaskInfo const& t) { return t.id == id; });
        if (found == m_tasks.end())
            return;
        info = std::move(*found);
        m_tasks.erase(found);
    }
    onTaskEnded(info);
}

// ---------------------------------------------------------------------------------------------
// TextProgress

TextProgress::TextProgress(std::FILE* stream, Style style, int barWidth)
    : m_stream(stream)
    , m_style(style)
    , m_barWidth(std::clamp(barWidth, 1, 200))
{
    if (!m_stream)
        VELMORIA_LOG_WARNING("Host.TextProgress",
                             "TextProgress has no output stream; progress will not be shown");
    if (m_style == Style::Automatic)
        m_style = (m_stream && isatty(fileno(m_stream))) ? Style::Bar : Style::Lines;
}

TextProgress::~TextProgress()
{
    std::lock_guard lock(m_outputMutex);
    if (m_stream && m_lineOpen) {
        std::fputc('\n', m_stream);
        std::fflush(m_stream);
    }
}

std::string TextProgress::formatBar(TaskInfo const& task, int barWidth)
{
    std::string const prefix = task.description.empty() ? std::string() : task.description + " ";
    if (task.totalSteps <= 0)
        return prefix + "...";
    double const fraction = std::clamp(task.fraction(), 0.0, 1.0);
    barWidth = std::max(1, barWidth);
    auto const filled = static_cast<int>(fraction * barWidth);
    auto const percent = static_cast<int>(fraction * 100.0);
    return fmt::format("{}[{}{}] {}%", prefix, std::string(static_cast<std::size_t>(filled), '#'),
                       std::string(static_cast<std::size_t>(barWidth - filled), ' '), percent);
}

void TextProgress::onTaskStarted(TaskInfo const& task)
{
    std::lock_guard lock(m_outputMutex);
    if (m_style == Style::Bar) {
        drawBar(task);
    } else {
        m_lastDecile[task.id] = static_cast<int>(task.fraction() * 10.0);
        writeLine(task);
    }
}

void TextProgress::onTaskChanged(TaskInfo const& task)
{
    std::lock_guard lock(m_outputMutex);
    if (m_style == Style::Bar) {
        drawBar(task);
        return;
    }
    if (task.totalSteps <= 0)
        return;
    int const decile = static_cast<int>(task.fraction() * 10.0);
    auto const last = m_lastDecile.find(task.id);
    if (last != m_lastDecile.end() && decile <= last->second)
        return;
    m_lastDecile[task.id] = decile;
    writeLine(task);
}

void TextProgress::onTaskEnded(TaskInfo const& task)
{
    std::lock_guard lock(m_outputMutex);
    if (m_style == Style::Lines) {
        m_lastDecile.erase(task.id);
        return;
    }
    if (task.depth == 0 && m_lineOpen && m_stream) {
        std::fputc('\n', m_stream);
        std::fflush(m_stream);
        m_lineOpen = false;
        m_lastBar.clear();
    }
}

void TextProgress::drawBar(TaskInfo const& task)
{
    if (!m_stream)
        return;
    std::string text = formatBar(task, m_barWidth);
    if (text == m_lastBar)
        return; // most steps do not move the bar; spare the terminal
    // Blank out what is left of a longer previous line.
    std::size_t const padding = m_lastBar.size() > text.size() ? m_lastBar.size() - text.size() : 0;
    std::fputs(fmt::format("\r{}{}", text, std::string(padding, ' ')).c_str(), m_stream);
    std::fflush(m_stream);
    m_lastBar = std::move(text);
    m_lineOpen = true;
}

void TextProgress::writeLine(TaskInfo const& task)
{
    if (!m_stream)
        return;
    std::string const indent(static_cast<std::size_t>(task.depth) * 2, ' ');
    std::fputs(fmt::format("{}{}\n", indent, formatBar(task, m_barWidth)).c_str(), m_stream);
    std::fflush(m_stream);
}

} // namespace Velmoria
