#include "recorder/SubstituteRecorder.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <atomic>
#include <chrono>
#include <functional>
#include <limits>
#include <thread>

#include "platform/Error.h"

namespace zub::rec {

namespace {

using Errors = LastError<struct SubstituteRecorderErrors>;

// What a file query and an item query both report about a clip, counted on one track.
void DescribeClip(const ClipReader& r, Track track, ClipFacts& f)
{
    const ClipHeader& h = r.Header();
    f.hasKey = h.alphaType != 0;
    f.frames = static_cast<std::int32_t>(r.FramesReadable(track));
    f.capacity = static_cast<std::int32_t>(h.capacity);
    f.videoType = h.videoType;
    f.alphaType = h.alphaType;
    f.videoRate = h.videoRate;
    f.alphaRate = h.alphaRate;
    f.width = static_cast<std::int32_t>(h.width);
    f.height = static_cast<std::int32_t>(h.height);
    f.rateNumerator = static_cast<std::int32_t>(h.rateNumerator);
    f.rateDenominator = static_cast<std::int32_t>(h.rateDenominator);
}

std::string FolderOf(const std::string& path)
{
    const std::size_t at = path.find_last_of("/\\");
    return at == std::string::npos ? std::string("./") : path.substr(0, at + 1);
}

bool EndsWithZub(const char* name)
{
    const std::size_t n = std::strlen(name);
    return n > 4 && strcasecmp(name + n - 4, ".zub") == 0;
}

std::uint64_t ClipBytesInFolder(const std::string& folder)
{
    std::uint64_t total = 0;
    DIR* dir = ::opendir(folder.c_str());
    if (!dir) return 0;
    while (const dirent* e = ::readdir(dir)) {
        if (!EndsWithZub(e->d_name)) continue;
        struct stat st {};
        if (::stat((folder + e->d_name).c_str(), &st) == 0 && S_ISREG(st.st_mode))
            total += static_cast<std::uint64_t>(st.st_size);
    }
    ::closedir(dir);
    return total;
}

std::int32_t TypeOfRate(std::int32_t rate)
{
    return rate == -1 ? kTypeUncompressed : kTypeCompressed;
}

// The configured slowness of every write.
void DelayWrite(const RecorderFaults& faults)
{
    if (faults.writeDelayMs) std::this_thread::sleep_for(std::chrono::milliseconds(faults.writeDelayMs));
}

}  // namespace

bool VolumeFreeBytes(const std::string& folderIn, const RecorderConfig& config, std::uint64_t& bytes, std::string* error)
{
    const std::string folder = folderIn.empty() ? std::string("./") : folderIn;
    struct statvfs vfs {};
    if (::statvfs(folder.c_str(), &vfs) != 0) {
        if (error) *error = folder + ": cannot query the volume: " + std::strerror(errno);
        return false;
    }
    bytes = static_cast<std::uint64_t>(vfs.f_bavail) * vfs.f_frsize;
    if (config.limitBytes) {
        const std::uint64_t used = ClipBytesInFolder(folder);
        const std::uint64_t left = config.limitBytes > used ? config.limitBytes - used : 0;
        if (left < bytes) bytes = left;
    }
    return true;
}

bool FramesThatFit(const std::string& folder, const RecorderConfig& config, std::int32_t videoRate,
                   std::int32_t alphaRate, std::int64_t& frames, std::string* error)
{
    ClipParams p;
    p.width = static_cast<std::uint32_t>(config.Width());
    p.height = static_cast<std::uint32_t>(config.Height());
    p.lines = static_cast<std::uint32_t>(config.lines);
    p.capacity = 1;
    p.videoType = TypeOfRate(videoRate);
    p.videoRate = videoRate;
    p.alphaType = alphaRate == 0 ? kTypeNone : TypeOfRate(alphaRate);
    p.alphaRate = alphaRate;
    ClipHeader one;
    if (!MakeHeader(p, one, error)) return false;
    std::uint64_t free = 0;
    if (!VolumeFreeBytes(folder, config, free, error)) return false;
    // A clip of n frames takes its data slots, two index entries per frame and a header
    // rounded up to the data alignment.
    const std::uint64_t perFrame = static_cast<std::uint64_t>(one.videoSlot) + one.alphaSlot + 2 * sizeof(IndexEntry);
    const std::uint64_t fixed = one.dataOffset;
    const std::uint64_t n = free > fixed ? (free - fixed) / perFrame : 0;
    frames = static_cast<std::int64_t>(std::min<std::uint64_t>(n, std::numeric_limits<std::int32_t>::max()));
    return true;
}

struct SubstituteRecorder::Object {
    virtual ~Object() = default;
    int references = 1;
};

struct SubstituteRecorder::Device : Object {
    RecorderConfig config;
    bool initialised = false;
    // The configured faults count over every clip written through this device; imports may
    // come from several threads.
    std::atomic<std::uint32_t> imports{0};     // frame imports asked for
    std::atomic<std::int64_t> framesStored{0};  // frames taken, against full_after
    std::atomic<bool> full{false};             // full_after reached
    std::int32_t preview[3] = {0, 0, 0};
    std::int32_t output[6] = {0, 0, 0, 1, 0, 0};
    std::int32_t routing[5] = {0, 0, 0, 0, 0};
};

struct SubstituteRecorder::Item : Object {
    ~Item() override
    {
        // Each released item of a clip being written records the clip's length in the header.
        if (writer) writer->Finish(nullptr);
    }
    std::shared_ptr<ClipWriter> writer;  // shared by the clip's video and alpha items
    std::string path;                    // items opened for reading
    Track track = kVideo;
};

SubstituteRecorder::SubstituteRecorder(std::int32_t firstHandle) : next_(firstHandle) {}

SubstituteRecorder::~SubstituteRecorder() = default;

const char* SubstituteRecorder::LastError()
{
    return Errors::Get().c_str();
}

Status SubstituteRecorder::Fail(Status s, std::string text)
{
    Errors::Set(std::move(text));
    return s;
}

std::int32_t SubstituteRecorder::Add(std::shared_ptr<Object> object)
{
    std::lock_guard lock(mutex_);
    const std::int32_t h = next_++;
    objects_[h] = std::move(object);
    return h;
}

std::shared_ptr<SubstituteRecorder::Object> SubstituteRecorder::Find(std::int32_t handle)
{
    std::lock_guard lock(mutex_);
    const auto it = objects_.find(handle);
    return it == objects_.end() ? nullptr : it->second;
}

std::shared_ptr<SubstituteRecorder::Device> SubstituteRecorder::FindDevice(std::int32_t handle, Status& s)
{
    auto d = std::dynamic_pointer_cast<Device>(Find(handle));
    if (!d) {
        s = Fail(Status::BadHandle, "no open device " + std::to_string(handle));
        return nullptr;
    }
    if (!d->initialised) {
        s = Fail(Status::NotInitialised, "device " + std::to_string(handle) + " is not initialised");
        return nullptr;
    }
    s = Status::Ok;
    return d;
}

Status SubstituteRecorder::OpenDevice(std::int32_t deviceName, bool initialised, std::int32_t* handle)
{
    if (!handle) return Fail(Status::BadArgument, "no place for the device handle");
    if (deviceName != 0) return Fail(Status::Failed, "no recorder device " + std::to_string(deviceName) + " (only 0)");
    auto d = std::make_shared<Device>();
    d->config = LoadRecorderConfig();
    if (!d->config.problem.empty()) return Fail(Status::Failed, "recorder configuration: " + d->config.problem);
    d->initialised = initialised;
    // The default recording folder exists from the first open on, so a host can record into
    // it without preparing anything.
    std::error_code ec;
    std::filesystem::create_directories(d->config.volume, ec);
    *handle = Add(d);
    return Status::Ok;
}

Status SubstituteRecorder::Initialise(std::int32_t device)
{
    auto d = std::dynamic_pointer_cast<Device>(Find(device));
    if (!d) return Fail(Status::BadHandle, "no open device " + std::to_string(device));
    d->initialised = true;
    return Status::Ok;
}

Status SubstituteRecorder::Reference(std::int32_t object)
{
    std::lock_guard lock(mutex_);
    const auto it = objects_.find(object);
    if (it == objects_.end()) return Fail(Status::BadHandle, "no object " + std::to_string(object));
    ++it->second->references;
    return Status::Ok;
}

Status SubstituteRecorder::Dereference(std::int32_t object)
{
    std::shared_ptr<Object> gone;  // destroyed outside the lock: an item may finish its file
    {
        std::lock_guard lock(mutex_);
        const auto it = objects_.find(object);
        if (it == objects_.end()) return Fail(Status::BadHandle, "no object " + std::to_string(object));
        if (--it->second->references > 0) return Status::Ok;
        gone = std::move(it->second);
        objects_.erase(it);
    }
    return Status::Ok;
}

Status SubstituteRecorder::CloseDevice(std::int32_t device)
{
    std::shared_ptr<Object> gone;
    std::lock_guard lock(mutex_);
    const auto it = objects_.find(device);
    if (it == objects_.end() || !std::dynamic_pointer_cast<Device>(it->second))
        return Fail(Status::BadHandle, "no open device " + std::to_string(device));
    gone = std::move(it->second);
    objects_.erase(it);
    return Status::Ok;
}

Status SubstituteRecorder::Config(std::int32_t device, RecorderConfig& config)
{
    Status s;
    auto d = FindDevice(device, s);
    if (!d) return s;
    config = d->config;
    return Status::Ok;
}

Status SubstituteRecorder::FramesFit(std::int32_t device, const char* folder, std::int32_t videoRate,
                                     std::int32_t alphaRate, std::int32_t& frames)
{
    Status s;
    auto d = FindDevice(device, s);
    if (!d) return s;
    std::int64_t n = 0;
    std::string why;
    if (!FramesThatFit(folder ? folder : "", d->config, videoRate, alphaRate, n, &why))
        return Fail(Status::BadArgument, why);
    frames = d->full ? 0 : static_cast<std::int32_t>(n);
    return Status::Ok;
}

Status SubstituteRecorder::CreateClip(std::int32_t device, const ClipRequest& r, std::int32_t& videoItem,
                                      std::int32_t& alphaItem)
{
    Status s;
    auto d = FindDevice(device, s);
    if (!d) return s;
    if (!r.path || !*r.path) return Fail(Status::BadArgument, "no clip path");
    const std::string path = r.path;
    if (d->config.faults.create == CreateFault::NoSpace)
        return Fail(Status::NoSpace, path + ": the volume has no space (fault fail_create = nospace)");
    if (d->config.faults.create == CreateFault::Exists)
        return Fail(Status::Exists, path + ": exists already (fault fail_create = exists)");
    if (d->full) return Fail(Status::NoSpace, path + ": the volume is full (fault full_after)");
    ClipParams p;
    p.width = static_cast<std::uint32_t>(d->config.Width());
    p.height = static_cast<std::uint32_t>(d->config.Height());
    p.lines = static_cast<std::uint32_t>(d->config.lines);
    p.capacity = r.frames > 0 ? static_cast<std::uint32_t>(r.frames) : 0;
    p.videoType = r.videoType;
    p.alphaType = r.alphaType;
    p.videoRate = r.videoRate;
    p.alphaRate = r.alphaRate;
    p.fixedFieldSize = r.fixedFieldSize;
    ClipHeader h;
    std::string why;
    if (!MakeHeader(p, h, &why)) return Fail(Status::BadArgument, path + ": " + why);
    struct stat st {};
    if (::stat(path.c_str(), &st) == 0) return Fail(Status::Exists, path + ": exists already");
    std::uint64_t free = 0;
    if (!VolumeFreeBytes(FolderOf(path), d->config, free, &why)) return Fail(Status::IoError, why);
    // Without reservation a clip starts as its header and index and grows frame by frame.
    const std::uint64_t need = d->config.reserve ? ClipFileBytes(h) : h.dataOffset;
    if (need > free)
        return Fail(Status::NoSpace, path + ": the clip needs " + std::to_string(need) + " bytes, the volume has " +
                                         std::to_string(free));
    bool exists = false;
    std::shared_ptr<ClipWriter> writer = ClipWriter::Create(path, h, d->config.sync, &exists, &why, d->config.reserve);
    if (!writer) return Fail(exists ? Status::Exists : Status::IoError, why);
    auto video = std::make_shared<Item>();
    video->writer = writer;
    video->path = path;
    video->track = kVideo;
    videoItem = Add(video);
    alphaItem = -1;
    if (h.alphaType) {
        auto alpha = std::make_shared<Item>();
        alpha->writer = writer;
        alpha->path = path;
        alpha->track = kAlpha;
        alphaItem = Add(alpha);
    }
    return Status::Ok;
}

Status SubstituteRecorder::Import(std::int32_t device, std::int32_t videoItem, std::int32_t alphaItem,
                                  std::int32_t videoField, std::int32_t alphaField, const void* data, PixelKind kind)
{
    Status s;
    auto d = FindDevice(device, s);
    if (!d) return s;
    if (kind == PixelKind::Unknown) return Fail(Status::BadArgument, "unknown pixel-format word");
    auto video = std::dynamic_pointer_cast<Item>(Find(videoItem));
    if (!video || !video->writer || video->track != kVideo)
        return Fail(Status::BadHandle, "no video item " + std::to_string(videoItem) + " open for writing");
    std::shared_ptr<Item> alpha;
    if (alphaItem != 0 && alphaItem != -1) {
        alpha = std::dynamic_pointer_cast<Item>(Find(alphaItem));
        if (!alpha || alpha->writer != video->writer || alpha->track != kAlpha)
            return Fail(Status::BadHandle, "item " + std::to_string(alphaItem) + " is not the clip's alpha item");
    }
    const ClipHeader& h = video->writer->Header();
    if ((videoField & 1) || videoField < 0 || (alpha && ((alphaField & 1) || alphaField < 0)))
        return Fail(Status::BadArgument, video->path + ": a field index must be a frame's first field (even)");
    FrameView view;
    std::string why;
    if (!ParseFrame(data, h.width, h.height, view, &why)) return Fail(Status::BadArgument, video->path + ": " + why);
    const RecorderFaults& faults = d->config.faults;
    const std::uint32_t frame = static_cast<std::uint32_t>(videoField >> 1);
    DelayWrite(faults);
    const std::uint32_t attempt = ++d->imports;
    if (faults.failImport && attempt == faults.failImport)
        return Fail(Status::IoError, video->path + ": frame " + std::to_string(frame) + " cannot be written (fault fail_import = " +
                                         std::to_string(attempt) + ")");
    // A slot on the volume is taken before the frame is written, so threads importing at
    // once never store more than full_after frames between them.
    const bool counted = faults.fullAfter >= 0;
    if (counted && d->framesStored.fetch_add(1) >= faults.fullAfter) {
        --d->framesStored;
        d->full = true;
        return Fail(Status::NoSpace, video->path + ": frame " + std::to_string(frame) + ": the volume is full (fault full_after = " +
                                         std::to_string(faults.fullAfter) + ")");
    }
    const Status written = WriteFrames(*d, *video, alpha.get(), frame, static_cast<std::uint32_t>(alphaField >> 1), view);
    if (written != Status::Ok && counted) --d->framesStored;
    return written;
}

Status SubstituteRecorder::WriteFrames(Device& d, Item& video, Item* alpha, std::uint32_t frame,
                                       std::uint32_t alphaFrame, const FrameView& view)
{
    ClipWriter& w = *video.writer;
    std::string why;
    if (!d.config.reserve) {
        // The clip grows as it is written: the volume may fill under it.
        const std::uint64_t end = w.BytesThrough(std::max(frame, alphaFrame));
        const std::uint64_t now = w.FileBytes();
        std::uint64_t free = 0;
        if (!VolumeFreeBytes(FolderOf(video.path), d.config, free, &why)) return Fail(Status::IoError, why);
        if (end > now && end - now > free)
            return Fail(Status::NoSpace, video.path + ": frame " + std::to_string(frame) + " needs " +
                                             std::to_string(end - now) + " bytes, the volume has " + std::to_string(free));
    }
    auto failed = [&](bool noSpace) {
        if (noSpace) return Fail(Status::NoSpace, why);
        return Fail(why.find("lowest quality") != std::string::npos ? Status::FrameTooBig : Status::IoError, why);
    };
    bool noSpace = false;
    if (!w.WriteFrame(kVideo, frame, view, &why, &noSpace)) return failed(noSpace);
    if (alpha && !w.WriteFrame(kAlpha, alphaFrame, view, &why, &noSpace)) return failed(noSpace);
    return Status::Ok;
}

Status SubstituteRecorder::ShowImage(std::int32_t device, const void* data, PixelKind kind)
{
    Status s;
    auto d = FindDevice(device, s);
    if (!d) return s;
    if (kind == PixelKind::Unknown) return Fail(Status::BadArgument, "unknown pixel-format word");
    FrameView view;
    std::string why;
    if (!ParseFrame(data, static_cast<std::uint32_t>(d->config.Width()), static_cast<std::uint32_t>(d->config.Height()),
                    view, &why))
        return Fail(Status::BadArgument, "output: " + why);
    const std::string& target = d->config.monitor;
    if (target.empty()) return Status::Ok;
    std::vector<std::uint8_t> jpeg;
    if (!FrameToJpeg(view, 90, jpeg, &why)) return Fail(Status::Failed, "output: " + why);
    // Whoever watches the monitor file only ever sees a whole picture.
    char suffix[64];
    std::snprintf(suffix, sizeof suffix, ".%ld.%lx.tmp", static_cast<long>(::getpid()),
                  static_cast<unsigned long>(std::hash<std::thread::id>{}(std::this_thread::get_id())));
    const std::string temp = target + suffix;
    FILE* f = std::fopen(temp.c_str(), "wb");
    if (!f) return Fail(Status::IoError, temp + ": cannot write the output monitor: " + std::strerror(errno));
    const bool wrote = std::fwrite(jpeg.data(), 1, jpeg.size(), f) == jpeg.size();
    const bool closed = std::fclose(f) == 0;
    if (!wrote || !closed || std::rename(temp.c_str(), target.c_str()) != 0) {
        const std::string err = std::strerror(errno);
        ::unlink(temp.c_str());
        return Fail(Status::IoError, target + ": cannot replace the output monitor: " + err);
    }
    return Status::Ok;
}

Status SubstituteRecorder::GetAppInfo(std::int32_t device, const char* path, std::uint8_t block[256])
{
    Status s;
    if (!FindDevice(device, s)) return s;
    std::string why;
    auto r = ClipReader::Open(path ? path : "", &why);
    if (!r) return Fail(Status::BadFile, why);
    std::memcpy(block, r->AppInfo(), 256);
    return Status::Ok;
}

Status SubstituteRecorder::SetAppInfo(std::int32_t device, const char* path, const std::uint8_t block[256])
{
    Status s;
    auto d = FindDevice(device, s);
    if (!d) return s;
    if (!block) return Fail(Status::BadArgument, "no information block");
    DelayWrite(d->config.faults);
    if (d->config.faults.failAppInfo)
        return Fail(Status::IoError, std::string(path ? path : "") +
                                         ": the information block cannot be written (fault fail_appinfo)");
    std::string why;
    if (!WriteAppInfo(path ? path : "", block, &why)) return Fail(Status::BadFile, why);
    return Status::Ok;
}

Status SubstituteRecorder::FileFacts(std::int32_t device, const char* path, ClipFacts& f)
{
    Status s;
    if (!FindDevice(device, s)) return s;
    std::string why;
    auto r = ClipReader::Open(path ? path : "", &why);
    if (!r) return Fail(Status::BadFile, why);
    DescribeClip(*r, kVideo, f);
    return Status::Ok;
}

Status SubstituteRecorder::OpenClipItem(std::int32_t device, const char* path, std::int32_t& item)
{
    Status s;
    if (!FindDevice(device, s)) return s;
    std::string why;
    if (!ClipReader::Open(path ? path : "", &why)) return Fail(Status::BadFile, why);
    auto i = std::make_shared<Item>();
    i->path = path;
    i->track = kVideo;
    item = Add(i);
    return Status::Ok;
}

Status SubstituteRecorder::ItemFacts(std::int32_t item, ClipFacts& f, Track& track)
{
    auto i = std::dynamic_pointer_cast<Item>(Find(item));
    if (!i) return Fail(Status::BadHandle, "no clip item " + std::to_string(item));
    std::string why;
    auto r = ClipReader::Open(i->path, &why);
    if (!r) return Fail(Status::BadFile, why);
    track = i->track;
    DescribeClip(*r, i->track, f);
    return Status::Ok;
}

Status SubstituteRecorder::Bus(std::int32_t device, BusKind which, std::int32_t* words, int count, bool set)
{
    Status s;
    auto d = FindDevice(device, s);
    if (!d) return s;
    if (!words) return Fail(Status::BadArgument, "no routing record");
    std::int32_t* state = which == BusKind::Preview ? d->preview : which == BusKind::Output ? d->output : d->routing;
    const int size = which == BusKind::Preview ? 3 : which == BusKind::Output ? 6 : 5;
    if (count > size) return Fail(Status::BadArgument, "routing record too long");
    std::lock_guard lock(mutex_);
    for (int i = 0; i < count; ++i) {
        if (set)
            state[i] = words[i];
        else
            words[i] = state[i];
    }
    return Status::Ok;
}

}  // namespace zub::rec
