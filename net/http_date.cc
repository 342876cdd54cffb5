#include "net/http_date.h"

#include <array>
#include <string>
#include <vector>

namespace zelvarpack::net {

namespace {

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

std::optional<int> Number(std::string_view digits) {
  if (digits.empty() || digits.size() > 4) return std::nullopt;
  int value = 0;
  for (const char c : digits) {
    if (!IsDigit(c)) return std::nullopt;
    value = value * 10 + (c - '0');
  }
  return value;
}

int MonthOf(std::string_view name) {
  static constexpr std::array<std::string_view, 12> kMonths = {
      "jan", "feb", "mar", "apr", "may", "jun", "jul", "aug", "sep", "oct", "nov", "dec"};
  if (name.size() != 3) return 0;
  std::string lower(name);
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
  }
  for (std::size_t i = 0; i < kMonths.size(); ++i) {
    if (lower == kMonths[i]) return static_cast<int>(i) + 1;
  }
  return 0;
}

// Days from 1970-01-01 to the given civil date (proleptic Gregorian).
std::int64_t DaysFromCivil(std::int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
  const auto yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

bool IsLeap(int y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

}  // namespace

std::optional<std::int64_t> ParseHttpDate(std::string_view text) {
  std::vector<std::string_view> tokens;
  std::size_t start = 0;
  for (std::size_t i = 0; i <= text.size(); ++i) {
    if (i == text.size() || text[i] == ' ' || text[i] == ',' || text[i] == '-' || text[i] == '\t') {
      if (i > start) tokens.push_back(text.substr(start, i - start));
      start = i + 1;
    }
  }
  int day = -1, month = 0, year = -1, hour = -1, minute = -1, second = -1;
  for (std::size_t i = 0; i < tokens.size(); ++i) {
    const std::string_view token = tokens[i];
    if (token.size() == 8 && token[2] == ':' && token[5] == ':') {
      const auto h = Number(token.substr(0, 2)), m = Number(token.substr(3, 2)),
                 s = Number(token.substr(6, 2));
      if (!h || !m || !s || hour >= 0) return std::nullopt;
      hour = *h, minute = *m, second = *s;
    } else if (IsDigit(token[0])) {
      const auto value = Number(token);
      if (!value) return std::nullopt;
      if (day < 0 && token.size() <= 2 && (month == 0 || i + 1 < tokens.size())) {
        day = *value;
      } else if (year < 0 && (token.size() == 4 || token.size() == 2)) {
        year = token.size() == 4 ? *value : (*value < 70 ? 2000 + *value : 1900 + *value);
      } else {
        return std::nullopt;
      }
    } else if (const int m = MonthOf(token); m != 0 && month == 0) {
      month = m;
    } else if (i == 0) {
      continue;  // the weekday
    } else if (i + 1 == tokens.size() && (token == "GMT" || token == "UTC")) {
      continue;
    } else {
      return std::nullopt;
    }
  }
  static constexpr int kDaysIn[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (day < 1 || month == 0 || year < 0 || hour < 0 || hour > 23 || minute > 59 || second > 60) {
    return std::nullopt;
  }
  if (day > kDaysIn[month - 1] + (month == 2 && IsLeap(year) ? 1 : 0)) return std::nullopt;
  return DaysFromCivil(year, static_cast<unsigned>(month), static_cast<unsigned>(day)) * 86400 +
         hour * 3600 + minute * 60 + second;
}

}  // namespace zelvarpack::net
