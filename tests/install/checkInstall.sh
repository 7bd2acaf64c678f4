#!/usr/bin/env bash
# Installs the build into a scratch prefix and builds a consumer against it,
# once through the CMake package (with a version, so the version file must be
# there too) and once through pkg-config.  The builds prove the headers, the
# package files and the development link; the runtime link and what must stay
# out are checked by name.
#   checkInstall.sh <build dir> <consumer source dir> <C compiler>
set -euo pipefail
build=$1 consumer=$2 cc=$3
fail() { echo "FAIL: $*"; exit 1; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/prefix" >"$work/log" || { cat "$work/log"; fail "cmake --install"; }
lib=$(find "$work/prefix" -name libBraskSvf.so.1.0.0 | head -n 1)
[[ -n $lib ]] || { find "$work/prefix"; fail "libBraskSvf.so.1.0.0 not installed under $work/prefix"; }
libdir=$(dirname "$lib")
[[ $(readlink "$libdir/libBraskSvf.so.1") == libBraskSvf.so.1.0.0 ]] || fail "libBraskSvf.so.1 is not a link to it"
[[ ! -e $work/prefix/include/BraskSvf/hostPlatformControl.h ]] ||
  fail "the host platform's test controls header must not be installed"

cmake -S "$consumer" -B "$work/consumer" -G Ninja -DCMAKE_C_COMPILER="$cc" -DCMAKE_PREFIX_PATH="$work/prefix" \
  >"$work/log" 2>&1 && cmake --build "$work/consumer" >>"$work/log" 2>&1 ||
  { cat "$work/log"; fail "consumer build with find_package(BraskSvf 1)"; }
flags=$(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --cflags --libs braskSvf) || fail "pkg-config braskSvf"
# The platform functions come from the firmware that loads the library.
# shellcheck disable=SC2086  # the flags are a word list
"$cc" -std=c99 -Wall -Werror -o "$work/app-pc" "$consumer/main.c" $flags \
  -Wl,--unresolved-symbols=ignore-in-shared-libs || fail "consumer build with pkg-config flags: $flags"
echo "install into a prefix and both consumer builds succeeded"
