// While one of these lives, the ZUB back-end refuses to store a file's application information
// (the clip's rate record); every other call goes to the real library. For the tests of what a
// job does when that last write of a finished clip fails.
#pragma once

#include <cstdint>

#include "device/RecorderBackends.h"

namespace zub::test {

class RefuseRateRecord {
public:
    RefuseRateRecord()
    {
        const rec::ZubApi* real = ZubBackend();
        if (!real) return;
        Table() = *real;
        Table().ZubDdrSetFileAppInfo = &Refuse;
        SetZubBackendForTesting(&Table());
        active_ = true;
    }
    ~RefuseRateRecord() { SetZubBackendForTesting(nullptr); }
    RefuseRateRecord(const RefuseRateRecord&) = delete;
    RefuseRateRecord& operator=(const RefuseRateRecord&) = delete;

    bool Active() const { return active_; }

private:
    static rec::ZubApi& Table()
    {
        static rec::ZubApi table;
        return table;
    }
    static std::int32_t Refuse(std::int32_t, const char*, const std::uint8_t*) { return rec::kZubIoError; }

    bool active_ = false;
};

}  // namespace zub::test
