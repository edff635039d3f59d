#pragma once

// The pictures the sandbox serves for avatars, artworks and waveforms, drawn
// from the records themselves so that a view of the sandbox looks like one:
// a coloured square with the name's initials, a waveform from an uploaded
// WAV's samples or from an envelope seeded by the track's identifier. Small
// PNGs (a few KB), encoded here with zlib.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace velvox::sandbox::images {

// 8-bit RGB pixels, row by row, as a PNG; empty when the sizes do not match
// or are out of bounds (1 to 4096 on each side).
std::string encodePNG(int width, int height, const std::vector<uint8_t>& rgb);

// Up to two initials of a name, in upper case: "Ines Tanaka" -> "IT",
// "ines_stone0" -> "IS", "home" -> "H"; letters and digits of ASCII only,
// "?" when there are none.
std::string initials(std::string_view name);

// A square of `size` pixels: a background of two colours chosen by `seed`
// (a record's identifier) with the initials drawn large; a round one for
// avatars (its corners in the page's background).
std::string portrait(uint64_t seed, std::string_view initials, int size, bool round);

// A waveform's envelope: `count` peaks from 0 to 255.
using Envelope = std::vector<uint8_t>;
// A smooth pseudo-random envelope, the same for the same seed.
Envelope seededEnvelope(uint64_t seed, size_t count);
// The peaks of a PCM WAV's samples (8, 16, 24 or 32 bits, any channels);
// empty when the bytes are no such file. Reads at most the bytes given.
// `seconds`, when given, receives how long the samples last.
Envelope envelopeOfWAV(std::string_view bytes, size_t count, double* seconds = nullptr);
// The envelope drawn as bars, mirrored about the middle, `width` by `height`.
std::string waveform(const Envelope&, int width, int height);

} // namespace velvox::sandbox::images
