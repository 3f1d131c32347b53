// SPDX-License-Identifier: LGPL-3.0-or-later
// The first pass of an import: the size file into a summary.

#include <sys/stat.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "internal/assert.hpp"
#include "internal/scoped.hpp"
#include "logging.h"
#include "mkperms_shm.h"
#include "permissions/import/json_parse.hpp"
#include "permissions/import/parse_stack.hpp"
#include "permissions/import/report.hpp"
#include "read_perms.h"
#include "sweeper_log.h"

namespace tavrix {
namespace {

// The summary of the running size pass. The callbacks have no other way to it.
memsummary_s* memsummary1 = nullptr;

struct KeyState {
  const char* key;
  json_mapsize_states state;
};

constexpr KeyState state_arr1[] = {
    {"MAPNAME", SHMMAPSZ_STATE_MAPNAME},
    {"VERSION", SHMMAPSZ_STATE_VERSION},
    {"GENERATIONNUM", SHMMAPSZ_STATE_GENERATIONNUM},
    {"TIMESTAMP", SHMMAPSZ_STATE_TIMESTAMP},
    {"TOTALFSELEMS", SHMMAPSZ_STATE_TOTALFSELEMS},
    {"TOTALACES", SHMMAPSZ_STATE_TOTALACES},
    {"TOTALNAMELEN", SHMMAPSZ_STATE_TOTALNAMELEN},
};

json_mapsize_states state_of_key(std::string_view key) {
  for (const KeyState& row : state_arr1) {
    if (key == row.key) return row.state;
  }
  return SHMMAPSZ_STATE_INVAL;
}

constexpr yajl_callbacks size_pass_callbacks{.yajl_null = nullptr,
                                             .yajl_boolean = nullptr,
                                             .yajl_integer = nullptr,
                                             .yajl_double = nullptr,
                                             .yajl_number = beshm_number,
                                             .yajl_string = beshm_string,
                                             .yajl_start_map = beshm_start_map,
                                             .yajl_map_key = beshm_map_key,
                                             .yajl_end_map = beshm_end_map,
                                             .yajl_start_array = nullptr,
                                             .yajl_end_array = nullptr};

tavrix_stack_head_s& running_stack() {
  TAVRIX_REQUIRE(memsummary1 != nullptr, "memsummary1 != NULL");
  return memsummary1->sth;
}

// Pushes an element with that state. This pass uses only the state of an element.
bool push_state(json_mapsize_states state) {
  tavrix_stack_head_s& stack = running_stack();
  auto* elem = malloc_zeroed<jsonstack>();
  if (elem == nullptr) {
    TAVRIX_LOG(0, "No memory %d", errno);
    TAVRIX_LOG(0, "Cannot create stack element err %d", SHM_MEMBE_ERR_NOMEM);
    return false;
  }
  elem->state = state;
  return push(stack, elem) == TXLIST_ERR_OK;
}

int pop_state() {
  const Element elem(pop(running_stack()));
  TAVRIX_REQUIRE(elem != nullptr, "stelem != NULL");
  return elem->state;
}

// Takes the size from the local copy of the image: without JSON files the image comes from there.
membe_shm_err size_of_local_copy(memsummary_s** msum) {
  const CString location(get_permbe_map_location());
  if (location == nullptr) {
    TAVRIX_REPORT(CONFIG_FILE_ERROR, SWEEPER_LOGSEV_FATAL, "Error getting permbe map location");
    return SHM_MEMBE_ERR_NOMEM;
  }
  struct stat info {};
  if (stat(location.get(), &info) != 0) {
    TAVRIX_REPORT(CONFIG_FILE_ERROR, SWEEPER_LOGSEV_FATAL, "Perm map location does not exist %s",
                  location.get());
    return SHM_MEMBE_ERR_NOCACHE_FILE;
  }
  if (*msum == nullptr) {
    if (const membe_shm_err err = init_mem_summary(msum); err != SHM_MEMBE_OK) return err;
  }
  (*msum)->memsize = static_cast<uint32_t>(info.st_size);
  return SHM_MEMBE_OK;
}

membe_shm_err check_files(const char* size_file, const char* data_file) {
  struct stat size_info {};
  if (stat(size_file, &size_info) != 0) {
    TAVRIX_REPORT(MISSING_JSON_FILES, SWEEPER_LOGSEV_FATAL, "Missing JSON size file");
    return SHM_MEMBE_ERR_NOPERM_SIZE_FILE;
  }
  struct stat data_info {};
  if (stat(data_file, &data_info) != 0) {
    TAVRIX_REPORT(MISSING_JSON_FILES, SWEEPER_LOGSEV_FATAL, "Missing JSON data file");
    return SHM_MEMBE_ERR_NOPERM_FILE;
  }
  TAVRIX_REQUIRE(S_ISREG(size_info.st_mode), "S_ISREG(st.st_mode)");
  return SHM_MEMBE_OK;
}

// Frees the summary on failure.
membe_shm_err keep_paths(memsummary_s** msum, const char* size_file, const char* data_file) {
  (*msum)->perm_map_name_size = strdup(size_file);
  (*msum)->perm_map_name_data = strdup(data_file);
  if ((*msum)->perm_map_name_size != nullptr && (*msum)->perm_map_name_data != nullptr) {
    return SHM_MEMBE_OK;
  }
  TAVRIX_REPORT(OUT_OF_MEMORY, SWEEPER_LOGSEV_FATAL,
                "Cannot allocate mem summary size path retval %d err %s", SHM_MEMBE_ERR_NOMEM,
                strerror(errno));
  std::free((*msum)->perm_map_name_size);
  std::free((*msum)->perm_map_name_data);
  std::free(*msum);
  *msum = nullptr;
  return SHM_MEMBE_ERR_NOMEM;
}

// Parses the size file. A syntax error is not a failure: the counts before it are used.
void parse_size_file(JsonParse& parse, std::FILE* file) {
  constexpr std::size_t kChunk = 65535;
  static char buffer[kChunk + 1];
  for (;;) {
    const std::size_t length = std::fread(buffer, 1, kChunk, file);
    if (length == 0) {
      if (std::feof(file) == 0) std::fprintf(stderr, "error on file read.\n");
      break;
    }
    buffer[length] = '\0';
    if (!parse.feed(buffer, length)) {
      parse.print_error({buffer, length}, 0);
      break;
    }
  }
  parse.finish();
}

}  // namespace
}  // namespace tavrix

membe_shm_err init_mem_summary(memsummary_s** summary) {
  *summary = static_cast<memsummary_s*>(std::calloc(1, sizeof(memsummary_s)));
  if (*summary == nullptr) {
    TAVRIX_REPORT(OUT_OF_MEMORY, SWEEPER_LOGSEV_FATAL,
                  "Cannot allocate mem summary retval %d err %s", SHM_MEMBE_ERR_NOMEM,
                  strerror(errno));
    return SHM_MEMBE_ERR_NOMEM;
  }
  return SHM_MEMBE_OK;
}

membe_shm_err get_permbe_shmsize(const char* perm_size_file, const char* perm_file_data,
                                 memsummary_s** msum) {
  if (perm_size_file == nullptr && perm_file_data == nullptr) {
    return tavrix::size_of_local_copy(msum);
  }
  if (perm_size_file == nullptr || perm_file_data == nullptr) {
    TAVRIX_REPORT(MISSING_JSON_FILES, SWEEPER_LOGSEV_FATAL, "perm be JSON files are not given");
    return SHM_MEMBE_ERR_BADARGS;
  }
  membe_shm_err err = tavrix::check_files(perm_size_file, perm_file_data);
  if (err != SHM_MEMBE_OK) return err;
  const tavrix::Stream file(std::fopen(perm_size_file, "re"));
  if (!file) {
    TAVRIX_REPORT(MISSING_JSON_FILES, SWEEPER_LOGSEV_FATAL, "Cannot open perm size file %s",
                  perm_size_file);
    return SHM_MEMBE_ERR_BADARGS;
  }
  tavrix::JsonParse parse(tavrix::size_pass_callbacks);
  if (err = init_mem_summary(msum); err != SHM_MEMBE_OK) return err;
  err = tavrix::keep_paths(msum, perm_size_file, perm_file_data);
  if (err != SHM_MEMBE_OK) return err;

  tavrix::memsummary1 = *msum;
  tavrix::parse_size_file(parse, file.get());
  tavrix::memsummary1 = nullptr;
  estimate_shmbe_size(*msum);
  return SHM_MEMBE_OK;
}

int beshm_start_map(void* /*ctx*/) {
  TAVRIX_REQUIRE(tavrix::running_stack().totalelems == 0, "memsummary1->sth.totalelems == 0");
  return tavrix::push_state(SHMMAPSZ_STATE_STARTMAP) ? 1 : 0;
}

int beshm_map_key(void* /*ctx*/, const unsigned char* key, size_t len) {
  const auto* text = reinterpret_cast<const char*>(key);
  const json_mapsize_states state = tavrix::state_of_key({text, len});
  std::printf("%s(%d) Here name %.*s st %d\n", __func__, __LINE__, static_cast<int>(len), text,
              state);
  if (state == SHMMAPSZ_STATE_INVAL) {
    const tavrix::CString copy(strndup(text, len));
    TAVRIX_LOG(0, "Invalid state %s state %d", copy == nullptr ? "" : copy.get(), state);
    return 0;
  }
  return tavrix::push_state(state) ? 1 : 0;
}

int beshm_number(void* /*ctx*/, const char* number, size_t len) {
  const int state = tavrix::pop_state();
  const uint64_t value = tavrix::decimal_of(number, len);
  std::printf("%s(%d) Here val %lu\n", __func__, __LINE__, value);
  memsummary_s& summary = *tavrix::memsummary1;
  switch (state) {
    case SHMMAPSZ_STATE_GENERATIONNUM:
      summary.generationnum = static_cast<uint32_t>(value);
      break;
    case SHMMAPSZ_STATE_TIMESTAMP:
      summary.timestamp = static_cast<time_t>(value);
      break;
    case SHMMAPSZ_STATE_TOTALFSELEMS:
      summary.total_fselems = static_cast<uint32_t>(value);
      break;
    case SHMMAPSZ_STATE_TOTALACES:
      summary.total_aces = static_cast<uint32_t>(value);
      break;
    case SHMMAPSZ_STATE_TOTALNAMELEN:
      summary.total_namelen = static_cast<uint32_t>(value);
      break;
    default:
      TAVRIX_REQUIRE(false, "0");
  }
  return 1;
}

int beshm_string(void* /*ctx*/, const unsigned char* string, size_t len) {
  const int state = tavrix::pop_state();
  std::printf("%s(%d) Here %.*s cstate %d\n", __func__, __LINE__, static_cast<int>(len),
              reinterpret_cast<const char*>(string), state);
  memsummary_s& summary = *tavrix::memsummary1;
  switch (state) {
    case SHMMAPSZ_STATE_MAPNAME:
      std::memset(summary.mapname, 0, sizeof summary.mapname);
      TAVRIX_REQUIRE(len < MAXMAP_NAMELEN, "stringLen < MAXMAP_NAMELEN");
      std::memcpy(summary.mapname, string, len);
      return 1;
    case SHMMAPSZ_STATE_VERSION:
      std::memset(summary.version, 0, sizeof summary.version);
      TAVRIX_REQUIRE(len <= MAXMAP_VERSION_NAMELEN, "stringLen <= MAXMAP_VERSION_NAMELEN");
      std::memcpy(summary.version, string, len);
      return 1;
    default:  // a text where a count is expected
      return 0;
  }
}

int beshm_end_map(void* /*ctx*/) {
  std::printf("%s(%d) Here \n", __func__, __LINE__);
  tavrix::pop_state();
  TAVRIX_REQUIRE(tavrix::running_stack().totalelems == 0, "memsummary1->sth.totalelems == 0");
  return 1;
}
