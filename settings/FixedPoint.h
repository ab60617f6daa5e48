// Numbers typed as decimal text and held as scaled integers (hundredths for two places), so
// what an edit shows, what a page validates and what is stored never disagree by a rounding.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace zub::settings {

// "3.00" with 2 places -> 300. Accepts an optional sign, digits, and at most `places`
// digits after a '.'; surrounding blanks are ignored. Anything else (empty text, letters,
// more places than shown, a value beyond int) gives nullopt.
std::optional<int> ParseFixed(std::string_view text, int places);

// 300 with 2 places -> "3.00"; -5 -> "-0.05".
std::string FormatFixed(int scaled, int places);

}  // namespace zub::settings
