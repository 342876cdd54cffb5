// Reading response header lines: the same for every platform's client.
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "net/http_client.h"

namespace zelvarpack::net {

std::optional<std::string> FindHeader(const std::vector<std::string>& headerLines,
                                      std::string_view name) {
  auto lower = [](char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; };
  for (std::size_t i = 1; i < headerLines.size(); ++i) {
    const std::string_view line = headerLines[i];
    if (line.size() <= name.size() || line[name.size()] != ':') continue;
    bool same = true;
    for (std::size_t k = 0; k < name.size() && same; ++k) same = lower(line[k]) == lower(name[k]);
    if (!same) continue;
    std::string_view value = line.substr(name.size() + 1);
    while (!value.empty() && (value.front() == ' ' || value.front() == '\t'))
      value.remove_prefix(1);
    while (!value.empty() && (value.back() == ' ' || value.back() == '\t')) value.remove_suffix(1);
    return std::string(value);
  }
  return std::nullopt;
}

}  // namespace zelvarpack::net
