# SPDX-License-Identifier: LGPL-3.0-or-later
# Inside a private world: users, settings, a map, and two consoles, one of root's session (port 9090) and one
# with a login (port 9091). Then it runs the tests: world.sh SOURCES TOOLS [TEST]...
set -euo pipefail
sources=$1
tools=$2
shift 2
ip link set lo up

# The tools stand where a package puts them, so that every session finds them.
mount -t tmpfs -o mode=0755 tmpfs /usr/local/sbin
for tool in tavrixctl tavrix-loader tavrix-sample-tree tavrix-sweeper; do ln -s "$tools/$tool" /usr/local/sbin/$tool; done
export PATH=/usr/local/sbin:$PATH

# The package of the library links the server's comparison of names; here the link is this world's alone.
layer=/scratch/.layer
mkdir -p $layer
mount -t tmpfs tmpfs $layer
mkdir -p $layer/{upper,work}
samba=/usr/lib/x86_64-linux-gnu/samba
mount -t overlay overlay -o "lowerdir=$samba,upperdir=$layer/upper,workdir=$layer/work" $samba
[ -e $samba/libsamdb-common.so.0 ] || ln -s libsamdb-common-samba4.so.0 $samba/libsamdb-common.so.0

# The machine's accounts are read-only links here; these are files of this world.
for name in passwd shadow group gshadow sudoers sudoers.d; do
  [ -e "/.etc/$name" ] || continue
  rm -rf "/etc/$name"
  cp -a "/.etc/$name" "/etc/$name"
done
hash=$(openssl passwd -6 secret)
add_user() {  # NAME ID
  echo "$1:x:$2:$2::/scratch/home/$1:/bin/bash" >>/etc/passwd
  echo "$1:x:$2:" >>/etc/group
  echo "$1:$hash:19000:0:99999:7:::" >>/etc/shadow
  mkdir -p "/scratch/home/$1/.local/share/cockpit"
  ln -s "$sources/page/dist" "/scratch/home/$1/.local/share/cockpit/tavrix"
  chown -R "$2:$2" "/scratch/home/$1"
}
add_user carol 5001
add_user dave 5002
add_user anna 1005
add_user ben 1006
sed -i 's/^sudo:.*/&carol/' /etc/group

tavrixctl config load "$sources/packaging/tavrix.conf" >/dev/null 2>&1
cp "$sources/packaging/exception_patterns" /etc/tavrix/
cp "$sources"/examples/team/*.json /scratch/
mount -t tmpfs -o mode=0755 tmpfs /var/lib
mkdir -p /tavrix/.conf/{staging,auditing} /tavrix/Shared/Design/{Drafts,Board,Gallery} /tavrix/Shared/Finance /tavrix/Private

# The history has a year of records.
mkdir -p /var/lib/tavrix/history
"$tools/../bench/tavrix_history_sample" /var/lib/tavrix/history/history.db 20000 >/dev/null

export HOME=/scratch/home/root XDG_DATA_HOME=/scratch/data XDG_CONFIG_HOME=/scratch/config
mkdir -p "$HOME" "$XDG_DATA_HOME/cockpit" "$XDG_CONFIG_HOME"
ln -s "$sources/page/dist" "$XDG_DATA_HOME/cockpit/tavrix"
/usr/lib/cockpit/cockpit-ws --no-tls --address=127.0.0.1 --port=9090 --local-session=cockpit-bridge >/scratch/root.log 2>&1 &
root_console=$!
/usr/lib/cockpit/cockpit-ws --no-tls --address=127.0.0.1 --port=9091 >/scratch/login.log 2>&1 &
login_console=$!
trap 'kill $root_console $login_console; tavrixctl map remove --yes; tavrixctl config remove --yes' EXIT
for port in 9090 9091; do
  for _ in $(seq 200); do
    (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null && break
    sleep .05
  done
done
TAVRIX_SOURCES=$sources TAVRIX_PAGE_TABLE=$tools/../page-latency.md /usr/bin/python3 -B "$sources/tests/page/page_test.py" "$@"
