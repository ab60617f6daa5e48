#include "settings/FixedPoint.h"

#include <cstdint>
#include <cstdlib>
#include <limits>

namespace zub::settings {

namespace {

bool IsBlank(char c) { return c == ' ' || c == '\t'; }
bool IsDigit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

std::optional<int> ParseFixed(std::string_view text, int places)
{
    if (places < 0 || places > 9) return std::nullopt;
    while (!text.empty() && IsBlank(text.front())) text.remove_prefix(1);
    while (!text.empty() && IsBlank(text.back())) text.remove_suffix(1);
    bool negative = false;
    if (!text.empty() && (text.front() == '-' || text.front() == '+')) {
        negative = text.front() == '-';
        text.remove_prefix(1);
    }
    std::int64_t whole = 0;
    int wholeDigits = 0;
    std::size_t i = 0;
    for (; i < text.size() && IsDigit(text[i]); ++i, ++wholeDigits) {
        whole = whole * 10 + (text[i] - '0');
        if (whole > std::numeric_limits<int>::max()) return std::nullopt;
    }
    std::int64_t fraction = 0;
    int fractionDigits = 0;
    if (i < text.size() && text[i] == '.') {
        for (++i; i < text.size() && IsDigit(text[i]); ++i, ++fractionDigits) {
            if (fractionDigits == places) return std::nullopt;
            fraction = fraction * 10 + (text[i] - '0');
        }
    }
    if (i != text.size() || wholeDigits + fractionDigits == 0) return std::nullopt;
    for (int k = fractionDigits; k < places; ++k) fraction *= 10;
    std::int64_t scale = 1;
    for (int k = 0; k < places; ++k) scale *= 10;
    std::int64_t value = whole * scale + fraction;
    if (negative) value = -value;
    if (value > std::numeric_limits<int>::max() || value < std::numeric_limits<int>::min()) return std::nullopt;
    return static_cast<int>(value);
}

std::string FormatFixed(int scaled, int places)
{
    std::int64_t v = scaled;
    const bool negative = v < 0;
    if (negative) v = -v;
    std::int64_t scale = 1;
    for (int k = 0; k < places; ++k) scale *= 10;
    std::string out = negative ? "-" : "";
    out += std::to_string(v / scale);
    if (places > 0) {
        std::string frac = std::to_string(v % scale);
        out += '.';
        out.append(static_cast<std::size_t>(places) - frac.size(), '0');
        out += frac;
    }
    return out;
}

}  // namespace zub::settings
