// The substitute recorder's configuration: its video standard, its default recording folder
// (the "volume"), an optional size limit for that volume, the output monitor file and whether
// frames are flushed to disk before their index entry.
//
// Read from $ZUBREC_CONFIG, else $XDG_CONFIG_HOME/zubrecorder/recorder.ini (default
// ~/.config/zubrecorder/recorder.ini), section [recorder]:
//   lines   = 525 | 625           video standard (525: 720 x 486, 29.97 fps; 625: 720 x 576, 25)
//   volume  = /path/              default recording folder
//                                 (default $XDG_DATA_HOME/zubrecorder/volume/, i.e.
//                                  ~/.local/share/zubrecorder/volume/)
//   limit   = 200M                bytes the clip files of one folder may take (K, M, G suffixes;
//                                 0 or absent: only the file system's free space counts)
//   monitor = /path/monitor.jpg   where "show on output" puts each frame (JPEG, replaced
//                                 atomically); default $XDG_RUNTIME_DIR/zubrecorder-monitor.jpg,
//                                 or $TMPDIR when there is no runtime folder; "off" disables it
//   sync    = 0 | 1               fdatasync frame data before writing its index entry
// Each key can be overridden by the environment: ZUBREC_LINES, ZUBREC_VOLUME, ZUBREC_LIMIT,
// ZUBREC_MONITOR, ZUBREC_SYNC.
#pragma once

#include <cstdint>
#include <string>

namespace zub::rec {

struct RecorderConfig {
    int lines = 525;
    std::string volume;       // ends with '/'
    std::uint64_t limitBytes = 0;
    std::string monitor;      // empty: no output monitor
    bool sync = false;
    std::string file;         // the configuration file that was read ("" when none)
    std::string problem;      // what was wrong with it, if anything

    int Width() const { return 720; }
    int Height() const { return lines == 525 ? 486 : 576; }
};

RecorderConfig LoadRecorderConfig();

// "200M" -> 209715200; false when the text is not a size.
bool ParseByteSize(const std::string& text, std::uint64_t& bytes);

}  // namespace zub::rec
