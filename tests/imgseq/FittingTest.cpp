#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <set>

#include "imgseq/ImageFitting.h"
#include "tests/imgseq/ImgseqTestSupport.h"

using namespace zub;
using zub::test::Bgra;
using zub::test::Hashed;
using zub::test::MakeImage;
using zub::test::PixelAt;

namespace {

constexpr FrameSize kNtsc{720, 486};
struct Margins {
    int mx, my;
};
// Worked out by hand for 720 x 486.
constexpr Margins kMargins[] = {{72, 49}, {36, 24}, {0, 0}};  // Safe Title, Safe Image, Normal

Image Fitted(Image img, std::int32_t word, FrameSize frame = kNtsc, bool swap = false, bool shift = false)
{
    std::string err;
    EXPECT_TRUE(PrepareImage(img, word, swap, shift, frame, &err)) << err;
    return img;
}

// Where non-zero pixels are in the frame, and that they all have colour c.
struct Rect {
    int x0, y0, x1, y1;
    bool operator==(const Rect&) const = default;
};
std::ostream& operator<<(std::ostream& o, const Rect& r)
{
    return o << "(" << r.x0 << "," << r.y0 << ")-(" << r.x1 << "," << r.y1 << ")";
}
Rect ContentOf(const Image& img, Bgra c, int* wrong)
{
    Rect r{img.Width(), img.Height(), 0, 0};
    *wrong = 0;
    for (int y = 0; y < img.Height(); ++y)
        for (int x = 0; x < img.Width(); ++x) {
            const Bgra p = PixelAt(img, x, y);
            if (p == Bgra{}) continue;
            if (!(p == c)) ++*wrong;
            r = {std::min(r.x0, x), std::min(r.y0, y), std::max(r.x1, x + 1), std::max(r.y1, y + 1)};
        }
    return r;
}

}  // namespace

TEST(FitWord, FieldsAndDefaults)
{
    const FitWordParts zero = SplitFitWord(0);  // Center, Safe Title, Nearest
    EXPECT_EQ(zero.mode, kFitCenter);
    EXPECT_EQ(zero.area, kAreaSafeTitle);
    EXPECT_EQ(zero.method, kResizeNearest);
    const FitWordParts p = SplitFitWord(MakeFitWord(kFitStretchWidth, kAreaNormal, kResizeBiCubic));
    EXPECT_EQ(p.mode, 10);
    EXPECT_EQ(p.area, 2);
    EXPECT_EQ(p.method, 2);
    EXPECT_EQ(MakeFitWord(8, 1, 1), 0x1108);
    EXPECT_EQ(SplitFitWord(-1).mode, 255);
}

// The placing modes crop; checked pixel for pixel against the source, for an image larger and
// one smaller than the target, in every area.
TEST(FitImage, PlacingModesCropPixelExact)
{
    const Image big = MakeImage(800, 600, Hashed);
    const Image small = MakeImage(301, 199, Hashed);
    for (int area = 0; area < 3; ++area) {
        const auto [mx, my] = kMargins[area];
        const int Tw = 720 - 2 * mx, Th = 486 - 2 * my;
        for (const Image* src : {&big, &small}) {
            const int w = src->Width(), h = src->Height();
            const struct {
                int mode, cx, cy;
            } cases[] = {{kFitCenter, (w - Tw) / 2, (h - Th) / 2},
                         {kFitUpperLeft, 0, 0},
                         {kFitUpperRight, w - Tw, 0},
                         {kFitLowerLeft, 0, h - Th},
                         {kFitLowerRight, w - Tw, h - Th}};
            for (const auto& c : cases) {
                SCOPED_TRACE(testing::Message() << "area " << area << " mode " << c.mode << " source " << w << "x" << h);
                Image copy = MakeImage(w, h, Hashed);
                const Image out = Fitted(std::move(copy), MakeFitWord(c.mode, area, kResizeBiCubic));
                ASSERT_EQ(out.Width(), 720);
                ASSERT_EQ(out.Height(), 486);
                int bad = 0;
                for (int y = 0; y < 486 && bad < 5; ++y)
                    for (int x = 0; x < 720 && bad < 5; ++x) {
                        const int sx = x - mx + c.cx, sy = y - my + c.cy;
                        const bool inTarget = x >= mx && x < mx + Tw && y >= my && y < my + Th;
                        const bool inSource = sx >= 0 && sx < w && sy >= 0 && sy < h;
                        const Bgra want = inTarget && inSource ? Hashed(sx, sy) : Bgra{};
                        if (!(PixelAt(out, x, y) == want)) {
                            ++bad;
                            ADD_FAILURE() << "pixel " << x << "," << y;
                        }
                    }
            }
        }
    }
}

// The scaling modes, with Nearest on a plain image: where the picture lands, and that the
// colour survives unchanged.
TEST(FitImage, ScalingModesLandWhereExpected)
{
    const Bgra c{10, 20, 30, 200};
    const struct {
        int w, h, mode, area;
        Rect rect;
    } cases[] = {
        {1440, 486, kFitAll, kAreaNormal, {0, 121, 720, 364}},  // becomes Fit Width: 720x243 at (0,-121)
        {1440, 486, kFitHeight, kAreaNormal, {0, 0, 720, 486}},
        {1440, 486, kFitStretchAll, kAreaSafeTitle, {72, 49, 648, 437}},
        {1440, 486, kFitStretchWidth, kAreaNormal, {0, 0, 720, 486}},
        {360, 200, kFitStretchHeight, kAreaNormal, {180, 0, 540, 486}},
        {360, 200, kFitStretchWidth, kAreaNormal, {0, 143, 720, 343}},
        {360, 200, kFitAll, kAreaSafeImage, {36, 63, 684, 423}},      // 648x360 in 648x438
        {360, 200, kFitHeight, kAreaSafeTitle, {72, 49, 648, 437}},   // 698x388, cropped
        {200, 360, kFitAll, kAreaNormal, {225, 0, 495, 486}},         // becomes Fit Height: 270x486
        {200, 360, kFitWidth, kAreaNormal, {0, 0, 720, 486}},
        {200, 360, kFitStretchAll, kAreaSafeImage, {36, 24, 684, 462}},
        // The choice rounds (575 fits 576) while the resize truncates (574): a 1-pixel gap.
        {720, 486, kFitAll, kAreaSafeTitle, {73, 49, 647, 437}},
        // Exactly the target size: neither resized nor cropped, only bordered.
        {576, 388, kFitStretchAll, kAreaSafeTitle, {72, 49, 648, 437}},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(testing::Message() << k.w << "x" << k.h << " mode " << k.mode << " area " << k.area);
        const Image out = Fitted(MakeImage(k.w, k.h, [&](int, int) { return c; }), MakeFitWord(k.mode, k.area, 0));
        ASSERT_EQ(out.Width(), 720);
        ASSERT_EQ(out.Height(), 486);
        int wrong = 0;
        EXPECT_EQ(ContentOf(out, c, &wrong), k.rect);
        EXPECT_EQ(wrong, 0);
    }
}

// Every scaling mode, for an image larger and one smaller than the target, in every area:
// the picture stays inside the target, centred, filling what the mode promises.
TEST(FitImage, ScalingModesInEveryAreaAndSize)
{
    const Bgra c{200, 100, 50, 255};
    for (int area = 0; area < 3; ++area) {
        const auto [mx, my] = kMargins[area];
        const Rect t{mx, my, 720 - mx, 486 - my};
        const int Tw = t.x1 - t.x0, Th = t.y1 - t.y0;
        for (const auto& [w, h] : {std::pair{1000, 700}, std::pair{300, 200}, std::pair{250, 400}}) {
            for (int mode = kFitStretchAll; mode <= kFitStretchWidth; ++mode) {
                SCOPED_TRACE(testing::Message() << "area " << area << " mode " << mode << " " << w << "x" << h);
                const Image out =
                    Fitted(MakeImage(w, h, [&](int, int) { return c; }), MakeFitWord(mode, area, kResizeBiLinear));
                int wrong = 0;
                const Rect r = ContentOf(out, c, &wrong);
                EXPECT_EQ(wrong, 0);
                EXPECT_TRUE(r.x0 >= t.x0 && r.y0 >= t.y0 && r.x1 <= t.x1 && r.y1 <= t.y1) << r;
                EXPECT_LE(std::abs((r.x0 - t.x0) - (t.x1 - r.x1)), 1) << r;
                EXPECT_LE(std::abs((r.y0 - t.y0) - (t.y1 - r.y1)), 1) << r;
                const int rw = r.x1 - r.x0, rh = r.y1 - r.y0;
                switch (mode) {
                case kFitStretchAll: EXPECT_EQ(r, t); break;
                case kFitHeight: EXPECT_EQ(rh, Th); EXPECT_EQ(rw, std::min(Tw, w * Th / h)); break;
                case kFitWidth: EXPECT_EQ(rw, Tw); EXPECT_EQ(rh, std::min(Th, h * Tw / w)); break;
                case kFitAll:
                    EXPECT_TRUE(rw == Tw || rh == Th) << r;
                    EXPECT_NEAR(double(rw) / rh, double(w) / h, 0.01) << r;
                    break;
                case kFitStretchHeight: EXPECT_EQ(rh, Th); EXPECT_EQ(rw, std::min(w, Tw)); break;
                case kFitStretchWidth: EXPECT_EQ(rw, Tw); EXPECT_EQ(rh, std::min(h, Th)); break;
                }
            }
        }
    }
}

TEST(FitImage, ExactTargetKeepsEveryPixel)
{
    const Image out = Fitted(MakeImage(648, 438, Hashed), MakeFitWord(kFitStretchAll, kAreaSafeImage, kResizeBiCubic));
    for (int y = 0; y < 438; y += 7)
        for (int x = 0; x < 648; x += 5) ASSERT_EQ(PixelAt(out, x + 36, y + 24), Hashed(x, y)) << x << "," << y;
}

TEST(FitImage, ResizeMethodsDiffer)
{
    // A 4x4 checkerboard blown up 8 times: nearest keeps two colours, the others blend.
    auto checker = [](int x, int y) {
        return (x + y) % 2 ? Bgra{255, 255, 255, 255} : Bgra{0, 0, 0, 255};
    };
    auto distinct = [&](int method) {
        Image img = MakeImage(4, 4, checker);
        std::string err;
        EXPECT_TRUE(ResizeImage(img, 32, 32, method, &err)) << err;
        std::set<int> values;
        for (int y = 0; y < 32; ++y)
            for (int x = 0; x < 32; ++x) values.insert(PixelAt(img, x, y).g);
        return values.size();
    };
    EXPECT_EQ(distinct(kResizeNearest), 2u);
    EXPECT_GT(distinct(kResizeBiLinear), 2u);
    EXPECT_GT(distinct(kResizeBiCubic), 2u);
}

TEST(FieldOperations, ShiftThenSwap)
{
    auto rows = [](int, int y) { return Bgra{std::uint8_t(y + 1), 0, 0, 255}; };
    const FrameSize f{3, 4};
    const std::int32_t asIs = MakeFitWord(kFitCenter, kAreaNormal, 0);
    auto rowMarks = [](const Image& img) {
        std::vector<int> v;
        for (int y = 0; y < img.Height(); ++y) v.push_back(PixelAt(img, 2, y).b);
        return v;
    };
    EXPECT_EQ(rowMarks(Fitted(MakeImage(3, 4, rows), asIs, f, false, true)), (std::vector<int>{0, 1, 2, 3}));
    EXPECT_EQ(rowMarks(Fitted(MakeImage(3, 4, rows), asIs, f, true, false)), (std::vector<int>{2, 1, 4, 3}));
    // Shift comes first: 0,1,2,3 then swapped.
    EXPECT_EQ(rowMarks(Fitted(MakeImage(3, 4, rows), asIs, f, true, true)), (std::vector<int>{1, 0, 3, 2}));
    // An odd last row has no partner.
    EXPECT_EQ(rowMarks(Fitted(MakeImage(3, 5, rows), asIs, {3, 5}, true, false)), (std::vector<int>{2, 1, 4, 3, 5}));
    // One row shifted down is one empty row.
    const Image one = Fitted(MakeImage(3, 1, rows), asIs, {3, 1}, false, true);
    EXPECT_EQ(PixelAt(one, 0, 0), Bgra{});
    EXPECT_EQ(PixelAt(one, 2, 0), Bgra{});
}

TEST(FieldOperations, TwentyFourBitImagesComeOutOpaque32)
{
    Image img;
    ASSERT_TRUE(img.Allocate(3, 2, 24));
    EXPECT_EQ(img.BytesPerRow(), 12);  // 9 bytes padded to 4
    img.Row(1)[3] = 7;                 // blue of pixel (1,1)
    const Image out = Fitted(std::move(img), MakeFitWord(kFitCenter, kAreaNormal, 0), {3, 2});
    EXPECT_EQ(out.BitsPerPixel(), 32);
    EXPECT_EQ(PixelAt(out, 1, 1), (Bgra{7, 0, 0, 255}));
    EXPECT_EQ(PixelAt(out, 0, 0), (Bgra{0, 0, 0, 255}));
}

TEST(FrameHolder, HeaderAndBottomUpRows)
{
    const Image img = MakeImage(5, 3, Hashed);
    FrameHolder f;
    std::string err;
    ASSERT_TRUE(PackFrame(img, f, &err)) << err;
    const BITMAPINFOHEADER* h = f.Header();
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->biSize, 40u);
    EXPECT_EQ(h->biWidth, 5);
    EXPECT_EQ(h->biHeight, 3);
    EXPECT_EQ(h->biPlanes, 1);
    EXPECT_EQ(h->biBitCount, 32);
    EXPECT_EQ(h->biCompression, BI_RGB);
    EXPECT_EQ(h->biSizeImage, 5u * 4 * 3);
    EXPECT_EQ(h->biXPelsPerMeter, 0);
    EXPECT_EQ(h->biClrUsed, 0u);
    EXPECT_EQ(f.BlockSize(), 40u + 60u);
    EXPECT_EQ(f.Pixels(), f.Block() + 40);
    // The first row in memory is the image's last.
    EXPECT_EQ(0, std::memcmp(f.Pixels(), img.Row(2), 20));
    EXPECT_EQ(0, std::memcmp(f.Pixels() + 40, img.Row(0), 20));
}

TEST(FitImage, BadWordsFail)
{
    std::string err;
    Image img = MakeImage(10, 10, Hashed);
    EXPECT_FALSE(FitImage(img, MakeFitWord(kFitCenter, 3, 0), {10, 10}, &err));
    EXPECT_NE(err.find("area"), std::string::npos);
    img = MakeImage(10, 10, Hashed);
    EXPECT_FALSE(FitImage(img, MakeFitWord(11, kAreaNormal, 0), {20, 20}, &err));
    EXPECT_NE(err.find("mode"), std::string::npos);
    // A bad method only matters once a resize is asked for.
    img = MakeImage(10, 10, Hashed);
    EXPECT_FALSE(FitImage(img, MakeFitWord(kFitStretchAll, kAreaNormal, 3), {20, 20}, &err));
    EXPECT_NE(err.find("method"), std::string::npos);
    img = MakeImage(10, 10, Hashed);
    EXPECT_TRUE(FitImage(img, MakeFitWord(kFitCenter, kAreaNormal, 3), {20, 20}, &err)) << err;
    img = MakeImage(20, 20, Hashed);
    EXPECT_TRUE(FitImage(img, MakeFitWord(kFitStretchAll, kAreaNormal, 3), {20, 20}, &err)) << err;
    // Nothing held: every step fails.
    Image none;
    EXPECT_FALSE(PrepareImage(none, 0, true, true, kNtsc, &err));
    FrameHolder f;
    EXPECT_FALSE(PackFrame(none, f, &err));
    EXPECT_TRUE(f.Empty());
}

TEST(ImagingLibrary, MissingLibraryIsACleanFailure)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // a fresh process, nothing loaded yet
    EXPECT_EXIT(
        {
            setenv(kImagingLibraryEnv, "/nonexistent/libImportImaging.so", 1);
            Image img = MakeImage(4, 4, Hashed);
            std::string err;
            const bool ok = ResizeImage(img, 8, 8, kResizeBiLinear, &err);
            const bool named = err.find("/nonexistent/libImportImaging.so") != std::string::npos;
            std::exit(!ok && named && !img.Empty() ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}
