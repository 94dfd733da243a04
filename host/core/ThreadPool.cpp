#include "host/core/ThreadPool.h"

#include "host/core/Log.h"

#include <fmt/format.h>
#include <pthread.h>

#include <algorithm>
#include <cstring>
#include <system_error>

namespace Velmoria::Threading {

namespace {

constexpr char const* kCategory = "Host.ThreadPool";

// The pool whose worker the current thread is, to catch waitForAll() from inside the pool.
thread_local ThreadPool const* t_currentPool = nullptr;

} // namespace

ThreadPool::ThreadPool(std::size_t threadCount, std::string name)
    : m_name(std::move(name))
{
    if (threadCount == 0)
        threadCount = std::max<std::size_t>(1, std::thread::hardware_concurrency());
    m_workers.reserve(threadCount);
    for (std::size_t i = 0; i < threadCount; ++i) {
        try {
            m_workers.emplace_back([this, i] { workerLoop(i); });
        } catch (std::system_error const& error) {
            // Out of threads: work with those we have, unless there are none at all.
            if (m_workers.empty())
                throw;
            VELMORIA_LOG_WARNING(kCategory, "Thread pool '{}' started {} of {} threads: {}", m_name,
                                 m_workers.size(), threadCount, error.what());
            break;
        }
    }
}

ThreadPool::~ThreadPool()
{
    {
        std::lock_guard lock(m_mutex);
        m_stopping = true;
    }
    m_workAvailable.notify_all();
    for (std::thread& worker : m_workers)
        worker.join();
}

void ThreadPool::enqueue(std::function<void()> job)
{
    {
        std::lock_guard lock(m_mutex);
        m_queue.push_back(std::move(job));
    }
    m_workAvailable.notify_one();
}

void ThreadPool::waitForAll()
{
    if (isWorkerThread()) {
        VELMORIA_LOG_ERROR(kCategory,
                           "waitForAll() called from a worker of thread pool '{}' would wait for itself; "
                           "returning without waiting",
                           m_name);
        return;
    }
    std::unique_lock lock(m_mutex);
    m_allDone.wait(lock, [this] { return m_queue.empty() && m_running == 0; });
}

bool ThreadPool::isWorkerThread() const
{
    return t_currentPool == this;
}

void ThreadPool::workerLoop(std::size_t index)
{
    t_currentPool = this;
    setCurrentThreadName(fmt::format("{}-{}", m_name, index));
    std::unique_lock lock(m_mutex);
    for (;;) {
        m_workAvailable.wait(lock, [this] { return m_stopping || !m_queue.empty(); });
        if (m_queue.empty())
            return; // stopping, and everything queued is done
        std::function<void()> job = std::move(m_queue.front());
        m_queue.pop_front();
        ++m_running;
        lock.unlock();
        job();         // a packaged_task: exceptions end up in its future
        job = nullptr; // release captured state before reporting the job as done
        lock.lock();
        --m_running;
        if (m_queue.empty() && m_running == 0)
            m_allDone.notify_all();
    }
}

bool setCurrentThreadName(std::string_view name)
{
    // The kernel keeps 16 bytes including the terminating NUL.
    constexpr std::size_t kMaxLength = 15;
    name = name.substr(0, name.find('\0'));
    std::size_t length = std::min(name.size(), kMaxLength);
    if (length < name.size()) {
        // Do not cut a UTF-8 character: step back over continuation bytes (10xxxxxx) to the
        // start of the character that would be split.
        while (length > 0 && (static_cast<unsigned char>(name[length]) & 0xC0) == 0x80)
            --length;
    }
    char buffer[kMaxLength + 1] = {};
    std::memcpy(buffer, name.data(), length);
    int const result = pthread_setname_np(pthread_self(), buffer);
    if (result != 0) {
        VELMORIA_LOG_WARNING(kCategory, "Could not set thread name '{}': {}", buffer,
                             std::system_category().message(result));
        return false;
    }
    return true;
}

std::string currentThreadName()
{
    char buffer[64] = {};
    if (pthread_getname_np(pthread_self(), buffer, sizeof(buffer)) != 0)
        return {};
    return buffer;
}

} // namespace Velmoria::Threading
