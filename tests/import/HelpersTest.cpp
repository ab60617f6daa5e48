// The platform's small shared helpers: byte order, whole transfers, error texts.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "TempDir.h"
#include "platform/ByteOrder.h"
#include "platform/Error.h"
#include "platform/FileIo.h"

using namespace zub;

namespace {

struct Fd {
    int fd;
    explicit Fd(int f) : fd(f) {}
    ~Fd()
    {
        if (fd >= 0) ::close(fd);
    }
};

}  // namespace

TEST(ByteOrder, ReadsAndWritesLittleEndianWhateverTheAlignment)
{
    unsigned char buf[9] = {};
    WriteLe32(buf + 1, 0x89ABCDEFu);  // odd address on purpose
    WriteLe16(buf + 5, 0xA1B2u);
    const unsigned char expect[9] = {0, 0xEF, 0xCD, 0xAB, 0x89, 0xB2, 0xA1, 0, 0};
    EXPECT_EQ(std::memcmp(buf, expect, sizeof buf), 0);
    EXPECT_EQ(ReadLe32(buf + 1), 0x89ABCDEFu);
    EXPECT_EQ(ReadLe16(buf + 5), 0xA1B2u);
    // A RIFF header read as the file has it.
    const unsigned char riff[] = {'R', 'I', 'F', 'F', 0x24, 0x08, 0x00, 0x00};
    EXPECT_EQ(ReadLe32(riff), 0x46464952u);
    EXPECT_EQ(ReadLe32(riff + 4), 2084u);
}

TEST(FileIo, WholeWriteAndReadRoundTripAtOffsets)
{
    test::TempDir dir;
    const std::string path = dir / "data.bin";
    Fd f(::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644));
    ASSERT_GE(f.fd, 0);
    std::vector<unsigned char> data(1 << 20);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(i * 7 + (i >> 9));
    ASSERT_TRUE(WriteAllAt(f.fd, data.data(), data.size(), 4096));
    EXPECT_EQ(::lseek(f.fd, 0, SEEK_END), static_cast<off_t>(4096 + data.size()));

    std::vector<unsigned char> back(data.size());
    bool end = true;
    ASSERT_TRUE(ReadAllAt(f.fd, back.data(), back.size(), 4096, &end));
    EXPECT_FALSE(end);
    EXPECT_EQ(back, data);

    // Asking past the end is a failure told as the end of the file, not an error.
    end = false;
    EXPECT_FALSE(ReadAllAt(f.fd, back.data(), 16, 4096 + data.size() - 8, &end));
    EXPECT_TRUE(end);
}

TEST(FileIo, FailuresKeepTheSystemsReason)
{
    Fd full(::open("/dev/full", O_WRONLY));
    if (full.fd >= 0) {
        const char byte = 1;
        errno = 0;
        EXPECT_FALSE(WriteAllAt(full.fd, &byte, 1, 0));
        EXPECT_EQ(errno, ENOSPC);
        EXPECT_EQ(SysError("/dev/full", "cannot write"), std::string("/dev/full: cannot write: ") + std::strerror(ENOSPC));
    }
    char buf[4];
    bool end = true;
    EXPECT_FALSE(ReadAllAt(-1, buf, sizeof buf, 0, &end));
    EXPECT_FALSE(end) << "a bad descriptor is an error, not the end of a file";
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(SysError("clip.zub", "cannot read"), std::string("clip.zub: cannot read: ") + std::strerror(EBADF));
}

TEST(Error, MessageNamesTheFileAndTheReason)
{
    EXPECT_EQ((Error{"/media/a.wav", "cannot open"}).Message(), "/media/a.wav: cannot open");
    EXPECT_EQ((Error{"", "no file name given"}).Message(), "no file name given");
    std::string why = "untouched";
    EXPECT_FALSE(Fail(&why, Error{"b.mov", "no video track"}));
    EXPECT_EQ(why, "b.mov: no video track");
    EXPECT_FALSE(Fail(nullptr, Error{"b.mov", "no video track"}));
    EXPECT_FALSE(Fail(&why, "c.wav: formed below"));
    EXPECT_EQ(why, "c.wav: formed below");
}

TEST(Error, LastErrorIsPerLayerAndPerThread)
{
    using A = LastError<struct LayerA>;
    using B = LastError<struct LayerB>;
    A::Set(Error{"one.wav", "too short"});
    B::Set("other layer");
    EXPECT_EQ(A::Get(), "one.wav: too short");
    EXPECT_EQ(B::Get(), "other layer");
    std::string seen = "unset";
    std::thread t([&] {
        seen = A::Get();
        A::Set("set on the other thread");
    });
    t.join();
    EXPECT_EQ(seen, "");
    EXPECT_EQ(A::Get(), "one.wav: too short");
    A::Clear();
    EXPECT_EQ(A::Get(), "");
    EXPECT_EQ(B::Get(), "other layer");
}
