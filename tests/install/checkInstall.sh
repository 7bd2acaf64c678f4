#!/usr/bin/env bash
# Installs the build into a scratch prefix and builds a consumer against it,
# once through the CMake package and once through pkg-config.
#   checkInstall.sh <build dir> <consumer source dir> <C compiler>
set -euo pipefail

build=$1
consumer=$2
cc=$3

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >"$work/install.log" ||
  { cat "$work/install.log"; echo "FAIL: cmake --install"; exit 1; }

libdir=
for candidate in "$prefix"/lib "$prefix"/lib64 "$prefix"/lib/*-linux-*; do
  if [[ -e "$candidate/libBraskSvf.so.1.0.0" ]]; then
    libdir=$candidate
    break
  fi
done

failures=0
fail() {
  echo "FAIL: $*"
  failures=$((failures + 1))
}

if [[ -z "$libdir" ]]; then
  fail "libBraskSvf.so.1.0.0 not installed under $prefix"
  find "$prefix" | sed 's/^/    /'
  exit 1
fi

for link in libBraskSvf.so.1 libBraskSvf.so; do
  [[ -L "$libdir/$link" ]] || fail "$libdir/$link is not a symbolic link"
done
for f in include/BraskSvf.h include/BraskSvf/svfTypes.h include/BraskSvf/svfApi.h \
         include/BraskSvf/svfPlatform.h; do
  [[ -f "$prefix/$f" ]] || fail "$f not installed"
done
[[ ! -e "$prefix/include/BraskSvf/hostPlatformControl.h" ]] ||
  fail "the host platform's test controls header must not be installed"
[[ -f "$libdir/pkgconfig/braskSvf.pc" ]] || fail "pkgconfig/braskSvf.pc not installed"
for f in BraskSvfConfig.cmake BraskSvfConfigVersion.cmake BraskSvfTargets.cmake; do
  [[ -f "$libdir/cmake/BraskSvf/$f" ]] || fail "cmake/BraskSvf/$f not installed"
done

# find_package(BraskSvf)
if ! cmake -S "$consumer" -B "$work/consumer" -G Ninja -DCMAKE_C_COMPILER="$cc" \
     -DCMAKE_PREFIX_PATH="$prefix" >"$work/consumer.log" 2>&1 ||
   ! cmake --build "$work/consumer" >>"$work/consumer.log" 2>&1; then
  cat "$work/consumer.log"
  fail "consumer build with find_package(BraskSvf)"
fi

# pkg-config braskSvf
if flags=$(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --cflags --libs braskSvf); then
  # shellcheck disable=SC2086  # the flags are a word list
  "$cc" -std=c99 -Wall -Werror -o "$work/app-pc" "$consumer/main.c" $flags \
    -Wl,--unresolved-symbols=ignore-in-shared-libs ||
    fail "consumer build with pkg-config flags: $flags"
else
  fail "pkg-config does not know braskSvf"
fi

if ((failures > 0)); then
  echo "$failures install check(s) failed"
  exit 1
fi
echo "install into a prefix and both consumer builds succeeded"
