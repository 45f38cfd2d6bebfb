// zem-wavtool: the demo's audio helper. `generate` writes a deterministic stereo test signal
// (two tones under full-range pseudo-random noise, so that any swapped, dropped or altered
// byte shows) as WAV or FLAC by the file's extension; `compare` checks two audio files for
// equality sample for sample; `mix` checks a mix against the sum of its inputs, each placed at
// its frame and scaled by its gain.
#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "CommandLine.h"

namespace {

using File = std::unique_ptr<SNDFILE, int (*)(SNDFILE*)>;

int generate(const std::string& path, double seconds, int rate, const std::string& title,
             const std::string& artist) {
    SF_INFO info{};
    info.samplerate = rate;
    info.channels = 2;
    auto endsWith = [&](const char* suffix) {
        const size_t n = std::strlen(suffix);
        return path.size() > n && path.compare(path.size() - n, n, suffix) == 0;
    };
    const bool flac = endsWith(".flac");
    if (!flac && !endsWith(".wav")) {
        std::fprintf(stderr,
                     "zem-wavtool: cannot write %s: only .wav and .flac files can be made\n",
                     path.c_str());
        return 2;
    }
    info.format = (flac ? SF_FORMAT_FLAC : SF_FORMAT_WAV) | SF_FORMAT_PCM_16;
    File file(sf_open(path.c_str(), SFM_WRITE, &info), sf_close);
    if (!file) {
        std::fprintf(stderr, "zem-wavtool: cannot create %s: %s\n", path.c_str(),
                     sf_strerror(nullptr));
        return 1;
    }
    if (!title.empty()) sf_set_string(file.get(), SF_STR_TITLE, title.c_str());
    if (!artist.empty()) sf_set_string(file.get(), SF_STR_ARTIST, artist.c_str());
    const auto frames = static_cast<sf_count_t>(seconds * rate);
    std::vector<short> samples(static_cast<size_t>(frames) * 2);
    uint32_t noise = 0x2545f491;
    for (sf_count_t i = 0; i < frames; ++i) {
        const double t = static_cast<double>(i) / rate;
        for (int channel = 0; channel < 2; ++channel) {
            noise = noise * 1664525u + 1013904223u;
            const double tone = std::sin(2 * M_PI * (channel ? 660.0 : 440.0) * t);
            const double value = 0.6 * tone + 0.3 * (static_cast<int32_t>(noise) / 2147483648.0);
            samples[static_cast<size_t>(i) * 2 + channel] = static_cast<short>(value * 32767);
        }
    }
    if (sf_writef_short(file.get(), samples.data(), frames) != frames) {
        std::fprintf(stderr, "zem-wavtool: cannot write %s\n", path.c_str());
        return 1;
    }
    return 0;
}

int compare(const std::string& expectedPath, const std::string& actualPath) {
    SF_INFO expectedInfo{};
    SF_INFO actualInfo{};
    File expected(sf_open(expectedPath.c_str(), SFM_READ, &expectedInfo), sf_close);
    File actual(sf_open(actualPath.c_str(), SFM_READ, &actualInfo), sf_close);
    if (!expected || !actual) {
        std::fprintf(stderr, "zem-wavtool: cannot read %s: %s\n",
                     (expected ? actualPath : expectedPath).c_str(), sf_strerror(nullptr));
        return 1;
    }
    if (expectedInfo.channels != actualInfo.channels ||
        expectedInfo.samplerate != actualInfo.samplerate) {
        std::printf("MISMATCH: %s is %d Hz %d ch, %s is %d Hz %d ch\n", expectedPath.c_str(),
                    expectedInfo.samplerate, expectedInfo.channels, actualPath.c_str(),
                    actualInfo.samplerate, actualInfo.channels);
        return 1;
    }
    // Both read as 32-bit integers: libsndfile widens 16- and 24-bit samples exactly.
    sf_command(expected.get(), SFC_SET_SCALE_FLOAT_INT_READ, nullptr, SF_TRUE);
    sf_command(actual.get(), SFC_SET_SCALE_FLOAT_INT_READ, nullptr, SF_TRUE);
    const auto channels = static_cast<size_t>(expectedInfo.channels);
    std::vector<int> a(4096 * channels);
    std::vector<int> b(4096 * channels);
    sf_count_t frame = 0;
    for (;;) {
        const sf_count_t gotA = sf_readf_int(expected.get(), a.data(), 4096);
        const sf_count_t gotB = sf_readf_int(actual.get(), b.data(), 4096);
        for (size_t i = 0; i < static_cast<size_t>(std::min(gotA, gotB)) * channels; ++i) {
            if (a[i] != b[i]) {
                std::printf("MISMATCH at frame %lld, channel %zu: %d in %s, %d in %s\n",
                            static_cast<long long>(frame) + static_cast<long long>(i / channels),
                            i % channels, a[i], expectedPath.c_str(), b[i], actualPath.c_str());
                return 1;
            }
        }
        if (gotA != gotB) {
            std::printf("MISMATCH: %s has %lld frames, %s has %lld\n", expectedPath.c_str(),
                        static_cast<long long>(expectedInfo.frames), actualPath.c_str(),
                        static_cast<long long>(actualInfo.frames));
            return 1;
        }
        if (gotA == 0) break;
        frame += gotA;
    }
    std::printf("bit-exact: %lld frames of %d channels at %d Hz match\n",
                static_cast<long long>(frame), expectedInfo.channels, expectedInfo.samplerate);
    return 0;
}

// Reads a whole file as 32-bit integers (16-bit samples scaled exactly by 2^16).
std::optional<std::vector<int>> readAll(const std::string& path, SF_INFO& info) {
    File file(sf_open(path.c_str(), SFM_READ, &info), sf_close);
    if (!file) {
        std::fprintf(stderr, "zem-wavtool: cannot read %s: %s\n", path.c_str(),
                     sf_strerror(nullptr));
        return std::nullopt;
    }
    sf_command(file.get(), SFC_SET_SCALE_FLOAT_INT_READ, nullptr, SF_TRUE);
    std::vector<int> samples(static_cast<size_t>(info.frames) * static_cast<size_t>(info.channels));
    samples.resize(static_cast<size_t>(sf_readf_int(file.get(), samples.data(), info.frames)) *
                   static_cast<size_t>(info.channels));
    return samples;
}

// `inputs` are "FILE@FRAME" or "FILE@FRAME*GAIN". The mix of 16-bit audio is compared in 16-bit
// steps: exactly when every gain is 1, within one step otherwise (each input is rounded once).
int mix(const std::string& mixPath, const std::vector<std::string>& inputs) {
    SF_INFO mixInfo{};
    const std::optional<std::vector<int>> actual = readAll(mixPath, mixInfo);
    if (!actual) return 1;
    const auto channels = static_cast<size_t>(mixInfo.channels);
    std::vector<double> expected(actual->size());
    double tolerance = 0;
    for (const std::string& input : inputs) {
        const size_t at = input.rfind('@');
        const size_t star = input.find('*', at == std::string::npos ? 0 : at);
        if (at == std::string::npos) {
            std::fprintf(stderr, "zem-wavtool: mix: '%s' is not FILE@FRAME[*GAIN]\n",
                         input.c_str());
            return 2;
        }
        const std::string path = input.substr(0, at);
        const auto frame = static_cast<size_t>(std::stoll(input.substr(at + 1, star - at - 1)));
        const double gain = star == std::string::npos ? 1.0 : std::stod(input.substr(star + 1));
        if (gain != 1.0) tolerance = 1;
        SF_INFO info{};
        const std::optional<std::vector<int>> samples = readAll(path, info);
        if (!samples) return 1;
        if (info.channels != mixInfo.channels || info.samplerate != mixInfo.samplerate) {
            std::printf("MISMATCH: %s is %d Hz %d ch, the mix %d Hz %d ch\n", path.c_str(),
                        info.samplerate, info.channels, mixInfo.samplerate, mixInfo.channels);
            return 1;
        }
        if ((frame * channels + samples->size()) > expected.size()) {
            std::printf("MISMATCH: the mix ends before %s at frame %zu does\n", path.c_str(),
                        frame);
            return 1;
        }
        for (size_t i = 0; i < samples->size(); ++i) {
            expected[frame * channels + i] += (*samples)[i] / 65536.0 * gain;
        }
    }
    for (size_t i = 0; i < expected.size(); ++i) {
        const double want = std::clamp(expected[i], -32768.0, 32767.0);
        const double got = (*actual)[i] / 65536.0;
        if (std::fabs(want - got) > tolerance) {
            std::printf("MISMATCH at frame %zu, channel %zu: %.1f expected, %.0f in %s\n",
                        i / channels, i % channels, want, got, mixPath.c_str());
            return 1;
        }
    }
    std::printf("mix %s: %zu frames of %zu inputs match%s\n",
                tolerance == 0 ? "bit-exact" : "within one step", expected.size() / channels,
                inputs.size(), tolerance == 0 ? "" : " (inputs at a gain below 1)");
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"zem-wavtool: test signals and sample-exact comparison of audio files"};
    app.require_subcommand(1);
    std::string path;
    double seconds = 5;
    int rate = 48000;
    std::string title;
    std::string artist;
    CLI::App* gen = app.add_subcommand("generate", "write a stereo 16-bit test signal");
    gen->add_option("file", path, "output file, .wav or .flac")->required();
    gen->add_option("seconds", seconds, "length")->check(CLI::Range(0.0, 3600.0));
    gen->add_option("--rate", rate, "sample rate")->check(CLI::Range(8000, 192000));
    gen->add_option("--title", title, "title tag");
    gen->add_option("--artist", artist, "artist tag");
    std::string expected;
    std::string actual;
    CLI::App* cmp = app.add_subcommand("compare", "exit 0 when both files hold the same samples");
    cmp->add_option("expected", expected)->required();
    cmp->add_option("actual", actual)->required();
    std::string mixed;
    std::vector<std::string> inputs;
    CLI::App* mixCmd = app.add_subcommand(
        "mix", "exit 0 when MIX holds the sum of the inputs, each at its frame and gain");
    mixCmd->add_option("mix", mixed)->required();
    mixCmd->add_option("inputs", inputs, "FILE@FRAME or FILE@FRAME*GAIN")->required();
    if (const std::optional<int> status = zem::parseCommandLine(app, argc, argv, "zem-wavtool"))
        return *status;
    if (*gen) return generate(path, seconds, rate, title, artist);
    if (*mixCmd) return mix(mixed, inputs);
    return compare(expected, actual);
}
