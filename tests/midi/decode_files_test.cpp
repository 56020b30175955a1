// The MIDI decoder on real files (golden event lines, every truncation) and damaged input.

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "midi/mdlvert.h"
#include "midi_builder.h"
#include "support/temp_dir.h"

namespace veltrin {
namespace {

using test::Bytes;

const char* const kSongs[] = {"frere-jacques", "lavenders-blue", "greensleeves"};

Bytes readSong(const std::string& name)
{
    const std::string text =
        testing::readText(std::string(TEST_DATA_DIR) + "/midi/" + name + ".mid");
    EXPECT_FALSE(text.empty()) << name;
    return Bytes(text.begin(), text.end());
}

TEST(DecoderFiles, RealSongsGiveTheirGoldenLinesAndEveryCutFailsAfterAPrefix)
{
    for (const std::string name : kSongs) {
        const Bytes whole = readSong(name);
        const DecodeResult full = Vertalen(whole, name + ".mid");
        EXPECT_EQ(full.errorCode, 0) << name;
        std::ifstream golden(std::string(TEST_DATA_DIR) + "/midi/" + name + ".events");
        std::size_t i = 0;
        for (std::string line; std::getline(golden, line); ++i)
        {
            ASSERT_LT(i, full.lines.size()) << name;
            ASSERT_EQ(full.lines[i], line) << name << " line " << i + 1;
        }
        ASSERT_EQ(i, full.lines.size()) << name;

        for (std::size_t size = 0; size < whole.size(); ++size) {
            const DecodeResult cut = Vertalen(std::span(whole).first(size), "x");
            ASSERT_NE(cut.errorCode, 0) << name << " cut at " << size;
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
        seeds.push_back(readSong(name));
    // Hostile lengths: a meta event of 2^28 - 1 bytes, a sysex of the longest length,
    // running status on a system event.
    seeds.push_back(test::song(0, 96, {{0x00, 0xFF, 0x01, 0xFF, 0xFF, 0xFF, 0x7F, 'a'}}));
    seeds.push_back(test::song(0, 96, {{0x00, 0xF0, 0xFF, 0xFF, 0xFF, 0x7F}}));
    seeds.push_back(test::song(1, 0, {{0x00, 0xF1, 1, 0x00, 0x40, 0x00}}));

    for (int round = 0; round < 4000; ++round) {
        Bytes bytes = seeds[random() % seeds.size()];
        for (int e = 1 + static_cast<int>(random() % 8); e > 0 && !bytes.empty(); --e) {
            const auto at = static_cast<std::ptrdiff_t>(random() % bytes.size());
            switch (random() % 4) {
            case 0: bytes[at] = static_cast<std::uint8_t>(random()); break;
            case 1: bytes[at] = 0xFF; break;  // lengths and statuses at their largest
            case 2: bytes.erase(bytes.begin() + at); break;
            default: bytes.insert(bytes.begin() + at, 0x80); break;
            }
        }
        const DecodeOptions options{(round & 2) != 0 ? static_cast<int>(random() % 300) : 0,
                                    (round & 1) != 0};
        const DecodeResult result = Vertalen(bytes, "x", options);
        const auto& lines = result.lines;
        const std::vector<int> codes = {0, 1, 2, 3, 5, 6};
        ASSERT_NE(std::find(codes.begin(), codes.end(), result.errorCode), codes.end());
        if (result.errorCode == 0) {
            ASSERT_TRUE(lines.size() >= 2 && lines[lines.size() - 2] == "ENDF 9999999");
        } else {
            ASSERT_TRUE(!result.errorMessage.empty() &&
                        (lines.empty() || !lines.back().starts_with("HEAD")));
        }
        for (std::size_t i = 0; i < lines.size(); ++i)
            if (lines[i].starts_with("NOTE")) {
                ASSERT_TRUE(i + 1 < lines.size() && lines[i + 1].starts_with("NOOF")) << lines[i];
            }
    }
}

}  // namespace
}  // namespace veltrin
