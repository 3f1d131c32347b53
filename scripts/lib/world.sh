# SPDX-License-Identifier: LGPL-3.0-or-later
# Runs one script in a private world: it has System V objects of its own, and a root folder in which
# /etc/tavrix, /tavrix, /var/log and /scratch are new and empty. Nothing of it stays on the machine.

# usage: in_private_world SCRIPT [ARGUMENT]...   (the absolute path of a bash script)
in_private_world() {
  unshare --ipc --mount bash -euo pipefail -c '
    new=/mnt
    mount --make-rprivate /
    mount -t tmpfs -o mode=0755 tmpfs "$new"
    for entry in /*; do
      name=${entry#/}
      case $name in etc | mnt | tavrix | scratch) continue ;; esac
      if [ -L "$entry" ]; then cp -a "$entry" "$new/$name"
      elif [ -d "$entry" ]; then mkdir "$new/$name" && mount --rbind "$entry" "$new/$name"
      fi
    done
    mkdir -p "$new/.etc" "$new/etc" "$new/tavrix" "$new/mnt"
    mkdir -m 0777 "$new/scratch"
    mount --rbind /etc "$new/.etc"
    mount -o remount,bind,ro "$new/.etc"
    for entry in /etc/*; do
      [ "$entry" = /etc/tavrix ] || ln -s "/.etc/${entry#/etc/}" "$new$entry"
    done
    mkdir "$new/etc/tavrix"
    mount -t tmpfs -o mode=0755 tmpfs "$new/var/log"
    exec chroot "$new" bash "$@"' in_private_world "$@"
}

# The same with a network of its own, so that a server on this machine does not get in the way.
in_private_network_world() {
  export -f in_private_world
  unshare --net bash -c 'in_private_world "$@"' in_private_network_world "$@"
}
