// Four-character codes and SMC value bytes <-> numbers. The set of types is closed: anything not
// handled here is neither decodable nor encodable.

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "csmc/smc.h"
#include "ostrel/platform/numbers.h"
#include "ostrel/platform/text.h"

namespace {

using ostrel::text::hexDigitValue;

constexpr std::uint32_t code(const char (&t)[5]) {
    return (std::uint32_t{static_cast<unsigned char>(t[0])} << 24) |
           (std::uint32_t{static_cast<unsigned char>(t[1])} << 16) |
           (std::uint32_t{static_cast<unsigned char>(t[2])} << 8) |
           std::uint32_t{static_cast<unsigned char>(t[3])};
}

constexpr std::uint32_t kUi8 = code("ui8 "), kUi16 = code("ui16"), kUi32 = code("ui32"),
                        kUi64 = code("ui64"), kSi8 = code("si8 "), kSi16 = code("si16"),
                        kSi32 = code("si32"), kSi64 = code("si64"), kFlt = code("flt "),
                        kIoft = code("ioft"), kPwm = code("pwm "), kFlag = code("flag"),
                        kHex = code("hex_");

std::uint64_t bigEndian(const std::uint8_t *bytes, std::uint32_t count) {
    std::uint64_t v = 0;
    for (std::uint32_t i = 0; i < count; ++i) {
        v = (v << 8) | bytes[i];
    }
    return v;
}

std::uint64_t littleEndian(const std::uint8_t *bytes, std::uint32_t count) {
    std::uint64_t v = 0;
    for (std::uint32_t i = count; i > 0; --i) {
        v = (v << 8) | bytes[i - 1];
    }
    return v;
}

void putBigEndian(std::uint8_t *out, std::uint32_t count, std::uint64_t v) {
    for (std::uint32_t i = count; i > 0; --i) {
        out[i - 1] = static_cast<std::uint8_t>(v & 0xFF);
        v >>= 8;
    }
}

// Sign-extends the low `bytes` bytes of v.
std::int64_t signExtend(std::uint64_t v, std::uint32_t bytes) {
    if (bytes >= 8) {
        return static_cast<std::int64_t>(v);
    }
    unsigned shift = 64 - bytes * 8;
    return static_cast<std::int64_t>(v << shift) >> shift;
}

// "fpXY" / "spXY" with X and Y hexadecimal digits. Y is the number of fraction bits; X
// (the integer bits) must be a digit but takes no part in the arithmetic.
struct FixedPoint {
    bool valid = false;
    bool isSigned = false;
    int fractionBits = 0;
};

FixedPoint fixedPoint(std::uint32_t type) {
    unsigned char c1 = static_cast<unsigned char>(type >> 24);
    unsigned char c2 = static_cast<unsigned char>(type >> 16);
    unsigned char c3 = static_cast<unsigned char>(type >> 8);
    unsigned char c4 = static_cast<unsigned char>(type);
    if ((c1 != 'f' && c1 != 's') || c2 != 'p' || hexDigitValue(static_cast<char>(c3)) < 0 ||
        hexDigitValue(static_cast<char>(c4)) < 0) {
        return {};
    }
    return {true, c1 == 's', hexDigitValue(static_cast<char>(c4))};
}

bool isUnsignedInteger(std::uint32_t t) {
    return t == kUi8 || t == kUi16 || t == kUi32 || t == kUi64 || t == kHex;
}

bool isSignedInteger(std::uint32_t t) {
    return t == kSi8 || t == kSi16 || t == kSi32 || t == kSi64;
}

}  // namespace

extern "C" uint32_t smc_fourcc(const char *text) {
    std::uint32_t code = 0;
    bool ended = false;
    for (int i = 0; i < 4; ++i) {
        ended = ended || text[i] == '\0';
        unsigned char c = ended ? ' ' : static_cast<unsigned char>(text[i]);
        code = (code << 8) | c;
    }
    return code;
}

extern "C" bool smc_decode_double(uint32_t type, const uint8_t *bytes, uint32_t count,
                                  double *out) {
    double v = 0;
    if (type == kUi8 || type == kUi16 || type == kUi32 || type == kUi64) {
        std::uint32_t need = type == kUi8 ? 1 : type == kUi16 ? 2 : type == kUi32 ? 4 : 8;
        if (count != need) {
            return false;
        }
        v = static_cast<double>(bigEndian(bytes, count));
    } else if (isSignedInteger(type)) {
        std::uint32_t need = type == kSi8 ? 1 : type == kSi16 ? 2 : type == kSi32 ? 4 : 8;
        if (count != need) {
            return false;
        }
        v = static_cast<double>(signExtend(bigEndian(bytes, count), count));
    } else if (type == kFlt) {
        if (count != 4) {
            return false;
        }
        v = std::bit_cast<float>(static_cast<std::uint32_t>(littleEndian(bytes, 4)));
    } else if (type == kIoft) {
        if (count != 8) {
            return false;
        }
        v = static_cast<double>(littleEndian(bytes, 8)) / 65536.0;
    } else if (type == kPwm) {
        if (count != 2) {
            return false;
        }
        v = static_cast<double>(bigEndian(bytes, 2)) * 100.0 / 65536.0;
    } else if (type == kFlag) {
        if (count < 1) {
            return false;
        }
        v = bytes[0] != 0 ? 1.0 : 0.0;
    } else if (type == kHex) {
        if (count < 1 || count > 8) {
            return false;
        }
        v = static_cast<double>(bigEndian(bytes, count));
    } else {
        FixedPoint fp = fixedPoint(type);
        if (!fp.valid || count != 2) {
            return false;
        }
        std::uint64_t raw = bigEndian(bytes, 2);
        double n = fp.isSigned ? static_cast<double>(signExtend(raw, 2)) : static_cast<double>(raw);
        v = std::ldexp(n, -fp.fractionBits);
    }
    *out = v;
    return true;
}

extern "C" bool smc_encode_double(uint32_t type, uint32_t count, uint8_t *out, double value) {
    if (count > 0) {
        std::memset(out, 0, count);
    }
    // 2^64: beyond it a conversion to an unsigned 64-bit integer is undefined, so such
    // values (and NaN) are refused rather than written as garbage.
    constexpr double kTwo64 = 18446744073709551616.0;
    if (isUnsignedInteger(type)) {
        if (count < 1 || count > 8 || !(value >= 0)) {
            return false;
        }
        double shifted = value + 0.5;
        if (!(shifted < kTwo64)) {
            return false;
        }
        putBigEndian(out, count, static_cast<std::uint64_t>(shifted));
        return true;
    }
    if (isSignedInteger(type)) {
        if (count < 1 || count > 8 || std::isnan(value)) {
            return false;
        }
        auto rounded = ostrel::numbers::truncatedInt64(value < 0 ? value - 0.5 : value + 0.5);
        if (!rounded) {
            return false;
        }
        putBigEndian(out, count, static_cast<std::uint64_t>(*rounded));
        return true;
    }
    if (type == kFlag) {
        if (count < 1) {
            return false;
        }
        out[0] = value != 0 ? 1 : 0;
        return true;
    }
    if (type == kFlt) {
        if (count != 4) {
            return false;
        }
        auto bits = std::bit_cast<std::uint32_t>(static_cast<float>(value));
        for (int i = 0; i < 4; ++i) {
            out[i] = static_cast<std::uint8_t>(bits >> (8 * i));
        }
        return true;
    }
    if (type == kIoft || type == kPwm) {
        return false;
    }
    FixedPoint fp = fixedPoint(type);
    if (!fp.valid || count != 2 || std::isnan(value)) {
        return false;
    }
    double scaled = std::ldexp(value, fp.fractionBits);
    if (fp.isSigned) {
        if (scaled < -32768.0 || scaled > 32767.0) {
            return false;
        }
        auto word = static_cast<std::int16_t>(std::round(scaled));
        putBigEndian(out, 2, static_cast<std::uint16_t>(word));
    } else {
        if (scaled < 0.0 || scaled > 65535.0) {
            return false;
        }
        putBigEndian(out, 2, static_cast<std::uint64_t>(scaled + 0.5));
    }
    return true;
}
