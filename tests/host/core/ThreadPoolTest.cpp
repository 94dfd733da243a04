#include "host/core/ThreadPool.h"

#include "host/core/Log.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace Velmoria;
using Threading::ThreadPool;

namespace {

TEST(ThreadPool, RunsEveryTaskAndWaitsForWorkSubmittedByWork)
{
    for (std::size_t threads : {1u, 2u, 4u}) {
        ThreadPool pool(threads);
        EXPECT_EQ(pool.size(), threads);
        std::vector<std::future<long>> futures;
        for (long i = 0; i < 500; ++i)
            futures.push_back(pool.submit([i] { return i * i; }));
        long sum = 0;
        for (auto& future : futures)
            sum += future.get();
        EXPECT_EQ(sum, 499L * 500L * 999L / 6L);

        std::atomic<int> done{0};
        for (int i = 0; i < 20; ++i)
            pool.submit([&pool, &done] {
                for (int j = 0; j < 5; ++j)
                    pool.submit([&done] { done.fetch_add(1); });
                done.fetch_add(1);
            });
        pool.waitForAll();
        EXPECT_EQ(done.load(), 20 * 6) << threads << " threads";
    }
}

TEST(ThreadPool, ExceptionsTravelThroughTheFutureAndWorkersSurvive)
{
    ThreadPool pool;
    EXPECT_EQ(pool.size(), std::max<std::size_t>(1, std::thread::hardware_concurrency()));
    ThreadPool single(1);
    std::future<int> failing =
        single.submit([]() -> int { throw std::runtime_error("no such file 'a.nii'"); });
    try {
        failing.get();
        ADD_FAILURE() << "the exception was lost";
    } catch (std::runtime_error const& error) {
        EXPECT_STREQ(error.what(), "no such file 'a.nii'");
    }
    // The only worker must still be alive to run this; move-only work is accepted.
    auto value = std::make_unique<int>(41);
    EXPECT_EQ(single.submit([value = std::move(value)] { return *value + 1; }).get(), 42);
}

TEST(ThreadPool, DestructorFinishesQueuedWork)
{
    std::atomic<int> done{0};
    std::promise<void> gate;
    {
        ThreadPool pool(1);
        pool.submit([opened = gate.get_future().share(), &done] {
            opened.wait();
            done.fetch_add(1);
        });
        for (int i = 0; i < 100; ++i)
            pool.submit([&done] { done.fetch_add(1); });
        gate.set_value(); // most of the queue is still waiting when the pool is destroyed
    }
    EXPECT_EQ(done.load(), 101);
}

TEST(ThreadPool, WaitForAllFromAWorkerReturnsWithAnError)
{
    Log::Capture capture;
    ThreadPool pool(1, "Inner");
    EXPECT_FALSE(pool.isWorkerThread());
    std::future<bool> insideIsWorker = pool.submit([&pool] {
        pool.waitForAll(); // would deadlock if it waited
        return pool.isWorkerThread();
    });
    EXPECT_TRUE(insideIsWorker.get());
    EXPECT_TRUE(
        capture.contains("waitForAll() called from a worker of thread pool 'Inner' would wait for itself; "
                         "returning without waiting",
                         "Host.ThreadPool"));
}

TEST(ThreadPool, WorkersAndThreadsAreNamedWithinFifteenBytes)
{
    struct Case
    {
        std::string requested;
        std::string expected;
    };
    for (Case const& test :
         {Case{"exactly15bytes!", "exactly15bytes!"}, Case{"a-much-longer-thread-name", "a-much-longer-t"},
          // 14 ASCII bytes, then a two-byte character that does not fit whole.
          Case{"abcdefghijklmn\xC3\xA9xyz", "abcdefghijklmn"},
          // 13 ASCII bytes and the same character, which fits.
          Case{"abcdefghijklm\xC3\xA9xyz", "abcdefghijklm\xC3\xA9"},
          Case{std::string("with\0nul", 8), "with"}}) {
        // On a thread of its own, so the test runner's main thread keeps its name.
        bool accepted = false;
        std::string seen;
        std::thread thread([&] {
            accepted = Threading::setCurrentThreadName(test.requested);
            seen = Threading::currentThreadName();
        });
        thread.join();
        EXPECT_TRUE(accepted);
        EXPECT_EQ(seen, test.expected);
    }
    ThreadPool pool(1, "Loader");
    EXPECT_EQ(pool.submit([] { return Threading::currentThreadName(); }).get(), "Loader-0");
}

} // namespace
