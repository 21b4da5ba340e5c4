#!/usr/bin/env bash
# Checks that everything a configured and built tree took from the system
# comes from a Debian package that tools/deps.sh installs, directly or
# through its dependencies (recommends are never installed). What a tree
# takes from the system:
#   - every header its objects were compiled against (ninja's deps log),
#   - every CMake package configuration and library CMake found (the cache),
#   - every shared library its executables and modules load (ldd),
#   - the compilers and tools it ran.
# A file no package owns is reported too: it came from somewhere a fresh
# machine does not have.
#
#   tools/deps_check_cxx.sh [BUILD_DIR ...]     (default: build)
#
# Exit status: 0 all covered, 1 something is not covered, 2 could not run.
set -uo pipefail
cd "$(dirname "$0")/.."

trees=("$@")
((${#trees[@]})) || trees=(build)

listed=$(sed -n '/packages=(/,/)/p' tools/deps.sh | sed 's/#.*//' | tr -s ' ()' '\n' |
  grep -E '^[a-z0-9][a-z0-9.+-]+$' | grep -v '^packages=' | sort -u)
[[ -n "$listed" ]] || { echo "deps-check: no packages=( ... ) list in tools/deps.sh" >&2; exit 2; }
# Base packages every Debian system has (Essential: yes, and required
# priority) need no listing.
base=$(dpkg-query -W -f='${Package} ${Essential} ${Priority}\n' 2>/dev/null |
  awk '$2 == "yes" || $3 == "required" { print $1 }')
closure=$( (apt-cache depends --recurse --no-recommends --no-suggests --no-conflicts --no-breaks \
  --no-replaces --no-enhances $listed $base 2>/dev/null | grep -v '^ ' | grep -v '^<'
  printf '%s\n' $base) | sed 's/:.*//' | sort -u)

files=()
for tree in "${trees[@]}"; do
  [[ -f "$tree/build.ninja" ]] || { echo "deps-check: $tree is not a configured tree" >&2; exit 2; }
  # Headers, from the compiler's own dependency output.
  mapfile -t -O "${#files[@]}" files < <(cd "$tree" && ninja -t deps | sed -n 's/^ *\(\/usr\/[^ ]*\)$/\1/p' | sort -u)
  # Package configurations, libraries and programs CMake found.
  mapfile -t -O "${#files[@]}" files < <(grep -E '^[A-Za-z0-9_]+(_DIR|_LIBRARY[A-Z_]*|_EXECUTABLE|_INCLUDE_DIR|_COMPILER):[A-Z]+=/usr/' \
    "$tree/CMakeCache.txt" | sed 's/^[^=]*=//' | tr ';' '\n' | grep '^/usr/' | sort -u)
  # Shared libraries the built programs and modules load.
  while IFS= read -r bin; do
    ldd "$bin" 2>/dev/null | sed -n 's/.*=> \(\/[^ ]*\) .*/\1/p'
  done < <(find "$tree" \( -path "$tree/_tbb-src" -o -path "$tree/tbb" \) -prune -o -type f \
    \( -perm -u+x -o -name '*.so*' \) -print 2>/dev/null | while IFS= read -r f; do
      [[ "$(head -c4 "$f" 2>/dev/null | tr -d '\0')" == $'\x7fELF' ]] && echo "$f"; done) |
    grep -v "^$PWD/" | sort -u >/tmp/deps-check-libs.$$
  mapfile -t -O "${#files[@]}" files </tmp/deps-check-libs.$$
  rm -f /tmp/deps-check-libs.$$
done
# Programs the build and the test runner call.
for tool in cmake ninja g++ clang++ xz tar sha256sum apt-get; do
  p=$(command -v "$tool") && files+=("$(readlink -f "$p")")
done

# dpkg -S takes many paths at once; a path it does not know is tried again
# as the file it resolves to and without /usr (the /lib -> /usr/lib merge).
owners() { xargs -r dpkg -S 2>/dev/null | sed 's/, /,/g' | sed -n 's/^\([^ ]*\): \(\/.*\)$/\1 \2/p'; }
all=$(printf '%s\n' "${files[@]}" | sort -u | grep . | while IFS= read -r f; do [[ -d "$f" ]] || echo "$f"; done)
found=$(owners <<<"$all")
rest=$(comm -23 <(printf '%s\n' "$all") <(awk '{print $2}' <<<"$found" | sort -u))
retry=""
unowned=()
while IFS= read -r f; do
  [[ -z "$f" || -d "$f" ]] && continue
  r=$(readlink -f "$f"); o=$( (dpkg -S "$r" || dpkg -S "${f#/usr}" || dpkg -S "${r#/usr}") 2>/dev/null | head -n1)
  if [[ -n "$o" ]]; then o=${o//, /,}; retry+="${o%%: *} $f"$'\n'; else unowned+=("$f"); fi
done <<<"$rest"

missing=()
declare -A seen=()
while read -r owner f; do
  [[ -z "$owner" ]] && continue
  for pkg in ${owner//,/ }; do
    pkg=${pkg%%:*}
    [[ -n "${seen[$pkg]:-}" ]] && continue
    seen[$pkg]=1
    grep -qx "$pkg" <<<"$closure" || missing+=("$pkg (for $f)")
  done
done <<<"$found"$'\n'"$retry"

status=0
if ((${#missing[@]})); then
  echo "deps-check: used by the C++ build but not installed by tools/deps.sh on a fresh machine:"
  printf '  %s\n' "${missing[@]}"
  status=1
fi
if ((${#unowned[@]})); then
  echo "deps-check: used by the C++ build but owned by no Debian package:"
  printf '  %s\n' "${unowned[@]}"
  status=1
fi
((status)) || echo "deps-check: ${#seen[@]} Debian packages used by ${trees[*]}, all installed by tools/deps.sh"
exit $status
