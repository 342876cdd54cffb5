#include "store/composite_cache.h"

#include <utility>

namespace zelvarpack::store {

std::size_t CompositeCache::Entry::Footprint() const {
  return sizeof(Entry) + stored.capacity() + (plain != nullptr ? plain->capacity() : 0) +
         (prefix != nullptr ? prefix->Footprint() : 0);
}

std::shared_ptr<const CompositeCache::Entry> CompositeCache::Find(std::int32_t compositeId) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto found = slots_.find(compositeId);
  if (found == slots_.end()) return nullptr;
  uses_.splice(uses_.begin(), uses_, found->second.use);
  return found->second.entry;
}

void CompositeCache::Put(std::int32_t compositeId, std::shared_ptr<const Entry> entry) {
  std::lock_guard<std::mutex> lock(mutex_);
  ForgetLocked(compositeId);
  if (entry == nullptr || entry->Footprint() > maxBytes_) return;
  bytes_ += entry->Footprint();
  uses_.push_front(compositeId);
  slots_[compositeId] = Slot{std::move(entry), uses_.begin()};
  while (bytes_ > maxBytes_) ForgetLocked(uses_.back());
}

void CompositeCache::Forget(std::int32_t compositeId) {
  std::lock_guard<std::mutex> lock(mutex_);
  ForgetLocked(compositeId);
}

std::vector<std::pair<std::int32_t, std::shared_ptr<const CompositeCache::Entry>>>
CompositeCache::Snapshot() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::pair<std::int32_t, std::shared_ptr<const Entry>>> entries;
  entries.reserve(slots_.size());
  for (const auto& [id, slot] : slots_) entries.emplace_back(id, slot.entry);
  return entries;
}

std::size_t CompositeCache::size() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return slots_.size();
}

void CompositeCache::ForgetLocked(std::int32_t compositeId) {
  auto found = slots_.find(compositeId);
  if (found == slots_.end()) return;
  bytes_ -= found->second.entry->Footprint();
  uses_.erase(found->second.use);
  slots_.erase(found);
}

}  // namespace zelvarpack::store
