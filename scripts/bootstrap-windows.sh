#!/usr/bin/env bash
# Prepares the Windows cross build: Debian's mingw-w64 compilers and Wine, and
# a prefix of static Windows libraries built with cmake/mingw-w64-x86_64.cmake:
#   JsonCpp, libzip (over mingw zlib), libdeflate  from Debian's source packages,
#   GoogleTest + GoogleMock            from the googletest package's sources,
#   fmt, utfcpp                        Debian's headers, used header-only.
#
#   scripts/bootstrap-windows.sh [DEPS_DIR]     (default: build/windows-deps)
#
# The prefix is DEPS_DIR/prefix. A stamp keyed on the package versions and on
# this recipe makes a second run quiet and fast; anything else rebuilds it all.
set -euo pipefail

repo="$(cd "$(dirname "$0")/.." && pwd)"
deps_dir="$(mkdir -p "${1:-$repo/build/windows-deps}" && cd "${1:-$repo/build/windows-deps}" && pwd)"
prefix="$deps_dir/prefix"
stamp="$prefix/.zep-deps-stamp"
toolchain="$repo/cmake/mingw-w64-x86_64.cmake"
jobs="${ZEP_JOBS:-2}"

sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
apt_quiet=(-qq -o DPkg::Lock::Timeout=600)

# --- Debian packages -------------------------------------------------------
packages=(
  g++-mingw-w64-x86-64-posix gcc-mingw-w64-x86-64-posix  # the cross compilers (posix threads)
  libz-mingw-w64-dev          # zlib for Windows, under libzip
  wine64                      # runs the Windows programs and tests
  googletest                  # GoogleTest/GoogleMock sources, built for Windows
  libfmt-dev libutfcpp-dev    # header-only libraries, same versions as the Linux build
  dpkg-dev                    # dpkg-source, which apt-get source unpacks with
  cmake ninja-build pkgconf make  # the build (make: libdeflate's own Makefile)
)
missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$package")
  fi
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "bootstrap-windows: installing ${missing[*]}"
  $sudo apt-get update "${apt_quiet[@]}"
  $sudo apt-get install -y "${apt_quiet[@]}" --no-install-recommends "${missing[@]}" >/dev/null
fi

# --- Source packages: a deb-src twin of the machine's own Debian entries ----
codename="$(. /etc/os-release && echo "${VERSION_CODENAME:-}")"
ours_sources=/etc/apt/sources.list.d/zep-deb-src.sources
ours_list=/etc/apt/sources.list.d/zep-deb-src.list

# deb822 stanzas of type deb for this release (suites "<codename>" or
# "<codename>-*"), copied with Types: deb-src; none that has deb-src already.
derive_deb822() {
  local file
  for file in /etc/apt/sources.list.d/*.sources; do
    [ -e "$file" ] && [ "$file" != "$ours_sources" ] || continue
    awk -v codename="$codename" '
      BEGIN { RS = ""; FS = "\n" }
      {
        body = ""; types = ""; suites = ""; enabled = "yes"
        for (i = 1; i <= NF; i++) {
          if ($i ~ /^#/) continue
          if ($i ~ /^Types:/)   { types = $i; continue }
          if ($i ~ /^Suites:/)  suites = $i
          if ($i ~ /^Enabled:/) enabled = tolower($i)
          body = body $i "\n"
        }
        if (types !~ /[: ]deb( |$)/ || types ~ /deb-src/ || enabled ~ /:[ \t]*no/) next
        n = split(substr(suites, 8), list, " ")
        if (n == 0) next
        for (j = 1; j <= n; j++)
          if (list[j] != codename && index(list[j], codename "-") != 1) next
        printf "Types: deb-src\n%s\n", body
      }' "$file"
  done
}

# One-line entries ("deb [options] URI suite components") the same way; the
# files are read twice, first for the deb-src lines they have already.
derive_one_line() {
  local files=() file
  for file in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
    [ -e "$file" ] && [ "$file" != "$ours_list" ] && files+=("$file")
  done
  [ ${#files[@]} -gt 0 ] || return 0
  awk -v codename="$codename" -v count="${#files[@]}" '
    FNR == 1 { pass = (++seen <= count) ? 1 : 2 }
    pass == 1 { if ($1 == "deb-src") have[$0] = 1; next }
    $1 == "deb" {
      s = 2
      if ($2 ~ /^\[/) { while (s <= NF && $s !~ /\]$/) s++; s++ }
      suite = $(s + 1)
      if (suite != codename && index(suite, codename "-") != 1) next
      sub(/^deb/, "deb-src")
      if (!($0 in have)) print
    }' "${files[@]}" "${files[@]}"
}

# Writes $2 to $1 when it differs (nothing when empty); says whether it wrote.
write_if_changed() {
  local path="$1" content="$2"
  if [ -z "$content" ]; then
    [ -e "$path" ] || return 1
    $sudo rm -f "$path"; return 0
  fi
  [ -e "$path" ] && [ "$(cat "$path")" = "$content" ] && return 1
  printf '%s\n' "$content" | $sudo tee "$path" >/dev/null
}

[ -n "$codename" ] || { echo "bootstrap-windows: no VERSION_CODENAME in /etc/os-release" >&2; exit 1; }
header="# Source packages for the Windows build (scripts/bootstrap-windows.sh),
# derived from this machine's own entries."
changed=0
deb822="$(derive_deb822)"
one_line="$(derive_one_line)"
write_if_changed "$ours_sources" "${deb822:+$header
$deb822}" && changed=1
write_if_changed "$ours_list" "${one_line:+$header
$one_line}" && changed=1

# "<package> <version>" of what apt-get source would fetch, from the local
# indexes (one apt call: it is the slow part of a cached run).
source_versions() {
  apt-get source --print-uris -qq libjsoncpp libzip libdeflate 2>/dev/null |
    sed -n "s/^'[^']*' \([^_ ]*\)_\(.*\)\.dsc .*/\1 \2/p" || true
}
versions="$(source_versions)"
if [ "$changed" = 1 ] || [ -z "$versions" ]; then
  $sudo apt-get update "${apt_quiet[@]}"
  versions="$(source_versions)"
fi
jsoncpp_version="$(awk '$1 == "libjsoncpp" { print $2 }' <<<"$versions")"
libzip_version="$(awk '$1 == "libzip" { print $2 }' <<<"$versions")"
libdeflate_version="$(awk '$1 == "libdeflate" { print $2 }' <<<"$versions")"
if [ -z "$jsoncpp_version" ] || [ -z "$libzip_version" ] || [ -z "$libdeflate_version" ]; then
  echo "bootstrap-windows: apt finds no source package for libjsoncpp, libzip or libdeflate" >&2
  echo "  (entries written: $ours_sources, $ours_list)" >&2
  exit 1
fi

# --- Cache -----------------------------------------------------------------
package_version() { dpkg-query -W -f='${Version}' "$1"; }
key="libjsoncpp $jsoncpp_version
libzip $libzip_version
libdeflate $libdeflate_version
googletest $(package_version googletest)
libfmt-dev $(package_version libfmt-dev)
libutfcpp-dev $(package_version libutfcpp-dev)
libz-mingw-w64-dev $(package_version libz-mingw-w64-dev)
g++-mingw-w64-x86-64-posix $(package_version g++-mingw-w64-x86-64-posix)
recipe $(cat "$0" "$repo"/cmake/mingw-w64-*.cmake | sha256sum | cut -d' ' -f1)"
if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$key" ]; then
  exit 0
fi

# --- Build -----------------------------------------------------------------
echo "bootstrap-windows: building the Windows dependencies into $prefix"
started=$SECONDS
rm -rf "$prefix" "$deps_dir/src" "$deps_dir/build"
mkdir -p "$prefix" "$deps_dir/src" "$deps_dir/build"

# Runs a step with its output in a log, shown only when the step fails.
logged() {
  local log="$1"; shift
  if ! "$@" >>"$log" 2>&1; then
    echo "bootstrap-windows: failed: $*" >&2
    tail -n 40 "$log" >&2
    exit 1
  fi
}

# Unpacks a Debian source package into src/ (dpkg-source applies Debian's patches).
fetch_source() {  # name version
  local name="$1" version="$2"
  (cd "$deps_dir/src" && apt-get source -qq -o APT::Sandbox::User=root --only-source \
     "$name=$version") >>"$deps_dir/src/$name.log" 2>&1 ||
    { echo "bootstrap-windows: apt-get source $name=$version failed" >&2
      tail -n 20 "$deps_dir/src/$name.log" >&2; exit 1; }
}
unpacked() { find "$deps_dir/src" -mindepth 1 -maxdepth 1 -type d -name "$1-*" | head -n 1; }

cmake_project() {  # name source-dir [cmake options...]
  local name="$1" source="$2"; shift 2
  local build="$deps_dir/build/$name" log="$deps_dir/build/$name.log"
  echo "  $name"
  logged "$log" cmake -S "$source" -B "$build" -G Ninja \
    -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DZEP_WINDOWS_DEPS_PREFIX="$prefix" \
    -DZEP_WINE_PREFIX="$deps_dir/wineprefix" \
    -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$prefix" \
    -DBUILD_SHARED_LIBS=OFF "$@"
  logged "$log" cmake --build "$build" -j "$jobs"
  logged "$log" cmake --install "$build"
}

fetch_source libjsoncpp "$jsoncpp_version"
fetch_source libzip "$libzip_version"
fetch_source libdeflate "$libdeflate_version"

cmake_project jsoncpp "$(unpacked libjsoncpp)" \
  -DBUILD_STATIC_LIBS=ON -DBUILD_OBJECT_LIBS=OFF \
  -DJSONCPP_WITH_TESTS=OFF -DJSONCPP_WITH_POST_BUILD_UNITTEST=OFF \
  -DJSONCPP_WITH_PKGCONFIG_SUPPORT=ON -DJSONCPP_WITH_CMAKE_PACKAGE=ON

# Deflate over zlib only: no encryption, no bzip2/lzma/zstd, no tools.
cmake_project libzip "$(unpacked libzip)" \
  -DENABLE_COMMONCRYPTO=OFF -DENABLE_GNUTLS=OFF -DENABLE_MBEDTLS=OFF -DENABLE_OPENSSL=OFF \
  -DENABLE_WINDOWS_CRYPTO=OFF -DENABLE_BZIP2=OFF -DENABLE_LZMA=OFF -DENABLE_ZSTD=OFF \
  -DBUILD_TOOLS=OFF -DBUILD_REGRESS=OFF -DBUILD_EXAMPLES=OFF -DBUILD_DOC=OFF

# libzip's own package file leaves zlib out ("only needed for static
# library"), so a consumer's link would name an unknown ZLIB::ZLIB; and its
# pkg-config file keeps -lz private although there is no shared libzip here.
sed -i 's/^#include(CMakeFindDependencyMacro)/include(CMakeFindDependencyMacro)/;
        s/^#find_dependency(ZLIB::ZLIB)/find_dependency(ZLIB)/' \
  "$prefix/lib/cmake/libzip/libzip-config.cmake"
sed -i '/^Libs\.private:/d; s/^Libs: .*/& -ladvapi32 -lz/' "$prefix/lib/pkgconfig/libzip.pc"

# libdeflate builds with its own Makefile: the static library only (its
# mingw name is libdeflatestatic.lib), installed under the usual names.
echo "  libdeflate"
libdeflate_source="$(unpacked libdeflate)"
logged "$deps_dir/build/libdeflate.log" make -C "$libdeflate_source" -j "$jobs" \
  CC=x86_64-w64-mingw32-gcc-posix AR=x86_64-w64-mingw32-ar CFLAGS=-O2 libdeflatestatic.lib
mkdir -p "$prefix/lib/pkgconfig" "$prefix/include"
cp "$libdeflate_source/libdeflatestatic.lib" "$prefix/lib/libdeflate.a"
cp "$libdeflate_source/libdeflate.h" "$prefix/include/"
sed -e "s|@PREFIX@|$prefix|; s|@LIBDIR@|$prefix/lib|; s|@INCDIR@|$prefix/include|" \
    -e "s|@VERSION@|${libdeflate_version%%-*}|" \
  "$libdeflate_source/libdeflate.pc.in" >"$prefix/lib/pkgconfig/libdeflate.pc"

cmake_project googletest /usr/src/googletest -DBUILD_GMOCK=ON -DINSTALL_GTEST=ON

# fmt and utfcpp: the very headers the Linux build uses, under the package
# names and targets of Debian's own CMake files (fmt::fmt, utf8::cpp). fmt is
# used header-only: its printf and wide-character headers cost the same to
# compile either way, and there is no second copy of fmt to build and keep.
echo "  fmt, utfcpp (headers)"
cp -r /usr/include/fmt /usr/include/utf8cpp "$prefix/include/"
cat >"$deps_dir/build/version.cmake" <<'END'
include(CMakePackageConfigHelpers)
write_basic_package_version_file("${OUT}" VERSION "${VERSION}"
                                 COMPATIBILITY SameMajorVersion ARCH_INDEPENDENT)
END
header_only_package() {  # name version config-text
  local dir="$prefix/lib/cmake/$1"
  mkdir -p "$dir"
  printf '%s\n' "$3" >"$dir/$1-config.cmake"
  cmake -DOUT="$dir/$1-config-version.cmake" -DVERSION="$2" -P "$deps_dir/build/version.cmake"
}
upstream_version() { package_version "$1" | sed 's/^[0-9]*://; s/[+~-].*//'; }
header_only_package fmt "$(upstream_version libfmt-dev)" '# fmt, header-only (scripts/bootstrap-windows.sh).
get_filename_component(_fmt_prefix "${CMAKE_CURRENT_LIST_DIR}/../../.." ABSOLUTE)
if(NOT TARGET fmt::fmt-header-only)
  add_library(fmt::fmt-header-only INTERFACE IMPORTED)
  set_target_properties(fmt::fmt-header-only PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES "${_fmt_prefix}/include"
    INTERFACE_COMPILE_DEFINITIONS "FMT_HEADER_ONLY=1"
    INTERFACE_COMPILE_FEATURES cxx_std_11)
endif()
if(NOT TARGET fmt::fmt)
  add_library(fmt::fmt INTERFACE IMPORTED)
  set_target_properties(fmt::fmt PROPERTIES INTERFACE_LINK_LIBRARIES fmt::fmt-header-only)
endif()
unset(_fmt_prefix)'
header_only_package utf8cpp "$(upstream_version libutfcpp-dev)" '# utfcpp, header-only (scripts/bootstrap-windows.sh).
get_filename_component(_utf8cpp_prefix "${CMAKE_CURRENT_LIST_DIR}/../../.." ABSOLUTE)
if(NOT TARGET utf8cpp)
  add_library(utf8cpp INTERFACE IMPORTED)
  set_target_properties(utf8cpp PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES "${_utf8cpp_prefix}/include/utf8cpp")
endif()
if(NOT TARGET utf8::cpp)
  add_library(utf8::cpp INTERFACE IMPORTED)
  set_target_properties(utf8::cpp PROPERTIES INTERFACE_LINK_LIBRARIES utf8cpp)
endif()
unset(_utf8cpp_prefix)'

echo "$key" >"$stamp"
echo "bootstrap-windows: done in $((SECONDS - started)) s"
