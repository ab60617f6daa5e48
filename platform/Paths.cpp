#include "zubimport/Paths.h"

#include <cctype>
#include <cstdlib>

namespace zub {

std::size_t LastSeparator(std::string_view path)
{
    return path.find_last_of("/\\");
}

std::string DirectoryPart(std::string_view path)
{
    const auto pos = LastSeparator(path);
    return pos == std::string_view::npos ? std::string() : std::string(path.substr(0, pos + 1));
}

std::string FileNamePart(std::string_view path)
{
    const auto pos = LastSeparator(path);
    return std::string(pos == std::string_view::npos ? path : path.substr(pos + 1));
}

std::string ExtensionPart(std::string_view path)
{
    const std::string name = FileNamePart(path);
    const auto dot = name.rfind('.');
    return dot == std::string::npos ? std::string() : name.substr(dot);
}

std::string JoinPath(std::string_view folder, std::string_view name)
{
    if (folder.empty()) return std::string(name);
    std::string out(folder);
    if (!IsPathSeparator(out.back())) out.push_back('/');
    out.append(name);
    return out;
}

std::string WithTrailingSeparator(std::string_view folder)
{
    std::string out(folder);
    if (!out.empty() && !IsPathSeparator(out.back())) out.push_back('/');
    return out;
}

bool EqualsNoCase(std::string_view a, std::string_view b)
{
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i])))
            return false;
    return true;
}

std::string TempFolder()
{
    const char* t = std::getenv("TMPDIR");
    return WithTrailingSeparator((t && *t) ? t : "/tmp");
}

}  // namespace zub
