#!/usr/bin/env bash
# report-fields.sh [--write-docs]: checks every description of the report
# lines' fields against the one table, docs/report-fields.tsv:
#   - the field tables of docs/reports.md (made from the table: --write-docs
#     writes them anew between their "<!-- fields CATEGORY -->" marks);
#   - the operator's collector parser, collector/watchdogd.conf: each
#     category's pattern names the fields in order, with the shape of their
#     type, and its JSON object gives numbers as numbers;
#   - the live view's decoder, gateway/report-view, run on one line per
#     category: it shows each field under its name, with its unit;
#   - the daemon's category table (WD_CATEGORIES of src/relay/wd_syslog.h):
#     the same names.
# Prints what disagrees and exits 1, or exits 0.
set -u
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
table=$root/docs/report-fields.tsv
docs=$root/docs/reports.md
conf=$root/collector/watchdogd.conf
view=$root/gateway/report-view
daemon=$root/src/relay/wd_syslog.h
failed=0
bad() { echo "report-fields: $*" >&2; failed=1; }

# The table without its comments: category, field, type, unit, meaning.
rows() { grep -v -e '^#' -e '^$' "$table"; }

# The docs' field tables, made from the table; on stdin the docs, on stdout
# the docs with each marked table made anew.
make_docs() {
  awk -F '\t' -v table="$table" '
    BEGIN {
      word["int"] = "number"; word["decimal"] = "decimal"; word["text"] = "text"; word["zero"] = "number"
      while ((getline l < table) > 0) {
        if (l ~ /^#/ || l == "") continue
        split(l, c, "\t")
        if (c[3] == "unused") continue
        n = ++count[c[1]]
        name = c[2] == "-" ? "" : "`" c[2] "`"
        text[c[1]] = text[c[1]] "| " n " | " name " | " word[c[3]] " | " c[4] " | " c[5] " |\n"
      }
    }
    skip && /^<!-- end fields -->$/ { skip = 0 }
    skip { next }
    { print }
    /^<!-- fields [a-z0-9]+ -->$/ {
      cat = $0; sub(/^<!-- fields /, "", cat); sub(/ -->$/, "", cat)
      if (!(cat in text)) { print "report-fields: no fields of " cat > "/dev/stderr"; exit 1 }
      printf "| # | Field | Type | Unit | Meaning |\n|---|---|---|---|---|\n%s", text[cat]
      skip = 1; done[cat] = 1
    }
    END {
      for (cat in text) if (!(cat in done)) { print "report-fields: docs lack the fields of " cat > "/dev/stderr"; exit 1 }
    }'
}

if [ "${1-}" = --write-docs ]; then
  new=$(make_docs < "$docs") || exit 1
  printf '%s\n' "$new" > "$docs"
  exit 0
fi

# 1. The docs.
made=$(make_docs < "$docs") || bad "docs/reports.md: field tables missing"
[ "$made" = "$(cat "$docs")" ] ||
  bad "docs/reports.md: field tables differ from the table (run scripts/report-fields.sh --write-docs):
$(diff <(cat "$docs") <(printf '%s\n' "$made") | head -n 20)"

# 2. The daemon's categories, each once, against the table's.
daemon_cats=$(grep -o 'X(WD_CAT_[A-Z0-9_]*, *"[a-z0-9]*")' "$daemon" 2> /dev/null |
  grep -o '"[a-z0-9]*"' | tr -d '"' | sort -u)
[ -n "$daemon_cats" ] || bad "no category table in $daemon"
[ "$daemon_cats" = "$(rows | cut -f 1 | sort -u)" ] ||
  bad "categories differ from the daemon's: $(diff <(echo "$daemon_cats") <(rows | cut -f 1 | sort -u) | grep '^[<>]' | tr '\n' ' ')"

# 3. The collector's parser: per category, the fields its pattern names in
# order ("-" an unnamed field) with their shape, and the JSON object's fields
# with their JSON type. The table says what both must be.
want_conf() {
  rows | awk -F '\t' '
    $3 == "unused" { next }
    { shape = $3 == "int" || $3 == "zero" ? "int" : $3 == "decimal" ? "num" : "str"
      json = $3 == "int" ? "int64" : $3 == "decimal" ? "double" : "string"
      pat[$1] = pat[$1] " " $2 ":" shape
      if ($2 != "-") obj[$1] = obj[$1] " " $2 ":" json
      if (!($1 in seen)) { seen[$1] = 1; order[++n] = $1 } }
    END { for (i = 1; i <= n; i++) print order[i] " pattern" pat[order[i]] "\n" order[i] " object" obj[order[i]] }'
}
got_conf() {
  awk '
    function flush() {
      if (cat == "") return
      print cat " pattern" pat "\n" cat " object" obj
      cat = pat = obj = ""
    }
    /"\$\{\.wd\.category\}" eq "[a-z0-9]+" and match/ {
      flush()
      cat = $0; sub(/.*"\$\{\.wd\.category\}" eq "/, "", cat); sub(/".*/, "", cat)
      inmatch = 1
    }
    /^  } else \{/ { flush() }
    cat != "" && inmatch {
      s = $0
      # Named groups, and bare shapes (a field without a name).
      while (match(s, /\(\?<[A-Za-z0-9_]+>(`wd_[a-z]+`)?|`wd_[a-z]+`/)) {
        t = substr(s, RSTART, RLENGTH); s = substr(s, RSTART + RLENGTH)
        if (t ~ /^\(/) {
          name = t; sub(/^\(\?</, "", name); sub(/>.*/, "", name)
          shape = t; if (shape ~ /`/) { sub(/.*`wd_/, "", shape); sub(/`/, "", shape) } else shape = "own"
          pat = pat " " name ":" shape
        } else { shape = t; gsub(/`|wd_/, "", shape); pat = pat " -:" shape }
      }
      if ($0 ~ /value\("\.wd\.fields"\)/) inmatch = 0
      next
    }
    cat != "" {
      s = $0
      while (match(s, /[A-Za-z0-9_]+=(int64|double)?\(?\$\{[A-Za-z0-9_.]+\}/)) {
        t = substr(s, RSTART, RLENGTH); s = substr(s, RSTART + RLENGTH)
        name = t; sub(/=.*/, "", name)
        if (name == "time") continue
        type = t ~ /=int64\(/ ? "int64" : t ~ /=double\(/ ? "double" : "string"
        obj = obj " " name ":" type
      }
    }
    END { flush() }' "$conf"
}
# The shell report has patterns of its own (the command ends at the first
# "|N| "); they stand for the shapes of the table.
conf_diff=$(diff <(want_conf | sort) <(got_conf | sort | sed -e '/^shell pattern/ s/command:own/command:str/' \
  -e '/^shell pattern/ s/line:own/line:int/' -e '/^shell pattern/ s/output:own/output:str/' | sort))
[ -z "$conf_diff" ] || bad "collector/watchdogd.conf differs from the table (< table, > parser):
$conf_diff"

# 4. The live view: one line per category, each field a value of its own;
# the view must show each named field as name=value, the value with its
# unit (a time as HH:MM:SS UTC), a zero field not at all.
t0=1795000000
clock0=$(awk -v t=$t0 'BEGIN { t %= 86400; printf "%02d:%02d:%02d", int(t / 3600), int(t % 3600 / 60), t % 60 }')
lines=$(rows | awk -F '\t' -v t0=$t0 '
  $3 == "unused" { next }
  { n = ++count[$1]
    v = $3 == "zero" ? "0" : $3 == "int" ? 100 + n : $3 == "decimal" ? n ".5" : "t" n
    if ($4 == "s since 1970") v = t0 + 3600 * n
    f[$1] = f[$1] (n > 1 ? ($1 == "shell" && n == 3 ? "| " : "|") : "") v
    want[$1] = want[$1] ($3 == "zero" ? "" : "  " $2 "=" ($4 == "s since 1970" ? "CLOCK" v : v ($4 ~ /^(%|s)$/ ? $4 : "")))
    if (!($1 in seen)) { seen[$1] = 1; order[++k] = $1 } }
  END { for (i = 1; i <= k; i++) print order[i] "\t" (order[i] == "voipstat" ? "" : t0 "|") f[order[i]] "\t" want[order[i]] }')
while IFS=$'\t' read -r cat text want; do
  want=$(echo "$want" | awk '{ while (match($0, /CLOCK[0-9]+/)) { t = substr($0, RSTART + 5, RLENGTH - 5) % 86400
    $0 = substr($0, 1, RSTART - 1) sprintf("%02d:%02d:%02d", int(t / 3600), int(t % 3600 / 60), t % 60) substr($0, RSTART + RLENGTH) } print }')
  got=$(echo "$t0 my.app.wd.$cat.0a1b2c3d4e5f: $text" | awk -f "$view")
  # What the view shows besides the fields: the time received, the
  # category, the report's own time and the identity.
  got=$(printf '%s' "$got" | sed -e "s/^$clock0  $cat */  /" -e "s/^  time=$clock0//" \
    -e 's/  id=0a1b2c3d4e5f$//')
  [ "$got" = "$want" ] || bad "gateway/report-view, $cat:
  table: $want
  view:  $got"
done <<< "$lines"

exit $failed
