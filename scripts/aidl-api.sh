#!/usr/bin/env bash
# scripts/aidl-api.sh check|update|freeze: keeps the frozen API of the
# interfaces under aidl/ as the platform's aidl_interface does.
#   check   the definitions are what aidl/aidl_api/<module>/current records,
#           every frozen version is intact (its .hash) and each one up to
#           current is a compatible extension of the one before it
#           (aidl --checkapi). The default build runs it.
#   update  rewrites current from the definitions (a reviewed API change).
#   freeze  update, then freezes current as the next version; add that
#           version to the module's versions in aidl/Android.bp.
#
# The host's aidl (the Android 10 tool) predates @VintfStability, which a
# device build needs on every type of a "vintf" module. It is taken out
# before the host tool reads a file and put back on what it writes; the
# check makes sure it stands on every type of those modules and nowhere else.
set -euo pipefail
cd "$(dirname "$0")/.."

mode=${1:-check}
AIDL=${AIDL:-aidl}
# module name, package directory below aidl/, stability
MODULES=(
  "velmar.system.tarnis.common velmar/system/tarnis/common vintf"
  "nuvi.dorva.native nuvi/dorva local"
  "vendor.velmar.hardware.kolto.common vendor/velmar/hardware/kolto/common vintf"
)
VINTF_LINE="@VintfStability"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failed=0
fail() { echo "aidl-api: $*" >&2; failed=1; }

# strip DIR OUT: a copy of the .aidl files below DIR without the annotation.
strip() {
  (cd "$1" && find . -name '*.aidl' -print0) | while IFS= read -r -d '' f; do
    mkdir -p "$2/$(dirname "$f")"
    grep -v "^${VINTF_LINE}\$" "$1/$f" >"$2/$f"
  done
}

# annotate DIR: puts the annotation back before each type of a vintf module,
# where the platform's own dump writes it, and ends each file with a newline.
annotate() {
  find "$1" -name '*.aidl' -print0 | while IFS= read -r -d '' f; do
    awk -v line="$VINTF_LINE" '/^(interface|parcelable|enum|union) / { print line } { print }' "$f" >"$f.tmp"
    mv "$f.tmp" "$f"
  done
}

# The platform's integrity hash of a frozen version (aidl_interface's own
# recipe: the sorted files' sums, then the previous version's number).
api_hash() {
  local version=$1 previous
  if [ "$version" -gt 1 ]; then previous=$((version - 1)); else previous=latest-version; fi
  (cd "$2" && { find ./ -name "*.aidl" -print0 | LC_ALL=C sort -z | xargs -0 sha1sum && echo "$previous"; } |
    sha1sum | cut -d " " -f 1)
}

# Checks that the annotation stands on every type of a vintf module and on
# no type of any other module.
check_stability() {
  local stability=$1; shift
  local f
  for f in "$@"; do
    local types annotated
    types=$(grep -cE '^(interface|parcelable|enum|union) ' "$f" || true)
    annotated=$(grep -c "^${VINTF_LINE}\$" "$f" || true)
    if [ "$stability" = vintf ] && [ "$annotated" != "$types" ]; then
      fail "$f: a type of a vintf module without ${VINTF_LINE}"
    elif [ "$stability" != vintf ] && [ "$annotated" != 0 ]; then
      fail "$f: ${VINTF_LINE} in a module that is not vintf"
    fi
  done
}

checkapi() {  # OLD NEW: NEW is a compatible extension of OLD
  if ! "$AIDL" --checkapi "$1" "$2" >"$work/checkapi.log" 2>&1; then
    sed 's/^/    /' "$work/checkapi.log" >&2
    return 1
  fi
}

mkdir -p "$work/src"
strip aidl "$work/src"
for entry in "${MODULES[@]}"; do
  read -r module package stability <<<"$entry"
  api="aidl/aidl_api/$module"
  grep -q "name: \"$module\"" aidl/Android.bp || fail "$module is no aidl_interface of aidl/Android.bp"
  check_stability "$stability" aidl/"$package"/*.aidl

  tot="$work/tot/$module"
  mkdir -p "$tot"
  if ! "$AIDL" --structured --dumpapi --out="$tot" -I "$work/src" "$work/src/$package"/*.aidl \
      >"$work/dump.log" 2>&1; then
    cat "$work/dump.log" >&2
    fail "$module: the definitions do not compile"
    continue
  fi
  [ "$stability" = vintf ] && annotate "$tot"

  if [ "$mode" = update ] || [ "$mode" = freeze ]; then
    rm -rf "$api/current"
    mkdir -p "$api/current"
    cp -r "$tot"/. "$api/current"/
  fi
  versions=$(find "$api" -mindepth 1 -maxdepth 1 -type d -regex '.*/[0-9]+' -printf '%f\n' 2>/dev/null | sort -n)
  last=$(echo "$versions" | tail -1)

  if [ "$mode" = freeze ]; then
    if [ -n "$last" ] && checkapi "$api/$last" "$api/current" 2>/dev/null &&
        checkapi "$api/current" "$api/$last" 2>/dev/null; then
      echo "aidl-api: $module: nothing to freeze, version $last is current"
    else
      next=$(( ${last:-0} + 1 ))
      cp -r "$api/current" "$api/$next"
      api_hash "$next" "$api/$next" >"$api/$next/.hash"
      echo "aidl-api: $module: froze version $next; add \"$next\" to its versions in aidl/Android.bp"
      versions=$(printf '%s\n%s' "$versions" "$next" | sed '/^$/d')
    fi
  fi

  if [ ! -d "$api/current" ]; then
    fail "$module: no $api/current; run scripts/aidl-api.sh update"
    continue
  fi
  # The host tool reads the recorded dumps without the annotation too.
  previous=""
  for version in $versions current; do
    dir="$api/$version"
    check_stability "$stability" $(find "$dir" -name '*.aidl')
    if [ "$version" != current ]; then
      if [ ! -f "$dir/.hash" ] || [ "$(api_hash "$version" "$dir")" != "$(cut -d ' ' -f 1 "$dir/.hash")" ]; then
        fail "$module: frozen version $version was changed (its .hash no longer matches); a frozen version never changes"
      fi
      grep -qE "versions.*\"$version\"|version: \"$version\"" aidl/Android.bp ||
        fail "$module: version $version is not among the module's versions in aidl/Android.bp"
    fi
    strip "$dir" "$work/api/$module/$version"
    if [ -n "$previous" ] && ! checkapi "$work/api/$module/$previous" "$work/api/$module/$version"; then
      fail "$module: $version is not a compatible extension of version $previous"
    fi
    previous=$version
  done
  # Compatible both ways is equal: nothing added, nothing removed or changed.
  strip "$tot" "$work/tot-plain/$module"
  if ! checkapi "$work/api/$module/current" "$work/tot-plain/$module" ||
      ! checkapi "$work/tot-plain/$module" "$work/api/$module/current"; then
    fail "$module: the definitions differ from $api/current; if the change is meant, run scripts/aidl-api.sh update"
  fi
done
for dir in aidl/aidl_api/*/; do
  [ -d "$dir" ] || continue
  name=$(basename "$dir")
  printf '%s\n' "${MODULES[@]}" | grep -q "^$name " || fail "$dir belongs to no module this script knows"
done

[ "$failed" -eq 0 ] || exit 1
[ "$mode" = check ] && echo "aidl-api: ${#MODULES[@]} interface modules match their frozen API"
exit 0
