# SPDX-License-Identifier: LGPL-3.0-or-later
# Makes the headers of Samba that a module needs, from the source package of the installed version.
# Source it.

samba_version() { dpkg-query -W -f='${Version}' samba; }

# usage: prepare_samba_headers FOLDER   (does nothing when the folder has this version's headers)
prepare_samba_headers() {
  local folder=$1
  local version
  version=$(samba_version)
  if [ "$(cat "$folder/version" 2>/dev/null)" = "$version" ]; then
    [ -e "$folder/gen/librpc/gen_ndr/ndr_messaging.h" ] || (cd "$folder" && generate_ndr_headers)
    return 0
  fi
  rm -rf "$folder"
  mkdir -p "$folder"
  echo "making the headers of samba $version"
  (
    cd "$folder"
    fetch_samba_source "$version"
    unpack_samba_headers
    generate_config_header
    generate_error_headers
    generate_parameter_headers
    generate_ndr_headers
    rm -rf apt parts ./*.tar.xz ./*.dsc
  )
  echo "$version" >"$folder/version"
}

# Writes source lists to parts/, from the mirrors of Debian that this machine's own lists name. Those
# lists stay as they are.
write_source_lists() {
  mkdir -p parts
  local file
  for file in /etc/apt/sources.list.d/*.sources; do
    [ -e "$file" ] || continue
    # The paragraphs that name Debian. Empty lines separate paragraphs, and comments do not.
    grep -v '^#' "$file" | awk -v RS= -v ORS='\n\n' '/URIs:[^\n]*debian/' |
      sed -E 's/^Types:.*/Types: deb-src/' >"parts/$(basename "$file")"
  done
  cat /etc/apt/sources.list /etc/apt/sources.list.d/*.list 2>/dev/null |
    sed -n '/^deb .*debian/s/^deb /deb-src /p' >parts/lists.list || true
  [ -z "$(cat parts/*)" ] || return 0
  echo "this machine has no list of Debian's packages to take the sources of samba from" >&2
  return 1
}

fetch_samba_source() {
  write_source_lists || return 1
  mkdir -p apt/lists/partial
  local options=(-o Dir::Etc::sourcelist=/dev/null -o "Dir::Etc::sourceparts=$PWD/parts"
    -o "Dir::State::lists=$PWD/apt/lists" -o APT::Sandbox::User=root)
  apt-get "${options[@]}" update -q >/dev/null
  apt-get "${options[@]}" source -q --download-only "samba=$1" >/dev/null
}

unpack_samba_headers() {
  mkdir -p src
  tar xJf samba_*.orig.tar.xz -C src --strip-components=1 --wildcards '*.h' '*.idl' '*/pidl/*' \
    '*/script/generate_param.py' '*/docs-xml/smbdotconf/*' '*/source4/scripting/bin/gen_*.py' \
    '*/libcli/util/*.txt'
}

# Makes config.h from the installed server's list of build options, without those that pull in
# headers of packages that a module does not need.
generate_config_header() {
  mkdir -p gen/include
  {
    echo '#pragma once'
    echo '#define CONFIG_H_IS_FROM_SAMBA 1'
    echo '#define LIBREPLACE_NETWORK_CHECKS 1'
    echo '#define offset_t loff_t'
    echo '#define uint_t unsigned int'
    smbd -b | grep -oE '^   (HAVE|WITH|USE|SIZEOF|STAT|REALPATH|SYSCONF|STRING|TIME)_[A-Z0-9_a-z]+$' |
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

generate_error_headers() {
  mkdir -p gen/libcli/util
  local bin=src/source4/scripting/bin
  /usr/bin/python3 $bin/gen_ntstatus.py src/libcli/util/ntstatus_err_table.txt \
    gen/libcli/util/ntstatus_gen.h /dev/null /dev/null >/dev/null
  /usr/bin/python3 $bin/gen_werror.py src/libcli/util/werror_err_table.txt \
    gen/libcli/util/werror_gen.h /dev/null /dev/null >/dev/null
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
    local name
    for name in misc security server_id smb2_lease_struct file_id smb_acl smbXsrv auth lsa krb5pac \
      netlogon samr notify messaging; do
      "${pidl[@]}" --header -- \
        "$(find ../src/librpc/idl ../src/source3/librpc/idl -name "$name.idl")" 2>/dev/null
    done
    "${pidl[@]}" --ndr-parser -- ../src/librpc/idl/misc.idl
    "${pidl[@]}" --ndr-parser -- ../src/librpc/idl/messaging.idl
  )
}
