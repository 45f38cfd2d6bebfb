// zem-play's reading of why the audio service cannot be reached: the transport's reasons, as the
// library logs them when a track's init fails, each with the socket's path. And zem-play against
// a real service: what each kind of argument sends, a file cut short, and the exit status of
// several inputs.
#include <gtest/gtest.h>

#include "ConnectFailure.h"
#include "support/Process.h"

namespace zem {
namespace {

TEST(ConnectFailureTest, EachTransportReasonIsToldApartWithTheSocketsPath) {
    const std::string path = "/run/a dir at x/com.tarnek.zem.parlex";
    const struct {
        std::string text;
        ConnectFailure::Kind kind;
        std::string detail;
        std::string says;
    } cases[] = {
        {"parlex: permission denied on the socket of service 'svc' at " + path,
         ConnectFailure::PermissionDenied, "", "permission denied on the audio service's socket"},
        {"parlex: service 'svc' is not running (nothing listens at " + path + ")",
         ConnectFailure::NotRunning, "", "no audio service is running"},
        {"parlex: service 'svc' at " + path + " refused the connection", ConnectFailure::Refused,
         "", "refused the connection."},
        {"parlex: service 'svc' at " + path + " refused the connection: too many connections",
         ConnectFailure::Refused, "too many connections", "connection: too many connections."},
        {"parlex: service 'svc' at " + path + " did not answer within 5000 ms",
         ConnectFailure::NoAnswer, "5000", "did not answer within 5000 ms"},
    };
    for (const auto& test : cases) {
        const ConnectFailure failure = ConnectFailure::parse(test.text);
        EXPECT_EQ(failure.kind, test.kind) << test.text;
        EXPECT_EQ(failure.path, path) << test.text;
        EXPECT_EQ(failure.detail, test.detail) << test.text;
        EXPECT_NE(failure.explain().find(test.says), std::string::npos) << failure.explain();
        EXPECT_NE(failure.explain().find(path), std::string::npos) << failure.explain();
    }
    const ConnectFailure unknown = ConnectFailure::parse("parlex: socketpair failed: EMFILE");
    EXPECT_EQ(unknown.kind, ConnectFailure::Unknown);
    EXPECT_NE(unknown.explain().find("socketpair failed: EMFILE"), std::string::npos);
}

// Runs `command` through the shell in `dir`, stderr with stdout; its lines and exit status.
std::pair<std::string, int> shell(const std::string& dir, const std::string& command) {
    parlex::test::Process process({"/bin/sh", "-c", "cd '" + dir + "' && " + command + " 2>&1"});
    std::string output;
    while (std::optional<std::string> line = process.readLine()) output += *line + "\n";
    const int status = process.finish();
    return {output, WIFEXITED(status) ? WEXITSTATUS(status) : -1};
}

TEST(ZemPlayTest, UrlsGoAsGivenPathsAsAbsoluteUrlsStdinAsPcmCutFilesEndAndTheWorstStatusWins) {
    parlex::test::PrivateRuntimeDir dir;
    const std::string play = ZEM_PLAY_PATH;
    ASSERT_EQ(shell(dir.path(), std::string(ZEM_WAVTOOL_PATH) + " generate in.wav 0.2").second, 0);
    parlex::test::Process service({ZEM_AUDIOD_PATH, "--fast"});
    ASSERT_TRUE(service.readUntil("ready (pid "));

    auto [output, status] = shell(dir.path(), play + " --url 'no such/file 1.wav'");
    EXPECT_NE(output.find("file://" + dir.path() + "/no%20such/file%201.wav"), std::string::npos)
        << output;
    EXPECT_EQ(status, 1);
    std::tie(output, status) = shell(dir.path(), play + " 'http://example.invalid/a b.ogg'");
    EXPECT_NE(output.find("sent as the URL http://example.invalid/a b.ogg\n"), std::string::npos)
        << output;
    EXPECT_EQ(status, 1);

    // The samples of in.wav after its 44-byte header, as raw PCM; then the file as a WAV stream.
    std::tie(output, status) =
        shell(dir.path(), "tail -c +45 in.wav | " + play + " --format s16le:48000:2 -");
    EXPECT_NE(output.find("received exactly the audio supplied"), std::string::npos) << output;
    EXPECT_EQ(status, 0);
    std::tie(output, status) = shell(dir.path(), play + " - < in.wav");
    EXPECT_NE(output.find("received exactly the audio supplied"), std::string::npos) << output;
    EXPECT_EQ(status, 0);

    // A file cut off before the length its header declares: heard up to the cut, then a failure,
    // rather than a service that waits for the rest for ever.
    ASSERT_EQ(shell(dir.path(), std::string(ZEM_WAVTOOL_PATH) +
                                    " generate long.flac 2 && head -c $(($(stat -c "
                                    "%s long.flac) * 7 / 10)) long.flac > cut.flac")
                  .second,
              0);
    std::tie(output, status) = shell(dir.path(), play + " cut.flac");
    EXPECT_NE(output.find("cut.flac is damaged or cut short at"), std::string::npos) << output;
    EXPECT_EQ(status, 1);
    std::tie(output, status) =
        shell(dir.path(), "head -c 3000 long.flac > none.flac && " + play + " none.flac");
    EXPECT_NE(output.find("none.flac: it holds no audio"), std::string::npos) << output;
    EXPECT_EQ(status, 1);

    std::tie(output, status) = shell(dir.path(), play + " in.wav missing.wav in.wav");
    EXPECT_NE(output.find("cannot play missing.wav: cannot open it"), std::string::npos) << output;
    EXPECT_NE(output.find("received exactly"), output.rfind("received exactly")) << output;  // both
    EXPECT_EQ(status, 1);
}

TEST(ZemPlayTest, UsageErrorsAndWarningsArePlainSentencesNamedAfterTheProgram) {
    parlex::test::PrivateRuntimeDir dir;  // where no service runs
    const std::string play = ZEM_PLAY_PATH;
    ASSERT_EQ(shell(dir.path(), std::string(ZEM_WAVTOOL_PATH) + " generate in.wav 0.2").second, 0);
    const struct {
        std::string arguments;
        int status;
        std::string says;
    } cases[] = {
        {"--bogus in.wav", 2, "zem-play: The following argument was not expected: --bogus\n"},
        {"--volume 2 in.wav", 2, "zem-play: --volume: '2' is above full volume"},
        {"--seek=-5 in.wav", 2, "zem-play: --seek: '-5' is not a position"},
        {"", 2, "zem-play: nothing to play"},
        {"--seek 1:00 in.wav", 3, "zem-play: warning: --seek 1:00.0 is past the end of in.wav"},
        {"--pause-for 5 in.wav", 3, "zem-play: warning: --pause-for has no effect"},
        {"--format s16le:8000:1 in.wav", 3, "zem-play: warning: --format has no effect"},
        {"--url http://x/y", 3, "zem-play: warning: --url has no effect on http://x/y"},
    };
    for (const auto& test : cases) {
        const auto [output, status] = shell(dir.path(), play + " " + test.arguments);
        EXPECT_EQ(status, test.status) << test.arguments << "\n" << output;
        EXPECT_NE(output.find(test.says), std::string::npos) << test.arguments << "\n" << output;
    }
}

}  // namespace
}  // namespace zem
