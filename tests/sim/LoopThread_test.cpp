// The world's I/O thread: work handed to liborv's loop from other threads,
// timed functions, and the guarantee that a removed fd's callback is over.
#include "tsdsim/LoopThread.h"

#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <fcntl.h>
#include <atomic>
#include <string>
#include <thread>

using namespace std::chrono_literals;
using tsdsim::LoopThread;

namespace {

struct Pipe
{
    int fds[2] = {-1, -1};
    Pipe() { EXPECT_EQ(::pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0); }
    ~Pipe()
    {
        ::close(fds[0]);
        ::close(fds[1]);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
};

}  // namespace

TEST(LoopThread, InvokeRunsOnTheLoopThreadAndReturnsAfterIt)
{
    LoopThread io;
    std::thread::id ranOn;
    io.invoke([&] {
        std::this_thread::sleep_for(50ms);
        ranOn = std::this_thread::get_id();
    });
    EXPECT_NE(ranOn, std::thread::id());
    EXPECT_NE(ranOn, std::this_thread::get_id());
}

TEST(LoopThread, AfterRunsInOrderOfDueTimeAndNeverEarly)
{
    LoopThread io;
    std::mutex mutex;
    std::string order;
    const auto t0 = std::chrono::steady_clock::now();
    std::chrono::steady_clock::duration firstAt{};
    io.after(300ms, [&] {
        std::lock_guard<std::mutex> lock(mutex);
        order += 'c';
    });
    io.after(100ms, [&] {
        std::lock_guard<std::mutex> lock(mutex);
        firstAt = std::chrono::steady_clock::now() - t0;
        order += 'a';
    });
    io.after(100ms, [&] {
        std::lock_guard<std::mutex> lock(mutex);
        order += 'b';
    });
    for (int i = 0; i < 500; ++i) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (order.size() == 3) {
                break;
            }
        }
        std::this_thread::sleep_for(10ms);
    }
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(order, "abc");
    EXPECT_GE(firstAt, 100ms);
}

TEST(LoopThread, RemoveFdReturnsOnlyAfterARunningCallback)
{
    LoopThread io;
    Pipe pipe;
    std::atomic<bool> inside{false};
    std::atomic<bool> finished{false};
    ASSERT_EQ(io.addFd(pipe.fds[0], EPOLLIN,
                       [&](std::uint32_t) {
                           char c;
                           while (::read(pipe.fds[0], &c, 1) == 1) {
                           }
                           inside = true;
                           std::this_thread::sleep_for(200ms);
                           finished = true;
                       }),
              0);
    ASSERT_EQ(::write(pipe.fds[1], "x", 1), 1);
    while (!inside) {
        std::this_thread::sleep_for(1ms);
    }
    io.removeFd(pipe.fds[0]);
    EXPECT_TRUE(finished) << "removeFd returned while the callback still ran";
    // Nothing is delivered after the removal.
    finished = false;
    ASSERT_EQ(::write(pipe.fds[1], "y", 1), 1);
    std::this_thread::sleep_for(100ms);
    EXPECT_FALSE(finished);
}

TEST(LoopThread, ACallbackMayRemoveItsOwnFdWithoutWaitingForItself)
{
    LoopThread io;
    Pipe pipe;
    std::atomic<int> calls{0};
    ASSERT_EQ(io.addFd(pipe.fds[0], EPOLLIN,
                       [&](std::uint32_t) {
                           ++calls;
                           io.removeFd(pipe.fds[0]);  // would deadlock if it waited for the loop
                       }),
              0);
    ASSERT_EQ(::write(pipe.fds[1], "x", 1), 1);
    for (int i = 0; i < 200 && calls == 0; ++i) {
        std::this_thread::sleep_for(5ms);
    }
    // Still readable, but no longer watched.
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(calls, 1);
    io.invoke([] {});
}
