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
//   reserve = 1 | 0               1: a new clip takes its whole size at once; 0: it grows
//                                 frame by frame, so a full volume shows mid-clip
// Faults on demand, for testing what the recorder's users do when it fails (all off when
// absent; counts run over every clip written through one open device):
//   fail_create  = nospace | exists   clip creation refused with the library's no-space or
//                                     exists code, no file made
//   fail_import  = N                  the Nth frame import (1 = the first) fails with the
//                                     library's I/O error code; that frame is not written
//   full_after   = N                  after N frames the volume is full: further frame
//                                     imports and creations fail with the no-space code and
//                                     the space query answers 0
//   fail_appinfo = 0 | 1              writing a file's application information fails with the
//                                     library's I/O error code, the file untouched
//   write_delay  = MS                 each frame import and information write waits MS ms
// Each key can be overridden by the environment: ZUBREC_LINES, ZUBREC_VOLUME, ZUBREC_LIMIT,
// ZUBREC_MONITOR, ZUBREC_SYNC, ZUBREC_RESERVE, ZUBREC_FAIL_CREATE, ZUBREC_FAIL_IMPORT,
// ZUBREC_FULL_AFTER, ZUBREC_FAIL_APPINFO, ZUBREC_WRITE_DELAY (an empty variable counts as
// absent).
#pragma once

#include <cstdint>
#include <string>

namespace zub::rec {

enum class CreateFault { None, NoSpace, Exists };

struct RecorderFaults {
    CreateFault create = CreateFault::None;
    std::uint32_t failImport = 0;    // 1-based; 0: off
    std::int64_t fullAfter = -1;     // frames; -1: off
    bool failAppInfo = false;
    std::uint32_t writeDelayMs = 0;
};

struct RecorderConfig {
    int lines = 525;
    std::string volume;       // ends with '/'
    std::uint64_t limitBytes = 0;
    std::string monitor;      // empty: no output monitor
    bool sync = false;
    bool reserve = true;      // clips take their whole size when they are created
    RecorderFaults faults;
    std::string file;         // the configuration file that was read ("" when none)
    std::string problem;      // what was wrong with it, if anything

    int Width() const { return 720; }
    int Height() const { return lines == 525 ? 486 : 576; }
};

RecorderConfig LoadRecorderConfig();

// "200M" -> 209715200; false when the text is not a size.
bool ParseByteSize(const std::string& text, std::uint64_t& bytes);

}  // namespace zub::rec
