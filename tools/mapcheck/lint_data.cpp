// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/mapcheck/lint_data.hpp"

#include <fmt/format.h>
#include <cctype>
#include <limits>
#include <set>
#include <unordered_set>
#include <utility>
#include <vector>

#include "mkperms_shm.h"
#include "tools/mapcheck/json_stream.hpp"
#include "tools/mapcheck/lint_size.hpp"
#include "tools/text/counted.hpp"

namespace tavrix::mapcheck {
namespace {

constexpr const char* kFile = "data file";
constexpr uint64_t kMost32 = std::numeric_limits<uint32_t>::max();
constexpr uint64_t kEveryRight = 31;
constexpr std::size_t kDeep = 1000;  // folders; paths in deeper trees may become too long
constexpr const char* kAclKeys[] = {"NUMUSERS", "NUMGROUPS", "USERS", "GROUPS"};

// An open bracket: its kind, and what was seen in it so far.
struct Frame {
  enum class Kind { kChildren, kChildCount, kFolder, kAcl, kAclItem, kIds } kind;
  std::string key;  // the member whose value comes next; empty when none does
  std::set<std::string> keys;
  std::string name;                       // kFolder
  bool has_count = false;                 // kChildren
  uint64_t declared = 0;                  // kChildren: by the count; kAclItem: users or groups
  uint64_t found = 0;                     // kChildren: folders; kAcl: items; kIds: entries
  std::unordered_set<std::string> names;  // kChildren: folded; kIds: the ids
};

std::string folded(std::string_view name) {
  std::string result(name);
  for (char& c : result) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return result;
}

class DataLinter : public JsonEvents {
 public:
  explicit DataLinter(LintResult& result) : result_(result), stream_(*this) {}

  bool run(Source& source) {
    const bool parsed = stream_.run(source);
    if (!stream_.error().empty()) error(stream_.error());
    if (stream_.lone_surrogate() >= 0) {
      result_.findings.add({Severity::kError, kFile, "",
                            static_cast<uint64_t>(stream_.lone_surrogate()),
                            "half of a surrogate pair; the import reads it as \"?\""});
    }
    return parsed;
  }

  bool start_array() override {
    if (frames_.empty()) return push(Frame::Kind::kChildren);
    Frame& top = frames_.back();
    if (top.kind != Frame::Kind::kFolder || top.key.empty())
      return stop("an array does not fit here");
    const std::string key = std::exchange(top.key, "");
    if (key == "CHILDREN") return push(Frame::Kind::kChildren);
    if (key == "ACL") return push(Frame::Kind::kAcl);
    return stop(fmt::format("\"{}\" is an array", key));
  }

  bool start_object() override {
    if (frames_.empty()) return stop("the document is not an array");
    Frame& top = frames_.back();
    switch (top.kind) {
      case Frame::Kind::kChildren:
        if (!top.has_count) {
          top.has_count = true;
          return push(Frame::Kind::kChildCount);
        }
        return start_folder(top);
      case Frame::Kind::kAcl:
        if (top.found == 4) return stop("the ACL has a fifth object");
        ++top.found;
        return push(Frame::Kind::kAclItem);
      case Frame::Kind::kAclItem:
        if (top.key == "USERS" || top.key == "GROUPS") {
          top.key.clear();
          return push(Frame::Kind::kIds);
        }
        return stop("an object does not fit here");
      default:
        return stop("an object does not fit here");
    }
  }

  bool key(std::string_view text) override {
    Frame& top = frames_.back();
    if (top.kind == Frame::Kind::kIds) return start_entry(top, text);
    const std::string name(text);
    if (!fits(top, name)) return stop(fmt::format("the key \"{}\" does not fit here", name));
    if (!top.keys.insert(name).second) return stop(fmt::format("\"{}\" appears twice", name));
    top.key = name;
    return true;
  }

  bool text(std::string_view text) override {
    if (frames_.empty()) return stop("the document is not an array");
    Frame& top = frames_.back();
    if (top.kind != Frame::Kind::kFolder || top.key != "DIR") {
      return stop("a text where a number or an object is expected");
    }
    top.key.clear();
    return take_name(top, text);
  }

  bool number(std::string_view token) override {
    if (frames_.empty()) return stop("the document is not an array");
    Frame& top = frames_.back();
    const Number number = number_of(token);
    if (!number.is_plain) warn(fmt::format("the number {} is read as {}", token, number.value));
    if (top.key.empty() || top.kind == Frame::Kind::kFolder)
      return stop("a number does not fit here");
    top.key.clear();
    switch (top.kind) {
      case Frame::Kind::kIds:
        return take_mask(token, number.value);
      case Frame::Kind::kChildCount:
        top.declared = number.value;
        return true;
      case Frame::Kind::kAclItem:
        frames_[frames_.size() - 2].declared = number.value;  // looked at with the entries
        counts_of_acl_[top.keys.count("NUMGROUPS")] = number.value;
        return true;
      default:
        return stop("a number does not fit here");
    }
  }

  bool other(std::string_view what) override {
    return stop(fmt::format("{} does not fit anywhere", what));
  }

  bool end_object() override {
    const Frame frame = std::move(frames_.back());
    frames_.pop_back();
    switch (frame.kind) {
      case Frame::Kind::kChildCount:
        return end_child_count(frame);
      case Frame::Kind::kFolder:
        return end_folder(frame);
      case Frame::Kind::kAclItem:
        if (frame.keys.empty()) return stop("an empty object in an ACL");
        return true;
      case Frame::Kind::kIds:
        return end_ids(frame);
      default:
        return stop("an object ends where none began");
    }
  }

  bool end_array() override {
    const Frame frame = std::move(frames_.back());
    frames_.pop_back();
    if (frame.kind == Frame::Kind::kAcl) {
      if (frame.found < 4) return stop(fmt::format("the ACL has {} of its 4 objects", frame.found));
      return true;
    }
    if (!frame.has_count) return stop("an array of children without its count");
    if (frame.found != frame.declared) {
      error(fmt::format("NUMCHILDREN is {}, and {} {}", frame.declared,
                        text::counted(frame.found, "folder"),
                        text::verb(frame.found, "follows", "follow")));
    }
    result_.data.widest = std::max(result_.data.widest, frame.found);
    return true;
  }

 private:
  bool push(Frame::Kind kind) {
    frames_.push_back({.kind = kind, .key = {}, .keys = {}, .name = {}, .names = {}});
    return true;
  }

  bool start_folder(Frame& children) {
    ++children.found;
    ++result_.data.folders;
    ++depth_;
    const uint64_t below_root = depth_ - 1;
    if (below_root > result_.data.deepest) {
      result_.data.deepest = below_root;
      if (below_root == kDeep) warn(fmt::format("deeper than {} folders", kDeep - 1));
    }
    return push(Frame::Kind::kFolder);
  }

  [[nodiscard]] bool fits(const Frame& top, const std::string& key) const {
    switch (top.kind) {
      case Frame::Kind::kChildCount:
        return key == "NUMCHILDREN";
      case Frame::Kind::kFolder:
        return key == "DIR" || key == "ACL" || key == "CHILDREN";
      case Frame::Kind::kAclItem:
        // Each of the four objects has its one key, in this order.
        return top.keys.empty() && key == kAclKeys[frames_[frames_.size() - 2].found - 1];
      default:
        return false;
    }
  }

  bool take_name(Frame& folder, std::string_view name) {
    folder.name = name;
    result_.data.name_bytes += name.size() + 1;
    const bool is_root = depth_ == 1 && result_.data.folders == 1;
    if (name.empty()) return stop("an empty name");
    if (is_root && name != "/") error(fmt::format("the root is named \"{}\", not \"/\"", name));
    if (!is_root && name.find('/') != std::string_view::npos) error("the name holds a slash");
    if (!is_root && (name == "." || name == ".."))
      error("a folder cannot be named \".\" or \"..\"");
    if (name.find('\0') != std::string_view::npos) error("the name holds a NUL");
    if (name.size() > std::numeric_limits<uint16_t>::max()) {
      return stop(fmt::format("the name has {} bytes; 65535 is the most", name.size()));
    }
    if (!frames_[frames_.size() - 2].names.insert(folded(name)).second) {
      warn("a sibling's name differs only in case; lookups find the first one");
    }
    return true;
  }

  bool start_entry(Frame& ids, std::string_view text) {
    const Number id = number_of(text);
    if (!id.is_plain) {
      error(fmt::format("the id \"{}\" is read as {}", text, id.value));
    } else if (id.value > kMost32) {
      error(fmt::format("the id {} has more than 32 bits", text));
    }
    if (!ids.names.insert(std::string(text)).second) {
      warn(fmt::format("two entries for the id {}", text));
    }
    ids.key = text;
    ++ids.found;
    ++result_.data.aces;
    return true;
  }

  bool take_mask(std::string_view token, uint64_t mask) {
    if (mask > std::numeric_limits<uint16_t>::max()) {
      error(fmt::format("the mask {} has more than 16 bits", token));
    } else if (mask > kEveryRight) {
      warn(fmt::format("the mask {} has bits without a meaning", token));
    }
    return true;
  }

  bool end_child_count(const Frame& frame) {
    if (frame.keys.empty()) return stop("an empty object where a count is expected");
    Frame& children = frames_.back();
    children.declared = frame.declared;
    if (frames_.size() == 1) {
      if (frame.declared == 0)
        error("the count around the root is 0; its children could not be made");
      if (frame.declared > 1)
        warn("the count around the root is not 1; it reserves more than it needs");
    }
    if (frame.declared > 0) {
      result_.data.list_bytes += sizeof(child_list_s) + sizeof(uint32_t) * frame.declared;
    }
    return true;
  }

  bool end_folder(const Frame& folder) {
    if (folder.keys.count("DIR") == 0) error_at(folder, "a folder without DIR");
    if (folder.keys.count("CHILDREN") == 0) {
      error_at(folder, "a folder without CHILDREN; its list would be the root's");
    }
    if (folder.keys.count("ACL") == 0) {
      error_at(folder, "a folder without ACL; it would take the first one of the map");
    }
    --depth_;
    return true;
  }

  bool end_ids(const Frame& ids) {
    const bool is_groups = frames_.back().keys.count("GROUPS") != 0;
    const uint64_t declared = counts_of_acl_[is_groups ? 1 : 0];
    if (declared != ids.found) {
      warn(fmt::format("{} is {}, and there {} {}; the import does not use it",
                       is_groups ? "NUMGROUPS" : "NUMUSERS", declared,
                       text::verb(ids.found, "is", "are"), text::counted(ids.found, "entry")));
    }
    return true;
  }

  // Returns the path of the open folders, with "?" for a folder whose name comes later.
  [[nodiscard]] std::string place() const {
    std::string path;
    bool is_root = true;
    for (const Frame& frame : frames_) {
      if (frame.kind != Frame::Kind::kFolder) continue;
      if (!std::exchange(is_root, false)) path += "/" + (frame.name.empty() ? "?" : frame.name);
    }
    if (path.size() > 300) path = "..." + path.substr(path.size() - 300);
    return path.empty() ? "/" : path;
  }

  void error_at(const Frame& folder, const std::string& text) {
    std::string path = place();
    if (!frames_.empty() && result_.data.folders > 1) {
      path += (path == "/" ? "" : "/") + (folder.name.empty() ? "?" : folder.name);
    }
    result_.findings.add({Severity::kError, kFile, path, stream_.offset(), text});
  }
  void error(std::string text) { add(Severity::kError, std::move(text)); }
  void warn(std::string text) { add(Severity::kWarning, std::move(text)); }
  bool stop(std::string text) {
    error(std::move(text));
    return false;
  }
  void add(Severity severity, std::string text) {
    result_.findings.add({severity, kFile, place(), stream_.offset(), std::move(text)});
  }

  LintResult& result_;
  JsonStream stream_;
  std::vector<Frame> frames_;
  uint64_t depth_ = 0;
  uint64_t counts_of_acl_[2] = {0, 0};  // users, groups
};

}  // namespace

bool lint_data_file(Source& source, LintResult& result) { return DataLinter(result).run(source); }

}  // namespace tavrix::mapcheck
