#!/usr/bin/env bash
# Fails when a file includes from a layer above its own, or when a source file
# of a layer is missing from its folder's list in CMakeLists.txt (the lists are
# explicit, so a forgotten file would silently not be built). The layers, bottom up:
# host; config on host; log and ssl on config; analysis on log; module on all.
# The driver interface stands beside the host: it may use the host, and no
# layer of the system includes it (it is reached through the host's loader).
set -euo pipefail
cd "$(dirname "$0")/.."

declare -A allowed=(
  [host]="host"
  [driver]="driver host"
  [config]="config host"
  [log]="log config host"
  [ssl]="ssl config host"
  [analysis]="analysis log config host"
  [module]="module analysis log ssl config host"
)
# LogData keeps the analysis state as members, so its header names their
# value types.
exceptions="log/LogData.h:analysis/AnalysisTypes.h"

status=0
for layer in "${!allowed[@]}"; do
  [ -d "$layer" ] || continue
  while IFS=: read -r file _ line; do
    target=$(sed -nE 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*"([^"]+)".*/\1/p' <<<"$line")
    top=${target%%/*}
    [ "$top" != "$target" ] || continue            # a file beside this one
    [ -n "${allowed[$top]+x}" ] || continue        # not a layer (a system header)
    case " ${allowed[$layer]} " in *" $top "*) continue ;; esac
    case " $exceptions " in *" $file:$target "*) continue ;; esac
    echo "check-layers: $file includes $target, from a layer above $layer" >&2
    status=1
  done < <(grep -rHn --include='*.cpp' --include='*.h' -E '^[[:space:]]*#[[:space:]]*include[[:space:]]*"' "$layer" || true)
done

for layer in "${!allowed[@]}"; do
  [ -f "$layer/CMakeLists.txt" ] || continue
  while read -r source; do
    name=${source##*/}
    grep -rqF --include=CMakeLists.txt "$name" "$layer" && continue
    echo "check-layers: $source is not listed in any CMakeLists.txt of $layer" >&2
    status=1
  done < <(find "$layer" -name '*.cpp' | sort)
done
exit $status
