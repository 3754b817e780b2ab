#!/bin/bash
# collector.sh CONF FIELDS, inside a gateway (gw-run --net --collector --services):
# the operator's collector configuration CONF takes the simulated collector's
# place on 127.0.0.1:1514, the daemon runs with every module, and every
# category is made to report. Each JSON object must be, field by field and
# with numbers as numbers, a line that the gateway's syslog-ng forwarded (its
# journal); a line that is no report must go to unparsed.log.
set -u
out=/srv/wd-collector
fail() { echo "collector.sh: $*" >&2; exit 1; }

old=$(cat /srv/collector/pid) syslog=$(cat /var/run/syslog-ng.pid)
/gw/sim/collector stop
kill "$syslog"
/gw/sim/await --until sh -c "! kill -0 $old && ! kill -0 $syslog" 2> /dev/null || fail "no stop"
mkdir -p $out
sed -e 's|^@define wd_listen_ip .*|@define wd_listen_ip "127.0.0.1"|' \
    -e 's|^@define wd_port .*|@define wd_port "1514"|' \
    -e "s|^@define wd_dir .*|@define wd_dir \"$out\"|" "$1" > $out/watchdogd.conf
printf '@version: 3.38\n@include "%s"\n' $out/watchdogd.conf > $out/main.conf
env -u LD_PRELOAD -u FAKETIME /gw/libexec/syslog-ng -f $out/main.conf --pidfile=$out/pid \
  --persist-file=$out/persist --control=$out/ctl --process-mode=background || fail "no start"
/gw/sim/await --until sh -c 'busybox netstat -ltn | grep -q "127.0.0.1:1514 "' || fail "not listening"
/gw/sim/syslog-start --again || fail "no gateway syslog-ng"
(. /gw/sim/gateway-up) > /dev/null

json=$out/reports.json
arrived() {  # arrived CATEGORY [TEXT]
  /gw/sim/await $json 0 "\"category\":\"$1\"" "${2-}" > /dev/null || fail "no $1 object"
}
# A command whose output has a blank line, quotes, a backslash and a bar.
printf '  say "hi" \\ a|b\n\nend\n' > /tmp/shell-out
tcapi set Watchdog_Common ShellCommand "cat /tmp/shell-out"
wdctl config general > /dev/null
ip route add 198.18.0.7 dev br0            # the route monitor reports the table
kill -9 "$(pidof udhcpd)"                  # the process monitor's next check
voiceApp ctl register 1 > /dev/null        # SIP registration failures
/gw/sim/await /var/log/tr69 0 "set acs" > /dev/null || fail "tr69 never registered"
acsSim mode silent > /dev/null             # Informs unanswered: the client restarted
for c in infgen infprc infcnx infcnt arp voipstat shell route ps voipreg tr069; do arrived $c; done
voiceApp ctl register 0 > /dev/null
acsSim mode answer > /dev/null
/gw/sim/wan-link cut                        # the PPPoE checks fail
arrived ppp PPP_DOWN_RESET
/gw/sim/wan-link restore
arrived tr069 CEASE_
echo 'my.app.wd.ppp.0a1b2c3d4e5f: 1795000000|too|few' > /dev/tcp/127.0.0.1/1514
/gw/sim/await $out/unparsed.log 0 "1795000000|too|few" > /dev/null || fail "bad line not kept"
/gw/sim/await $out/unparsed.log 0 "syslog-ng starting up" > /dev/null || fail "no own line"
[ "$(grep -c 'my\.app\.wd\.' $out/unparsed.log)" = 1 ] || fail "report lines unparsed"

# Every object against the journal's lines, split by each category's fields
# in order as the field table FIELDS lists them (":" marks a number, "-" a
# field the object leaves out).
jq -n --rawfile journal /var/log/wd-journal --slurpfile got $json --rawfile table "$2" '
  (reduce ($table | split("\n")[] | select(test("^[^#]")) | split("\t")
           | select(.[2] != "unused")) as $r
     ({}; .[$r[0]] += [if $r[2] == "zero" then "-" elif $r[2] == "text" then $r[1] else $r[1] + ":" end]))
  as $names
  | def expect: capture("^[01]#my\\.app\\.wd\\.(?<c>[a-z0-9]+)\\.(?<mac>[0-9a-f]*): (?<t>.*)#[0-9]+$")
      | . as $m | $names[$m.c] as $n
      | (if $m.c == "voipstat" then {text: $m.t} else $m.t | capture("^(?<time>-?[0-9]+)\\|(?<text>.*)$") end) as $r
      | (if $m.c == "shell" then $r.text | capture("^(?<a>.+?)\\|(?<b>[0-9]+)\\| (?<c>.*)$") | [.a, .b, .c]
         else $r.text / "|" end) as $v
      | if ($v | length) != ($n | length) then error("fields: \(.)") else . end
      | reduce range($n | length) as $i ({mac: $m.mac, category: $m.c, time: ($r.time // "0" | tonumber)};
          if $n[$i] == "-" then . elif $n[$i] | endswith(":") then .[$n[$i] | rtrimstr(":")] = ($v[$i] | tonumber)
          else .[$n[$i]] = $v[$i] end)
      | if $m.c == "voipstat" then .time = .end else . end;
  ($journal | split("\n") | map(select(length > 0) | expect)) as $want
  | ($got | map(select((.received | type) != "number" or (del(.received) as $o | any($want[]; . == $o) | not))))
  | if length == 0 then "\($got | length) objects, each a forwarded line" else error("not forwarded: \(.)") end
' || fail "objects that are no forwarded line"
grep -q '"output":"say \\"hi\\" \\\\ a|b"' $json && grep -q '"line":2,' $json || fail "shell output"
