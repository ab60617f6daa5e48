// The "Add" dialog's file-type filter and the classification of added files by extension.
//
// The filter is one text of tab-ended fields: a default extension, then description /
// patterns pairs ("entries"). Each media kind contributes a heading entry listing all its
// patterns and one entry per single pattern ("Video avi Files"); the entry numbers that
// belong to each kind are its range. The pattern lists of video and audio come from the shared
// MIME database (one list per video/* or audio/* type), which a test can replace.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace zub::batch {

// A row's type, kept as the row's item data. The shown names are TypeName(type).
enum BatchType : int { kTypeUnknown = 0, kTypeVideo = 1, kTypeAudio = 2, kTypeImages = 3 };
const char* TypeName(int type);  // "Unknown", "Video", "Audio", "Images"; "Unknown" out of range

// One media type's glob patterns joined by ';' ("*.avi;*.divx"), in the database's order.
using PatternLists = std::vector<std::string>;

// The video/* and audio/* types of the shared MIME database, sorted by type name so the filter
// does not change between runs. Types without glob patterns are left out.
PatternLists SystemMediaPatternLists();

// Replaces the MIME database for the filters built afterwards (tests script it); an empty
// function puts the database back.
void SetPatternListSourceForTesting(std::function<PatternLists()> source);

// The text of one builder call: the filter so far extended by a heading entry with every
// pattern, the single entries made separately, and how many entries were made.
struct FilterPart {
    std::string filter;   // text so far + heading + "\t" + patterns + "\t"
    std::string singles;  // "Video avi Files\t*.avi\t..." without duplicates
    int entries = 0;      // 1 (the heading) + single entries
};

// One builder: heading and word of a kind, its pattern lists in order.
FilterPart BuildFilterPart(const std::string& filterSoFar, const std::string& heading, const std::string& word,
                           const std::vector<std::string>& patternLists);

// The lists each kind draws from.
std::vector<std::string> VideoPatternLists(const PatternLists& media);  // "*.mxf", "*.mov", then the video ones
std::vector<std::string> ImagePatternLists();

// True when a pattern list names one of the extensions that make a list a video list.
bool ListsVideoExtension(const std::string& list);

struct EntryRange {
    int first = 0;  // index of the kind's heading entry
    int end = 0;    // one past its last single entry; first == end when the mode leaves it out
};

class TypeFilter {
public:
    // mediaKindMode 1: video and audio; 2: images only; anything else: all three.
    explicit TypeFilter(int mediaKindMode);

    int MediaKindMode() const { return mode_; }
    // The tab-separated text ("mxf\tAll Supported Video Files\t*.mxf;...\t...All Files (*.*)\t*.*\t").
    const std::string& Text() const { return text_; }
    // The same as name filters for a file dialog: "All Supported Video Files (*.mxf *.mov ...)".
    std::vector<std::string> DialogFilters() const;
    std::string DefaultExtension() const;

    struct Entry {
        std::string description;
        std::string patterns;  // ';'-separated
    };
    const std::vector<Entry>& Entries() const { return entries_; }
    // Range of a kind (kTypeVideo..kTypeImages) in this filter.
    EntryRange Range(int type) const;

    // The file's type by its extension: the first kind (video, audio, images) whose entries
    // hold the extension, else video. The ranges used are those captured, process-wide, by
    // the first classification of any filter (see CapturedRanges).
    int Classify(const std::string& path) const;

private:
    int mode_;
    std::string text_;
    std::vector<Entry> entries_;
    EntryRange ranges_[4];
};

// The ranges the first classification in this process captured; later filters, even of
// another media-kind mode, classify with these. Tests forget them between cases.
bool RangesCaptured();
EntryRange CapturedRange(int type);
void ForgetCapturedRangesForTesting();

}  // namespace zub::batch
