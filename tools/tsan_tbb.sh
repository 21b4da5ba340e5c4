#!/usr/bin/env bash
# Builds oneTBB with ThreadSanitizer and installs it in PREFIX, for the TSan
# build tree only. Debian's libtbb is not instrumented: TSan cannot see the
# synchronisation inside it, so every task handed from one worker to another
# looks like a data race in our code. The source is Debian's own source
# package of the installed libtbb-dev version, so the instrumented library is
# the same code the other trees link.
#
#   tools/tsan_tbb.sh PREFIX [WORKDIR]
#
# Does nothing when PREFIX already holds a TBB package configuration.
# WORKDIR (default: PREFIX's parent/_tbb-src) receives the apt lists, the
# download and the build. apt runs with a private sources list, lists and
# cache there; the system's apt configuration and state are left alone.
# Only the upstream tarball is built: Debian's patches for this version
# touch other architectures, tbbmalloc, GCC flags and the test suite, none
# of which this build compiles, so they are not applied and dpkg-dev is not
# needed. Environment: TSAN_TBB_SOURCES overrides the archives taken from
# apt's own configuration; JOBS sets the build's parallelism (default 2).
set -euo pipefail

if (($# < 1 || $# > 2)); then
  echo "usage: $0 PREFIX [WORKDIR]" >&2
  exit 2
fi

prefix=$(realpath -m "$1")
if [[ -f "$prefix/lib/cmake/TBB/TBBConfig.cmake" ]]; then
  exit 0
fi
work=$(realpath -m "${2:-$(dirname "$prefix")/_tbb-src}")

say() { echo "tsan-tbb: $*"; }

# fail MESSAGE [LOG]: reports, shows the end of the step's log, stops.
fail() {
  echo "tsan-tbb: error: $1" >&2
  if [[ -n "${2:-}" && -f "$2" ]]; then
    echo "tsan-tbb: last lines of $2:" >&2
    tail -n 25 "$2" >&2
  fi
  exit 1
}

for tool in dpkg-query apt-get tar xz sha256sum cmake ninja clang++; do
  command -v "$tool" >/dev/null || fail "$tool not found (run tools/deps.sh)"
done

read -r src_pkg src_ver < <(dpkg-query -W -f='${source:Package} ${source:Version}\n' libtbb-dev 2>/dev/null) ||
  fail "libtbb-dev is not installed (run tools/deps.sh)"
[[ -n "${src_pkg:-}" && -n "${src_ver:-}" ]] || fail "cannot tell which source package libtbb-dev comes from"

codename=$(. /etc/os-release && echo "${VERSION_CODENAME:-}")
[[ -n "$codename" ]] || fail "cannot tell the Debian release from /etc/os-release"
keyring=/usr/share/keyrings/debian-archive-keyring.gpg
[[ -f "$keyring" ]] || fail "$keyring missing (package debian-archive-keyring)"
# The archives are the ones this machine already installs from: every
# origin of the release's main component that apt knows becomes a deb-src
# line. TSAN_TBB_SOURCES may name "URI SUITE" pairs (one per line) instead.
sources=${TSAN_TBB_SOURCES:-$(apt-cache policy 2>/dev/null |
  awk -v rel="$codename" '$5 == "Packages" && $3 ~ ("^" rel "(-[a-z]+)?/main$") {
    split($3, s, "/"); print $2, s[1] }' | sort -u)}
[[ -n "$sources" ]] || fail "no Debian archive for $codename found in apt's sources (run apt-get update)"

start=$SECONDS
mkdir -p "$work/apt/lists/partial" "$work/apt/cache" "$work/apt/sources.list.d" "$work/download"
while read -r uri suite; do
  echo "deb-src [signed-by=$keyring] $uri $suite main"
done <<<"$sources" >"$work/apt/sources.list"

# Everything apt reads or writes besides its configuration files is
# redirected here; the source indexes are checked against the archive's
# signed Release files with the keyring above.
apt_opts=(
  -o "Dir::Etc::SourceList=$work/apt/sources.list"
  -o "Dir::Etc::SourceParts=$work/apt/sources.list.d"
  -o "Dir::State::Lists=$work/apt/lists"
  -o "Dir::Cache=$work/apt/cache"
  -o "APT::Get::List-Cleanup=true"
  -o "Acquire::Languages=none"
)
if (($(id -u) != 0)); then
  # The private lists need no lock held by root.
  apt_opts+=(-o "Debug::NoLocking=true")
fi

say "fetching the source indexes ($(tr "\n" " " <<<"$sources" | sed "s/ *$//"))"
apt-get "${apt_opts[@]}" update --error-on=any >"$work/apt-update.log" 2>&1 ||
  fail "apt-get update failed (network, or the archive is not reachable)" "$work/apt-update.log"

# apt-get source checks each file against the size and hashes the signed
# index gives and skips files already present with those hashes.
say "downloading $src_pkg $src_ver"
(cd "$work/download" && apt-get "${apt_opts[@]}" source --download-only "$src_pkg=$src_ver") \
  >"$work/apt-source.log" 2>&1 ||
  fail "could not download $src_pkg $src_ver; if the archive has moved on to a newer version, upgrade libtbb-dev (apt-get install --only-upgrade libtbb-dev) and retry" \
    "$work/apt-source.log"

# The file names come from the .dsc, so the tarball is the one this version
# names, whatever else lies in the download directory.
upstream_ver=${src_ver#*:}
dsc="$work/download/${src_pkg}_${upstream_ver}.dsc"
[[ -f "$dsc" ]] || fail "$dsc missing after the download" "$work/apt-source.log"
sums=$(sed -n '/^Checksums-Sha256:/,/^[^ ]/{/^ /p}' "$dsc" | awk '{print $1 "  " $3}')
[[ -n "$sums" ]] || fail "no Checksums-Sha256 field in $dsc"
say "checking the files against $(basename "$dsc")"
(cd "$work/download" && sha256sum --quiet -c <<<"$sums") || fail "checksum mismatch in $work/download"
orig=$(awk '{print $2}' <<<"$sums" | grep -E '\.orig\.tar\.[a-z0-9]+$' | head -n1)
[[ -n "$orig" ]] || fail "no upstream tarball listed in $dsc"

say "extracting $orig"
rm -rf "$work/src" "$work/build"
mkdir -p "$work/src"
tar -xf "$work/download/$orig" -C "$work/src" --strip-components=1 ||
  fail "could not extract $work/download/$orig"

say "configuring (clang++, -fsanitize=thread, RelWithDebInfo)"
cmake -S "$work/src" -B "$work/build" -G Ninja \
  -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_INSTALL_PREFIX="$prefix" -DCMAKE_INSTALL_LIBDIR=lib \
  -DTBB_SANITIZE=thread -DTBB_TEST=OFF -DTBBMALLOC_BUILD=OFF -DTBB_STRICT=OFF \
  -DTBB_DISABLE_HWLOC_AUTOMATIC_SEARCH=ON \
  >"$work/configure.log" 2>&1 || fail "cmake configure failed" "$work/configure.log"

jobs=${JOBS:-2}
say "building (-j$jobs)"
cmake --build "$work/build" -j"$jobs" >"$work/build.log" 2>&1 || fail "build failed" "$work/build.log"

# Installed beside PREFIX first and moved into place, so an interrupted run
# never leaves a PREFIX that the check at the top would take as complete.
# The installed package configuration locates itself, so the move is safe.
say "installing in $prefix"
rm -rf "$prefix.partial"
cmake --install "$work/build" --prefix "$prefix.partial" >"$work/install.log" 2>&1 ||
  fail "install failed" "$work/install.log"
[[ -f "$prefix.partial/lib/cmake/TBB/TBBConfig.cmake" ]] || fail "install produced no TBBConfig.cmake" "$work/install.log"
rm -rf "$prefix"
mv "$prefix.partial" "$prefix"
say "done in $((SECONDS - start)) s"
