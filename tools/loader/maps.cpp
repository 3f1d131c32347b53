#include "tools/loader/maps.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <vector>

#include "perm_map.h"
#include "read_perms.h"
#include "sweeper_log.h"
#include "tavrix_vfs_utils.h"
#include "tools/mapcheck/lint.hpp"
#include "tools/mapcheck/verify.hpp"
#include "tools/mapload/map_loader.hpp"

namespace tavrix::loader {
namespace {

namespace fs = std::filesystem;

const char* kLocalCopy = TAVRIX_PERMBE_MAP_PATH;
constexpr std::size_t kShown = 20;  // findings in a reason

// Server processes look at the time of this file at their next status query.
void touch_marker() {
  const Fd marker(
      open(TAVRIX_PERMISSION_MARKER_PATH, O_CREAT | O_WRONLY | O_CLOEXEC | O_NOCTTY, 0644));
  if (marker) futimens(marker.get(), nullptr);
}

std::string text_of(const mapcheck::Findings& findings) {
  std::string text;
  std::size_t shown = 0;
  for (const mapcheck::Finding& finding : findings.kept()) {
    if (++shown > kShown) break;
    text +=
        fmt::format("\n{}{}{} byte {}: {}",
                    finding.severity == mapcheck::Severity::kError ? "error" : "warning",
                    finding.file.empty() ? "" : " " + finding.file,
                    finding.where.empty() ? "" : " " + finding.where, finding.offset, finding.text);
  }
  return text;
}

Result report(const mapload::Loaded& loaded) {
  if (!loaded.ok()) return {false, loaded.error + text_of(loaded.findings)};
  touch_marker();
  return {true, fmt::format("table {} is current: {} folders, {} entries, {} bytes", loaded.table,
                            loaded.folders, loaded.entries, loaded.bytes)};
}

bool is_sound_image(const char* path) {
  std::ifstream in(path, std::ios::binary);
  const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), {});
  const auto* start = reinterpret_cast<const std::byte*>(bytes.data());
  return !bytes.empty() && mapcheck::verify({start, bytes.size()}).errors() == 0;
}

}  // namespace

Result load_pair(const Pair& pair) {
  std::string error;
  const auto checked = mapcheck::lint_files(pair.size, pair.data, error);
  if (!checked) return {false, error};
  if (checked->findings.errors() > 0) {
    // The import would say this itself, but it trusts what it reads.
    log_perm_error("Failed processing permission map", CORRUPTED_PERMISSION_MAP,
                   SWEEPER_LOGSEV_ERR);
    return {false,
            fmt::format("{} errors{}", checked->findings.errors(), text_of(checked->findings))};
  }
  return report(mapload::load({pair.size.c_str(), pair.data.c_str(), false, {}}));
}

Result restore() { return report(mapload::load({})); }

Recovery recover(bool redo) {
  Recovery done;
  if (init_perm_map_semaphore() == 0) done.removed_table = mapload::remove_stale_table();
  std::error_code none;
  if (!fs::exists(mapload::kCopyBefore, none)) return done;
  // The import removes the pair when the new copy is whole on the disk, and not before.
  if (!redo && is_sound_image(kLocalCopy)) {
    fs::remove(mapload::kCopyBefore, none);
    done.must_restore = true;
  } else {
    fs::rename(mapload::kCopyBefore, kLocalCopy, none);
    done.took_copy_back = true;
  }
  return done;
}

bool has_map() { return init_perm_map_semaphore() == 0 && mapload::has_current_table(); }

bool has_local_copy() {
  std::error_code none;
  return fs::exists(kLocalCopy, none);
}

}  // namespace tavrix::loader
