#include "host/core/ThreadPool.h"

#include "host/core/Log.h"

#include <gtest/gtest.h>

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

class ThreadPoolSizes : public ::testing::TestWithParam<std::size_t>
{};

} // namespace

TEST_P(ThreadPoolSizes, RunsEveryTaskAndReturnsResultsThroughFutures)
{
    ThreadPool pool(GetParam());
    EXPECT_EQ(pool.size(), GetParam());
    std::atomic<int> runs{0};
    std::vector<std::future<long>> futures;
    for (long i = 0; i < 500; ++i)
        futures.push_back(pool.submit([i, &runs] {
            runs.fetch_add(1);
            return i * i;
        }));
    long sum = 0;
    for (auto& future : futures)
        sum += future.get();
    EXPECT_EQ(sum, 499L * 500L * 999L / 6L);
    EXPECT_EQ(runs.load(), 500);
}

TEST_P(ThreadPoolSizes, WaitForAllIncludesWorkSubmittedByWork)
{
    ThreadPool pool(GetParam());
    std::atomic<int> done{0};
    for (int i = 0; i < 20; ++i)
        pool.submit([&pool, &done] {
            for (int j = 0; j < 5; ++j)
                pool.submit([&done] {
                    std::this_thread::yield();
                    done.fetch_add(1);
                });
            done.fetch_add(1);
        });
    pool.waitForAll();
    EXPECT_EQ(done.load(), 20 * 6);
    pool.waitForAll(); // nothing queued: returns at once
    EXPECT_EQ(done.load(), 20 * 6);
}

INSTANTIATE_TEST_SUITE_P(Threads, ThreadPoolSizes, ::testing::Values(1u, 2u, 4u));

TEST(ThreadPool, DefaultSizeFollowsTheHardware)
{
    ThreadPool pool;
    EXPECT_EQ(pool.size(), std::max<std::size_t>(1, std::thread::hardware_concurrency()));
}

TEST(ThreadPool, ExceptionsTravelThroughTheFutureAndWorkersSurvive)
{
    ThreadPool pool(1);
    std::future<int> failing = pool.submit([]() -> int { throw std::runtime_error("no such file 'a.nii'"); });
    try {
        failing.get();
        ADD_FAILURE() << "the exception was lost";
    } catch (std::runtime_error const& error) {
        EXPECT_STREQ(error.what(), "no such file 'a.nii'");
    }
    // The only worker must still be alive to run this.
    EXPECT_EQ(pool.submit([] { return 7; }).get(), 7);
}

TEST(ThreadPool, AcceptsMoveOnlyFunctions)
{
    ThreadPool pool(2);
    auto value = std::make_unique<int>(41);
    std::future<int> future = pool.submit([value = std::move(value)] { return *value + 1; });
    EXPECT_EQ(future.get(), 42);
}

TEST(ThreadPool, DestructorFinishesQueuedWork)
{
    std::atomic<int> done{0};
    std::promise<void> gate;
    std::vector<std::future<void>> futures;
    {
        ThreadPool pool(1);
        std::shared_future<void> opened = gate.get_future().share();
        futures.push_back(pool.submit([opened, &done] {
            opened.wait();
            done.fetch_add(1);
        }));
        for (int i = 0; i < 100; ++i)
            futures.push_back(pool.submit([&done] { done.fetch_add(1); }));
        gate.set_value(); // most of the queue is still waiting when the pool is destroyed
    }
    EXPECT_EQ(done.load(), 101);
    for (auto& future : futures)
        EXPECT_EQ(future.wait_for(std::chrono::seconds(0)), std::future_status::ready);
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

TEST(ThreadPool, WorkersAreNamedAfterThePool)
{
    ThreadPool pool(1, "Loader");
    EXPECT_EQ(pool.submit([] { return Threading::currentThreadName(); }).get(), "Loader-0");
    ThreadPool longNamed(1, "AVeryLongPoolName");
    EXPECT_EQ(longNamed.submit([] { return Threading::currentThreadName(); }).get(), "AVeryLongPoolNa");
}

// ---------------------------------------------------------------------------------------------

namespace {

struct ThreadNameCase
{
    std::string requested;
    std::string expected;
};

class ThreadNames : public ::testing::TestWithParam<ThreadNameCase>
{};

} // namespace

TEST_P(ThreadNames, AreSetAndCutToFifteenBytes)
{
    // On a thread of its own, so the test runner's main thread keeps its name.
    bool accepted = false;
    std::string seen;
    std::thread thread([&] {
        accepted = Threading::setCurrentThreadName(GetParam().requested);
        seen = Threading::currentThreadName();
    });
    thread.join();
    EXPECT_TRUE(accepted);
    EXPECT_EQ(seen, GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Names, ThreadNames,
    ::testing::Values(ThreadNameCase{"short", "short"}, ThreadNameCase{"exactly15bytes!", "exactly15bytes!"},
                      ThreadNameCase{"a-much-longer-thread-name", "a-much-longer-t"},
                      // 14 ASCII bytes, then a two-byte character that does not fit whole.
                      ThreadNameCase{"abcdefghijklmn\xC3\xA9xyz", "abcdefghijklmn"},
                      // 13 ASCII bytes and the same character, which fits.
                      ThreadNameCase{"abcdefghijklm\xC3\xA9xyz", "abcdefghijklm\xC3\xA9"},
                      ThreadNameCase{std::string("with\0nul", 8), "with"}));
