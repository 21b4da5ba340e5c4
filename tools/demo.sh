#!/usr/bin/env bash
# The main job from the shell: summarise a column of numbers, ask it
# questions, merge partial summaries.
set -euo pipefail
build=${1:-build}
tool="$build/bin/zotdigest"
if [[ ! -x "$tool" ]]; then
  echo "demo: the command-line tool is not built yet ($tool missing)."
  exit 0
fi
exec "$(dirname "$0")/demo_steps.sh" "$tool"
