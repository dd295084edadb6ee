#include "effectcache/PendingEffect.h"

#include <utility>

namespace Tovrel {

void MovePendingEffects(PendingMap& from, PendingMap& into) {
  while (!from.empty()) {
    auto node = from.extract(from.begin());
    auto existing = into.find(node.key());
    if (existing != into.end()) {
      existing->second = std::move(node.mapped());
    } else {
      into.insert(std::move(node));
    }
  }
}

}  // namespace Tovrel
