// SPDX-License-Identifier: LGPL-3.0-or-later
/* The lease of a node of a cluster: until when it may serve clients.
 *
 * The daemon of the cluster renews it while this machine has the map that all nodes must have, and
 * while the shared tree answers. Server processes map the file and compare one number with the
 * clock at each request, which costs no system call. When the daemon hangs or dies, nobody renews
 * the lease, and it ends by itself.
 *
 * It is plain C, because the module uses it as well as the tools. */
#ifndef TAVRIX_CLUSTER_LEASE_H
#define TAVRIX_CLUSTER_LEASE_H

#include <stdint.h>

#define TAVRIX_LEASE_FILE "/run/tavrix/cluster.lease"
#define TAVRIX_LEASE_MAGIC "TVXLEASE"
#define TAVRIX_LEASE_VERSION 1U

/* The bytes of the file. Its one writer changes `until` in place, in one 64-bit store. The file is
 * gone after a boot, as its clock is. */
struct tavrix_lease {
  char magic[8];    /*  0 */
  uint32_t version; /*  8 */
  uint32_t size;    /* 12  of this structure */
  int64_t until;    /* 16  nanoseconds of CLOCK_BOOTTIME; 0: the node may not serve yet */
};

#endif
