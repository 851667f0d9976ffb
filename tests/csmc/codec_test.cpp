// The value codec: every type in both directions, with the count and refusal rules.

#include <gtest/gtest.h>

#include <limits>
#include <vector>

#include "csmc/smc.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

std::optional<double> decode(const char *type, const Bytes &bytes) {
    double out = -999;
    if (!smc_decode_double(smc_fourcc(type), bytes.data(), static_cast<std::uint32_t>(bytes.size()),
                           &out)) {
        EXPECT_EQ(out, -999) << "a refused decode must leave the output alone";
        return std::nullopt;
    }
    return out;
}

std::optional<Bytes> encode(const char *type, std::uint32_t count, double value) {
    Bytes out(count + 1, 0xEE);  // one guard byte past the count
    if (!smc_encode_double(smc_fourcc(type), count, out.data(), value)) {
        for (std::uint32_t i = 0; i < count; ++i) {
            EXPECT_EQ(out[i], 0) << "a refused encode still zeroes the output";
        }
        return std::nullopt;
    }
    EXPECT_EQ(out[count], 0xEE) << "encode wrote past the count";
    out.resize(count);
    return out;
}

struct DecodeCase {
    const char *type;
    Bytes bytes;
    std::optional<double> expected;
};

// Every value here is exact.
const std::vector<DecodeCase> kDecodes = {
    DecodeCase{"ui8 ", {0xFF}, 255}, DecodeCase{"ui8 ", {1, 2}, std::nullopt},
    DecodeCase{"ui16", {0x01, 0x00}, 256}, DecodeCase{"ui16", {0x01}, std::nullopt},
    DecodeCase{"ui32", {0x00, 0x00, 0x01, 0xF1}, 497}, DecodeCase{"ui32", {0, 0, 1}, std::nullopt},
    DecodeCase{"ui64", {0, 0, 0, 1, 0, 0, 0, 0}, 4294967296.0},
    DecodeCase{"ui64", {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, 18446744073709551615.0},
    DecodeCase{"si8 ", {0xFD}, -3}, DecodeCase{"si16", {0xFF, 0x38}, -200},
    DecodeCase{"si32", {0xFF, 0xFF, 0xFF, 0xFE}, -2},
    DecodeCase{"si64", {0x80, 0, 0, 0, 0, 0, 0, 0}, -9223372036854775808.0},
    DecodeCase{"si16", {0xFF, 0x38, 0}, std::nullopt},
    // flt is little-endian IEEE single, not byte-swapped.
    DecodeCase{"flt ", {0x00, 0x00, 0x80, 0x3F}, 1.0},
    DecodeCase{"flt ", {0x00, 0x00, 0xE1, 0x44}, 1800.0},
    DecodeCase{"flt ", {0x00, 0x00, 0x80}, std::nullopt},
    DecodeCase{"ioft", {0x00, 0x80, 0x01, 0, 0, 0, 0, 0}, 1.5},
    DecodeCase{"ioft", {0, 0, 1, 0}, std::nullopt}, DecodeCase{"pwm ", {0x80, 0x00}, 50.0},
    DecodeCase{"pwm ", {0x80}, std::nullopt}, DecodeCase{"flag", {0x02, 0x00}, 1.0},
    DecodeCase{"flag", {0x00}, 0.0}, DecodeCase{"flag", {}, std::nullopt},
    DecodeCase{"hex_", {0x01, 0x02, 0x03}, 66051},
    DecodeCase{"hex_", {1, 2, 3, 4, 5, 6, 7, 8, 9}, std::nullopt},
    DecodeCase{"hex_", {}, std::nullopt},
    // Fixed point: c4 is the fraction bits; c3 must be a hex digit but is ignored.
    DecodeCase{"fpe2", {0x1F, 0x40}, 2000}, DecodeCase{"sp78", {0xFF, 0x80}, -0.5},
    DecodeCase{"sp78", {0x80, 0x00}, -128}, DecodeCase{"fp88", {0x2D, 0x80}, 45.5},
    DecodeCase{"fp88", {0xFF, 0xFF}, 255.99609375}, DecodeCase{"sp87", {0x0E, 0x33}, 28.3984375},
    DecodeCase{"spA5", {0x00, 0x20}, 1.0}, DecodeCase{"sp5a", {0x05, 0x00}, 1.25},
    DecodeCase{"sp3c", {0x14, 0x00}, 1.25}, DecodeCase{"flt ", {0x00, 0x00, 0xC0, 0xBF}, -1.5},
    DecodeCase{"fp88", {0x2D}, std::nullopt}, DecodeCase{"fpzz", {0x01, 0x00}, std::nullopt},
    DecodeCase{"xp12", {0x01, 0x00}, std::nullopt}, DecodeCase{"fp1G", {0x01, 0x00}, std::nullopt},
    DecodeCase{"ch8*", {0x4D, 0x31}, std::nullopt}, DecodeCase{"{fds", Bytes(16, 0), std::nullopt}};

struct EncodeCase {
    const char *type;
    std::uint32_t count;
    double value;
    std::optional<Bytes> expected;
};

const std::vector<EncodeCase> kEncodes = {
    EncodeCase{"ui16", 2, 1800, Bytes{0x07, 0x08}},
    // Integers round half up, keep the low `count` bytes, and ignore the type's width.
    EncodeCase{"ui8 ", 1, 2.5, Bytes{0x03}}, EncodeCase{"ui8 ", 1, 256, Bytes{0x00}},
    EncodeCase{"ui8 ", 2, 258, Bytes{0x01, 0x02}}, EncodeCase{"ui8 ", 1, -1, std::nullopt},
    EncodeCase{"ui32", 4, 65536, Bytes{0, 1, 0, 0}},
    EncodeCase{"ui64", 8, 1, Bytes{0, 0, 0, 0, 0, 0, 0, 1}},
    EncodeCase{"hex_", 3, 66051, Bytes{1, 2, 3}}, EncodeCase{"ui16", 9, 1, std::nullopt},
    EncodeCase{"ui16", 0, 1, std::nullopt},
    EncodeCase{"ui8 ", 1, std::numeric_limits<double>::quiet_NaN(), std::nullopt},
    EncodeCase{"ui64", 8, 1e20, std::nullopt},
    // Signed: half away from zero, two's complement.
    EncodeCase{"si8 ", 1, -2.5, Bytes{0xFD}}, EncodeCase{"si16", 2, -200, Bytes{0xFF, 0x38}},
    EncodeCase{"si32", 4, 2.4, Bytes{0, 0, 0, 2}},
    EncodeCase{"si16", 2, std::numeric_limits<double>::infinity(), std::nullopt},
    EncodeCase{"flag", 1, 1, Bytes{0x01}}, EncodeCase{"flag", 2, -7, Bytes{0x01, 0x00}},
    EncodeCase{"flag", 1, 0, Bytes{0x00}}, EncodeCase{"flag", 0, 1, std::nullopt},
    EncodeCase{"flt ", 4, 1800, Bytes{0x00, 0x00, 0xE1, 0x44}},
    EncodeCase{"flt ", 4, 5297.5, Bytes{0x00, 0x8C, 0xA5, 0x45}},
    EncodeCase{"flt ", 2, 1800, std::nullopt}, EncodeCase{"fpe2", 2, 2000, Bytes{0x1F, 0x40}},
    EncodeCase{"fp88", 2, 7.5, Bytes{0x07, 0x80}}, EncodeCase{"sp96", 2, 7.5, Bytes{0x01, 0xE0}},
    EncodeCase{"sp4b", 2, 7.5, Bytes{0x3C, 0x00}},
    EncodeCase{"fpe2", 2, 16383.75, Bytes{0xFF, 0xFF}}, EncodeCase{"fpe2", 2, 70000, std::nullopt},
    EncodeCase{"fpe2", 2, -0.1, std::nullopt}, EncodeCase{"fpe2", 1, 10, std::nullopt},
    EncodeCase{"sp78", 2, -0.5, Bytes{0xFF, 0x80}},
    EncodeCase{"sp78", 2, 127.99609375, Bytes{0x7F, 0xFF}},
    EncodeCase{"sp78", 2, 128, std::nullopt}, EncodeCase{"sp78", 2, -128, Bytes{0x80, 0x00}},
    EncodeCase{"sp78", 2, std::numeric_limits<double>::quiet_NaN(), std::nullopt},
    // -0.3 * 256 = -76.8 rounds away from zero to -77 (0xFFB3).
    EncodeCase{"sp78", 2, -0.3, Bytes{0xFF, 0xB3}}, EncodeCase{"ioft", 8, 1, std::nullopt},
    EncodeCase{"pwm ", 2, 50, std::nullopt}, EncodeCase{"ch8*", 4, 1, std::nullopt},
    EncodeCase{"fp1G", 2, 1, std::nullopt}};

TEST(Codec, DecodesAndEncodesEveryTypeOrRefuses) {
    for (const DecodeCase &c : kDecodes) {
        EXPECT_EQ(decode(c.type, c.bytes), c.expected) << c.type;
    }
    for (const EncodeCase &c : kEncodes) {
        EXPECT_EQ(encode(c.type, c.count, c.value), c.expected) << c.type << " " << c.value;
    }
}

}  // namespace
