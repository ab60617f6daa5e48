#include "mxfwrap/MXFWrap.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/error.h>
#include <libavutil/mathematics.h>
}

#include "platform/AvError.h"
#include "platform/AvOwner.h"
#include "platform/Error.h"

#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

// The reason behind the last 0 from G_LaunchMXFUnwrap, per calling thread.
using Errors = zub::LastError<struct MxfUnwrapErrors>;

using zub::av::InputPtr;
using zub::av::OutputPtr;
using zub::av::PacketPtr;

using zub::AvError;

std::string TempFolder()
{
    const char* t = std::getenv("TMPDIR");
    std::string folder = t && *t ? t : "/tmp";
    if (folder.back() != '/') folder += '/';
    return folder;
}

// The copy lives in a folder of its own so it can carry the source's name (the converter names
// the clip after the file it reads); both go again unless the unwrap got to the end.
class TempCopy {
public:
    bool Make(const std::string& sourceName, std::string* why)
    {
        std::string folder = TempFolder() + "mxfunwrap-XXXXXX";
        if (!::mkdtemp(folder.data())) {
            *why = "cannot create a folder in " + TempFolder() + " (" + std::strerror(errno) + ")";
            return false;
        }
        folder_ = folder;
        path_ = folder + "/" + sourceName + ".mkv";
        return true;
    }
    ~TempCopy()
    {
        if (keep_ || folder_.empty()) return;
        std::remove(path_.c_str());
        ::rmdir(folder_.c_str());
    }
    const std::string& Path() const { return path_; }
    void Keep() { keep_ = true; }

private:
    std::string folder_, path_;
    bool keep_ = false;
};

// The file name without folder and extension: what the clip is to be called.
std::string Stem(const std::string& path)
{
    const std::size_t slash = path.find_last_of("/\\");
    std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    const std::size_t dot = name.rfind('.');
    if (dot != std::string::npos && dot > 0) name.erase(dot);
    return name.empty() ? std::string("unwrapped") : name;
}

bool Unwrap(const std::string& source, std::string& target)
{
    auto fail = [&](const std::string& why) {
        Errors::Set(zub::Error{source, why});
        return false;
    };

    AVFormatContext* raw = nullptr;
    const int openRc = avformat_open_input(&raw, source.c_str(), nullptr, nullptr);
    if (openRc < 0) return fail("cannot be opened as media (" + AvError(openRc) + ")");
    InputPtr in(raw);
    if (std::strcmp(in->iformat->name, "mxf") != 0)
        return fail(std::string("not an MXF file (it reads as ") + in->iformat->name + ")");
    const int infoRc = avformat_find_stream_info(in.get(), nullptr);
    if (infoRc < 0) return fail("damaged MXF: its streams cannot be read (" + AvError(infoRc) + ")");

    // Only picture and sound go across; time code and data tracks mean nothing to the converter.
    std::vector<int> map(in->nb_streams, -1);
    int mapped = 0;
    for (unsigned i = 0; i < in->nb_streams; ++i) {
        const AVCodecParameters* p = in->streams[i]->codecpar;
        if ((p->codec_type == AVMEDIA_TYPE_VIDEO || p->codec_type == AVMEDIA_TYPE_AUDIO) && p->codec_id != AV_CODEC_ID_NONE)
            map[i] = mapped++;
    }
    if (mapped == 0) return fail("the MXF file holds no video or audio essence");

    TempCopy temp;
    std::string why;
    if (!temp.Make(Stem(source), &why)) return fail(why);
    const std::string& name = temp.Path();

    AVFormatContext* rawOut = nullptr;
    if (avformat_alloc_output_context2(&rawOut, nullptr, "matroska", name.c_str()) < 0 || !rawOut)
        return fail("the Matroska writer is not available");
    OutputPtr out(rawOut);
    for (unsigned i = 0; i < in->nb_streams; ++i) {
        if (map[i] < 0) continue;
        AVStream* os = avformat_new_stream(out.get(), nullptr);
        if (!os) return fail("out of memory");
        const int rc = avcodec_parameters_copy(os->codecpar, in->streams[i]->codecpar);
        if (rc < 0) return fail("cannot copy stream parameters (" + AvError(rc) + ")");
        os->codecpar->codec_tag = 0;
        os->time_base = in->streams[i]->time_base;
        os->avg_frame_rate = in->streams[i]->avg_frame_rate;
        os->r_frame_rate = in->streams[i]->r_frame_rate;
    }
    int rc = avio_open(&out->pb, name.c_str(), AVIO_FLAG_WRITE);
    if (rc < 0) return fail(name + ": cannot be written (" + AvError(rc) + ")");
    rc = avformat_write_header(out.get(), nullptr);
    if (rc < 0) return fail("its essence cannot be put in a Matroska file (" + AvError(rc) + ")");

    PacketPtr pkt(av_packet_alloc());
    if (!pkt) return fail("out of memory");
    std::vector<int64_t> nextDts(in->nb_streams, AV_NOPTS_VALUE);
    long packets = 0;
    while (true) {
        rc = av_read_frame(in.get(), pkt.get());
        if (rc == AVERROR_EOF) break;
        if (rc < 0) return fail("damaged MXF: reading stopped after " + std::to_string(packets) + " packets (" + AvError(rc) + ")");
        const int si = pkt->stream_index;
        if (si < 0 || si >= static_cast<int>(map.size()) || map[si] < 0) {
            av_packet_unref(pkt.get());
            continue;
        }
        // Some MXF essence comes without time stamps on every packet; the writer needs them,
        // so a missing one continues from the packet before.
        if (pkt->dts == AV_NOPTS_VALUE) pkt->dts = pkt->pts != AV_NOPTS_VALUE ? pkt->pts : nextDts[si];
        if (pkt->pts == AV_NOPTS_VALUE) pkt->pts = pkt->dts;
        if (pkt->dts == AV_NOPTS_VALUE) pkt->pts = pkt->dts = 0;
        nextDts[si] = pkt->dts + (pkt->duration > 0 ? pkt->duration : 1);
        AVStream* os = out->streams[map[si]];
        av_packet_rescale_ts(pkt.get(), in->streams[si]->time_base, os->time_base);
        pkt->stream_index = map[si];
        pkt->pos = -1;
        rc = av_interleaved_write_frame(out.get(), pkt.get());
        if (rc < 0) return fail(name + ": writing failed (" + AvError(rc) + ")");
        ++packets;
    }
    if (packets == 0) return fail("damaged MXF: no video or audio packets could be read");
    rc = av_write_trailer(out.get());
    if (rc < 0) return fail(name + ": cannot be finished (" + AvError(rc) + ")");
    rc = avio_closep(&out->pb);
    if (rc < 0) return fail(name + ": cannot be closed (" + AvError(rc) + ")");
    temp.Keep();
    target = name;
    return true;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int G_LaunchMXFUnwrap(void* parentWindow, char* path, size_t capacity)
{
    (void)parentWindow;
    Errors::Clear();
    if (!path || capacity == 0 || ::memchr(path, '\0', capacity) == nullptr) {
        Errors::Set("G_LaunchMXFUnwrap: no file name given");
        return 0;
    }
    const std::string source(path);
    std::string target;
    if (!Unwrap(source, target)) return 0;
    if (target.size() + 1 > capacity) {
        std::remove(target.c_str());
        const std::size_t slash = target.rfind('/');
        if (slash != std::string::npos) ::rmdir(target.substr(0, slash).c_str());
        Errors::Set(zub::Error{source, "the unwrapped file's name does not fit the " + std::to_string(capacity) + "-byte buffer"});
        return 0;
    }
    std::memcpy(path, target.c_str(), target.size() + 1);
    return 1;
}

extern "C" __attribute__((visibility("default"))) const char* G_MXFUnwrapError(void)
{
    return Errors::Get().c_str();
}
