#!/bin/bash
# Installs into a directory of its own, compares what is there with what should
# be, and builds and runs a program against it.
# usage: install_test.sh CMAKE SOURCE_DIR BUILD_DIR PREFIX CC LIBDIR INCLUDEDIR DATADIR DOCDIR HEADER...
set -euo pipefail
export LC_ALL=C

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
    for name in libPlatformMIB.so libkavplatform.so libkavplatform.so.0 pkgconfig/kavplat.pc; do
        echo "$libdir/$name"
    done
    (cd -- "$build_dir/described" && find . -name 'libkavplatform.so.*.*' -printf "$libdir/%P\n")
    printf 'bin/%s\n' kavplat-check kavplat-conformance
    printf "$includedir/kavplat/%s\n" "$@"
    echo "$datadir/kavplat/schema/server.schema.json"
    echo "$datadir/kavplat/mibs/KAV-PLATFORM-MIB.txt"
    echo "$datadir/kavplat/examples/snmpd.conf"
    (cd -- "$source_dir" && find servers -name '*.json' -printf "$datadir/kavplat/%p\n")
    (cd -- "$source_dir/docs" && find . -name '*.md' -printf "$docdir/%P\n")
    printf "$docdir/%s\n" README.md LICENSE
} | sort >"$stage/expected"
(cd -- "$root" && find . ! -type d -printf '%P\n' | sort) >"$stage/found"
if ! difference=$(diff "$stage/found" "$stage/expected"); then
    echo "< is installed and should not be, > should be and is not:"
    printf '%s\n' "$difference"
    exit 1
fi

open=$(find "$root" ! -type l -perm /022)
closed=$(find "$root" ! -type l ! -perm -444 -o -type d ! -perm -555)
if [[ -n $open$closed ]]; then
    printf 'others may write to: %s\nnot everybody may read: %s\n' "$open" "$closed"
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
"$root/bin/kavplat-check" "$root/$datadir/kavplat/servers/rack-2u.json"
full_libdir=$libdir
[[ $libdir == /* ]] || full_libdir=$prefix/$libdir
grep -qx "dlmod entityMIB $full_libdir/libPlatformMIB.so" "$root/$datadir/kavplat/examples/snmpd.conf"
grep -qx "Cflags: -I\${includedir}/kavplat" "$root/$libdir/pkgconfig/kavplat.pc"
echo "$(wc -l <"$stage/found") files, all as expected"
