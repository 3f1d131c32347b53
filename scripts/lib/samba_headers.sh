# SPDX-License-Identifier: LGPL-3.0-or-later
# Makes the headers of Samba that a module needs, from the source package of the version that it is built for.
# Source it.

source "$(dirname "${BASH_SOURCE[0]}")/samba_root.sh"

# Without ROOT, of the installed Samba. Does nothing when the folder has this version's headers, made by this
# script as it is.
# usage: prepare_samba_headers FOLDER [ROOT]
prepare_samba_headers() {
  local folder=$1 root=${2:-}
  local version made
  version=$(samba_version "$root")
  made="$version $(sha256sum <"${BASH_SOURCE[0]}")"
  [ "$(cat "$folder/version" 2>/dev/null)" != "$made" ] || return 0
  rm -rf "$folder"
  mkdir -p "$folder"
  echo "making the headers of samba $version"
  (
    cd "$folder"
    fetch_samba_source "$version"
    unpack_samba_headers
    generate_config_header "$root"
    generate_error_headers
    generate_parameter_headers
    generate_ndr_headers
    rm -rf apt parts ./*.tar.xz ./*.dsc
  )
  echo "$made" >"$folder/version"
}

# The headers need no patches of Debian. A mirror may have lost those of an older package.
fetch_samba_source() {
  update_apt_here
  apt_here apt-get source -q --download-only --tar-only "samba=$1" >/dev/null
}

unpack_samba_headers() {
  mkdir -p src
  tar xJf samba_*.orig.tar.xz -C src --strip-components=1 --wildcards '*.h' '*.idl' '*/pidl/*' \
    '*/script/generate_param.py' '*/docs-xml/smbdotconf/*' '*/source4/scripting/bin/gen_*.py' \
    '*/libcli/util/*.txt'
}

# Makes config.h from the server's list of build options, without those that pull in
# headers of packages that a module does not need.
generate_config_header() {
  mkdir -p gen/include
  {
    echo '#pragma once'
    echo '#define CONFIG_H_IS_FROM_SAMBA 1'
    echo '#define LIBREPLACE_NETWORK_CHECKS 1'
    echo '#define offset_t loff_t'
    echo '#define uint_t unsigned int'
    in_samba_root "$1" smbd -b | grep -oE '^   (HAVE|WITH|USE|SIZEOF|STAT|REALPATH|SYSCONF|STRING|TIME)_[A-Z0-9_a-z]+$' |
      tr -d ' ' | sort -u |
      grep -vE '^(HAVE_SYS_ACL_H|HAVE_ACL_LIBACL_H|HAVE_SYS_CAPABILITY_H|HAVE_BSD_|HAVE_LIBBSD)' |
      grep -vE 'KRB5|GSSAPI|DBUS|VALGRIND|^SIZEOF_' | sed 's/.*/#define & 1/'
    for size in 'SIZEOF_CHAR 1' 'SIZEOF_SHORT 2' 'SIZEOF_INT 4' 'SIZEOF_LONG 8' 'SIZEOF_LONG_LONG 8' \
      'SIZEOF_VOID_P 8' 'SIZEOF_VOID_STAR 8' 'SIZEOF_SIZE_T 8' 'SIZEOF_SSIZE_T 8' 'SIZEOF_OFF_T 8' \
      'SIZEOF_TIME_T 8' 'SIZEOF_DEV_T 8' 'SIZEOF_INO_T 8' 'SIZEOF_BLKCNT_T_8 1'; do
      echo "#define $size"
    done
  } >gen/include/config.h
  # Generated headers include these by core/NAME.h; in the source tree they lie in libcli/util.
  mkdir -p gen/core
  local name
  for name in error ntstatus werror doserr hresult; do
    echo "#include \"libcli/util/$name.h\"" >"gen/core/$name.h"
  done
}

# The generators write a header first and then as many other files as their series has; a generator that is
# called with another number of names writes nothing.
# usage: generate_error_header GENERATOR TABLE HEADER
generate_error_header() {
  local others
  for others in '/dev/null /dev/null' '/dev/null /dev/null /dev/null'; do
    # shellcheck disable=SC2086  # one word a file
    /usr/bin/python3 "src/source4/scripting/bin/$1" "src/libcli/util/$2" "gen/libcli/util/$3" $others >/dev/null
    [ ! -e "gen/libcli/util/$3" ] || return 0
  done
  echo "$1 made no header" >&2
  return 1
}

generate_error_headers() {
  mkdir -p gen/libcli/util
  generate_error_header gen_ntstatus.py ntstatus_err_table.txt ntstatus_gen.h
  generate_error_header gen_werror.py werror_err_table.txt werror_gen.h
  [ -e src/libcli/util/hresult.h ] ||
    generate_error_header gen_hresult.py hresult_err_table.txt hresult.h
}

generate_parameter_headers() {
  mkdir -p gen/source3/param gen/lib/param
  {
    echo '<?xml version="1.0" encoding="utf-8" ?><parameterlist>'
    find src/docs-xml/smbdotconf -name '*.xml' ! -name 'parameters.*' -print0 | sort -z | xargs -0 cat |
      grep -v '<?xml' | perl -pe 's/&(?!(?:amp|lt|gt|quot|apos);)[\w.]+;//g'  # entities of the manual
    echo '</parameterlist>'
  } >gen/parameters.xml
  local generate=(/usr/bin/python3 src/script/generate_param.py --file gen/parameters.xml)
  "${generate[@]}" --output gen/source3/param/param_proto.h --mode=S3PROTO
  "${generate[@]}" --output gen/lib/param/param_local.h --mode=PARAMDEFS --scope=LOCAL
}

# Runs in gen/, where the includes start: the generated headers include one another by these paths.
generate_ndr_headers() {
  mkdir -p gen/librpc/gen_ndr
  (
    cd gen
    # pidl asks for the source tree, and the generators for Debian's own Python.
    export srcdir=../src/source3 PATH=/usr/bin:$PATH
    local pidl=(perl ../src/pidl/pidl --quiet --outputdir librpc/gen_ndr
      --includedir ../src/librpc/idl --includedir ../src/source3/librpc/idl)
    local name file
    for name in misc security server_id smb2_lease_struct file_id smb_acl smbXsrv auth lsa krb5pac \
      netlogon samr notify messaging smb3posix nbt conditional_ace; do
      file=$(find ../src/librpc/idl ../src/source3/librpc/idl -name "$name.idl")
      [ -n "$file" ] || continue  # not every series has each of them
      "${pidl[@]}" --header -- "$file" 2>/dev/null
    done
    "${pidl[@]}" --ndr-parser -- ../src/librpc/idl/misc.idl
    "${pidl[@]}" --ndr-parser -- ../src/librpc/idl/messaging.idl
  )
}
