#include "page/warm_memo.h"

namespace zelvarpack::page {

template <typename Value>
std::optional<Value> WarmMemo::Table<Value>::Find(const std::string& key) {
  const auto found = index.find(key);
  if (found == index.end()) return std::nullopt;
  entries.splice(entries.begin(), entries, found->second);
  return found->second->second;
}

template <typename Value>
void WarmMemo::Table<Value>::Remember(const std::string& key, const Value& value) {
  const auto found = index.find(key);
  if (found != index.end()) {
    found->second->second = value;
    entries.splice(entries.begin(), entries, found->second);
    return;
  }
  entries.emplace_front(key, value);
  index[key] = entries.begin();
  if (entries.size() > kMaxEntries) {
    index.erase(entries.back().first);
    entries.pop_back();
  }
}

WarmMemo& WarmMemo::Shared() {
  static WarmMemo* memo = new WarmMemo;  // never destroyed: pages may run at exit
  return *memo;
}

std::optional<std::string> WarmMemo::FindStyles(const std::string& digest) {
  std::lock_guard<std::mutex> lock(mutex_);
  return styles_.Find(digest);
}

void WarmMemo::RememberStyles(const std::string& digest, const std::string& id) {
  std::lock_guard<std::mutex> lock(mutex_);
  styles_.Remember(digest, id);
}

std::optional<SpriteResult> WarmMemo::FindSprites(const std::string& digest) {
  std::lock_guard<std::mutex> lock(mutex_);
  return sprites_.Find(digest);
}

void WarmMemo::RememberSprites(const std::string& digest, const SpriteResult& result) {
  std::lock_guard<std::mutex> lock(mutex_);
  sprites_.Remember(digest, result);
}

}  // namespace zelvarpack::page
