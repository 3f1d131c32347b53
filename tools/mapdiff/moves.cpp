// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/mapdiff/moves.hpp"

#include <algorithm>
#include <functional>
#include <tuple>

#include "tools/mapdiff/compare.hpp"

namespace tavrix::mapdiff {
namespace {

constexpr uint32_t kNone = UINT32_MAX;

uint64_t mixed(uint64_t value) {
  value ^= value >> 33U;
  value *= 0xff51afd7ed558ccdULL;
  value ^= value >> 33U;
  value *= 0xc4ceb9fe1a85ec53ULL;
  return value ^ value >> 33U;
}

uint64_t hash_of(std::string_view text) { return mixed(std::hash<std::string_view>{}(text)); }

// The folders of subtrees, each before those below it: the subtree of folder i is the range of
// `size` folders that begins with it.
struct Node {
  uint32_t folder;
  uint32_t parent;  // kNone for a top
  uint32_t size = 1;
  bool is_taken = false;         // it moved
  bool is_with_entries = false;  // it, or a folder below it
  uint64_t content = 0;          // hash of the entries and of what is below, not of the name
};

class Forest {
 public:
  Forest(const ImageView& map, const std::vector<Subtree>& tops) : map_(map) {
    for (const Subtree& top : tops) add(top.folder);
    sum_up();
  }
  std::vector<Node> nodes;

  [[nodiscard]] uint64_t name_hash(const Node& node) const {
    return hash_of(name_of(map_, node.folder));
  }
  void take(uint32_t node) {
    for (uint32_t i = node; i < node + nodes[node].size; ++i) nodes[i].is_taken = true;
  }
  // The tops of what was not taken.
  [[nodiscard]] std::vector<Subtree> rest() const {
    std::vector<Subtree> subtrees;
    for (const Node& node : nodes) {
      if (node.parent == kNone && !node.is_taken) subtrees.push_back({node.folder, 0});
      if (!node.is_taken) ++subtrees.back().folders;
    }
    return subtrees;
  }

 private:
  void add(uint32_t top) {
    std::vector<std::pair<uint32_t, uint32_t>> to_come{{top, kNone}};
    while (!to_come.empty()) {
      const auto [folder, parent] = to_come.back();
      to_come.pop_back();
      const auto place = static_cast<uint32_t>(nodes.size());
      nodes.push_back({.folder = folder, .parent = parent});
      const Children children(map_, folder);
      for (uint32_t slot = children.size(); slot > 0; --slot) {
        to_come.emplace_back(children[slot - 1], place);
      }
    }
  }
  // From the last folder to the first, so that what is below a folder is summed up before it. The
  // order of children makes no difference to a sum.
  void sum_up() {
    std::vector<Entry> entries;
    for (auto node = nodes.rbegin(); node != nodes.rend(); ++node) {
      read_entries(map_, node->folder, entries);
      uint64_t own = entries.size();
      for (const Entry& entry : entries) {
        own = mixed(own + (uint64_t{entry.id} << 32U | entry.type << 16U | entry.mask));
      }
      node->is_with_entries = node->is_with_entries || !entries.empty();
      node->content = mixed(node->content + own);
      if (node->parent == kNone) continue;
      Node& parent = nodes[node->parent];
      parent.size += node->size;
      parent.is_with_entries = parent.is_with_entries || node->is_with_entries;
      parent.content += mixed(node->content ^ name_hash(*node));
    }
  }

  const ImageView& map_;
};

// Added folders by a hash. The first of each hash knows how many of them are taken.
class Candidates {
 public:
  using Hash = std::function<uint64_t(const Node&)>;
  Candidates(const Forest& forest, const Hash& hash) : forest_(forest) {
    order_.reserve(forest.nodes.size());
    for (uint32_t i = 0; i < forest.nodes.size(); ++i) order_.push_back({hash(forest.nodes[i]), i});
    std::ranges::sort(order_, [](const Place& a, const Place& b) {
      return std::tie(a.hash, a.node) < std::tie(b.hash, b.node);
    });
  }
  // The first that is not taken; kNone if there is none.
  [[nodiscard]] uint32_t first(uint64_t hash) {
    const auto begin = std::ranges::lower_bound(order_, hash, {}, &Place::hash);
    if (begin == order_.end() || begin->hash != hash) return kNone;
    for (auto place = begin + begin->taken; place != order_.end() && place->hash == hash; ++place) {
      if (!forest_.nodes[place->node].is_taken) return place->node;
      ++begin->taken;
    }
    return kNone;
  }

 private:
  struct Place {
    uint64_t hash;
    uint32_t node;
    uint32_t taken = 0;
  };
  const Forest& forest_;
  std::vector<Place> order_;
};

class MoveSearch {
 public:
  MoveSearch(const ImageView& old_map, const ImageView& new_map, const Difference& found)
      : removed_(old_map, found.removed),
        added_(new_map, found.added),
        comparison_(old_map, new_map),
        named_(added_,
               [this](const Node& node) { return mixed(node.content ^ added_.name_hash(node)); }),
        any_(added_, [](const Node& node) { return node.content; }) {}

  void run(Difference& found) {
    // The largest first: then nothing below a folder has moved without it.
    std::vector<uint32_t> order(removed_.nodes.size());
    for (uint32_t i = 0; i < order.size(); ++i) order[i] = i;
    std::stable_sort(order.begin(), order.end(), [this](uint32_t a, uint32_t b) {
      return removed_.nodes[a].size > removed_.nodes[b].size;
    });
    std::vector<std::pair<uint32_t, Move>> moves;
    for (const uint32_t i : order) {
      const Node& node = removed_.nodes[i];
      if (node.is_taken) continue;
      const uint32_t target = target_of(node);
      if (target == kNone) continue;
      moves.push_back({i, {node.folder, added_.nodes[target].folder, node.size}});
      removed_.take(i);
      added_.take(target);
    }
    std::sort(moves.begin(), moves.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    for (const auto& [place, move] : moves) found.moved.push_back(move);
    found.removed = removed_.rest();
    found.added = added_.rest();
  }

 private:
  [[nodiscard]] uint32_t target_of(const Node& node) {
    const uint32_t same_name = named_.first(mixed(node.content ^ removed_.name_hash(node)));
    if (same_name != kNone) {
      const bool is_known = node.is_with_entries || are_tops(node, same_name);
      return is_known && is_same(node, same_name) ? same_name : kNone;
    }
    const uint32_t other_name = any_.first(node.content);
    if (other_name == kNone) return kNone;
    const bool is_known = are_tops(node, other_name) ? node.size > 1 || node.is_with_entries
                                                     : node.size > 1 && node.is_with_entries;
    return is_known && is_same(node, other_name) ? other_name : kNone;
  }
  [[nodiscard]] bool are_tops(const Node& node, uint32_t target) const {
    return node.parent == kNone && added_.nodes[target].parent == kNone;
  }
  [[nodiscard]] bool is_same(const Node& node, uint32_t target) {
    return added_.nodes[target].size == node.size &&
           comparison_.is_same(node.folder, added_.nodes[target].folder);
  }

  Forest removed_, added_;
  Comparison comparison_;
  Candidates named_, any_;
};

}  // namespace

void find_moves(const ImageView& old_map, const ImageView& new_map, Difference& found) {
  if (found.removed.empty() && found.added.empty()) return;
  MoveSearch(old_map, new_map, found).run(found);
}

}  // namespace tavrix::mapdiff
