#include "SandboxImages.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>

namespace velvox::sandbox::images {

namespace {

struct Colour {
    uint8_t red, green, blue;
};

// The page's background, so that a round avatar's corners disappear in it.
constexpr Colour pageBackground { 250, 250, 250 };
constexpr Colour ink { 250, 250, 250 };
constexpr Colour waveformInk { 64, 86, 140 };

uint64_t mixed(uint64_t value)
{
    value += 0x9E3779B97F4A7C15ull;
    value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9ull;
    value = (value ^ (value >> 27)) * 0x94D049BB133111EBull;
    return value ^ (value >> 31);
}

Colour fromHue(double hue, double saturation, double value)
{
    hue = std::fmod(hue, 360.0) / 60.0;
    double chroma = value * saturation;
    double x = chroma * (1 - std::fabs(std::fmod(hue, 2.0) - 1));
    double r = 0, g = 0, b = 0;
    switch (static_cast<int>(hue)) {
    case 0: r = chroma, g = x; break;
    case 1: r = x, g = chroma; break;
    case 2: g = chroma, b = x; break;
    case 3: g = x, b = chroma; break;
    case 4: r = x, b = chroma; break;
    default: r = chroma, b = x; break;
    }
    double m = value - chroma;
    auto channel = [m](double c) { return static_cast<uint8_t>(std::lround((c + m) * 255)); };
    return { channel(r), channel(g), channel(b) };
}

// A 5 by 7 glyph per row of bits, the leftmost pixel in bit 4.
using Glyph = std::array<uint8_t, 7>;

const Glyph& glyphOf(char c)
{
    static const Glyph letters[26] = {
        { 0b01110, 0b10001, 0b10001, 0b11111, 0b10001, 0b10001, 0b10001 }, // A
        { 0b11110, 0b10001, 0b10001, 0b11110, 0b10001, 0b10001, 0b11110 },
        { 0b01110, 0b10001, 0b10000, 0b10000, 0b10000, 0b10001, 0b01110 },
        { 0b11110, 0b10001, 0b10001, 0b10001, 0b10001, 0b10001, 0b11110 },
        { 0b11111, 0b10000, 0b10000, 0b11110, 0b10000, 0b10000, 0b11111 },
        { 0b11111, 0b10000, 0b10000, 0b11110, 0b10000, 0b10000, 0b10000 },
        { 0b01110, 0b10001, 0b10000, 0b10111, 0b10001, 0b10001, 0b01111 },
        { 0b10001, 0b10001, 0b10001, 0b11111, 0b10001, 0b10001, 0b10001 },
        { 0b01110, 0b00100, 0b00100, 0b00100, 0b00100, 0b00100, 0b01110 },
        { 0b00111, 0b00010, 0b00010, 0b00010, 0b00010, 0b10010, 0b01100 },
        { 0b10001, 0b10010, 0b10100, 0b11000, 0b10100, 0b10010, 0b10001 },
        { 0b10000, 0b10000, 0b10000, 0b10000, 0b10000, 0b10000, 0b11111 },
        { 0b10001, 0b11011, 0b10101, 0b10101, 0b10001, 0b10001, 0b10001 },
        { 0b10001, 0b10001, 0b11001, 0b10101, 0b10011, 0b10001, 0b10001 },
        { 0b01110, 0b10001, 0b10001, 0b10001, 0b10001, 0b10001, 0b01110 },
        { 0b11110, 0b10001, 0b10001, 0b11110, 0b10000, 0b10000, 0b10000 },
        { 0b01110, 0b10001, 0b10001, 0b10001, 0b10101, 0b10010, 0b01101 },
        { 0b11110, 0b10001, 0b10001, 0b11110, 0b10100, 0b10010, 0b10001 },
        { 0b01111, 0b10000, 0b10000, 0b01110, 0b00001, 0b00001, 0b11110 },
        { 0b11111, 0b00100, 0b00100, 0b00100, 0b00100, 0b00100, 0b00100 },
        { 0b10001, 0b10001, 0b10001, 0b10001, 0b10001, 0b10001, 0b01110 },
        { 0b10001, 0b10001, 0b10001, 0b10001, 0b10001, 0b01010, 0b00100 },
        { 0b10001, 0b10001, 0b10001, 0b10101, 0b10101, 0b10101, 0b01010 },
        { 0b10001, 0b10001, 0b01010, 0b00100, 0b01010, 0b10001, 0b10001 },
        { 0b10001, 0b10001, 0b01010, 0b00100, 0b00100, 0b00100, 0b00100 },
        { 0b11111, 0b00001, 0b00010, 0b00100, 0b01000, 0b10000, 0b11111 }, // Z
    };
    static const Glyph digits[10] = {
        { 0b01110, 0b10001, 0b10011, 0b10101, 0b11001, 0b10001, 0b01110 }, // 0
        { 0b00100, 0b01100, 0b00100, 0b00100, 0b00100, 0b00100, 0b01110 },
        { 0b01110, 0b10001, 0b00001, 0b00010, 0b00100, 0b01000, 0b11111 },
        { 0b11111, 0b00010, 0b00100, 0b00010, 0b00001, 0b10001, 0b01110 },
        { 0b00010, 0b00110, 0b01010, 0b10010, 0b11111, 0b00010, 0b00010 },
        { 0b11111, 0b10000, 0b11110, 0b00001, 0b00001, 0b10001, 0b01110 },
        { 0b00110, 0b01000, 0b10000, 0b11110, 0b10001, 0b10001, 0b01110 },
        { 0b11111, 0b00001, 0b00010, 0b00100, 0b01000, 0b01000, 0b01000 },
        { 0b01110, 0b10001, 0b10001, 0b01110, 0b10001, 0b10001, 0b01110 },
        { 0b01110, 0b10001, 0b10001, 0b01111, 0b00001, 0b00010, 0b01100 }, // 9
    };
    static const Glyph unknown { 0b01110, 0b10001, 0b00001, 0b00010, 0b00100, 0b00000, 0b00100 };
    if (c >= 'A' && c <= 'Z')
        return letters[c - 'A'];
    if (c >= '0' && c <= '9')
        return digits[c - '0'];
    return unknown;
}

bool isWordCharacter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

char upper(char c)
{
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

void appendChunk(std::string& png, const char* type, const std::string& data)
{
    auto appendWord = [&png](uint32_t word) {
        for (int shift = 24; shift >= 0; shift -= 8)
            png += static_cast<char>((word >> shift) & 0xFF);
    };
    appendWord(static_cast<uint32_t>(data.size()));
    size_t start = png.size();
    png.append(type, 4);
    png += data;
    appendWord(static_cast<uint32_t>(crc32(0, reinterpret_cast<const Bytef*>(png.data() + start), static_cast<uInt>(png.size() - start))));
}

// Little-endian fields of a WAV.
uint32_t word32(std::string_view bytes, size_t at)
{
    return static_cast<uint32_t>(static_cast<uint8_t>(bytes[at])) | static_cast<uint32_t>(static_cast<uint8_t>(bytes[at + 1])) << 8
        | static_cast<uint32_t>(static_cast<uint8_t>(bytes[at + 2])) << 16 | static_cast<uint32_t>(static_cast<uint8_t>(bytes[at + 3])) << 24;
}

uint16_t word16(std::string_view bytes, size_t at)
{
    return static_cast<uint16_t>(static_cast<uint8_t>(bytes[at]) | static_cast<uint8_t>(bytes[at + 1]) << 8);
}

// A sample's magnitude, from 0 to 1.
double magnitude(std::string_view bytes, size_t at, int bits)
{
    switch (bits) {
    case 8:
        return std::fabs((static_cast<uint8_t>(bytes[at]) - 128) / 128.0);
    case 16:
        return std::fabs(static_cast<int16_t>(word16(bytes, at)) / 32768.0);
    case 24: {
        uint32_t raw = static_cast<uint32_t>(static_cast<uint8_t>(bytes[at])) | static_cast<uint32_t>(static_cast<uint8_t>(bytes[at + 1])) << 8
            | static_cast<uint32_t>(static_cast<uint8_t>(bytes[at + 2])) << 16;
        int32_t value = raw & 0x800000 ? static_cast<int32_t>(raw) - 0x1000000 : static_cast<int32_t>(raw);
        return std::fabs(value / 8388608.0);
    }
    default:
        return std::fabs(static_cast<int32_t>(word32(bytes, at)) / 2147483648.0);
    }
}

} // namespace

std::string encodePNG(int width, int height, const std::vector<uint8_t>& rgb)
{
    if (width < 1 || height < 1 || width > 4096 || height > 4096 || rgb.size() != static_cast<size_t>(width) * height * 3)
        return {};
    // Each row with the "Sub" filter: flat colours and gradients become runs
    // of equal bytes, which is what keeps these pictures small.
    size_t stride = static_cast<size_t>(width) * 3;
    std::string rows;
    rows.reserve((stride + 1) * height);
    for (int y = 0; y < height; ++y) {
        rows += '\1';
        const uint8_t* row = rgb.data() + y * stride;
        for (size_t x = 0; x < stride; ++x)
            rows += static_cast<char>(x < 3 ? row[x] : static_cast<uint8_t>(row[x] - row[x - 3]));
    }
    uLongf size = compressBound(static_cast<uLong>(rows.size()));
    std::string compressed(size, '\0');
    if (compress2(reinterpret_cast<Bytef*>(compressed.data()), &size, reinterpret_cast<const Bytef*>(rows.data()), static_cast<uLong>(rows.size()), 9) != Z_OK)
        return {};
    compressed.resize(size);

    std::string header;
    for (uint32_t word : { static_cast<uint32_t>(width), static_cast<uint32_t>(height) }) {
        for (int shift = 24; shift >= 0; shift -= 8)
            header += static_cast<char>((word >> shift) & 0xFF);
    }
    header += std::string("\x08\x02\x00\x00\x00", 5); // 8 bits, RGB, deflate, no filter set, no interlace
    std::string png("\x89PNG\r\n\x1a\n", 8);
    appendChunk(png, "IHDR", header);
    appendChunk(png, "IDAT", compressed);
    appendChunk(png, "IEND", {});
    return png;
}

std::string initials(std::string_view name)
{
    std::string found;
    bool atWordStart = true;
    for (size_t i = 0; i < name.size() && found.size() < 2; ++i) {
        char c = name[i];
        if (!isWordCharacter(c)) {
            atWordStart = true;
            continue;
        }
        if (atWordStart)
            found += upper(c);
        atWordStart = false;
    }
    return found.empty() ? "?" : found;
}

std::string portrait(uint64_t seed, std::string_view text, int size, bool round)
{
    size = std::clamp(size, 8, 1024);
    uint64_t hash = mixed(seed);
    double hue = static_cast<double>(hash % 360);
    Colour from = fromHue(hue, 0.55, 0.80), to = fromHue(hue + 40, 0.65, 0.50);
    std::vector<uint8_t> pixels(static_cast<size_t>(size) * size * 3);
    double radius = size / 2.0;
    for (int y = 0; y < size; ++y) {
        for (int x = 0; x < size; ++x) {
            // A diagonal gradient between the two colours.
            double t = (x + y) / (2.0 * size);
            Colour c { static_cast<uint8_t>(from.red + (to.red - from.red) * t), static_cast<uint8_t>(from.green + (to.green - from.green) * t),
                static_cast<uint8_t>(from.blue + (to.blue - from.blue) * t) };
            double dx = x + 0.5 - radius, dy = y + 0.5 - radius;
            if (round && dx * dx + dy * dy > radius * radius)
                c = pageBackground;
            uint8_t* pixel = &pixels[(static_cast<size_t>(y) * size + x) * 3];
            pixel[0] = c.red, pixel[1] = c.green, pixel[2] = c.blue;
        }
    }
    // The initials, centred, in glyphs of 5 by 7 cells with a cell between them.
    std::string letters(text.substr(0, 2));
    if (letters.empty())
        letters = "?";
    int columns = static_cast<int>(letters.size()) * 6 - 1;
    int cell = std::max(1, size * 11 / 20 / columns);
    int left = (size - columns * cell) / 2, top = (size - 7 * cell) / 2;
    for (size_t n = 0; n < letters.size(); ++n) {
        const Glyph& glyph = glyphOf(upper(letters[n]));
        for (int row = 0; row < 7; ++row) {
            for (int column = 0; column < 5; ++column) {
                if (!(glyph[row] & (0x10 >> column)))
                    continue;
                int x0 = left + (static_cast<int>(n) * 6 + column) * cell, y0 = top + row * cell;
                for (int y = y0; y < y0 + cell; ++y) {
                    for (int x = x0; x < x0 + cell; ++x) {
                        uint8_t* pixel = &pixels[(static_cast<size_t>(y) * size + x) * 3];
                        pixel[0] = ink.red, pixel[1] = ink.green, pixel[2] = ink.blue;
                    }
                }
            }
        }
    }
    return encodePNG(size, size, pixels);
}

Envelope seededEnvelope(uint64_t seed, size_t count)
{
    Envelope envelope(count);
    uint64_t state = mixed(seed);
    double level = 0.5;
    for (size_t i = 0; i < count; ++i) {
        state = mixed(state);
        // A random walk for the music's loudness, quick jitter for its beats,
        // faded in and out at the ends.
        level = std::clamp(level + ((state & 0xFFFF) / 65535.0 - 0.5) * 0.18, 0.25, 0.95);
        double jitter = 0.75 + ((state >> 16) & 0xFF) / 255.0 * 0.25;
        double position = count > 1 ? static_cast<double>(i) / (count - 1) : 0.5;
        double fade = std::min({ 1.0, position * 12, (1 - position) * 8 + 0.05 });
        envelope[i] = static_cast<uint8_t>(std::lround(std::clamp(level * jitter * fade, 0.02, 1.0) * 255));
    }
    return envelope;
}

Envelope envelopeOfWAV(std::string_view bytes, size_t count, double* seconds)
{
    if (count == 0 || bytes.size() < 12 || bytes.substr(0, 4) != "RIFF" || bytes.substr(8, 4) != "WAVE")
        return {};
    int channels = 0, bits = 0;
    uint32_t rate = 0;
    size_t blockAlign = 0;
    std::string_view samples;
    bool haveFormat = false;
    for (size_t at = 12; at + 8 <= bytes.size();) {
        std::string_view type = bytes.substr(at, 4);
        size_t length = std::min<size_t>(word32(bytes, at + 4), bytes.size() - at - 8);
        std::string_view body = bytes.substr(at + 8, length);
        if (type == "fmt " && body.size() >= 16) {
            uint16_t format = word16(body, 0);
            channels = word16(body, 2);
            rate = word32(body, 4);
            blockAlign = word16(body, 12);
            bits = word16(body, 14);
            // PCM, or the extensible form (which holds PCM in the sandbox's samples).
            haveFormat = format == 1 || format == 0xFFFE;
        } else if (type == "data")
            samples = body;
        at += 8 + length + (length & 1);
    }
    if (!haveFormat || channels < 1 || channels > 16 || (bits != 8 && bits != 16 && bits != 24 && bits != 32)
        || blockAlign < static_cast<size_t>(channels) * (bits / 8) || samples.size() < blockAlign || rate == 0)
        return {};
    size_t frames = samples.size() / blockAlign;
    if (seconds)
        *seconds = static_cast<double>(frames) / rate;
    std::vector<double> peaks(count, 0.0);
    double loudest = 0;
    for (size_t frame = 0; frame < frames; ++frame) {
        size_t bucket = frame * count / frames;
        for (int channel = 0; channel < channels; ++channel) {
            double value = magnitude(samples, frame * blockAlign + channel * (bits / 8), bits);
            peaks[bucket] = std::max(peaks[bucket], value);
        }
        loudest = std::max(loudest, peaks[bucket]);
    }
    Envelope envelope(count);
    for (size_t i = 0; i < count; ++i)
        envelope[i] = loudest > 0 ? static_cast<uint8_t>(std::lround(peaks[i] / loudest * 255)) : 0;
    return envelope;
}

std::string waveform(const Envelope& envelope, int width, int height)
{
    width = std::clamp(width, 8, 4096);
    height = std::clamp(height, 8, 1024);
    std::vector<uint8_t> pixels(static_cast<size_t>(width) * height * 3);
    for (size_t i = 0; i < pixels.size(); i += 3)
        pixels[i] = pageBackground.red, pixels[i + 1] = pageBackground.green, pixels[i + 2] = pageBackground.blue;
    if (envelope.empty())
        return encodePNG(width, height, pixels);
    double middle = height / 2.0;
    for (int x = 0; x < width; ++x) {
        // Bars two pixels wide with a gap of one.
        if (x % 3 == 2)
            continue;
        uint8_t peak = envelope[static_cast<size_t>(x / 3 * 3) * envelope.size() / width];
        int half = std::max(1, static_cast<int>(std::lround(peak / 255.0 * (middle - 1))));
        for (int y = static_cast<int>(middle) - half; y < static_cast<int>(middle) + half; ++y) {
            uint8_t* pixel = &pixels[(static_cast<size_t>(y) * width + x) * 3];
            pixel[0] = waveformInk.red, pixel[1] = waveformInk.green, pixel[2] = waveformInk.blue;
        }
    }
    return encodePNG(width, height, pixels);
}

} // namespace velvox::sandbox::images
