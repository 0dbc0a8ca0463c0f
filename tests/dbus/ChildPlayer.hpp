#pragma once

#include <cstdint>

#include <QProcess>
#include <QString>

namespace tarn::test {

// A test player in a process of its own (this test binary started again in player mode), for
// what only another process shows: a pid that is not the test's, and a player that dies.
// It plays "Child Song" by "Child Artist" and says so.
class ChildPlayer {
public:
    static constexpr const char* option = "--mpris-test-player";

    // Starts it on the bus and waits until it owns `busName`; check isRunning.
    ChildPlayer(const QString& busAddress, const QString& busName);
    ~ChildPlayer(); // kills it when it still runs

    bool isRunning() const { return process_.state() == QProcess::Running && isReady_; }
    std::int32_t pid() const { return std::int32_t(process_.processId()); }
    // Ends the process at once, as a crash would: its connection, and so its name, go with it.
    void kill();

    // The player mode's main: `argv` is [program, option, bus address, bus name].
    static bool isInvocation(int argc, char** argv);
    static int run(int argc, char** argv);

private:
    QProcess process_;
    bool isReady_ = false;
};

} // namespace tarn::test
