#!/usr/bin/env bash
# The main job from the shell: ten million numbers summarised on every
# core and checked against their exact quantiles, then the everyday
# commands (tools/demo_steps.sh). Argument: the build tree.
set -euo pipefail
build=${1:-build}
tool="$build/bin/zotdigest"
if [[ ! -x "$tool" ]]; then
  echo "demo: the command-line tool is not built yet ($tool missing)."
  exit 0
fi
exec "$(dirname "$0")/demo_steps.sh" "$tool"
