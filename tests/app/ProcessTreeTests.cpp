// The process table as the route lifecycle reads it, on this machine's real /proc.

#include <chrono>
#include <thread>

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "app/ProcessTree.hpp"

namespace tarn::test {
namespace {

TEST(ProcessTree, AnExitedChildIsGoneBeforeItIsCollectedAndItsParentIsItsApplication) {
    const ProcessTree& tree = ProcessTree::system();
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        pause();
        _exit(0);
    }
    EXPECT_TRUE(tree.isAlive(child));
    EXPECT_EQ(tree.parent(child), getpid());
    EXPECT_TRUE(tree.isWithin(child, getpid()));
    EXPECT_FALSE(tree.isWithin(getpid(), child));
    // A forked helper runs the same executable: its application is this process.
    EXPECT_EQ(tree.applicationRoot(child), getpid());

    kill(child, SIGKILL);
    // Exited but not yet collected (a zombie): it plays nothing any more.
    bool gone = false;
    for (int i = 0; i < 200 && !gone; ++i) {
        gone = !tree.isAlive(child);
        if (!gone) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_TRUE(gone);
    waitpid(child, nullptr, 0);
    EXPECT_FALSE(tree.isAlive(child));
    EXPECT_FALSE(tree.isAlive(0));
    EXPECT_FALSE(tree.parent(-1).has_value());
}

} // namespace
} // namespace tarn::test
