// zem-play: its reading of its command line, of the keys typed at it and of why the audio service
// cannot be reached, and the progress line it draws, each rule on its own; then the program
// against a real service: what each kind of argument sends, a file cut short, usage errors and
// the exit status of several inputs.
#include <gtest/gtest.h>

#include <cmath>

#include "Arguments.h"
#include "ConnectFailure.h"
#include "Terminal.h"
#include "support/Programs.h"

namespace zem {
namespace {

using namespace play;

TEST(ZemPlayArgumentsTest, OnlyARealSchemeMakesAUrlAndPathsBecomeAbsoluteEscapedFileUrls) {
    for (const char* url : {"http://example.org/a.ogg", "file:///a.wav", "x-y+z.1:rest"})
        EXPECT_TRUE(hasScheme(url)) << url;
    for (const char* path : {"song.wav", "c:song.wav", "./a:b.wav", "dir/a:b.wav", "1ab:c", ""})
        EXPECT_FALSE(hasScheme(path)) << path;
    const struct {
        const char* path;
        const char* url;
    } cases[] = {
        {"a b/\xc3\xbc.wav", "file:///home/u/a%20b/%C3%BC.wav"},
        {"./x/./y.wav", "file:///home/u/x/y.wav"},
        {"../up.wav", "file:///home/u/../up.wav"},  // only the kernel knows where ".." leads
        {"/abs//100%#?.wav", "file:///abs/100%25%23%3F.wav"},
    };
    for (const auto& test : cases)
        EXPECT_EQ(fileUrl(absolutePath(test.path, "/home/u")), test.url) << test.path;
}

TEST(ZemPlayArgumentsTest, PositionsInSecondsMinutesOrUnitsAndPlainRefusals) {
    const struct {
        const char* text;
        int64_t bareUnitMs;
        int64_t ms;
    } good[] = {
        {"90", 1000, 90000},     {"2.5", 1000, 2500},        {"1:30", 1000, 90000},
        {"0:05.25", 1000, 5250}, {"1:02:03", 1000, 3723000}, {"1500ms", 1000, 1500},
        {"3s", 1, 3000},         {"2000", 1, 2000},          {" 10 ", 1000, 10000},
    };
    for (const auto& test : good) {
        std::string error;
        EXPECT_EQ(parsePosition(test.text, test.bareUnitMs, error), test.ms) << test.text << error;
    }
    for (const char* text : {"-1", "1:75", "1:5", "1:30:", "1.5:00", "abc", "1e3", "0x10", "nan",
                             "inf", "", "1:2:3:4", "99999999999999", "600000:00", "2147483648ms"}) {
        std::string error;
        EXPECT_FALSE(parsePosition(text, 1000, error)) << text;
        EXPECT_NE(error.find(text), std::string::npos) << error;
        EXPECT_LT(error.size(), 160u) << error;  // a sentence, not a number range
    }
}

TEST(ZemPlayArgumentsTest, VolumesAsFactorPercentageOrDecibelsUpToFullVolume) {
    const struct {
        const char* text;
        float factor;
    } good[] = {{"0.5", 0.5f}, {"50%", 0.5f},  {"-6dB", 0.501187f}, {"-6 db", 0.501187f},
                {"0dB", 1.0f}, {"100%", 1.0f}, {"0", 0.0f},         {"-20dB", 0.1f}};
    for (const auto& test : good) {
        std::string error;
        const std::optional<float> factor = parseVolume(test.text, error);
        ASSERT_TRUE(factor) << test.text << ": " << error;
        EXPECT_NEAR(*factor, test.factor, 1e-5) << test.text;
    }
    for (const char* text : {"2", "150%", "+3dB", "-0.1", "abc", "nan", "", "dB", "1e0"}) {
        std::string error;
        EXPECT_FALSE(parseVolume(text, error)) << text;
        EXPECT_FALSE(error.empty()) << text;
    }
}

TEST(ZemPlayArgumentsTest, RawFormatsOnlyInTheLayoutsAPcmSourceCarries) {
    std::string error;
    const std::optional<StreamFormat> s16 = parseRawFormat("s16le:48000:2", error);
    const std::optional<StreamFormat> s32 = parseRawFormat("S32LE:768000:1", error);
    ASSERT_TRUE(s16 && s32) << error;
    EXPECT_TRUE(s16->type == SampleType::S16 && s16->rate == 48000 && s16->channels == 2);
    EXPECT_EQ(s32->bytesPerFrame(), 4u);
    for (const char* text : {"f32le:48000:2", "s16le:0:2", "s16le:768001:2", "s16le:48000:3",
                             "s16le:48000", "s16le:48.5:2", "s16le:48000:2:1"}) {
        EXPECT_FALSE(parseRawFormat(text, error)) << text;
    }
}

TEST(ZemPlayTerminalTest, KeysIncludingArrowSequencesSplitAcrossReads) {
    std::string pending = " q+-=_\033[C\033[D\033OC\033[Ax\033[1;5D\033";
    const std::vector<Key> keys = decodeKeys(pending);
    const std::vector<Key> expected = {
        Key::PauseResume, Key::Quit,        Key::VolumeUp, Key::VolumeDown,  Key::VolumeUp,
        Key::VolumeDown,  Key::SeekForward, Key::SeekBack, Key::SeekForward, Key::SeekBack};
    EXPECT_EQ(keys, expected);
    EXPECT_EQ(pending, "\033");  // the start of a sequence waits for the rest
    pending += "[";
    EXPECT_TRUE(decodeKeys(pending).empty());
    pending += "C";
    EXPECT_EQ(decodeKeys(pending), std::vector<Key>{Key::SeekForward});
    EXPECT_TRUE(pending.empty());
}

TEST(ZemPlayTerminalTest, ProgressLineNeverReachesTheLastColumnAndMetersAfterTheVolume) {
    const Progress progress{83400, 296700, "playing", -6.0, 0.5f};
    for (size_t width = 0; width <= 200; ++width) {
        const std::string line = progressLine(progress, width);
        EXPECT_LT(line.size(), std::max<size_t>(width, 1)) << width << ": " << line;
    }
    const std::string narrow = progressLine(progress, 40);
    EXPECT_NE(narrow.find("1:23.4 / 4:56.7"), std::string::npos) << narrow;
    const std::string wide = progressLine(progress, 100);
    EXPECT_NE(wide.find("-12.0 dB"), std::string::npos) << wide;  // -6 dB at half volume
    EXPECT_NE(wide.find("vol 50%"), std::string::npos) << wide;
    EXPECT_NE(wide.find("[##"), std::string::npos) << wide;
    const std::string unknown = progressLine({0, -1, "starting", NAN, 1.0f}, 80);
    EXPECT_NE(unknown.find("?:??.? "), std::string::npos) << unknown;
    EXPECT_NE(unknown.find("--- dB"), std::string::npos) << unknown;
}

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

TEST(ZemPlayTest, UsageIsPlainUrlsGoAsGivenPathsAsFileUrlsStdinAsPcmCutFilesEndTheWorstStatusWins) {
    parlex::test::PrivateRuntimeDir dir;
    struct Run {
        std::string command, says;  // in the test's directory, zem-play as $play
        int status;
        std::string twice = "";  // a line said twice
    };
    const auto check = [&](const std::vector<Run>& runs) {
        for (const Run& run : runs) {
            const auto [said, ended] = parlex::test::shell(
                "cd '" + dir.path() + "' && play=" ZEM_PLAY_PATH " && " + run.command);
            EXPECT_EQ(ended, run.status) << run.command << "\n" << said;
            EXPECT_NE(said.find(run.says), std::string::npos) << run.command << "\n" << said;
            EXPECT_TRUE(run.twice.empty() || said.find(run.twice) != said.rfind(run.twice)) << said;
        }
    };
    // Usage errors and warnings are plain sentences named after the program; the warnings come
    // first, before any playing, here where no service runs yet.
    check({
        {ZEM_WAVTOOL_PATH " generate in.wav 0.2 && " ZEM_WAVTOOL_PATH " generate long.flac 2", "",
         0},
        {"$play --bogus in.wav", "zem-play: The following argument was not expected: --bogus\n", 2},
        {"$play --volume 2 in.wav", "zem-play: --volume: '2' is above full volume", 2},
        {"$play --seek=-5 in.wav", "zem-play: --seek: '-5' is not a position", 2},
        {"$play", "zem-play: nothing to play", 2},
        {"$play --seek 1:00 in.wav", "zem-play: warning: --seek 1:00.0 is past the end of in.wav",
         3},
        {"$play --pause-for 5 in.wav", "zem-play: warning: --pause-for has no effect", 3},
        {"$play --format s16le:8000:1 in.wav", "zem-play: warning: --format has no effect", 3},
        {"$play --url http://x/y", "zem-play: warning: --url has no effect on http://x/y", 3},
        // Cut before the length its header declares: heard up to the cut, then a failure, rather
        // than a service that waits for the rest for ever.
        {"head -c $(($(stat -c %s long.flac) * 7 / 10)) long.flac > cut.flac", "", 0},
        {"head -c 3000 long.flac > none.flac", "", 0},
    });
    parlex::test::AudioService service({ZEM_AUDIOD_PATH, "--fast"});
    ASSERT_GT(service.pid, 0);
    const std::string exact = "received exactly the audio supplied";
    check({
        {"$play --url 'no such/file 1.wav'", "file://" + dir.path() + "/no%20such/file%201.wav", 1},
        {"$play 'http://example.invalid/a b.ogg'",
         "sent as the URL http://example.invalid/a b.ogg\n", 1},
        // The samples of in.wav after its 44-byte header, as raw PCM; then as a WAV stream.
        {"tail -c +45 in.wav | $play --format s16le:48000:2 -", exact, 0},
        {"$play - < in.wav", exact, 0},
        {"$play cut.flac", "cut.flac is damaged or cut short at", 1},
        {"$play none.flac", "none.flac: it holds no audio", 1},
        {"$play in.wav missing.wav in.wav", "cannot play missing.wav: cannot open it", 1, exact},
    });
}

}  // namespace
}  // namespace zem
