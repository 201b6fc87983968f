#!/usr/bin/env bash
# A manual page is well-formed, and describes exactly the options and commands that its program's help names.
# Arguments: the page; its program, if it has one.
set -euo pipefail
page=$1 program=${2:-}

mandoc -T lint -W warning "$page" 2>&1
[ -n "$program" ] || exit 0

options () { grep -o -e '--[a-z0-9][a-z0-9-]*' | grep -v -e '--help-' | sort -u; }
commands=$("$program" --help | sed -n '/^Commands:/,/^$/s/^  \([a-z]*\) .*/\1/p')

diff <(sed -n '/^\.It Fl/s/ -/ --/gp' "$page" | options) \
  <({ "$program" --help-all; for command in $commands; do "$program" "$command" --help-all; done; } | options)
diff <(sed -n 's/^\.It Cm \([a-z]*\).*/\1/p' "$page") <(echo "$commands" | sed '/^$/d')
