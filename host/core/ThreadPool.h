#pragma once

// ThreadPool: a fixed set of worker threads that run submitted functions in submission order
// (first in, first out; with several workers they run concurrently, so only their start is
// ordered).
//
// - submit(f) returns a std::future of f's result; an exception thrown by f is stored in the
//   future and rethrown by get(), never lost and never terminating a worker.
// - waitForAll() blocks until the queue is empty and no function is running, including
//   functions submitted meanwhile by running ones. Called from a worker of the same pool it
//   would wait for itself forever; it logs an error and returns instead.
// - The destructor lets the workers finish everything already queued (and what that work
//   submits), then joins them. Dropping queued work silently would break the futures callers
//   hold; a caller that wants to stop early checks a cancel flag in its functions.
//
// Workers are named "<name>-<index>" (see setCurrentThreadName) so they can be told apart in
// a debugger or `top -H`. Pixel loops use OpenMP instead; this pool is for coarse jobs
// (loading files, preparing batches).

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace Velmoria::Threading {

class ThreadPool
{
public:
    // `threadCount` 0 means std::thread::hardware_concurrency(), and at least one.
    explicit ThreadPool(std::size_t threadCount = 0, std::string name = "VelmoriaPool");
    ~ThreadPool();
    ThreadPool(ThreadPool const&) = delete;
    ThreadPool& operator=(ThreadPool const&) = delete;

    template <typename Function>
    auto submit(Function&& function) -> std::future<std::invoke_result_t<std::decay_t<Function>&>>
    {
        using Result = std::invoke_result_t<std::decay_t<Function>&>;
        // std::function needs a copyable target and packaged_task is move-only: share it.
        auto task = std::make_shared<std::packaged_task<Result()>>(std::forward<Function>(function));
        std::future<Result> future = task->get_future();
        enqueue([task] { (*task)(); });
        return future;
    }

    void waitForAll();

    std::size_t size() const { return m_workers.size(); }

    // True on the worker threads of this pool.
    bool isWorkerThread() const;

private:
    void enqueue(std::function<void()> job);
    void workerLoop(std::size_t index);

    std::string m_name;
    mutable std::mutex m_mutex;
    std::condition_variable m_workAvailable;
    std::condition_variable m_allDone;
    std::deque<std::function<void()>> m_queue;
    std::size_t m_running = 0;
    bool m_stopping = false;
    std::vector<std::thread> m_workers;
};

// Names the calling thread for debuggers and the system's thread lists. Linux keeps at most 15
// bytes: longer names are cut (never inside a UTF-8 character) and text after a NUL is dropped.
// Returns false (and logs) when the system refuses the name.
bool setCurrentThreadName(std::string_view name);

// The calling thread's name as the system reports it; empty when it cannot be read.
std::string currentThreadName();

} // namespace Velmoria::Threading
