#include "batch/TypeFilter.h"

#include <QMimeDatabase>
#include <QMimeType>

#include <algorithm>
#include <mutex>

#include "zubimport/Paths.h"

namespace zub::batch {

namespace {

std::mutex g_sourceMutex;
std::function<PatternLists()> g_source;

std::mutex g_rangeMutex;
bool g_captured = false;
EntryRange g_ranges[4];

const char* const kVideoExtensions[] = {".mpg", ".mpeg", ".mov", ".qt", ".mxf", ".avi", ".wmv"};

std::vector<std::string> SplitFields(const std::string& text, char sep)
{
    std::vector<std::string> out;
    std::size_t start = 0;
    while (start < text.size()) {
        const std::size_t end = text.find(sep, start);
        if (end == std::string::npos) {
            out.push_back(text.substr(start));
            break;
        }
        out.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return out;
}

// The extension a pattern stands for: its text from the first dot on ("*.avi" -> ".avi").
std::string PatternExtension(const std::string& pattern)
{
    const std::size_t dot = pattern.find('.');
    return dot == std::string::npos ? std::string() : pattern.substr(dot);
}

}  // namespace

const char* TypeName(int type)
{
    static const char* const names[] = {"Unknown", "Video", "Audio", "Images"};
    return type >= 0 && type < 4 ? names[type] : names[0];
}

PatternLists SystemMediaPatternLists()
{
    {
        std::lock_guard lock(g_sourceMutex);
        if (g_source) return g_source();
    }
    QMimeDatabase db;
    QList<QMimeType> types = db.allMimeTypes();
    std::sort(types.begin(), types.end(), [](const QMimeType& a, const QMimeType& b) { return a.name() < b.name(); });
    PatternLists lists;
    for (const QMimeType& t : types) {
        const QString name = t.name();
        if (!name.startsWith(QLatin1String("video/")) && !name.startsWith(QLatin1String("audio/"))) continue;
        const QStringList globs = t.globPatterns();
        if (globs.isEmpty()) continue;
        lists.push_back(globs.join(QLatin1Char(';')).toStdString());
    }
    return lists;
}

void SetPatternListSourceForTesting(std::function<PatternLists()> source)
{
    std::lock_guard lock(g_sourceMutex);
    g_source = std::move(source);
}

bool ListsVideoExtension(const std::string& list)
{
    // An extension counts only where it ends a pattern: the database's audio/mpeg type lists
    // "*.mpga", which must not make MP3 files video.
    for (const char* ext : kVideoExtensions) {
        const std::string e(ext);
        for (std::size_t at = list.find(e); at != std::string::npos; at = list.find(e, at + 1)) {
            const std::size_t after = at + e.size();
            if (after == list.size() || list[after] == ';') return true;
        }
    }
    return false;
}

FilterPart BuildFilterPart(const std::string& filterSoFar, const std::string& heading, const std::string& word,
                           const std::vector<std::string>& patternLists)
{
    FilterPart part;
    part.filter = filterSoFar + heading + "\t";
    part.entries = 1;
    bool fieldEmpty = true;
    for (std::string list : patternLists) {
        if (!list.empty() && list.back() == ';') list.pop_back();
        if (!list.empty() && list.front() == ';') list.erase(0, 1);
        if (list.empty()) continue;
        if (!part.filter.empty() && part.filter.front() == '\t') {
            const std::string first = list.substr(0, list.find(';'));
            if (first.size() > 2 && first.compare(0, 2, "*.") == 0) part.filter.insert(0, first.substr(2));
        }
        if (!fieldEmpty) part.filter += ';';
        part.filter += list;
        fieldEmpty = false;
        for (std::string pattern : SplitFields(list, ';')) {
            if (pattern.empty()) continue;
            if (pattern.compare(0, 2, "*.") != 0) pattern.insert(0, "*.");
            const std::string description = word + pattern.substr(2) + " Files";
            if (part.singles.find(description) != std::string::npos) continue;
            part.singles += description + "\t" + pattern + "\t";
            ++part.entries;
        }
    }
    part.filter += "\t";
    return part;
}

std::vector<std::string> VideoPatternLists(const PatternLists& media)
{
    std::vector<std::string> lists{"*.mxf", "*.mov"};
    for (const std::string& l : media)
        if (ListsVideoExtension(l)) lists.push_back(l);
    return lists;
}

std::vector<std::string> ImagePatternLists()
{
    return {"*.tga;*.bmp;*.jpg;*.tif;*.pic;*.iff;*.ras;*.rla;*.sgi;*.vpb"};
}

TypeFilter::TypeFilter(int mediaKindMode) : mode_(mediaKindMode)
{
    const bool video = mode_ != 2;
    const bool images = mode_ != 1;
    PatternLists media;
    if (video) media = SystemMediaPatternLists();

    std::string text = "\t";  // no default extension yet
    int entries = 0;
    auto add = [&](int type, const std::string& heading, const std::string& word, const std::vector<std::string>& lists) {
        FilterPart part = BuildFilterPart(text, heading, word, lists);
        text = part.filter + part.singles;
        ranges_[type] = {entries, entries + part.entries};
        entries += part.entries;
    };
    if (video) {
        add(kTypeVideo, "All Supported Video Files", "Video ", VideoPatternLists(media));
        add(kTypeAudio, "All Supported Audio Files", "Audio ", media);
    }
    if (images) add(kTypeImages, "All Supported Image Sequence+ Files", "Image Sequence+ ", ImagePatternLists());
    text += "All Files (*.*)\t*.*\t";
    text_ = std::move(text);

    const std::vector<std::string> fields = SplitFields(text_, '\t');
    for (std::size_t i = 1; i + 1 < fields.size(); i += 2) entries_.push_back({fields[i], fields[i + 1]});
}

std::string TypeFilter::DefaultExtension() const
{
    return text_.substr(0, text_.find('\t'));
}

std::vector<std::string> TypeFilter::DialogFilters() const
{
    std::vector<std::string> out;
    for (const Entry& e : entries_) {
        std::string patterns = e.patterns;
        std::replace(patterns.begin(), patterns.end(), ';', ' ');
        out.push_back(e.description + " (" + patterns + ")");
    }
    return out;
}

EntryRange TypeFilter::Range(int type) const
{
    return type >= kTypeVideo && type <= kTypeImages ? ranges_[type] : EntryRange{};
}

int TypeFilter::Classify(const std::string& path) const
{
    EntryRange ranges[4];
    {
        std::lock_guard lock(g_rangeMutex);
        if (!g_captured) {
            for (int t = kTypeVideo; t <= kTypeImages; ++t) g_ranges[t] = ranges_[t];
            g_captured = true;
        }
        for (int t = kTypeVideo; t <= kTypeImages; ++t) ranges[t] = g_ranges[t];
    }
    const std::string ext = ExtensionPart(path);
    if (ext.empty()) return kTypeVideo;
    for (int t = kTypeVideo; t <= kTypeImages; ++t) {
        const int end = std::min<int>(ranges[t].end, static_cast<int>(entries_.size()));
        for (int i = std::max(ranges[t].first, 0); i < end; ++i)
            for (const std::string& p : SplitFields(entries_[i].patterns, ';'))
                if (EqualsNoCase(ext, PatternExtension(p))) return t;
    }
    return kTypeVideo;
}

bool RangesCaptured()
{
    std::lock_guard lock(g_rangeMutex);
    return g_captured;
}

EntryRange CapturedRange(int type)
{
    std::lock_guard lock(g_rangeMutex);
    return type >= kTypeVideo && type <= kTypeImages ? g_ranges[type] : EntryRange{};
}

void ForgetCapturedRangesForTesting()
{
    std::lock_guard lock(g_rangeMutex);
    g_captured = false;
    for (auto& r : g_ranges) r = {};
}

}  // namespace zub::batch
