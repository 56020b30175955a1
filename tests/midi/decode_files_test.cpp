// The MIDI decoder on real files (golden event lines) and on damaged input.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "midi/mdlvert.h"
#include "midi_builder.h"

namespace veltrin {
namespace {

using test::Bytes;

const char* const kSongs[] = {"frere-jacques", "lavenders-blue", "greensleeves"};

Bytes readBytes(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file.good()) << path;
    return Bytes(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

std::vector<std::string> readLines(const std::string& path)
{
    std::ifstream file(path);
    EXPECT_TRUE(file.good()) << path;
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);)
        lines.push_back(line);
    return lines;
}

std::string dataPath(const std::string& name)
{
    return std::string(TEST_DATA_DIR) + "/midi/" + name;
}

TEST(DecoderFiles, RealSongsGiveTheirGoldenLines)
{
    for (const std::string name : kSongs) {
        const DecodeResult result = Vertalen(readBytes(dataPath(name + ".mid")), name + ".mid");
        EXPECT_EQ(result.errorCode, 0) << name;
        const std::vector<std::string> golden = readLines(dataPath(name + ".events"));
        ASSERT_EQ(result.lines.size(), golden.size()) << name;
        for (std::size_t i = 0; i < golden.size(); ++i)
            ASSERT_EQ(result.lines[i], golden[i]) << name << " line " << i + 1;
    }
}

// What must hold for any input: a known error or the closing ENDF and HEAD lines, and every
// NOTE line followed by its NOOF.
void expectWellFormed(const DecodeResult& result)
{
    const auto& lines = result.lines;
    const bool knownCode = result.errorCode == 0 || result.errorCode == 1 ||
                           result.errorCode == 2 || result.errorCode == 3 ||
                           result.errorCode == 5 || result.errorCode == 6;
    ASSERT_TRUE(knownCode) << result.errorCode;
    if (result.errorCode == 0) {
        ASSERT_GE(lines.size(), 2U);
        EXPECT_EQ(lines[lines.size() - 2], "ENDF 9999999");
    } else {
        EXPECT_FALSE(result.errorMessage.empty());
        EXPECT_TRUE(lines.empty() || !lines.back().starts_with("HEAD"));
    }
    for (std::size_t i = 0; i < lines.size(); ++i) {
        if (lines[i].starts_with("NOTE")) {
            ASSERT_TRUE(i + 1 < lines.size() && lines[i + 1].starts_with("NOOF")) << lines[i];
        }
    }
}

TEST(DecoderFiles, EveryTruncationFailsAfterTheSameLines)
{
    for (const std::string name : {"frere-jacques", "lavenders-blue"}) {
        const Bytes whole = readBytes(dataPath(name + ".mid"));
        const DecodeResult full = Vertalen(whole, "x");
        for (std::size_t size = 0; size < whole.size(); ++size) {
            const DecodeResult cut = Vertalen(std::span(whole).first(size), "x");
            ASSERT_NE(cut.errorCode, 0) << name << " cut at " << size;
            // Decoding is sequential: what was written is the start of the whole song's lines.
            ASSERT_LE(cut.lines.size(), full.lines.size() - 2);
            ASSERT_TRUE(std::equal(cut.lines.begin(), cut.lines.end(), full.lines.begin()))
                << name << " cut at " << size;
        }
    }
}

TEST(DecoderFiles, DamagedInputNeverBreaksTheDecoder)
{
    std::mt19937 random(20261122);
    std::vector<Bytes> seeds;
    for (const std::string name : kSongs)
        seeds.push_back(readBytes(dataPath(name + ".mid")));
    // Hostile lengths: a track chunk claiming 4 GB, a meta event of 2^28 - 1 bytes, a
    // sysex of the longest length, running status on a system event.
    Bytes hugeChunk = test::song(0, 96, {{}});
    hugeChunk.resize(18);
    hugeChunk.insert(hugeChunk.end(), {0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x90, 60, 1});
    seeds.push_back(hugeChunk);
    seeds.push_back(test::song(0, 96, {{0x00, 0xFF, 0x01, 0xFF, 0xFF, 0xFF, 0x7F, 'a'}}));
    seeds.push_back(test::song(0, 96, {{0x00, 0xF0, 0xFF, 0xFF, 0xFF, 0x7F}}));
    seeds.push_back(test::song(1, 0, {{0x00, 0xF1, 1, 0x00, 0x40, 0x00}}));

    for (int round = 0; round < 4000; ++round) {
        Bytes bytes = seeds[random() % seeds.size()];
        const int edits = 1 + static_cast<int>(random() % 8);
        for (int e = 0; e < edits && !bytes.empty(); ++e) {
            const std::size_t at = random() % bytes.size();
            switch (random() % 4) {
            case 0: bytes[at] = static_cast<std::uint8_t>(random()); break;
            case 1: bytes[at] = 0xFF; break;  // lengths and statuses at their largest
            case 2: bytes.erase(bytes.begin() + static_cast<std::ptrdiff_t>(at)); break;
            default: bytes.insert(bytes.begin() + static_cast<std::ptrdiff_t>(at), 0x80); break;
            }
        }
        DecodeOptions options;
        options.sustain = (round & 1) != 0;
        options.forcedTempoBpm = (round & 2) != 0 ? static_cast<int>(random() % 300) : 0;
        expectWellFormed(Vertalen(bytes, "x", options));
        if (HasFatalFailure())
            return;
    }
}

}  // namespace
}  // namespace veltrin
