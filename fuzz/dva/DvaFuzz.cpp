// Feeds arbitrary files to the RIFF reader, the WAVE format checks of the copy utilities and
// the association readers and updaters. Every input is written to one scratch file per
// process, because all of them work on files, as the host hands them over.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "fuzz/FuzzSupport.h"
#include "dva/MmioFile.h"
#include "zubimport/Dva.h"

using namespace zub;

namespace {

std::string Scratch(const char* suffix) { return fuzz::Scratch("dva", suffix); }
using fuzz::Store;

// Walks every chunk of the first RIFF form and one level of LIST forms inside it.
void WalkChunks(const std::string& path)
{
    CMmioFile f(path.c_str(), nullptr, MMIO_ALLOCBUF);
    if (!f.IsOpen()) return;
    MMCKINFO riff{};
    if (!f.Descend(riff, nullptr, 0) || (riff.ckid != FOURCC_RIFF && riff.ckid != FOURCC_LIST)) return;
    char buf[64];
    for (int i = 0; i < 4096; ++i) {
        MMCKINFO ck{};
        if (!f.Descend(ck, &riff, 0)) break;
        if (ck.ckid == FOURCC_LIST) {
            for (int j = 0; j < 256; ++j) {
                MMCKINFO sub{};
                if (!f.Descend(sub, &ck, 0)) break;
                f.Read(buf, sizeof buf);
                if (!f.Ascend(sub)) break;
            }
        } else {
            f.Read(buf, sizeof buf);
        }
        if (!f.Ascend(ck)) break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const std::string in = Scratch(".wav");
    static const std::string out = Scratch("-out.wav");
    Store(in, data, size);

    WalkChunks(in);
    CDva::IsMutedDva(in.c_str());
    CDva::CopyCleanWavFile(in.c_str(), out.c_str());
    char mem[600];
    std::memset(mem, 0x55, sizeof mem);
    CDva::CopyPartialWavFile(in.c_str(), out.c_str(), mem, static_cast<long>(size % sizeof mem), static_cast<int>(size & 1));

    CDva dva;
    dva.ReadPlayList(in.c_str());
    dva.ReadTapeNameTc(nullptr);
    int nodes = 0;
    for (const CSMSBDPlayList* n = dva.GetPlayList(); n; n = n->pNext) ++nodes;
    // Updaters on the same bytes: a one-entry list and a new tape block.
    CSMSBDPlayList node{};
    std::strcpy(node.szPath, "/fuzz/clip.zub");
    CDva other;
    other.WritePlayList(in.c_str(), node);
    other.WriteTapeNameTc(in.c_str(), "tape", "00:00:00:01");
    other.ReadPlayList(in.c_str());
    return nodes >= 0 ? 0 : 1;
}
