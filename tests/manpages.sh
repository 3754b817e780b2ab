#!/bin/bash
# The manual pages render without a warning, and wdctl's help and man/wdctl.1
# name the same commands, options, command types, modules and exit statuses.
# Usage: manpages.sh WDCTL SOURCE_DIR
set -u
wdctl=$1 man=$2/man fail=0
for page in "$man"/watchdogd.8 "$man"/wdctl.1 "$man"/tcapi.1; do
  warnings=$(groff -man -Tutf8 -ww -z "$page" 2>&1) || warnings+=" (groff failed)"
  [ -z "$warnings" ] || { echo "$page does not render cleanly: $warnings"; fail=1; }
done
help=$("$wdctl" --help) || { echo "wdctl --help failed"; exit 1; }
# "KIND ITEM" lines from the help: its blocks, the name(number) lists, the exit statuses.
from_help=$(awk '/^Commands:/ {k = "command"; next} /^Options/ {k = "option"; next}
  /^TYPE is/ {k = "type"} /^MODULE is/ {k = "module"}
  /^Exit status:/ {n = split($0, s, /[:,] /); for (i = 2; i <= n; i++) {split(s[i], w, " "); print "exit-status " w[1]}; next}
  k == "command" && /^  [a-z]/ {n = split($1, c, "|"); for (i = 1; i <= n; i++) print "command " c[i]}
  k == "option" && /^  -/ {for (i = 1; i <= NF && $i ~ /^-/; i++) {sub(/,$/, "", $i); print "option " $i}}
  k == "type" || k == "module" {for (i = 1; i <= NF; i++) if (match($i, /^[a-z0-9_-]+\([0-9]+\)/)) print k " " substr($i, 1, RLENGTH)}' <<<"$help" | sort -u)
# The same from the tags (.TP/.TQ) of the page's sections.
from_page=$(awk '/^\.SH/ {s = $0; sub(/^\.SH +/, "", s); gsub(/"/, "", s); next}
  /^\.T[PQ]/ {t = 1; next}
  t {t = 0; l = $0; sub(/^\.[A-Z]+ */, "", l); gsub(/\\-/, "-", l); gsub(/\\f[BIRP]|\\%|"/, "", l); split(l, w, " ")
    if (s == "COMMANDS") print "command " w[1]
    if (s == "OPTIONS") for (i in w) if (w[i] ~ /^-/) {sub(/,$/, "", w[i]); print "option " w[i]}
    if (s == "COMMAND TYPES" || s == "MODULES") {gsub(/ /, "", l); print (s == "MODULES" ? "module " : "type ") l}
    if (s == "EXIT STATUS") print "exit-status " w[1]}' "$man/wdctl.1" | sort -u)
for kind in command option type module exit-status; do
  grep -q "^$kind " <<<"$from_help" || { echo "found no $kind in wdctl --help"; fail=1; }
done
missing=$(diff <(echo "$from_help") <(echo "$from_page") | sed -n 's/^< /man\/wdctl.1 lacks /p; s/^> /wdctl --help lacks /p')
[ -z "$missing" ] || { echo "$missing"; fail=1; }
exit $fail
