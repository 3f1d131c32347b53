// SPDX-License-Identifier: GPL-3.0-or-later
/* The fence of a node of a cluster: a node that may have an older map than the others, or that lost
 * the shared tree, serves nobody.
 *
 * The daemon of the cluster keeps a lease (tools/cluster/lease.h) in a file that server processes
 * map. At each request one number of it is compared with the clock, without a system call. A timer
 * of the kernel, on the clock of the lease, ends a process that gets no requests. */
#include "tavrix_module.h"

#include <sys/mman.h>
#include <sys/timerfd.h>
#include <time.h>

#include "tools/cluster/lease.h"

#define SECOND 1000000000LL

static const struct tavrix_lease* lease; /* mapped for the life of the process; null: none yet */
static struct tevent_fd* alarm_event;
static int alarm_fd = -1;
static bool
    has_refused; /* a request met the end of the lease: the process ends, whatever follows */

/* --- the lease -------------------------------------------------------------------------------- */

static bool is_lease(const struct tavrix_lease* found) {
  return memcmp(found->magic, TAVRIX_LEASE_MAGIC, sizeof found->magic) == 0 &&
         found->version == TAVRIX_LEASE_VERSION && found->size == sizeof *found;
}

/* A short file would end the process when it is read behind its end. */
static bool has_room(int fd) {
  struct stat st;
  return fstat(fd, &st) == 0 && st.st_size >= (off_t)sizeof(struct tavrix_lease);
}

/* Maps the file that is there now: the one of before may have been replaced. */
static void map_lease(void) {
  const int fd = open(TAVRIX_LEASE_FILE, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  void* address =
      has_room(fd) ? mmap(NULL, sizeof *lease, PROT_READ, MAP_SHARED, fd, 0) : MAP_FAILED;
  close(fd);
  if (address == MAP_FAILED) return;
  if (!is_lease(address)) {
    munmap(address, sizeof *lease);
    return;
  }
  if (lease != NULL) munmap(discard_const(lease), sizeof *lease);
  lease = address;
}

static int64_t now(void) {
  struct timespec time;
  clock_gettime(CLOCK_BOOTTIME, &time);
  return time.tv_sec * SECOND + time.tv_nsec;
}

static int64_t end_of_lease(void) {
  return lease != NULL ? __atomic_load_n(&lease->until, __ATOMIC_RELAXED) : 0;
}

static bool is_over(void) {
  if (end_of_lease() > now()) return false;
  const int keep = errno;
  map_lease();
  errno = keep;
  return end_of_lease() <= now();
}

/* --- the end of a process --------------------------------------------------------------------- */

/* A time that is past rings at once. */
static bool ring_at(int64_t end) {
  const struct itimerspec when = {.it_value = {.tv_sec = end / SECOND, .tv_nsec = end % SECOND}};
  return timerfd_settime(alarm_fd, TFD_TIMER_ABSTIME, &when, NULL) == 0;
}

/* The alarm rings at the end of the lease as it is now; a renewed lease sets it again then. */
static bool set_alarm(void) { return ring_at(end_of_lease()); }

/* Runs between requests. Files that the client has open are closed, and their events recorded. */
static void on_alarm(struct tevent_context* events, struct tevent_fd* event, uint16_t flags,
                     void* data) {
  uint64_t rings;
  const ssize_t unused = read(alarm_fd, &rings, sizeof rings);
  (void)unused;
  if (!has_refused && !is_over() && set_alarm()) return;
  tavrix_complain(
      "the lease of this node is over (%s), so this session ends; tavrix-clusterd says why",
      TAVRIX_LEASE_FILE);
  exit_server_cleanly("the lease of this node is over");
}

/* A connection that smbd makes for itself has no loop, and no client that waits. */
static bool watch_lease(struct vfs_handle_struct* handle) {
  const struct smbd_server_connection* sconn = handle->conn->sconn;
  if (alarm_event != NULL || sconn == NULL || sconn->ev_ctx == NULL) return true;
  if (alarm_fd == -1) alarm_fd = timerfd_create(CLOCK_BOOTTIME, TFD_CLOEXEC | TFD_NONBLOCK);
  if (alarm_fd == -1 || !set_alarm()) return false;
  alarm_event =
      tevent_add_fd(sconn->ev_ctx, sconn->ev_ctx, alarm_fd, TEVENT_FD_READ, on_alarm, NULL);
  return alarm_event != NULL;
}

/* --- for the connection ----------------------------------------------------------------------- */

int tavrix_raise_fence(struct vfs_handle_struct* handle, struct tavrix_connection* tavrix) {
  tavrix->is_fenced = lp_parm_bool(SNUM(handle->conn), "tavrix", "fence", lp_clustering());
  if (!tavrix->is_fenced) return 0;
  if (is_over()) {
    tavrix_complain(
        "this node has no lease (%s), so nobody may connect; tavrix-clusterd gives it and says why "
        "not",
        TAVRIX_LEASE_FILE);
    return -1;
  }
  if (watch_lease(handle)) return 0;
  tavrix_complain("the lease of this node cannot be watched (%s); nobody may connect",
                  strerror(errno));
  return -1;
}

bool tavrix_is_fenced_off(const struct tavrix_connection* tavrix) {
  if (!tavrix->is_fenced || !is_over()) return false;
  const int keep = errno;
  if (!has_refused) ring_at(1);
  has_refused = true;
  errno = keep;
  return true;
}
