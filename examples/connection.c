/* What a file-server module does for one connection, in small: takes the settings, builds the
 * identity, checks a write, records that it happened.
 *
 * usage: connection NAME UID PATH   (as root; the uid must be one of this machine's users) */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "tavrix.h"

static double microseconds_of_check(connection_private_data_s* connection, const char* path,
                                    e_vfs_enforce_perms* verdict) {
  struct timespec before, after;
  clock_gettime(CLOCK_MONOTONIC, &before);
  *verdict = check_perms("/tavrix", path, FSOP_OPEN_WRITE, connection, 0);
  clock_gettime(CLOCK_MONOTONIC, &after);
  return (double)(after.tv_sec - before.tv_sec) * 1e6 +
         (double)(after.tv_nsec - before.tv_nsec) / 1e3;
}

static int record_change(const connection_private_data_s* connection, char* path) {
  VFSEvent event = VFSEVENT__INIT;
  event.path = path;
  event.optype = VFSEVENT__OP_TYPE__OPTYPE_CLOSE;
  event.fselem_type = VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_FILE;
  event.tavrix_user = connection->user_name_as_passed_in;
  pop_vfs_event(&event, connection->groupmap.euid);
  return send_modify_vfs_event(&event);
}

int main(int argc, char** argv) {
  if (argc != 4) {
    fprintf(stderr, "usage: connection NAME UID PATH\n");
    return 2;
  }
  connection_private_data_s* connection = calloc(1, sizeof *connection);
  if (connection == NULL || read_tavrix_config() != 0) return 2;
  connection->user_name_as_passed_in = argv[1];
  connection->refresh_creds.euid = (uid_t)strtoul(argv[2], NULL, 10);
  init_tlb(&connection->vfs_table_cache);
  if (reset_groupmap(connection) != 0) return 2;
  if (seteuid(connection->refresh_creds.euid) != 0)
    return 2; /* as a server process between hooks */

  e_vfs_enforce_perms verdict;
  const double first = microseconds_of_check(connection, argv[3], &verdict);
  const double second = microseconds_of_check(connection, argv[3], &verdict);
  printf("%-5s write %-28s %-8s first %7.1f us, from the cache %5.2f us\n", argv[1], argv[3],
         verdict == TXPERMS_HAS_PERMS ? "granted" : "refused", first, second);
  if (verdict == TXPERMS_HAS_PERMS && record_change(connection, argv[3]) != 0) return 2;

  destroy_tlb(&connection->vfs_table_cache);
  free(connection->groupmap.gids);
  free(connection);
  return 0;
}
