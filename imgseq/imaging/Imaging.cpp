// libImportImaging.so: decodes stills to 32-bit BGRA and resizes them. OpenImageIO reads the
// formats it knows; FFmpeg's image decoders read Sun raster and Alias PIX; raw 4:2:2 frames
// and Softimage PIC (which OpenImageIO reads black when uncompressed) are read here.
// Everything behind the C interface of ImagingApi.h.
#include "imgseq/imaging/FastStills.h"
#include "imgseq/imaging/ImagingApi.h"
#include "imgseq/imaging/SoftimagePic.h"

#include "platform/AvError.h"
#include "platform/AvOwner.h"
#include "platform/Error.h"

#include <OpenImageIO/filesystem.h>
#include <OpenImageIO/imageio.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/error.h>
#include <libavutil/frame.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

#include <immintrin.h>

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <string>
#include <vector>

namespace {

// Bounds on what a decoder may ask for: a header must not make us allocate gigabytes.
constexpr std::int64_t kMaxSide = 32768;
constexpr std::int64_t kMaxPixels = std::int64_t(1) << 28;
// Buffers kept between frames are let go when an unusually large image has grown them.
constexpr std::size_t kKeptBufferBytes = std::size_t(64) << 20;

void TrimKept(std::vector<uint8_t>& v)
{
    if (v.capacity() > kKeptBufferBytes) std::vector<uint8_t>().swap(v);
}

// A failure inside the library, in the module's error form; answered at the C ABI as its
// message.
struct Failure {
    zub::Error error;
};

std::string Formatted(const char* fmt, va_list ap)
{
    char buf[1024];
    std::vsnprintf(buf, sizeof buf, fmt, ap);
    return buf;
}

// A failure that concerns no file (a resize, a missing argument).
[[noreturn]] void Fail(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
[[noreturn]] void Fail(const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    std::string reason = Formatted(fmt, ap);
    va_end(ap);
    throw Failure{zub::Error{{}, std::move(reason)}};
}

// A failure of one file, with the reason.
[[noreturn]] void FailFile(const char* path, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
[[noreturn]] void FailFile(const char* path, const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    std::string reason = Formatted(fmt, ap);
    va_end(ap);
    throw Failure{zub::Error{path ? path : "", std::move(reason)}};
}

void CopyMessage(const std::string& msg, char* error, std::size_t size)
{
    if (!error || size == 0) return;
    std::snprintf(error, size, "%s", msg.c_str());
}

void CheckSize(const char* path, std::int64_t w, std::int64_t h)
{
    if (w <= 0 || h <= 0 || w > kMaxSide || h > kMaxSide || w * h > kMaxPixels)
        FailFile(path, "image size %lldx%lld is out of range", static_cast<long long>(w), static_cast<long long>(h));
}

uint8_t* Allocate(const char* path, ZubImagingAllocFn alloc, void* context, int w, int h)
{
    uint8_t* out = alloc(context, w, h);
    if (!out) FailFile(path, "no memory for a %dx%d image", w, h);
    return out;
}

using zub::AvError;
using zub::av::CodecContextPtr;
using zub::av::FramePtr;
using zub::av::PacketPtr;
using zub::av::SwsPtr;

// One pass of libswscale from any pixel format into BGRA at the same size.
void ConvertToBgra(const char* path, const uint8_t* const planes[4], const int strides[4], AVPixelFormat format, int w,
                   int h, uint8_t* dst)
{
    // Full chroma interpolation and accurate rounding: 4:2:2 sources keep their detail.
    SwsPtr sws(sws_getContext(w, h, format, w, h, AV_PIX_FMT_BGRA,
                              SWS_BICUBIC | SWS_FULL_CHR_H_INT | SWS_ACCURATE_RND, nullptr, nullptr, nullptr));
    if (!sws) FailFile(path, "cannot convert pixel format %s to BGRA", av_get_pix_fmt_name(format));
    uint8_t* dstPlanes[4] = {dst, nullptr, nullptr, nullptr};
    const int dstStrides[4] = {w * 4, 0, 0, 0};
    if (sws_scale(sws.get(), planes, strides, 0, h, dstPlanes, dstStrides) != h)
        FailFile(path, "pixel conversion to BGRA failed");
}

// ---- OpenImageIO ---------------------------------------------------------------------

void DecodeWithOiio(const char* path, const char* format, const uint8_t* data, std::size_t size,
                    ZubImagingAllocFn alloc, void* context)
{
    auto in = OIIO::ImageInput::create(format);
    if (!in) FailFile(path, "no %s reader: %s", format, OIIO::geterror().c_str());

    // Pixels as the file holds them: colour not multiplied by alpha, since the alpha clip
    // is made from the alpha channel separately.
    OIIO::ImageSpec config;
    config.attribute("oiio:UnassociatedAlpha", 1);
    OIIO::Filesystem::IOMemReader memory(data, size);
    if (in->supports("ioproxy")) in->set_ioproxy(&memory);

    OIIO::ImageSpec spec;
    if (!in->open(path, spec, config)) FailFile(path, "%s", in->geterror().c_str());
    CheckSize(path, spec.width, spec.height);
    const int nch = spec.nchannels;
    if (nch < 1 || nch > 64) FailFile(path, "%d channels cannot be shown", nch);

    const std::size_t pixels = static_cast<std::size_t>(spec.width) * spec.height;
    thread_local std::vector<uint8_t> raw;  // kept between frames, see Resize
    if (raw.size() < pixels * nch) raw.resize(pixels * nch);
    struct Trim {
        ~Trim() { TrimKept(raw); }
    } trim;
    if (!in->read_image(0, 0, 0, nch, OIIO::TypeDesc::UINT8, raw.data()))
        FailFile(path, "%s", in->geterror().c_str());
    in->close();

    int alpha = spec.alpha_channel;
    if (alpha < 0 || alpha >= nch) alpha = (nch == 2 || nch == 4) ? nch - 1 : -1;
    uint8_t* out = Allocate(path, alloc, context, spec.width, spec.height);
    const uint8_t* s = raw.data();
    for (std::size_t i = 0; i < pixels; ++i, s += nch, out += 4) {
        if (nch >= 3) {
            out[0] = s[2];
            out[1] = s[1];
            out[2] = s[0];
        } else {
            out[0] = out[1] = out[2] = s[0];
        }
        out[3] = alpha >= 0 ? s[alpha] : 255;
    }
}

// ---- FFmpeg image decoders ------------------------------------------------------------

void DecodeWithFfmpeg(const char* path, AVCodecID id, const uint8_t* data, std::size_t size,
                      ZubImagingAllocFn alloc, void* context)
{
    const AVCodec* codec = avcodec_find_decoder(id);
    if (!codec) FailFile(path, "this FFmpeg has no %s decoder", avcodec_get_name(id));
    CodecContextPtr ctx(avcodec_alloc_context3(codec));
    if (!ctx) FailFile(path, "out of memory");
    ctx->thread_count = 1;
    if (int rc = avcodec_open2(ctx.get(), codec, nullptr); rc < 0)
        FailFile(path, "cannot open the %s decoder: %s", codec->name, AvError(rc).c_str());

    if (size > static_cast<std::size_t>(INT32_MAX) - AV_INPUT_BUFFER_PADDING_SIZE) FailFile(path, "file too large");
    PacketPtr packet(av_packet_alloc());
    if (!packet || av_new_packet(packet.get(), static_cast<int>(size)) < 0) FailFile(path, "out of memory");
    std::memcpy(packet->data, data, size);

    FramePtr frame(av_frame_alloc());
    if (!frame) FailFile(path, "out of memory");
    int rc = avcodec_send_packet(ctx.get(), packet.get());
    if (rc >= 0) {
        avcodec_send_packet(ctx.get(), nullptr);  // drain: one packet is the whole image
        rc = avcodec_receive_frame(ctx.get(), frame.get());
    }
    if (rc < 0) FailFile(path, "not a readable %s image: %s", codec->long_name, AvError(rc).c_str());
    CheckSize(path, frame->width, frame->height);

    uint8_t* out = Allocate(path, alloc, context, frame->width, frame->height);
    ConvertToBgra(path, frame->data, frame->linesize, static_cast<AVPixelFormat>(frame->format), frame->width,
                  frame->height, out);
}

// ---- raw 4:2:2 --------------------------------------------------------------------------

// A raw .yuv file is one frame of 8-bit Cb Y Cr Y (UYVY), BT.601 studio range, top row
// first, with no header: the size of the file alone says which frame it is.
void DecodeRawYuv(const char* path, const uint8_t* data, std::size_t size, ZubImagingAllocFn alloc, void* context)
{
    static const struct {
        int w, h;
    } kSizes[] = {{720, 486}, {720, 487}, {720, 480}, {720, 576}, {720, 608}, {1280, 720}, {1920, 1080}};
    for (const auto& s : kSizes) {
        if (size != static_cast<std::size_t>(s.w) * s.h * 2) continue;
        uint8_t* out = Allocate(path, alloc, context, s.w, s.h);
        const uint8_t* planes[4] = {data, nullptr, nullptr, nullptr};
        const int strides[4] = {s.w * 2, 0, 0, 0};
        ConvertToBgra(path, planes, strides, AV_PIX_FMT_UYVY422, s.w, s.h, out);
        return;
    }
    FailFile(path, "a raw 4:2:2 frame of %zu bytes matches no known frame size", size);
}

// ---- Softimage PIC ---------------------------------------------------------------------

void DecodeSoftimagePic(const char* path, const uint8_t* data, std::size_t size, ZubImagingAllocFn alloc,
                        void* context)
{
    std::string why;
    const auto allocate = [&](int w, int h) {
        CheckSize(path, w, h);
        return Allocate(path, alloc, context, w, h);
    };
    if (!zub::imaging::DecodeSoftimagePic(data, size, allocate, &why)) FailFile(path, "%s", why.c_str());
}

// ---- dispatch --------------------------------------------------------------------------

std::string LowerExtension(const char* path)
{
    const std::string p = path;
    const auto sep = p.find_last_of("/\\");
    const auto dot = p.rfind('.');
    if (dot == std::string::npos || (sep != std::string::npos && dot < sep)) return {};
    std::string ext = p.substr(dot + 1);
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
    return ext;
}

// Extensions read by OpenImageIO, with its reader's name.
constexpr struct {
    const char* ext;
    const char* oiio;
} kOiioReaders[] = {{"bmp", "bmp"},   {"rgb", "sgi"},  {"sgi", "sgi"},   {"iff", "iff"},
                    {"jpeg", "jpeg"}, {"jpe", "jpeg"}, {"jpg", "jpeg"},  {"psd", "psd"},
                    {"rla", "rla"},   {"tga", "targa"}, {"tif", "tiff"}, {"tiff", "tiff"}};

bool IsJpegExtension(const std::string& ext)
{
    return ext == "jpg" || ext == "jpeg" || ext == "jpe";
}

bool GeneralOnly()
{
    return std::getenv("ZUBIMPORT_IMAGING_GENERAL_ONLY") != nullptr;
}

// True-colour TGA and JPEG, the bulk of every sequence, are read straight into the caller's
// buffer; whatever those readers do not take goes on to OpenImageIO.
bool DecodeFast(const char* path, const std::string& ext, const uint8_t* data, std::size_t size,
                ZubImagingAllocFn alloc, void* context)
{
    const zub::imaging::FastAllocate allocate = [&](int w, int h) {
        CheckSize(path, w, h);
        return Allocate(path, alloc, context, w, h);
    };
    std::string why;
    bool taken = false, ok = true;
    if (ext == "tga") ok = zub::imaging::DecodeTga(data, size, allocate, &taken, &why);
    else if (IsJpegExtension(ext)) ok = zub::imaging::DecodeJpeg(data, size, allocate, &taken, &why);
    if (!ok) FailFile(path, "%s", why.c_str());
    return taken;
}

void Decode(const char* path, const uint8_t* data, std::size_t size, ZubImagingAllocFn alloc, void* context)
{
    const std::string ext = LowerExtension(path);
    if (!GeneralOnly() && DecodeFast(path, ext, data, size, alloc, context))
        return;
    for (const auto& e : kOiioReaders)
        if (ext == e.ext) return DecodeWithOiio(path, e.oiio, data, size, alloc, context);
    if (ext == "sun") return DecodeWithFfmpeg(path, AV_CODEC_ID_SUNRAST, data, size, alloc, context);
    if (ext == "pix") return DecodeWithFfmpeg(path, AV_CODEC_ID_ALIAS_PIX, data, size, alloc, context);
    if (ext == "yuv") return DecodeRawYuv(path, data, size, alloc, context);
    if (ext == "pic") return DecodeSoftimagePic(path, data, size, alloc, context);
    if (ext == "6rn" || ext == "vpb")
        FailFile(path, "no reader for .%s images: the layout of this format is not publicly described",
             ext.c_str());
    FailFile(path, "no reader for the extension '.%s'", ext.c_str());
}

// One BGRA row into four planes; gives the AND of its alpha bytes.
uint32_t SplitRowPlain(const uint8_t* src, int n, uint8_t* b, uint8_t* g, uint8_t* r, uint8_t* a)
{
    uint32_t alpha = 0xFF;
    for (int x = 0; x < n; ++x, src += 4) {
        b[x] = src[0];
        g[x] = src[1];
        r[x] = src[2];
        a[x] = src[3];
        alpha &= src[3];
    }
    return alpha;
}

// The same sixteen pixels at a time: a byte shuffle gathers each pixel group's channels,
// two rounds of unpacking put each channel's sixteen bytes together.
__attribute__((target("ssse3"))) uint32_t SplitRowSsse3(const uint8_t* src, int n, uint8_t* b, uint8_t* g,
                                                         uint8_t* r, uint8_t* a)
{
    const __m128i gather = _mm_setr_epi8(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15);
    __m128i alpha = _mm_set1_epi8(-1);
    int x = 0;
    for (; x + 16 <= n; x += 16) {
        const uint8_t* p = src + 4 * x;
        const __m128i s0 = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)), gather);
        const __m128i s1 = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16)), gather);
        const __m128i s2 = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 32)), gather);
        const __m128i s3 = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 48)), gather);
        const __m128i t0 = _mm_unpacklo_epi32(s0, s1), t1 = _mm_unpackhi_epi32(s0, s1);
        const __m128i t2 = _mm_unpacklo_epi32(s2, s3), t3 = _mm_unpackhi_epi32(s2, s3);
        const __m128i av = _mm_unpackhi_epi64(t1, t3);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(b + x), _mm_unpacklo_epi64(t0, t2));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(g + x), _mm_unpackhi_epi64(t0, t2));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(r + x), _mm_unpacklo_epi64(t1, t3));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(a + x), av);
        alpha = _mm_and_si128(alpha, av);
    }
    const uint32_t vectorOpaque = _mm_movemask_epi8(_mm_cmpeq_epi8(alpha, _mm_set1_epi8(-1))) == 0xFFFF ? 0xFF : 0;
    return vectorOpaque & SplitRowPlain(src + 4 * x, n - x, b + x, g + x, r + x, a + x);
}

uint32_t SplitRow(const uint8_t* src, int n, uint8_t* b, uint8_t* g, uint8_t* r, uint8_t* a)
{
    static const bool ssse3 = __builtin_cpu_supports("ssse3");
    return ssse3 ? SplitRowSsse3(src, n, b, g, r, a) : SplitRowPlain(src, n, b, g, r, a);
}

__attribute__((optimize("O3"))) void JoinRow(const uint8_t* __restrict b, const uint8_t* __restrict g,
                                             const uint8_t* __restrict r, const uint8_t* __restrict a, int n,
                                             uint8_t* __restrict dst)
{
    for (int x = 0; x < n; ++x) {
        const uint32_t v = uint32_t(b[x]) | (uint32_t(g[x]) << 8) | (uint32_t(r[x]) << 16) | (uint32_t(a[x]) << 24);
        std::memcpy(dst + 4 * x, &v, 4);
    }
}

int ScaleFlags(int filter)
{
    switch (filter) {
    case ZUB_IMAGING_FILTER_NEAREST: return SWS_POINT;
    case ZUB_IMAGING_FILTER_BILINEAR: return SWS_BILINEAR;
    case ZUB_IMAGING_FILTER_BICUBIC: return SWS_BICUBIC;
    default: Fail("resize: unknown filter %d", filter);
    }
}

// Plane buffers of a resize, kept between frames: fresh multi-megabyte blocks every frame
// cost more in page faults than the scaling. `in` holds the source's four planes (B, G, R, A),
// `out` the result's.
struct PlaneBuffers {
    std::vector<uint8_t> in, out;
};
PlaneBuffers& Planes()
{
    thread_local PlaneBuffers buffers;
    return buffers;
}

uint8_t* SourcePlanes(int sw, int sh)
{
    std::vector<uint8_t>& in = Planes().in;
    const std::size_t bytes = static_cast<std::size_t>(sw) * sh * 4;
    if (in.size() < bytes) in.resize(bytes);
    return in.data();
}

// Scales the source planes (as SourcePlanes laid them out) into dst as packed BGRA. The alpha
// plane of an opaque picture is not scaled: a constant plane scales to itself.
void ScalePlanes(int sw, int sh, bool opaque, uint8_t* dst, int dw, int dh, int dstride, int filter)
{
    const int flags = ScaleFlags(filter);
    if (sw <= 0 || sh <= 0 || dw <= 0 || dh <= 0 || dstride < dw * 4)
        Fail("resize: bad geometry %dx%d -> %dx%d", sw, sh, dw, dh);
    // libswscale scales packed RGB by way of YUV, which shifts colours even where nothing is
    // resized; each channel scaled as a plane of its own stays exact. A scaler per thread,
    // rebuilt only when the geometry or filter changes: a sequence asks for the same resize
    // frame after frame.
    thread_local SwsPtr cached;
    SwsContext* ctx = sws_getCachedContext(cached.release(), sw, sh, AV_PIX_FMT_GRAY8, dw, dh, AV_PIX_FMT_GRAY8,
                                           flags | SWS_ACCURATE_RND, nullptr, nullptr, nullptr);
    cached.reset(ctx);
    if (!ctx) Fail("resize: libswscale refused %dx%d -> %dx%d", sw, sh, dw, dh);

    PlaneBuffers& buffers = Planes();
    struct Trim {
        PlaneBuffers& b;
        ~Trim()
        {
            TrimKept(b.in);
            TrimKept(b.out);
        }
    } trim{buffers};
    const std::size_t srcPlane = static_cast<std::size_t>(sw) * sh, dstPlane = static_cast<std::size_t>(dw) * dh;
    if (buffers.in.size() < srcPlane * 4) Fail("resize: the source planes are missing");
    if (buffers.out.size() < dstPlane * 4) buffers.out.resize(dstPlane * 4);
    uint8_t* in = buffers.in.data();
    uint8_t* out = buffers.out.data();
    for (int c = 0; c < (opaque ? 3 : 4); ++c) {
        const uint8_t* srcPlanes[4] = {in + c * srcPlane, nullptr, nullptr, nullptr};
        const int srcStrides[4] = {sw, 0, 0, 0};
        uint8_t* dstPlanes[4] = {out + c * dstPlane, nullptr, nullptr, nullptr};
        const int dstStrides[4] = {dw, 0, 0, 0};
        if (sws_scale(ctx, srcPlanes, srcStrides, 0, sh, dstPlanes, dstStrides) != dh)
            Fail("resize: libswscale failed %dx%d -> %dx%d", sw, sh, dw, dh);
    }
    if (opaque) std::memset(out + 3 * dstPlane, 0xFF, dstPlane);
    for (int y = 0; y < dh; ++y) {
        const std::size_t row = static_cast<std::size_t>(y) * dw;
        JoinRow(out + row, out + dstPlane + row, out + 2 * dstPlane + row, out + 3 * dstPlane + row, dw,
                dst + static_cast<std::size_t>(y) * dstride);
    }
}

void Resize(const uint8_t* src, int sw, int sh, int sstride, uint8_t* dst, int dw, int dh, int dstride, int filter)
{
    ScaleFlags(filter);
    if (sw <= 0 || sh <= 0 || dw <= 0 || dh <= 0 || sstride < sw * 4 || dstride < dw * 4)
        Fail("resize: bad geometry %dx%d -> %dx%d", sw, sh, dw, dh);
    // Split into planes, noting whether the picture is opaque.
    uint8_t* in = SourcePlanes(sw, sh);
    const std::size_t srcPlane = static_cast<std::size_t>(sw) * sh;
    uint32_t alphaAll = 0xFF;
    for (int y = 0; y < sh; ++y) {
        const uint8_t* s = src + static_cast<std::size_t>(y) * sstride;
        const std::size_t row = static_cast<std::size_t>(y) * sw;
        alphaAll &= SplitRow(s, sw, in + row, in + srcPlane + row, in + 2 * srcPlane + row, in + 3 * srcPlane + row);
    }
    ScalePlanes(sw, sh, alphaAll == 0xFF, dst, dw, dh, dstride, filter);
}

// Decode with a C++ callable for the allocation.
template <class Place>
void DecodeInto(const char* path, const uint8_t* data, std::size_t size, Place& place)
{
    const ZubImagingAllocFn alloc = [](void* c, int32_t w, int32_t h) -> uint8_t* { return (*static_cast<Place*>(c))(w, h); };
    Decode(path, data, size, alloc, &place);
}

// Decode, then resize to the size the caller picks once it knows the picture's, into the
// caller's buffer. A picture that keeps its size is decoded straight into that buffer. A
// JPEG that is to shrink with a smoothing filter is decoded at a reduced size in the DCT
// domain first, never below the target on either side; a nearest-pixel shrink must pick
// pixels of the full picture, so it gets the full decode.
void DecodeScaled(const char* path, const uint8_t* data, std::size_t size, ZubImagingScaleFn target, void* context)
{
    thread_local std::vector<uint8_t> decoded;  // the picture before its resize, kept, see Resize
    struct Trim {
        ~Trim() { TrimKept(decoded); }
    } trim;
    int32_t outW = 0, outH = 0, filter = 0;
    uint8_t* out = nullptr;
    // The caller picks the target once the picture's full size is known.
    auto ask = [&](int w, int h) {
        CheckSize(path, w, h);
        out = target(context, w, h, &outW, &outH, &filter);
        if (!out) FailFile(path, "no memory for the picture's target");
        CheckSize(path, outW, outH);
        if ((outW != w || outH != h) && (filter < ZUB_IMAGING_FILTER_NEAREST || filter > ZUB_IMAGING_FILTER_BICUBIC))
            FailFile(path, "resize: unknown filter %d", filter);
    };
    int decodedW = 0, decodedH = 0;
    // Where a reader puts a picture of w x h: the target itself when nothing is resized. A
    // reader that decodes at a reduced size has asked already with the full size.
    auto place = [&](int w, int h) -> uint8_t* {
        if (!out) ask(w, h);
        decodedW = w;
        decodedH = h;
        if (w == outW && h == outH) return out;
        decoded.resize(static_cast<std::size_t>(w) * h * 4);
        return decoded.data();
    };
    auto scaled = [&](auto&& scale) {
        try {
            scale();
        } catch (const Failure& f) {
            throw Failure{zub::Error{path, f.error.Message()}};
        }
    };

    const std::string ext = LowerExtension(path);
    std::string why;
    bool taken = false;
    int fullW = 0, fullH = 0;
    if (!GeneralOnly() && IsJpegExtension(ext) && zub::imaging::JpegSize(data, size, &fullW, &fullH)) {
        ask(fullW, fullH);
        const int denominator =
            filter != ZUB_IMAGING_FILTER_NEAREST ? zub::imaging::JpegReduction(fullW, fullH, outW, outH) : 1;
        if (!zub::imaging::DecodeJpeg(data, size, place, &taken, &why, denominator)) FailFile(path, "%s", why.c_str());
        if (!taken) FailFile(path, "the JPEG reader turned the picture down");
    } else if (!GeneralOnly() && ext == "tga") {
        // A TGA that is resized is read straight into the planes the scaler works on; one that
        // keeps its size straight into the target.
        bool opaque = true, planar = false;
        const zub::imaging::PlanesAllocate planes = [&](int w, int h, uint8_t* p[4]) {
            ask(w, h);
            if (w == outW && h == outH) return false;
            planar = true;
            uint8_t* in = SourcePlanes(w, h);
            const std::size_t plane = static_cast<std::size_t>(w) * h;
            for (int c = 0; c < 4; ++c) p[c] = in + c * plane;
            decodedW = w;
            decodedH = h;
            return true;
        };
        const bool ok = zub::imaging::DecodeTgaPlanes(data, size, planes, &opaque, &taken, &why);
        if (planar) {
            if (!ok) FailFile(path, "%s", why.c_str());
            scaled([&] { ScalePlanes(decodedW, decodedH, opaque, out, outW, outH, outW * 4, filter); });
            return;
        }
        if (taken) {
            if (!zub::imaging::DecodeTga(data, size, place, &taken, &why)) FailFile(path, "%s", why.c_str());
        } else {
            DecodeInto(path, data, size, place);
        }
    } else {
        DecodeInto(path, data, size, place);
    }
    if (!out) FailFile(path, "the reader gave no picture");
    if (decodedW == outW && decodedH == outH) return;
    scaled([&] { Resize(decoded.data(), decodedW, decodedH, decodedW * 4, out, outW, outH, outW * 4, filter); });
}

// Runs one file entry's work and answers the C ABI: 1, or 0 with the reason, naming the file,
// copied into the caller's buffer. Nothing thrown crosses the library's edge.
template <class Work>
int AnswerForFile(const char* path, const char* lastResort, char* error, size_t errorSize, Work&& work)
{
    try {
        work();
        return 1;
    } catch (const Failure& f) {
        CopyMessage(f.error.Message(), error, errorSize);
    } catch (const std::bad_alloc&) {
        CopyMessage(std::string(path ? path : "") + ": out of memory", error, errorSize);
    } catch (const std::exception& e) {
        CopyMessage(std::string(path ? path : "") + ": " + e.what(), error, errorSize);
    } catch (...) {
        CopyMessage(std::string(path ? path : "") + ": " + lastResort, error, errorSize);
    }
    return 0;
}

int DecodeEntry(const char* path, const uint8_t* data, size_t size, ZubImagingAllocFn alloc, void* context,
                char* error, size_t errorSize)
{
    return AnswerForFile(path, "decoder failed", error, errorSize, [&] {
        if (!path || !alloc || (!data && size)) Fail("decode: missing argument");
        Decode(path, data, size, alloc, context);
    });
}

int DecodeScaledEntry(const char* path, const uint8_t* data, size_t size, ZubImagingScaleFn target, void* context,
                      char* error, size_t errorSize)
{
    return AnswerForFile(path, "decoder failed", error, errorSize, [&] {
        if (!path || !target || (!data && size)) Fail("decode: missing argument");
        DecodeScaled(path, data, size, target, context);
    });
}

int ResizeEntry(const uint8_t* src, int32_t sw, int32_t sh, int32_t sstride, uint8_t* dst, int32_t dw, int32_t dh,
                int32_t dstride, int32_t filter, char* error, size_t errorSize)
{
    try {
        if (!src || !dst) Fail("resize: missing buffer");
        Resize(src, sw, sh, sstride, dst, dw, dh, dstride, filter);
        return 1;
    } catch (const Failure& f) {
        CopyMessage(f.error.Message(), error, errorSize);
    } catch (const std::exception& e) {
        CopyMessage(std::string("resize: ") + e.what(), error, errorSize);
    } catch (...) {
        CopyMessage("resize: failed", error, errorSize);
    }
    return 0;
}

// Only the header: OpenImageIO's readers answer from it; the readers of our own and FFmpeg's
// decode the picture (they are small formats) and say nothing about the stored depth.
void Describe(const char* path, const uint8_t* data, std::size_t size, int32_t* w, int32_t* h, int32_t* channels,
              int32_t* bits)
{
    *channels = 0;
    *bits = 0;
    const std::string ext = LowerExtension(path);
    for (const auto& e : kOiioReaders)
        if (ext == e.ext) {
            auto in = OIIO::ImageInput::create(e.oiio);
            if (!in) FailFile(path, "no %s reader: %s", e.oiio, OIIO::geterror().c_str());
            OIIO::Filesystem::IOMemReader memory(data, size);
            if (in->supports("ioproxy")) in->set_ioproxy(&memory);
            OIIO::ImageSpec spec;
            if (!in->open(path, spec)) FailFile(path, "%s", in->geterror().c_str());
            CheckSize(path, spec.width, spec.height);
            *w = spec.width;
            *h = spec.height;
            *channels = spec.nchannels;
            *bits = static_cast<int32_t>(spec.format.size() * 8);
            in->close();
            return;
        }
    struct Size {
        int32_t w = 0, h = 0;
    } size2;
    std::vector<uint8_t> scratch;
    struct Ctx {
        Size* size;
        std::vector<uint8_t>* scratch;
    } ctx{&size2, &scratch};
    const ZubImagingAllocFn alloc = [](void* c, int32_t width, int32_t height) -> uint8_t* {
        auto* x = static_cast<Ctx*>(c);
        x->size->w = width;
        x->size->h = height;
        x->scratch->resize(static_cast<std::size_t>(width) * height * 4);
        return x->scratch->data();
    };
    Decode(path, data, size, alloc, &ctx);
    *w = size2.w;
    *h = size2.h;
}

int DescribeEntry(const char* path, const uint8_t* data, size_t size, int32_t* w, int32_t* h, int32_t* channels,
                  int32_t* bits, char* error, size_t errorSize)
{
    return AnswerForFile(path, "reader failed", error, errorSize, [&] {
        if (!path || (!data && size) || !w || !h || !channels || !bits) Fail("describe: missing argument");
        Describe(path, data, size, w, h, channels, bits);
    });
}

const ZubImagingApi kApi = {ZUB_IMAGING_API_VERSION, DecodeEntry, ResizeEntry, DescribeEntry, DecodeScaledEntry};

}  // namespace

extern "C" __attribute__((visibility("default"))) const ZubImagingApi* ZubImagingGetApi(void)
{
    return &kApi;
}
