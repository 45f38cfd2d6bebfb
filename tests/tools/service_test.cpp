// The programs across processes: the service outlives a client killed mid-playback and keeps
// serving bit-exact audio at the stream's pace; a second service, and a client without one, fail
// with their documented exit status; SIGTERM stops the service cleanly.
#include <gtest/gtest.h>

#include "support/Process.h"

namespace {

using parlex::test::Process;

// Runs a program to its end and returns its exit status.
int run(std::vector<std::string> argv) {
    Process process(std::move(argv));
    while (process.readLine()) {
    }
    const int status = process.finish();
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(ServiceTest, OutlivesAKilledClientRefusesASecondServiceAndStopsCleanlyOnSigterm) {
    parlex::test::PrivateRuntimeDir dir;
    const std::string longInput = dir.path() + "/long.wav";
    const std::string shortInput = dir.path() + "/short.wav";
    ASSERT_EQ(run({ZEM_WAVTOOL_PATH, "generate", longInput, "30"}), 0);
    ASSERT_EQ(run({ZEM_WAVTOOL_PATH, "generate", shortInput, "0.3"}), 0);
    Process service({ZEM_AUDIOD_PATH, "--sink", "wav:" + dir.path() + "/out-{id}.wav"});
    const std::optional<std::string> ready = service.readLine();
    ASSERT_TRUE(ready && ready->find("ready (pid ") != std::string::npos);
    {
        Process client({ZEM_PLAY_PATH, longInput});
        ASSERT_TRUE(client.readUntil("playback started")) << "the client never started playing";
    }  // killed here, mid-playback
    const auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(run({ZEM_PLAY_PATH, shortInput}), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(200));  // paced
    EXPECT_EQ(run({ZEM_WAVTOOL_PATH, "compare", shortInput, dir.path() + "/out-2.wav"}), 0);
    EXPECT_EQ(run({ZEM_AUDIOD_PATH}), 1);
    ::kill(std::stoi(ready->substr(ready->find("pid ") + 4)), SIGTERM);
    while (service.readLine()) {
    }
    EXPECT_EQ(service.finish(), 0);
    EXPECT_EQ(run({ZEM_PLAY_PATH, shortInput}), 3);
}

}  // namespace
