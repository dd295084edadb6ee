#include "effectcache/EffectSaveQueue.h"

#include <algorithm>
#include <cassert>
#include <utility>

namespace Tovrel {

bool EffectSaveQueue::Add(const std::string& name, PendingEffect&& effect, std::uint64_t bytes,
                          std::uint64_t threshold) {
  assert(effect.bytes.Count() >= 1);
  std::lock_guard<std::mutex> held(lock_);
  // The node is made before the map changes: out of memory leaves it as it was.
  PendingMap one;
  effect.fileBytes = bytes;
  one.emplace(name, std::move(effect));
  auto existing = waiting_.find(name);
  if (existing != waiting_.end()) {
    existing->second = std::move(one.begin()->second);
  } else {
    waiting_.insert(one.extract(one.begin()));
  }
  waitingBytes_ += bytes;
  added_.fetch_add(1, std::memory_order_relaxed);
  CountHeld();
  return waitingBytes_ >= threshold;
}

bool EffectSaveQueue::CopyFrom(const PendingMap& effects, const std::string& name, Tab<unsigned char>& data) {
  const auto found = effects.find(name);
  if (found == effects.end()) return false;
  data.ZeroCount();
  data.Append(found->second.bytes.Count(), found->second.bytes.Addr(0));
  return true;
}

bool EffectSaveQueue::Find(const std::string& name, Tab<unsigned char>& data) const {
  if (held_.load(std::memory_order_acquire) == 0) return false;
  std::lock_guard<std::mutex> held(lock_);
  return CopyFrom(waiting_, name, data) || CopyFrom(saving_, name, data);
}

bool EffectSaveQueue::WaitUnderBound(std::uint64_t bound) {
  std::unique_lock<std::mutex> held(lock_);
  if (waitingBytes_ + savingBytes_ <= bound || !saveUnderWay_) return false;
  boundWaits_.fetch_add(1, std::memory_order_relaxed);
  finished_.wait(held, [&] { return waitingBytes_ + savingBytes_ <= bound || !saveUnderWay_; });
  return true;
}

bool EffectSaveQueue::Take(std::uint64_t bytes) {
  std::lock_guard<std::mutex> held(lock_);
  assert(saving_.empty() && savingBytes_ == 0);
  // Moving nodes allocates nothing; searches find each effect in one map
  // or the other, as they look in both under the lock.
  while (!waiting_.empty() && savingBytes_ < bytes) {
    auto node = waiting_.extract(waiting_.begin());
    savingBytes_ += node.mapped().fileBytes;
    saving_.insert(std::move(node));
  }
  // A name cached twice counted twice: what is left counts with nothing waiting.
  waitingBytes_ = waiting_.empty() ? 0 : waitingBytes_ - std::min(waitingBytes_, savingBytes_);
  saveUnderWay_ = !saving_.empty();
  return saveUnderWay_;
}

template <typename Effects, typename Give>
void EffectSaveQueue::GiveBytesTo(Effects& saving, PendingMap& pending, Give give) {
  for (auto& entry : saving) {
    const auto kept = pending.find(entry.first);
    if (kept == pending.end() || kept->second.bytes.Count() != 0) continue;
    give(entry.second.bytes, kept->second.bytes);
    kept->second.heldSize = 0;
  }
}

void EffectSaveQueue::FinishInto(PendingMap& pending) {
  std::lock_guard<std::mutex> held(lock_);
  GiveBytesTo(saving_, pending, [](Tab<unsigned char>& from, Tab<unsigned char>& to) { to = std::move(from); });
  saving_.clear();
  savingBytes_ = 0;
  saveUnderWay_ = false;
  CountHeld();
  finished_.notify_all();
}

void EffectSaveQueue::CopyBytesInto(PendingMap& pending) const {
  std::lock_guard<std::mutex> held(lock_);
  GiveBytesTo(saving_, pending, [](const Tab<unsigned char>& from, Tab<unsigned char>& to) { to = from; });
}

void EffectSaveQueue::GiveBack() {
  std::lock_guard<std::mutex> held(lock_);
  waiting_.merge(saving_);  // a name waiting already keeps its newer copy
  saving_.clear();
  waitingBytes_ += savingBytes_;
  savingBytes_ = 0;
  saveUnderWay_ = false;
  CountHeld();
  finished_.notify_all();
}

void EffectSaveQueue::MoveWaitingInto(PendingMap& pending, std::uint64_t* pendingBytes) {
  std::lock_guard<std::mutex> held(lock_);
  MovePendingEffects(waiting_, pending);
  *pendingBytes += waitingBytes_;
  waitingBytes_ = 0;
  CountHeld();
}

std::size_t EffectSaveQueue::CountBeside(const PendingMap& pending) const {
  std::lock_guard<std::mutex> held(lock_);
  std::size_t count = 0;
  for (const auto& effect : waiting_) count += pending.count(effect.first) == 0 ? 1 : 0;
  for (const auto& effect : saving_) {
    count += pending.count(effect.first) == 0 && waiting_.count(effect.first) == 0 ? 1 : 0;
  }
  return count;
}

std::uint64_t EffectSaveQueue::SavingBytes() const {
  std::lock_guard<std::mutex> held(lock_);
  return savingBytes_;
}

std::uint64_t EffectSaveQueue::Bytes() const {
  std::lock_guard<std::mutex> held(lock_);
  return waitingBytes_ + savingBytes_;
}

void EffectSaveQueue::CountHeld() { held_.store(waiting_.size() + saving_.size(), std::memory_order_release); }

}  // namespace Tovrel
