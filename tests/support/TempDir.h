// A fresh folder under $TMPDIR for one test, removed with everything in it afterwards.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

namespace zub::test {

class TempDir {
public:
    TempDir()
    {
        std::string tmpl = (std::filesystem::temp_directory_path() / "zubtest-XXXXXX").string();
        if (!mkdtemp(tmpl.data())) std::abort();
        path_ = tmpl;
    }
    ~TempDir()
    {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& Path() const { return path_; }
    std::string operator/(const std::string& name) const { return (path_ / name).string(); }

private:
    std::filesystem::path path_;
};

}  // namespace zub::test
