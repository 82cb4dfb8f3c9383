#!/bin/bash
# Installs into a directory of its own, compares what is there with what should
# be, and builds and runs a program against it.
# usage: install_test.sh CMAKE SOURCE_DIR BUILD_DIR PREFIX CC LIBDIR INCLUDEDIR DATADIR DOCDIR HEADER...
set -euo pipefail
export LC_ALL=C
# shellcheck source=tests/tools/links.sh
. "${BASH_SOURCE[0]%/*}/links.sh"

cmake=$1 source_dir=$2 build_dir=$3 prefix=$4 cc=$5
libdir=$6 includedir=$7 datadir=$8 docdir=$9
shift 9

stage=$(mktemp -d)
trap 'rm -rf -- "$stage"' EXIT
umask 000 # the worst that an installer may have
DESTDIR=$stage "$cmake" --install "$build_dir" >"$stage.log" || { cat "$stage.log"; exit 1; }
rm -f -- "$stage.log"
umask 022
root=$stage$prefix

{
    for name in libPlatformMIB.so libkavplatform.so libkavplatform.so.0 \
        pkgconfig/kavplat.pc pkgconfig/kavplat-platform.pc \
        cmake/kavplat/kavplatConfig.cmake cmake/kavplat/kavplatConfigVersion.cmake; do
        echo "$libdir/$name"
    done
    (cd -- "$build_dir/described" && find . -name 'libkavplatform.so.*.*' -printf "$libdir/%P\n")
    echo bin/kavplat
    printf '%s\n' sbin/kavplatd share/man/man8/kavplatd.8
    printf "$datadir/kavplat/services/%s\n" snmpd.conf snmpd.service.d.conf kavplatd.service \
        kavplat-describe.service
    printf "$includedir/kavplat/%s\n" "$@"
    echo "$datadir/kavplat/schema/server.schema.json"
    printf "$datadir/kavplat/examples/%s\n" snmpd.conf minimal-platform/minimal_platform.c
    [[ $prefix == /usr ]] || echo etc/kavplat/server.json.example # else in /etc
    (cd -- "$source_dir" && find servers -name '*.json' -printf "$datadir/kavplat/%p\n")
    (cd -- "$source_dir" && find mibs -name '*.txt' -printf "$datadir/kavplat/%p\n")
    (cd -- "$source_dir" && find managers -type f ! -name README.md -printf "$datadir/kavplat/%p\n")
    (cd -- "$source_dir" && find docs -name '*.md' -printf "$docdir/%p\n" -o -name '*.png' -printf "$docdir/%p\n")
    (cd -- "$source_dir" && find docs/man -name '*.1' -printf "share/man/man1/%f\n")
    echo "$datadir/bash-completion/completions/kavplat"
    printf "$docdir/%s\n" README.md CHANGELOG.md CONTRIBUTING.md LICENSE mibs/README.md \
        platform examples schema servers mibs/KAV-PLATFORM-MIB.txt \
        mibs/KAV-PLATFORM-NOTIFICATIONS-MIB.txt mibs/compact \
        managers/README.md
    (cd -- "$source_dir" && find managers -mindepth 1 -type d -printf "$docdir/%p\n")
} | sort >"$stage/expected"
(cd -- "$root" && find . ! -type d -printf '%P\n' | sort) >"$stage/found"
if ! difference=$(diff "$stage/found" "$stage/expected"); then
    echo "< is installed and should not be, > should be and is not:"
    printf '%s\n' "$difference"
    exit 1
fi

example=$(find "$stage" -path '*/etc/kavplat/server.json.example')
cmp "$example" "$source_dir/servers/minimal.json"

open=$(find "$root" ! -type l -perm /022)
closed=$(find "$root" ! -type l ! -perm -444 -o -type d ! -perm -555)
if [[ -n $open$closed ]]; then
    printf 'others may write to: %s\nnot everybody may read: %s\n' "$open" "$closed"
    exit 1
fi

documents=$root/$docdir
dead=$(dead_links "$documents"/*.md "$documents"/docs/*.md "$documents"/mibs/*.md "$documents"/managers/*.md
    find "$documents" -xtype l -printf '%p is a link to %l, which is not there\n')
if [[ -n $dead ]]; then
    printf '%s\n' "$dead"
    exit 1
fi

# The headers alone, not those of the source tree; the library finds its platform
# beside it, wherever both are.
[[ $includedir == /* ]] || includedir=$root/$includedir
"$cc" -std=c11 -Wall -Wextra -pedantic -Werror -I"$includedir/kavplat" \
    "$source_dir/tests/tools/use_from_c.c" -o "$stage/program" \
    -L"$root/$libdir" -Wl,-rpath,"$root/$libdir" -lPlatformMIB -lkavplatform -lnetsnmpagent -lnetsnmp
"$stage/program"
platform=$(ldd "$root/$libdir/libPlatformMIB.so" | awk '$1 == "libkavplatform.so.0" { print $3 }')
if [[ $platform != "$root/$libdir/libkavplatform.so.0" ]]; then
    echo "the installed library takes its platform from '$platform'"
    exit 1
fi
"$root/bin/kavplat" check "$root/$datadir/kavplat/servers/rack-2u.json"

# What the documents tell to type, with this installation in place of theirs.
command_of() { # DOCUMENT PROGRAM: its first command that names an installed file
    sed ':more; /\\$/ { N; s/ *\\\n */ /; b more }; s/^ *//' "$documents/$1" |
        awk -v begin="$2 " 'index($0, begin) == 1 && /\/usr\/local\// && !found { found = 1; print }' |
        sed "s,/usr/local/include,$includedir,g; s,/usr/local/share,$root/$datadir,g"
}
compile=$(command_of docs/bring-your-own-platform.md cc)
[[ -n $compile ]] || { echo "docs/bring-your-own-platform.md does not tell how to compile"; exit 1; }
(cd -- "$stage" && bash -c "${compile/#cc /$cc } -Wall -Wextra -Werror")
"$root/bin/kavplat" conformance --only symbols --only inventory_order "$stage/libminimal.so"

# The names resolve by these modules alone, and no tool finds them unasked.
walk=$(command_of mibs/README.md snmpwalk)
[[ $walk =~ \ -M\ ([^ ]+)\ .*-m\ ([^ ]+) ]] || { echo "mibs/README.md does not tell how to walk: $walk"; exit 1; }
modules=(-M "${BASH_REMATCH[1]}" -m "${BASH_REMATCH[2]}")
said=$(env -u MIBS -u MIBDIRS snmptranslate "${modules[@]}" -On KAV-PLATFORM-MIB::kavPlatEquipmentSeverity \
    ENTITY-MIB::entPhysicalName SNMPv2-MIB::sysUpTime.0 2>&1) || true
if [[ $said != $'.1.3.6.1.4.1.58213.2.70.101.1.1.2.1.3\n\n.1.3.6.1.2.1.47.1.1.1.1.7\n\n.1.3.6.1.2.1.1.3.0' ]]; then
    printf 'snmptranslate %s says: %s\n' "${modules[*]}" "$said"
    exit 1
fi
if net-snmp-config --default-mibdirs | tr : '\n' | grep -q "^$prefix/$datadir/kavplat"; then
    echo "every tool of net-snmp would read $prefix/$datadir/kavplat/mibs"
    exit 1
fi
full_libdir=$libdir
[[ $libdir == /* ]] || full_libdir=$prefix/$libdir
grep -qx "dlmod entityMIB $full_libdir/libPlatformMIB.so" "$root/$datadir/kavplat/examples/snmpd.conf"
grep -qx "Cflags: -I\${includedir}/kavplat" "$root/$libdir/pkgconfig/kavplat.pc"

# A platform of somebody else, who has the headers alone: by pkg-config's word and by CMake's.
version=$(sed -n 's/^## \([0-9.]*\) - .*/\1/p' "$source_dir/CHANGELOG.md" | head -n 1)
pc=$root/$libdir/pkgconfig/kavplat-platform.pc
grep -qx "Version: $version" "$pc"
grep -qx "Cflags: -I\${includedir}/kavplat" "$pc"
if grep -q '^Libs\|^Requires' "$pc"; then
    echo "kavplat-platform.pc asks for more than headers"
    exit 1
fi
mkdir "$stage/theirs"
cp -- "$source_dir/examples/minimal-platform/minimal_platform.c" "$stage/theirs/"
cat >"$stage/theirs/CMakeLists.txt" <<END
cmake_minimum_required(VERSION 3.25)
project(theirs C)
find_package(kavplat $version REQUIRED)
add_library(theirs SHARED minimal_platform.c)
target_link_libraries(theirs PRIVATE kavplat::platform)
END
"$cmake" -S "$stage/theirs" -B "$stage/theirs/build" -DCMAKE_C_COMPILER="$cc" \
    -Dkavplat_DIR="$root/$libdir/cmake/kavplat" >"$stage/theirs.log" 2>&1 || { cat "$stage/theirs.log"; exit 1; }
"$cmake" --build "$stage/theirs/build" >"$stage/theirs.log" 2>&1 || { cat "$stage/theirs.log"; exit 1; }
[[ -f $stage/theirs/build/libtheirs.so ]]

# What was installed goes, what somebody added stays.
added=$(dirname -- "$example")/server.json
echo '{}' >"$added"
DESTDIR=$stage "$cmake" -D BUILD_DIR="$build_dir" -P "$source_dir/cmake/Uninstall.cmake" \
    >"$stage/uninstall.log" 2>&1 || { cat "$stage/uninstall.log"; exit 1; }
left=$(find "$root" "$(dirname -- "$added")" ! -type d | sort -u)
if [[ $left != "$added" ]]; then
    printf 'after it was uninstalled there is: %s\n' "$left"
    exit 1
fi
left=$(find "$root" -type d -name kavplat ! -path "${added%/*}")
[[ -z $left ]] || { printf 'an empty directory is left: %s\n' "$left"; exit 1; }
echo "$(wc -l <"$stage/found") files, all as expected"
