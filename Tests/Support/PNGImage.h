#pragma once

// Decodes a PNG file's pixels with zlib, so that tests can look at pictures:
// the sandbox's avatars and waveforms, a browser's screenshot of a view.
// 8-bit greyscale, RGB and RGBA without interlacing; anything else is refused
// with the reason. Link ZLIB::ZLIB.

#include <zlib.h>

#include <cstdint>
#include <algorithm>
#include <cstdlib>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace velvox::test {

struct PNGImage {
    int width { 0 };
    int height { 0 };
    int channels { 0 };
    std::vector<uint8_t> pixels; // row by row, `channels` bytes a pixel
    std::string problem;         // empty when decoded

    // The pixel at (x, y) as 0xRRGGBB (grey repeated; alpha left out).
    uint32_t rgb(int x, int y) const
    {
        const uint8_t* p = &pixels[(static_cast<size_t>(y) * width + x) * channels];
        return channels < 3 ? (p[0] * 0x010101u) : (uint32_t(p[0]) << 16 | uint32_t(p[1]) << 8 | p[2]);
    }
    // How many distinct colours the picture holds, counting at most `limit`.
    size_t distinctColours(size_t limit = 1000) const
    {
        std::set<uint32_t> seen;
        for (int y = 0; y < height && seen.size() < limit; ++y) {
            for (int x = 0; x < width && seen.size() < limit; ++x)
                seen.insert(rgb(x, y));
        }
        return seen.size();
    }

    // The share of the pixels that the most common colour takes: 1 for a blank picture.
    double largestColourShare() const
    {
        std::map<uint32_t, size_t> counts;
        size_t largest = 0;
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x)
                largest = std::max(largest, ++counts[rgb(x, y)]);
        }
        return width && height ? static_cast<double>(largest) / (static_cast<double>(width) * height) : 1;
    }

    static PNGImage decode(std::string_view bytes)
    {
        PNGImage image;
        auto fail = [&image](std::string why) {
            image.problem = std::move(why);
            image.pixels.clear();
            return image;
        };
        auto word = [&bytes](size_t at) {
            return uint32_t(uint8_t(bytes[at])) << 24 | uint32_t(uint8_t(bytes[at + 1])) << 16 | uint32_t(uint8_t(bytes[at + 2])) << 8 | uint8_t(bytes[at + 3]);
        };
        if (bytes.size() < 8 || bytes.substr(0, 8) != std::string_view("\x89PNG\r\n\x1a\n", 8))
            return fail("no PNG signature");
        std::string compressed;
        bool ended = false;
        for (size_t at = 8; at + 12 <= bytes.size() && !ended;) {
            size_t length = word(at);
            if (length > bytes.size() - at - 12)
                return fail("a chunk runs past the end");
            std::string_view type = bytes.substr(at + 4, 4), body = bytes.substr(at + 8, length);
            uLong crc = crc32(0, reinterpret_cast<const Bytef*>(bytes.data() + at + 4), static_cast<uInt>(length + 4));
            if (crc != word(at + 8 + length))
                return fail("bad CRC in " + std::string(type));
            if (type == "IHDR") {
                if (length != 13)
                    return fail("bad IHDR");
                image.width = static_cast<int>(word(at + 8));
                image.height = static_cast<int>(word(at + 12));
                int depth = uint8_t(body[8]), colour = uint8_t(body[9]);
                if (depth != 8 || uint8_t(body[12]) != 0)
                    return fail("only 8-bit pictures without interlacing");
                image.channels = colour == 0 ? 1 : colour == 2 ? 3 : colour == 6 ? 4 : colour == 4 ? 2 : 0;
                if (!image.channels)
                    return fail("colour type " + std::to_string(colour));
                if (image.width < 1 || image.height < 1 || image.width > 16384 || image.height > 16384)
                    return fail("absurd size");
            } else if (type == "IDAT")
                compressed += body;
            else if (type == "IEND")
                ended = true;
            at += 12 + length;
        }
        if (!ended || !image.channels)
            return fail("no IHDR or IEND");
        size_t stride = static_cast<size_t>(image.width) * image.channels;
        std::vector<uint8_t> raw((stride + 1) * image.height);
        uLongf size = static_cast<uLongf>(raw.size());
        if (uncompress(raw.data(), &size, reinterpret_cast<const Bytef*>(compressed.data()), static_cast<uLong>(compressed.size())) != Z_OK || size != raw.size())
            return fail("the pixels do not inflate to the picture's size");
        image.pixels.resize(stride * image.height);
        size_t bpp = image.channels;
        for (int y = 0; y < image.height; ++y) {
            const uint8_t* in = &raw[y * (stride + 1) + 1];
            uint8_t* out = &image.pixels[y * stride];
            const uint8_t* up = y ? out - stride : nullptr;
            int filter = raw[y * (stride + 1)];
            for (size_t x = 0; x < stride; ++x) {
                int a = x >= bpp ? out[x - bpp] : 0, b = up ? up[x] : 0, c = up && x >= bpp ? up[x - bpp] : 0;
                int predicted = 0;
                switch (filter) {
                case 0: break;
                case 1: predicted = a; break;
                case 2: predicted = b; break;
                case 3: predicted = (a + b) / 2; break;
                case 4: {
                    int p = a + b - c, pa = std::abs(p - a), pb = std::abs(p - b), pc = std::abs(p - c);
                    predicted = pa <= pb && pa <= pc ? a : pb <= pc ? b : c;
                    break;
                }
                default:
                    return fail("filter " + std::to_string(filter));
                }
                out[x] = static_cast<uint8_t>(in[x] + predicted);
            }
        }
        return image;
    }
};

} // namespace velvox::test
