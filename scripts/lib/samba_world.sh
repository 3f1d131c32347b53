# SPDX-License-Identifier: LGPL-3.0-or-later
# Runs a real smbd in a private world (see world.sh), with the reference module in front of /tavrix.
# Source it inside the world. Its files lie under /scratch/samba.

samba_folder=/scratch/samba
samba_modules=/usr/lib/x86_64-linux-gnu/samba

# Puts the module where smbd looks for it, gives the comparison library the name that libtavrix opens,
# and makes the account files writable; all of it in this world only.
# usage: prepare_samba_world MODULE_FILE
prepare_samba_world() {
  local layer=/scratch/.samba_layer
  mkdir -p $layer/{upper,work} $samba_folder/{private,lock,state,cache,pid,ncalrpc,log}
  # An overlay's upper folder needs a file system that supports it: tmpfs does.
  mount -t tmpfs tmpfs $layer
  mkdir -p $layer/{upper,work}
  mount -t overlay overlay -o "lowerdir=$samba_modules,upperdir=$layer/upper,workdir=$layer/work" \
    $samba_modules
  mkdir -p $samba_modules/vfs
  cp "$1" "$samba_modules/vfs/$(basename "$1")"
  [ -e $samba_modules/libsamdb-common.so.0 ] ||
    ln -s libsamdb-common-samba4.so.0 $samba_modules/libsamdb-common.so.0
  local file
  for file in passwd group shadow gshadow; do
    [ ! -L /etc/$file ] || cp --remove-destination "$(readlink -f /etc/$file)" /etc/$file
  done
  ip link set lo up
}

# usage: write_smb_conf MODULE [LINE]...   (lines of the share's section)
write_smb_conf() {
  local module=$1
  shift
  cat >$samba_folder/smb.conf <<CONF
[global]
  server role = standalone server
  workgroup = TAVRIX
  interfaces = 127.0.0.1/8
  bind interfaces only = yes
  smb ports = 445
  disable netbios = yes
  disable spoolss = yes
  load printers = no
  printing = bsd
  printcap name = /dev/null
  map to guest = never
  passdb backend = tdbsam:$samba_folder/private/passdb.tdb
  private dir = $samba_folder/private
  lock directory = $samba_folder/lock
  state directory = $samba_folder/state
  cache directory = $samba_folder/cache
  pid directory = $samba_folder/pid
  ncalrpc dir = $samba_folder/ncalrpc
  log file = $samba_folder/log/smbd.log
  log level = ${samba_log_level:-0}
  debug uid = yes
  max log size = 0

[tavrix]
  path = /tavrix
  read only = no
  hide dot files = no
  case sensitive = yes
  # With worker threads a switch of identity would signal each of them; without, it is one system call.
  aio read size = 0
  aio write size = 0
  nt acl support = yes
$([ -z "$module" ] || echo "  vfs objects = $module")
$(printf '  %s\n' "$@")
CONF
}

# Loads the shipped settings with a large staging buffer and a flush each second, and builds the group
# list map. $sources is the source folder.
# usage: load_settings GROUPS   (JSON for "tavrixctl groupmap build")
load_settings() {
  cp "$sources/packaging/exception_patterns" /etc/tavrix/
  tavrixctl config load "$sources/packaging/tavrix.conf"
  tavrixctl config set "VFS:debug level" -1
  tavrixctl config set "SWEEPER:flush period" 1
  tavrixctl config set "SWEEPER:staging buffer size" 16777216
  mkdir -p /tavrix/.conf/{staging,auditing}
  echo "$1" >/scratch/groups.json
  tavrixctl groupmap build /scratch/groups.json -o /etc/tavrix/groupmap_refresh >/dev/null
  touch /etc/tavrix/permission_refresh
}

# usage: add_samba_user NAME UID GID   (the password is the name)
add_samba_user() {
  echo "$1:x:$2:$3::/:/bin/false" >>/etc/passwd
  set_samba_password "$1"
}

# usage: set_samba_password NAME   (the password is the name)
set_samba_password() {
  printf '%s\n%s\n' "$1" "$1" | smbpasswd -c $samba_folder/smb.conf -s -a "$1" >/dev/null
}

# Starts smbd in a session of its own: when smbd ends, it ends its whole process group.
start_smbd() {
  setsid smbd --foreground --no-process-group --configfile=$samba_folder/smb.conf \
    >$samba_folder/log/stdout 2>&1 &
  echo $! >$samba_folder/smbd.pid
  local try
  for try in {1..200}; do
    ! (exec 3<>/dev/tcp/127.0.0.1/445) 2>/dev/null || return 0
    sleep 0.05
  done
  echo "smbd did not start" >&2
  cat $samba_folder/log/* >&2
  return 1
}

stop_smbd() {
  kill "$(cat $samba_folder/smbd.pid)" 2>/dev/null || return 0
  await_end_of_smbd
}

# Kills every process of the server at once, as a machine that runs out of memory may.
kill_smbd() {
  kill -KILL -- "-$(cat $samba_folder/smbd.pid)"
  await_end_of_smbd
}

# Waits for the last process: until then the port is taken, and a client may reach a dying process.
await_end_of_smbd() {
  while pgrep -s "$(cat $samba_folder/smbd.pid)" >/dev/null; do sleep 0.02; done
}

# usage: smb USER COMMANDS   (commands of smbclient)
smb() {
  stdbuf -o0 smbclient -s $samba_folder/smb.conf //127.0.0.1/tavrix -U "$1%$1" -c "$2"
}
