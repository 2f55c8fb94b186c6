#!/usr/bin/env bash
# Installs the package into a temporary prefix, checks what is installed,
# and builds tests/install/embed_frames.c against it twice: through
# pkg-config and through find_package(lumamark). Both programs must embed
# the same bytes as the installed command line.
#   install_test.sh BUILD_DIR THIS_DIR CMAKE CC
set -euo pipefail
build=$1 here=$2 cmake=$3 cc=$4
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
prefix=$tmp/prefix
fail() { echo "FAIL: $*" >&2; exit 1; }

"$cmake" --install "$build" --prefix "$prefix" >/dev/null

for f in bin/lumamark bin/lumamark-detect include/lumamark/lumamark.h \
  lib/liblumamark.so.2.1.3 lib/liblumamark.a lib/pkgconfig/lumamark.pc \
  lib/cmake/lumamark/lumamarkConfig.cmake lib/cmake/lumamark/lumamarkConfigVersion.cmake \
  share/man/man1/lumamark.1 share/man/man1/lumamark-detect.1; do
  [ -e "$prefix/$f" ] || fail "$f is not installed"
done
[ "$(readlink "$prefix/lib/liblumamark.so")" = liblumamark.so.2 ] || fail "liblumamark.so does not point to .so.2"
[ "$(readlink "$prefix/lib/liblumamark.so.2")" = liblumamark.so.2.1.3 ] || fail "liblumamark.so.2 does not point to .so.2.1.3"
soname=$(objdump -p "$prefix/lib/liblumamark.so.2.1.3" | awk '/SONAME/ {print $2}')
[ "$soname" = liblumamark.so.2 ] || fail "SONAME is '$soname'"
others=$(nm -D --defined-only "$prefix/lib/liblumamark.so.2.1.3" | awk '{print $3}' | grep -v '^lumamark_' || true)
[ -z "$others" ] || fail "symbols exported besides the API: $others"
nm -D --defined-only "$prefix/lib/liblumamark.so.2.1.3" | grep -q ' T lumamark_embedder_open$' || fail "API not exported"
"$prefix/bin/lumamark" --version | grep -qx 2.1.3 || fail "installed lumamark does not run"

# Through pkg-config (the .pc file finds the prefix from where it lies).
export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
[ "$(pkg-config --modversion lumamark)" = 2.1.3 ] || fail "pkg-config version"
# shellcheck disable=SC2046
"$cc" -std=c99 -Wall -Wextra -Werror -o "$tmp/embed_pc" "$here/embed_frames.c" \
  $(pkg-config --cflags --libs lumamark) -Wl,-rpath,"$prefix/lib"

# Through find_package(lumamark), giving lumamark::lumamark.
"$cmake" -S "$here/consumer" -B "$tmp/consumer" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_C_COMPILER="$cc" >/dev/null
"$cmake" --build "$tmp/consumer" >/dev/null

# Both embed what the command line embeds: three frames of noise, settings
# away from the defaults.
w=96 h=64
head -c $((w * h * 3 / 2 * 3)) /dev/urandom > "$tmp/in.yuv"
settings=(width $w height $h wm-id 1a2b user-urn 00112233445566778899aabbccddeeff
  strength 4 sp-width 8 seed 7 threads 2)
args=()
for ((i = 0; i < ${#settings[@]}; i += 2)); do args+=("--${settings[i]}" "${settings[i + 1]}"); done
"$prefix/bin/lumamark" "${args[@]}" --input-file "$tmp/in.yuv" --output-file "$tmp/cli.yuv"
"$tmp/embed_pc" "$tmp/in.yuv" "$tmp/pc.yuv" "${settings[@]}"
"$tmp/consumer/embed_frames" "$tmp/in.yuv" "$tmp/cmake.yuv" "${settings[@]}"
cmp "$tmp/cli.yuv" "$tmp/pc.yuv" || fail "pkg-config build embeds other bytes than the command line"
cmp "$tmp/cli.yuv" "$tmp/cmake.yuv" || fail "find_package build embeds other bytes than the command line"
cmp -s "$tmp/in.yuv" "$tmp/cli.yuv" && fail "nothing was embedded"
echo "install test passed: $(wc -c < "$tmp/cli.yuv") bytes equal through pkg-config and find_package"
