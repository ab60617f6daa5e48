// The association file: a 16-bit PCM WAVE file whose audio belongs to one or more native
// video clips, carrying a "BD11" chunk after the audio with the tape name and timecode, a
// description of the video format and a play list naming the video files. CDva creates, reads
// and updates that chunk; its static members are the WAVE utilities the module and the host
// use to copy and inspect audio files.
//
// Every operation returns 1 on success and 0 on failure; CDva::GetLastError() then says which
// file failed and why.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "zubimport/Platform.h"

namespace zub {

// One play list node: the 268 bytes of an entry as the chunk stores it, then the links.
// A list is a chain of nodes each made with `new`; CSMSBDPlayList::Free releases a chain.
struct CSMSBDPlayList {
    std::int32_t lFirstFrame = 0;
    std::int32_t lLastFrame = 0;  // inclusive
    char szPath[MAX_PATH] = {};   // zero-terminated video file path
    CSMSBDPlayList* pNext = nullptr;
    CSMSBDPlayList* pPrev = nullptr;

    // Deletes head and every node after it (following pNext).
    static void Free(CSMSBDPlayList* head);
};
static_assert(offsetof(CSMSBDPlayList, szPath) == 8);
static_assert(offsetof(CSMSBDPlayList, pNext) >= 268);

class CDva {
public:
    CDva() = default;
    virtual ~CDva();
    // Copies share the play list with their source: exactly one of them may own it when they
    // are destroyed (set m_pPlayList to nullptr in the other). Assignment does not free the
    // list the target held.
    CDva(const CDva& other);
    CDva& operator=(const CDva& other);

    // With a path: empty the object and read that file's play list. With nullptr: free the
    // current list and read the play list of the stored path.
    int ReadPlayList(const char* file);
    // Same forms as ReadPlayList; fills the tape name and timecode. Files of the older layout,
    // without tape block, give "" and "00:00:00:00".
    int ReadTapeNameTc(const char* file);
    // Turns the finished WAVE file dvaFile into the association file of videoFile: pads the
    // audio to a multiple of 4 bytes and appends the chunk. Opens the recorder with the values
    // of SetupDevice when it is not open (and closes it again).
    int WriteNew(const char* dvaFile, const char* videoFile, const char* tapeName, const char* tc);
    // Rewrites the video paths of the stored entries from list, whose length must equal the
    // stored count. list must not be this object's own m_pPlayList.
    int WritePlayList(const char* file, CSMSBDPlayList& list);
    // Overwrites the tape block (only meaningful on files written by WriteNew).
    int WriteTapeNameTc(const char* file, const char* tapeName, const char* tc);

    void Empty();
    int IsEmpty() const { return m_pPlayList == nullptr; }
    CSMSBDPlayList* GetPlayList() const { return m_pPlayList; }
    std::string GetTapeName() const { return m_strTapeName; }
    std::string GetTc() const { return m_strTc; }

    // The recorder WriteNew opens when none is open: back-end choice, device name, a host
    // handle to adopt, and the 24-frames-per-second flag.
    static void SetupDevice(int deviceName, void* existingHandle, int mode24p, int useZub);

    // 1 when file is a WAVE file marked as muted: format tag 0 and a "data" chunk.
    static int IsMutedDva(const char* file);
    // Writes dst as a new WAVE file with a normalised 16-byte "fmt " chunk and everything
    // from the start of src's audio to the end of src.
    static int CopyCleanWavFile(const char* src, const char* dst);
    // Writes dst as a new WAVE file in src's format with 1 (stereo == 0) or 2 channels,
    // holding the whole blocks of the length bytes at data.
    static int CopyPartialWavFile(const char* src, const char* dst, char* data, long length, int stereo);

    // Why the last failing operation on this thread failed ("" after a success).
    static std::string GetLastError();

    std::string m_strFile;
    CSMSBDPlayList* m_pPlayList = nullptr;
    std::string m_strTapeName;
    std::string m_strTc;
};

}  // namespace zub
