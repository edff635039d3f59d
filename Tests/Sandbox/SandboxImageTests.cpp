// The sandbox's pictures: avatars and artworks with the records' initials in
// their colours, waveforms from an uploaded WAV's samples or seeded by the
// track; real PNGs, small, made once and kept within bounds.

#include <Sandbox/SandboxImages.h>
#include <Sandbox/SandboxService.h>

#include <PNGImage.h>

#include <gtest/gtest.h>
#include <httplib.h>

#include <cstring>
#include <string>

using namespace velvox;
using velvox::sandbox::SandboxService;
using velvox::test::PNGImage;
namespace images = velvox::sandbox::images;

namespace {

struct Fetched {
    int status { 0 };
    std::string type;
    std::string body;
};

class SandboxPictures : public testing::Test {
protected:
    void SetUp() override
    {
        std::string error;
        ASSERT_TRUE(service.start(&error)) << error;
    }
    Fetched get(const std::string& path)
    {
        httplib::Client client("127.0.0.1", service.port());
        client.set_read_timeout(std::chrono::seconds(10));
        auto answer = client.Get(path);
        if (!answer)
            return {};
        return { answer->status, answer->get_header_value("Content-Type"), answer->body };
    }
    // Uploads `asset` as a new track; answers its identifier.
    std::string upload(const std::string& asset)
    {
        httplib::Client client("127.0.0.1", service.port());
        client.set_default_headers({ { "Authorization", "OAuth " + service.token() } });
        httplib::MultipartFormDataItems items = { { "track[title]", "Upload", "", "" }, { "track[asset_data]", asset, "a.wav", "audio/wav" } };
        auto answer = client.Post("/tracks", items);
        if (!answer || answer->status != 201)
            return {};
        size_t at = answer->body.find("\"id\":");
        return at == std::string::npos ? std::string() : std::to_string(std::atoll(answer->body.c_str() + at + 5));
    }

    SandboxService service { SandboxService::Options {} };
};

// A mono 16-bit WAV: silent for the first half of its frames, loud for the second.
std::string halfLoudWAV(size_t frames = 8000)
{
    auto word = [](uint32_t value, int bytes) {
        std::string out;
        for (int i = 0; i < bytes; ++i)
            out += static_cast<char>((value >> (8 * i)) & 0xFF);
        return out;
    };
    std::string samples;
    for (size_t i = 0; i < frames; ++i)
        samples += word(i < frames / 2 ? 0 : (i % 2 ? 0x6000 : 0xA000), 2);
    std::string format = word(1, 2) + word(1, 2) + word(16000, 4) + word(32000, 4) + word(2, 2) + word(16, 2);
    std::string body = "WAVE" + std::string("fmt ") + word(16, 4) + format + "data" + word(static_cast<uint32_t>(samples.size()), 4) + samples;
    return "RIFF" + word(static_cast<uint32_t>(body.size()), 4) + body;
}

// How many of the columns in [from, to) have ink more than `rows` pixels tall.
int tallColumns(const PNGImage& image, int from, int to, int rows)
{
    uint32_t background = image.rgb(0, 0);
    int tall = 0;
    for (int x = from; x < to; ++x) {
        int inked = 0;
        for (int y = 0; y < image.height; ++y)
            inked += image.rgb(x, y) != background;
        tall += inked > rows;
    }
    return tall;
}

} // namespace

TEST_F(SandboxPictures, EachKindIsASmallRealPicture)
{
    struct Case {
        const char* path;
        int width, height;
    } cases[] = {
        { "/images/avatars/1000-large.png", 100, 100 },
        { "/images/avatars/1000-t300x300.png", 300, 300 },
        { "/images/artworks/20001-large.png", 100, 100 },
        { "/images/waveforms/20000.png", 600, 80 },
        { "/images/artworks/5001-t300x300.png", 300, 300 }, // no such track: its own colours, a "?"
    };
    for (auto& c : cases) {
        auto fetched = get(c.path);
        ASSERT_EQ(fetched.status, 200) << c.path;
        EXPECT_EQ(fetched.type, "image/png") << c.path;
        EXPECT_LT(fetched.body.size(), 8000u) << c.path;
        auto image = PNGImage::decode(fetched.body);
        ASSERT_EQ(image.problem, "") << c.path;
        EXPECT_EQ(image.width, c.width) << c.path;
        EXPECT_EQ(image.height, c.height) << c.path;
        // Not a blank square: no colour covers nearly all of it.
        EXPECT_GE(image.distinctColours(), 2u) << c.path;
        EXPECT_LT(image.largestColourShare(), 0.9) << c.path;
    }
    // Another user has other colours; the same one the same picture.
    auto first = get("/images/avatars/1000-large.png").body, again = get("/images/avatars/1000-large.png").body;
    EXPECT_EQ(first, again);
    auto other = PNGImage::decode(get("/images/avatars/1001-large.png").body);
    EXPECT_NE(PNGImage::decode(first).rgb(50, 10), other.rgb(50, 10));
    // Pictures need no token, but a name past the route's bounds is no picture.
    EXPECT_EQ(get("/images/avatars/" + std::string(65, '1') + ".png").status, 404);
}

TEST_F(SandboxPictures, AnUploadedWAVsWaveformFollowsItsSamples)
{
    auto wav = upload(halfLoudWAV());
    auto notWAV = upload(std::string(4000, 'x')); // the control: a seeded envelope
    ASSERT_FALSE(wav.empty());
    ASSERT_FALSE(notWAV.empty());
    // Its length too: 8000 frames at 16 kHz.
    httplib::Client client("127.0.0.1", service.port());
    client.set_default_headers({ { "Authorization", "OAuth " + service.token() } });
    auto record = client.Get("/tracks/" + wav);
    ASSERT_TRUE(record);
    EXPECT_NE(record->body.find("\"duration\":500,"), std::string::npos) << record->body.substr(0, 300);
    auto loudLater = PNGImage::decode(get("/images/waveforms/" + wav + ".png").body);
    auto seeded = PNGImage::decode(get("/images/waveforms/" + notWAV + ".png").body);
    ASSERT_EQ(loudLater.problem, "");
    ASSERT_EQ(seeded.problem, "");
    // Silence draws hairlines; the loud half fills the height.
    EXPECT_EQ(tallColumns(loudLater, 0, 290, 4), 0);
    EXPECT_GT(tallColumns(loudLater, 310, 600, 60), 150);
    EXPECT_GT(tallColumns(seeded, 30, 290, 4), 100);
}

TEST_F(SandboxPictures, EverNewNamesKeepTheCacheBounded)
{
    for (int i = 0; i < 300; ++i)
        ASSERT_EQ(get("/images/artworks/x" + std::to_string(i) + ".png").status, 200) << i;
    EXPECT_LE(service.cachedImageCount(), 256u);
    EXPECT_GE(service.cachedImageCount(), 200u); // they are kept, up to the bound
}

TEST(SandboxImages, InitialsOfNames)
{
    struct Case {
        const char* name;
        const char* initials;
    } cases[] = {
        { "Ines Tanaka", "IT" }, { "ines_stone0", "IS" }, { "home", "H" }, { "  Home  Velvet Night ", "HV" }, { "", "?" }, { "\xC3\xA9t\xC3\xA9 !", "T" }, { "!!", "?" },
    };
    for (auto& c : cases)
        EXPECT_EQ(images::initials(c.name), c.initials) << c.name;
}

TEST(SandboxImages, HostileWAVsGiveNoEnvelopeAndNothingWorse)
{
    std::string good = halfLoudWAV(400);
    double seconds = 0;
    auto control = images::envelopeOfWAV(good, 10, &seconds);
    ASSERT_EQ(control.size(), 10u);
    EXPECT_DOUBLE_EQ(seconds, 400 / 16000.0);
    EXPECT_EQ(control.front(), 0);
    EXPECT_EQ(control.back(), 255);

    auto patched = [&good](size_t at, std::string bytes) {
        std::string copy = good;
        copy.replace(at, bytes.size(), bytes);
        return copy;
    };
    struct Case {
        const char* name;
        std::string bytes;
    } cases[] = {
        { "empty", "" },
        { "not RIFF", patched(0, "RIFX") },
        { "cut in the header", good.substr(0, 20) },
        { "no data chunk", good.substr(0, 44 - 8) },
        { "zero channels", patched(22, std::string("\0\0", 2)) },
        { "17 channels", patched(22, std::string("\x11\0", 2)) },
        { "12 bits", patched(34, std::string("\x0C\0", 2)) },
        { "block align 0", patched(32, std::string("\0\0", 2)) },
        { "compressed format", patched(20, std::string("\x02\0", 2)) },
        { "no sample rate", patched(24, std::string("\0\0\0\0", 4)) },
        { "fmt chunk claiming 4 GB", patched(16, "\xFF\xFF\xFF\xFF") },
    };
    for (auto& c : cases)
        EXPECT_TRUE(images::envelopeOfWAV(c.bytes, 10).empty()) << c.name;
    // A data chunk that claims more than there is reads what there is.
    EXPECT_EQ(images::envelopeOfWAV(patched(40, "\xFF\xFF\xFF\x7F"), 10), control);
}

TEST(SandboxImages, PNGsRoundTripAndBadSizesAreRefused)
{
    std::vector<uint8_t> pixels(3 * 2 * 3);
    for (size_t i = 0; i < pixels.size(); ++i)
        pixels[i] = static_cast<uint8_t>(i * 37);
    auto decoded = PNGImage::decode(images::encodePNG(3, 2, pixels));
    ASSERT_EQ(decoded.problem, "");
    EXPECT_EQ(decoded.pixels, pixels);
    EXPECT_EQ(images::encodePNG(3, 3, pixels), "");
    EXPECT_EQ(images::encodePNG(0, 0, {}), "");
    EXPECT_EQ(images::encodePNG(5000, 1, std::vector<uint8_t>(15000)), "");
}
